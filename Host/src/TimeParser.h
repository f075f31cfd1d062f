#pragma once

#include "TimeText.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace Host
{
/// The forms that `parseTime` reads, as people who mistyped one are shown them.
inline constexpr const char* timeForms = "2026-11-20T14:00:00Z, 2026-11-20, 1795183200, now or -2d";

/// The moment that a user names, in UTC milliseconds since the Unix epoch; nothing when it is none, or lies before the
/// epoch or behind the year 9999.
///
/// - ISO 8601: "2026-11-20T14:00:00Z", also with a blank for the T, without the seconds, with parts of a second (beyond
///   the millisecond cut off), with an offset such as +01:00. Without a zone it is UTC; a date alone is its midnight.
/// - Unix seconds: "1795183200". Nine to twelve digits, so that neither "20261120" nor milliseconds are taken for them.
/// - Relative to `now`, whose parts of a second nobody means: "now", "-90s", "-30m", "-3h", "-2d".
std::optional<std::uint64_t> parseTime(std::string_view text, Moment now);
}  // namespace Host

#pragma once

#include <cstdint>
#include <string>

namespace Uniview
{
// Times given in UTC milliseconds since 1970, as text in whole seconds; parts of a second are cut off. The year 9999 is
// the last that both forms can name, later times are written as its end.

/// For people: "2017-04-26T02:10:45Z".
std::string utcText(std::uint64_t timeMs);

/// As RTSP names times (RFC 2326 section 3.7): "20170426T021045Z".
std::string clockText(std::uint64_t timeMs);
}  // namespace Uniview

#pragma once

#include <Tavro8/ParameterMap.h>
#include <cstdint>
#include <json/forwards.h>
#include <optional>
#include <string_view>

/// Reads the "AlarmInfo" of a notification. Devices send it in any shape: nothing here throws for what stands in it,
/// and what is not as it should be gives nothing.
namespace Uniview::events
{
/// A member; null when `info` is no object or has none of that name. A member that is null in the JSON is there.
const Json::Value* findMember(const Json::Value& info, const char* key);

/// The value as text. Points into `value`; empty-handed for a null pointer and for what is no text.
std::optional<std::string_view> readText(const Json::Value* value);

/// The value as the number of a source: a whole number of 32 bits without sign.
std::optional<std::uint32_t> readNumber(const Json::Value* value);

/// The value as a time, in UTC milliseconds. Devices send Unix seconds, as a number (perhaps with a fraction) or as a
/// text of digits; what would be later than the year 5000 is taken for milliseconds.
std::optional<std::int64_t> readTimeMs(const Json::Value* value);

/// The members that are texts, numbers and flags, as a host reads parameters. Names and texts become UTF-8 (U+FFFD for
/// bytes that are none); an integer beyond an `int` becomes a fraction. Objects, arrays and nulls are left out.
Tavro8::ParameterMap readFields(const Json::Value& info);
}  // namespace Uniview::events

#pragma once

#include <cstdint>
#include <string>

namespace Uniview
{
/// A time in UTC milliseconds since 1970 as a person reads it, in whole seconds: "2017-04-26T02:10:45Z". Parts of a
/// second are cut off; what lies behind the year 9999 is written as its end.
std::string utcText(std::uint64_t timeMs);
}  // namespace Uniview

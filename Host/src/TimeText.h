#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Host
{
/// A moment in UTC. The system clock's own time points end in the year 2262.
using Moment = std::chrono::sys_time<std::chrono::milliseconds>;

Moment presentMoment();

/// Time of day in UTC, "23:59:07.042".
std::string clockText(Moment time);

/// Date and time in UTC, "2017-03-09T06:28:14.042Z" (ISO 8601).
std::string isoText(Moment time);

/// The same of UTC milliseconds since the Unix epoch; parts of a second only where there are some.
std::string momentText(std::uint64_t timestampMs);

/// A length of time: "07:03", from one hour on "1:07:03". Parts of a second are cut off; below 0 counts as 0.
std::string durationText(std::chrono::duration<double> duration);

/// "3.25" with the given number of decimals, whatever the locale.
std::string decimalText(double value, int decimals);

/// "1 frame", "2 frames".
std::string countText(std::uint64_t count, const char* what);

/// "640 bit/s", "4.1 kbit/s", "12.0 Mbit/s".
std::string bitRateText(double bitsPerSecond);

/// "640 bytes", "4.1 KiB", "12.0 MiB".
std::string sizeText(double bytes);
}  // namespace Host

#pragma once

#include "media/RtpTime.h"

#include <cstdint>
#include <optional>

namespace Tavro8::media
{
/// UTC microseconds of a sender report; nothing when the sender knows no wall clock: NTP timestamp 0, the time since it
/// started, which RFC 3550 section 6.4.1 tells by a clear highest bit, or a time before 1971, where a clock stands that
/// was never set. `nearUs` is a time not far from what is meant: near 2036, when NTP time begins anew, a clear highest
/// bit is right.
inline std::optional<std::int64_t> senderTimeUs(const SenderReport& report, std::int64_t nearUs) noexcept
{
    constexpr std::int64_t microsecondsPerSecond = 1'000'000;
    constexpr std::int64_t dayUs = 24 * 3600 * microsecondsPerSecond;
    constexpr std::int64_t secondsFrom1900To1970 = 2'208'988'800;
    constexpr std::int64_t secondsPerNtpEra = std::int64_t{1} << 32;
    constexpr std::int64_t firstEraEndUs = (secondsPerNtpEra - secondsFrom1900To1970) * microsecondsPerSecond;
    constexpr std::int64_t earliestSetClockUs = 365 * dayUs;

    const bool highestBit = (report.ntpTimestamp >> 63) != 0;
    const bool secondEra = !highestBit && nearUs > firstEraEndUs - dayUs;
    if (report.ntpTimestamp == 0 || (!highestBit && !secondEra))
        return {};
    const auto seconds = static_cast<std::int64_t>(report.ntpTimestamp >> 32) + (secondEra ? secondsPerNtpEra : 0) -
                         secondsFrom1900To1970;
    const auto fractionUs = static_cast<std::int64_t>(((report.ntpTimestamp & 0xffffffffU) * 1'000'000U) >> 32);
    const std::int64_t utcUs = seconds * microsecondsPerSecond + fractionUs;
    return utcUs < earliestSetClockUs ? std::nullopt : std::optional(utcUs);
}
}  // namespace Tavro8::media

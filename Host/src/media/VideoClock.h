#pragma once

#include <algorithm>
#include <cstdint>

namespace Host
{
/// Times of pictures in milliseconds since the beginning of a file, each later than the one before.
///
/// As long as a device sends no sender reports, timestamps carry the network's jitter, while the time between
/// two pictures comes from the encoder and is exact but for its rounding. So the clock goes on by the latter
/// and is only drawn towards the former, except where the timestamps run far ahead: there pictures are missing.
class VideoClock {
public:
    /// The time of a picture whose timestamp is `statedMs` after the beginning of the file and which comes
    /// `durationMs` after the one before (0: unknown).
    std::int64_t advance(std::int64_t statedMs, std::int64_t durationMs) noexcept
    {
        constexpr std::int64_t toleranceMs = 200;
        constexpr std::int64_t pull = 8;  // takes out jitter, and still follows a drift of 1 ms a picture
        const std::int64_t expectedMs = lastMs + durationMs;
        const std::int64_t deviationMs = statedMs - expectedMs;
        const bool trusted = lastMs >= 0 && durationMs > 0 && deviationMs <= toleranceMs;
        lastMs = std::max(trusted ? expectedMs + deviationMs / pull : statedMs, lastMs + 1);
        return lastMs;
    }

private:
    std::int64_t lastMs = -1;
};
}  // namespace Host

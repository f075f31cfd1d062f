#pragma once

#include <algorithm>
#include <cstdint>

namespace Host
{
/// Times of pictures in milliseconds since the beginning of a file, each later than the one before.
///
/// The time between two pictures comes from the encoder and is exact but for its rounding; the timestamps carry the
/// network's jitter until the first sender report, and are corrected when it arrives. So the clock goes on by the
/// former and leaves the latter alone as long as they stay near: players complain about pictures that come too close
/// to each other. Further away it follows slowly, later backwards than forwards, as the sound does, which never goes
/// back. Where the timestamps run far ahead pictures are missing.
class VideoClock {
public:
    /// The time of a picture whose timestamp is `statedMs` after the beginning of the file and which comes
    /// `durationMs` after the one before (0: unknown).
    std::int64_t advance(std::int64_t statedMs, std::int64_t durationMs) noexcept
    {
        constexpr std::int64_t aheadMs = 100;
        constexpr std::int64_t behindMs = 1000;
        constexpr std::int64_t farAheadMs = 300;
        constexpr std::int64_t stepMs = 1;  // a picture; more than rounding can add up to
        const std::int64_t expectedMs = lastMs + durationMs;
        const std::int64_t deviationMs = statedMs - expectedMs;
        const bool trusted = lastMs >= 0 && durationMs > 0 && deviationMs <= farAheadMs;
        const std::int64_t correctionMs = deviationMs > aheadMs ? stepMs : (deviationMs < -behindMs ? -stepMs : 0);
        lastMs = std::max(trusted ? expectedMs + correctionMs : statedMs, lastMs + 1);
        return lastMs;
    }

private:
    std::int64_t lastMs = -1;
};
}  // namespace Host

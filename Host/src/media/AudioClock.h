#pragma once

#include <cstdint>

namespace Host
{
/// Times of pieces of sound in samples since the beginning of a file.
///
/// Counts samples, since they are what is exact: the timestamps are cut to milliseconds and, without sender
/// reports, carry the network's jitter. Only where they run ahead by more than jitter can explain has sound
/// been lost; the clock then jumps. It never goes back.
class AudioClock {
public:
    explicit AudioClock(std::uint32_t samplesPerSecond) : rate(samplesPerSecond) {}

    /// The time of a piece of `count` samples whose timestamp is `timeMs` after the beginning of the file.
    std::int64_t advance(std::int64_t timeMs, std::int64_t count) noexcept
    {
        constexpr std::int64_t toleranceMs = 200;
        const std::int64_t stated = timeMs * rate / 1000;
        if (!started || stated > next + toleranceMs * rate / 1000)
            next = started || stated > 0 ? stated : 0;
        started = true;
        const std::int64_t begin = next;
        next += count;
        return begin;
    }

private:
    std::int64_t rate;
    std::int64_t next = 0;
    bool started = false;
};
}  // namespace Host

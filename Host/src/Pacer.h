#pragma once

#include <chrono>
#include <cstdint>

namespace Host
{
/// Says when each of many equal pieces is due, so that they flow as fast as they play.
///
/// Each moment is counted from the first one, so that what a wait takes too long never adds up. Who falls behind by
/// more than what a receiver has in store, because the machine slept or a disk was slow, has made a pause already: the
/// pieces go on from there at their pace, instead of all at once.
class Pacer {
public:
    using Clock = std::chrono::steady_clock;

    explicit Pacer(Clock::duration lengthOfPiece) : length(lengthOfPiece) {}

    /// When the next piece is due; in the past for one that is late.
    Clock::time_point next(Clock::time_point now) noexcept
    {
        constexpr Clock::duration patience = std::chrono::milliseconds(200);
        if (count == 0)
            origin = now;
        Clock::time_point due = origin + count * length;
        if (now - due > patience) {
            origin += now - due;
            due = now;
        }
        ++count;
        return due;
    }

private:
    const Clock::duration length;
    Clock::time_point origin;
    std::int64_t count = 0;
};
}  // namespace Host

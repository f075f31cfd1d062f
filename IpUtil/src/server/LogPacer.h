#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

namespace Tavro8::server
{
/// Folds what strangers may make happen a thousand times a second: the first is told at once, those that follow are
/// counted and told together, once in a while.
class LogPacer {
public:
    using Clock = std::chrono::steady_clock;

    explicit LogPacer(Clock::duration pause) noexcept : pause(pause) {}

    /// It has happened once more. Nothing when it is not to be told now; otherwise how often it has happened since it
    /// was last told, this time included.
    std::optional<std::uint64_t> count(Clock::time_point now) noexcept
    {
        ++untold;
        if (told && now - *told < pause)
            return std::nullopt;
        told = now;
        return std::exchange(untold, std::uint64_t{0});
    }

    /// When what was counted and not told is to be told, should nothing more happen; nothing when all has been told.
    std::optional<Clock::time_point> restDue() const noexcept
    {
        return untold != 0 && told ? std::optional(*told + pause) : std::nullopt;
    }

    /// How often it has happened since it was last told; told now.
    std::uint64_t takeRest(Clock::time_point now) noexcept
    {
        told = now;
        return std::exchange(untold, std::uint64_t{0});
    }

private:
    Clock::duration pause;
    std::optional<Clock::time_point> told;
    std::uint64_t untold = 0;
};
}  // namespace Tavro8::server

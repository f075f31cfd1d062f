#include "GapCutter.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace Host
{
using Tavro8::GDRV::DateTimeRange;
using Tavro8::GDRV::FrameReference;
using Tavro8::GDRV::MediaFrame;
namespace
{
constexpr std::int64_t shortestGapMs = 2000;
}

void GapCutter::cut(const DateTimeRange& gap) noexcept
{
    cutBeforeMs += lastEndMs - lastBeginMs;
    lastBeginMs = static_cast<std::int64_t>(gap.begin);
    lastEndMs = std::max(static_cast<std::int64_t>(gap.end), lastBeginMs);
    fresh = true;
    reach(lastEndMs);
}

void GapCutter::take(const MediaFrame& frame) noexcept
{
    if (!isVideo(frame.codec)) {
        if (held.empty() && !isUndecided(frame))
            pass(frame);
        else
            hold(frame);
        return;
    }
    if (frame.timestampMs + shortestGapMs < lastEndMs)
        takeBack(frame.timestampMs);
    MediaFrame picture = frame;
    // The time since the picture before may hold the gap.
    if (std::exchange(fresh, false))
        picture.durationMs = 0;
    pass(picture);
    reach(frame.timestampMs);
}

/// A picture from within the last gap: the time behind it was wrong, and nothing is cut out any more. The few pictures
/// with that time stay where they are.
void GapCutter::takeBack(std::int64_t timestampMs) noexcept
{
    lastEndMs = lastBeginMs;
    reachedMs = timestampMs;
}

bool GapCutter::isUndecided(const MediaFrame& sound) const noexcept
{
    const auto leapsFrom = [&](const std::optional<std::int64_t>& timeMs) {
        return !timeMs || sound.timestampMs > *timeMs + shortestGapMs;
    };
    return reachedMs && leapsFrom(reachedMs) && leapsFrom(soundEndMs);
}

void GapCutter::hold(const MediaFrame& sound) noexcept
try {
    if (held.size() < mostHeld)
        held.emplace_back(sound);
    else
        ++leftOut;
} catch (const std::exception&) {  // out of memory
    ++leftOut;
}

void GapCutter::reach(std::int64_t timestampMs) noexcept
{
    reachedMs = std::max(reachedMs.value_or(timestampMs), timestampMs);
    release();
}

void GapCutter::release() noexcept
{
    while (!held.empty() && !isUndecided(*held.front())) {
        const FrameReference sound = std::move(held.front());
        held.pop_front();
        pass(*sound);
    }
}

void GapCutter::pass(const MediaFrame& frame) noexcept
{
    if (!isVideo(frame.codec))
        soundEndMs = frame.timestampMs + frame.durationMs;
    MediaFrame placed = frame;
    placed.timestampMs = placeOf(frame.timestampMs);
    sink(placed);
}

std::int64_t GapCutter::placeOf(std::int64_t timestampMs) const noexcept
{
    const std::int64_t lastMs = lastEndMs - lastBeginMs;
    const std::int64_t joined = timestampMs >= lastEndMs ? timestampMs - lastMs : std::min(timestampMs, lastBeginMs);
    return joined - cutBeforeMs;
}
}  // namespace Host

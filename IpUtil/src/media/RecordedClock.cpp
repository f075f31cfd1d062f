#include "media/RecordedClock.h"

#include "media/SenderTime.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Tavro8::media
{
namespace
{
// Reports nearer to each other say little about the speed.
constexpr std::int64_t shortestComparisonMs = 200;
constexpr double comparisonTolerance = 0.2;

// RTP timestamps compare by signed difference: the pair follows long before that turns around.
constexpr std::int32_t farTicks = std::int32_t{1} << 30;

bool isNear(double value, double expected) noexcept
{
    return std::abs(value - expected) <= comparisonTolerance * expected;
}
}  // namespace

RecordedClock::RecordedClock(std::uint32_t rate, const Start& start) noexcept
    : clockRate(rate == 0 ? 90000 : rate), startMs(start.timeMs), scale(start.scale)
{
    correct(start);
}

void RecordedClock::correct(const Start& start) noexcept
{
    if (reported || floorMs != std::numeric_limits<std::int64_t>::min())
        return;
    startMs = start.timeMs;
    scale = start.scale;
    if (start.rtpTimestamp)
        pair = Pair{*start.rtpTimestamp, startMs, speed};
}

void RecordedClock::changeScale(double newScale) noexcept
{
    scale = newScale;
    if (speed == 1)
        return;  // as far as is known RTP time is that of the recording, whatever the speed
    speed = newScale;
    if (pair)
        before = std::exchange(pair, Pair{lastStamped, timeOf(*pair, lastStamped), speed});
}

void RecordedClock::onSenderReport(const SenderReport& report) noexcept
{
    const auto utcUs = senderTimeUs(report, startMs * 1000);
    if (!utcUs)
        return;
    Pair now{report.rtpTimestamp, (*utcUs + 500) / 1000, speed};
    if (pair)
        learnSpeed(*pair, now);
    now.speed = speed;
    reported = true;
    before = std::exchange(pair, now);
}

void RecordedClock::learnSpeed(const Pair& last, const Pair& now) noexcept
{
    const auto ticks = static_cast<std::int32_t>(now.rtpTimestamp - last.rtpTimestamp);
    const std::int64_t rtpMs = std::int64_t{ticks} * 1000 / clockRate;
    if (scale == 1 || rtpMs < shortestComparisonMs)
        return;
    const double ratio = static_cast<double>(now.timeMs - last.timeMs) / static_cast<double>(rtpMs);
    if (isNear(ratio, scale))
        speed = scale;
    else if (isNear(ratio, 1))
        speed = 1;
}

std::int64_t RecordedClock::timeOf(const Pair& from, std::uint32_t rtpTimestamp) const noexcept
{
    const auto ticks = static_cast<std::int32_t>(rtpTimestamp - from.rtpTimestamp);
    const double rtpMs = static_cast<double>(ticks) * 1000 / clockRate;
    return from.timeMs + std::llround(rtpMs * from.speed);
}

std::int64_t RecordedClock::stamp(std::uint32_t rtpTimestamp) noexcept
{
    if (!pair)
        pair = Pair{rtpTimestamp, startMs, speed};
    lastStamped = rtpTimestamp;
    const auto ticks = static_cast<std::int32_t>(rtpTimestamp - pair->rtpTimestamp);
    const std::int64_t timeMs = timeOf(ticks < 0 && before ? *before : *pair, rtpTimestamp);
    if (ticks > farTicks)
        pair = Pair{rtpTimestamp, timeMs, pair->speed};
    floorMs = std::max(floorMs, timeMs);
    return floorMs;
}
}  // namespace Tavro8::media

#include "media/MediaClock.h"

#include "media/SenderTime.h"

#include <algorithm>
#include <limits>

namespace Tavro8::media
{
namespace
{
constexpr std::int64_t microsecondsPerSecond = 1'000'000;
constexpr std::int64_t gradualCorrectionUs = microsecondsPerSecond;
constexpr std::int64_t maxSenderLagUs = 10 * microsecondsPerSecond;
constexpr std::int64_t maxSenderErrorUs = 24 * 3600 * microsecondsPerSecond;
constexpr std::chrono::seconds delayWindow{5};
// Devices send reports every few seconds (RFC 3550 section 6.2), seldom ones each minute or two. After so long without
// one, the last says little: at a usual drift of 1/10000 it is off by 30 ms.
constexpr std::chrono::minutes reportsEndAfter{5};

// Between two packets, media time and real time may differ that much before the timestamps count as new ones.
constexpr std::int64_t maxTimestampJumpUs = 10 * microsecondsPerSecond;

std::int64_t toUs(std::chrono::system_clock::time_point utc) noexcept
{
    return std::chrono::duration_cast<std::chrono::microseconds>(utc.time_since_epoch()).count();
}
}  // namespace

MediaClock::MediaClock(std::uint32_t rate) noexcept : clockRate(rate == 0 ? 90000 : rate) {}

void MediaClock::onNewTimestamp(std::uint32_t rtpTimestamp, const ArrivalTime& arrival) noexcept
{
    if (!anchored) {
        anchor(rtpTimestamp, arrival);
        return;
    }
    const std::int64_t ticks = extend(rtpTimestamp);
    const std::int64_t mediaUs = mediaTimeUs(ticks);
    const std::int64_t elapsedUs = mediaUs - mediaTimeUs(lastTicks);
    const auto realUs =
        std::chrono::duration_cast<std::chrono::microseconds>(arrival.monotonic - lastArrival.monotonic).count();
    if (elapsedUs - realUs > maxTimestampJumpUs || realUs - elapsedUs > maxTimestampJumpUs) {
        anchor(rtpTimestamp, arrival);
        return;
    }
    if (senderClockUsed && arrival.monotonic - lastReportAt > reportsEndAfter)
        goByArrival(presentSkewUs());
    lastTimestamp = rtpTimestamp;
    lastTicks = ticks;
    lastArrival = arrival;
    if (!senderClockUsed)
        followArrival(mediaUs, arrival);
    approachTarget(elapsedUs);
}

void MediaClock::anchor(std::uint32_t rtpTimestamp, const ArrivalTime& arrival) noexcept
{
    skewUs = presentSkewUs();
    anchored = true;
    senderClockUsed = false;
    stampedSinceAnchor = false;
    lastTimestamp = rtpTimestamp;
    lastTicks = 0;
    lastArrival = arrival;
    targetUs = toUs(arrival.utc) + skewUs;
    offsetUs = targetUs;
    // Not before the floor: the results would stand still until the arrival times have caught up.
    if (offsetUs / 1000 < floorMs)
        offsetUs = floorMs * 1000;
    windowBegin = arrival.monotonic;
    leastDelayUs = std::numeric_limits<std::int64_t>::max();
}

/// Without sender reports: the least delayed packet tells best when frames were captured.
void MediaClock::followArrival(std::int64_t mediaUs, const ArrivalTime& arrival) noexcept
{
    const std::int64_t delayUs = toUs(arrival.utc) + skewUs - mediaUs - targetUs;
    leastDelayUs = std::min(leastDelayUs, delayUs);
    if (delayUs >= 0 && arrival.monotonic - windowBegin < delayWindow)
        return;
    aimAt(targetUs + leastDelayUs);
    windowBegin = arrival.monotonic;
    leastDelayUs = std::numeric_limits<std::int64_t>::max();
}

void MediaClock::onSenderReport(const SenderReport& report) noexcept
{
    const auto utcUs = anchored ? senderTimeUs(report, toUs(lastArrival.utc)) : std::nullopt;
    if (!utcUs)
        return;
    const std::int64_t senderTargetUs = *utcUs - mediaTimeUs(extend(report.rtpTimestamp));
    if (isBelievable(senderTargetUs)) {
        aimAt(senderTargetUs);
        senderClockUsed = true;
        lastReportAt = lastArrival.monotonic;
    } else {
        goByArrival(0);
    }
}

bool MediaClock::isBelievable(std::int64_t senderTargetUs) const noexcept
{
    const std::int64_t leadUs = mediaTimeUs(lastTicks) + senderTargetUs - toUs(lastArrival.utc);
    if (leadUs > maxSenderErrorUs || leadUs < -maxSenderErrorUs)
        return false;
    return takesEffectUnseen(senderTargetUs) || senderTargetUs - targetUs >= -maxSenderLagUs;
}

/// The mapping of the least delayed packets, as it is from the first packet on.
void MediaClock::goByArrival(std::int64_t newSkewUs) noexcept
{
    if (!senderClockUsed && skewUs == newSkewUs)
        return;
    senderClockUsed = false;
    skewUs = newSkewUs;
    aimAt(toUs(lastArrival.utc) + skewUs - mediaTimeUs(lastTicks));
    windowBegin = lastArrival.monotonic;
    leastDelayUs = std::numeric_limits<std::int64_t>::max();
}

/// Nothing was stamped by the present mapping, and nothing before it was later than what this one would give.
bool MediaClock::takesEffectUnseen(std::int64_t newTargetUs) const noexcept
{
    return !stampedSinceAnchor && (mediaTimeUs(lastTicks) + newTargetUs) / 1000 >= floorMs;
}

void MediaClock::aimAt(std::int64_t newTargetUs) noexcept
{
    if (takesEffectUnseen(newTargetUs) || newTargetUs - offsetUs > gradualCorrectionUs)
        offsetUs = newTargetUs;
    targetUs = newTargetUs;
}

void MediaClock::approachTarget(std::int64_t elapsedUs) noexcept
{
    const std::int64_t gapUs = targetUs - offsetUs;
    if (gapUs == 0 || elapsedUs <= 0)
        return;
    const std::int64_t stepUs = elapsedUs / (gapUs < -gradualCorrectionUs ? 2 : 10);
    offsetUs += std::clamp(gapUs, -stepUs, stepUs);
}

std::int64_t MediaClock::stamp(std::uint32_t rtpTimestamp) noexcept
{
    if (!anchored)
        return std::max<std::int64_t>(floorMs, 0);
    stampedSinceAnchor = true;
    floorMs = std::max(floorMs, (mediaTimeUs(extend(rtpTimestamp)) + offsetUs) / 1000);
    return floorMs;
}

void MediaClock::reset() noexcept
{
    skewUs = presentSkewUs();
    anchored = false;
    senderClockUsed = false;
}

void MediaClock::resume(const Carry& previous) noexcept
{
    floorMs = std::max(floorMs, previous.floorMs);
    skewUs = previous.skewUs;
}

std::int64_t MediaClock::presentSkewUs() const noexcept
{
    if (!anchored || !senderClockUsed)
        return skewUs;
    return mediaTimeUs(lastTicks) + targetUs - toUs(lastArrival.utc);
}

std::uint32_t MediaClock::ticksToMs(std::uint32_t ticks) const noexcept
{
    return static_cast<std::uint32_t>((std::int64_t{ticks} * 1000 + clockRate / 2) / clockRate);
}

std::int64_t MediaClock::mediaTimeUs(std::int64_t ticks) const noexcept
{
    return ticks / clockRate * microsecondsPerSecond + ticks % clockRate * microsecondsPerSecond / clockRate;
}

/// The timestamp without wrap, by its signed distance to the last one.
std::int64_t MediaClock::extend(std::uint32_t rtpTimestamp) const noexcept
{
    return lastTicks + static_cast<std::int32_t>(rtpTimestamp - lastTimestamp);
}
}  // namespace Tavro8::media

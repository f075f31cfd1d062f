#include "media/RecordedClock.h"

#include "media/SenderTime.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Tavro8::media
{
namespace
{
// From 1970 to 9999, as device and recorder can write it.
constexpr std::int64_t earliestMs = 0;
constexpr std::int64_t latestMs = 253'402'300'799'999;

// A recorder begins with the key frame in front of the begin and may play its last file to the end; its clock may have
// been set since it made the list of recordings.
constexpr std::int64_t intervalMarginMs = 5 * 60'000;

// Reports nearer to each other say little about the speed.
constexpr std::int64_t shortestComparisonMs = 200;
constexpr double comparisonTolerance = 0.2;

// Further back than pictures in decoding order, and than a report that is ahead of its frames.
constexpr std::int64_t stepBackMs = 10'000;
constexpr std::int64_t smallStepBackMs = 1000;
// Two frames of one sequence are hardly further apart, key frames of a still picture included.
constexpr std::int64_t stepAheadMs = 60'000;
// A difference between a report and the frames in front of it that is no matter of drift.
constexpr std::int64_t leapMs = 10'000;
constexpr int leapConfirmations = 2;
// What the answer to a PLAY that goes on may be off from where it was paused: it names whole seconds, or the key frame
// that comes next.
constexpr std::int64_t pauseMarginMs = 2000;
// Where the next frame is guessed: 25 of them in a second.
constexpr std::int64_t usualFrameMs = 40;

// RTP timestamps compare by signed difference: the pair follows long before that turns around.
constexpr std::int32_t farTicks = std::int32_t{1} << 30;

bool isNear(double value, double expected) noexcept
{
    return std::abs(value - expected) <= comparisonTolerance * expected;
}

std::int64_t withinCalendar(std::int64_t timeMs) noexcept
{
    return std::clamp(timeMs, earliestMs, latestMs);
}
}  // namespace

RecordedClock::RecordedClock(std::uint32_t rate, const Start& start) noexcept : clockRate(rate == 0 ? 90000 : rate)
{
    correct(start);
}

bool RecordedClock::correct(const Start& start) noexcept
{
    const bool fits = !start.rtpTimestamp || !newest || continuesFrom(*start.rtpTimestamp, *newest);
    if (reported || stamped) {
        changeScale(start.scale);
        return fits;
    }
    if (!fits)
        return false;
    startMs = withinCalendar(start.timeMs);
    interval = {withinCalendar(start.interval.beginMs), withinCalendar(start.interval.endMs)};
    scale = start.scale;
    if (start.rtpTimestamp)
        pair = Pair{*start.rtpTimestamp, startMs, speed};
    else if (pair)
        pair->timeMs = startMs;
    return true;
}

void RecordedClock::changeScale(double newScale) noexcept
{
    if (scale == newScale)
        return;
    scale = newScale;
    speedVote.reset();
    lastReported.reset();
    if (speed == 1)
        return;  // as far as is known RTP time is that of the recording, whatever the speed
    speed = newScale;
    if (!pair)
        return;
    if (stamped)
        before = std::exchange(pair, Pair{highestStamped, timeOf(*pair, highestStamped), speed});
    else
        pair->speed = speed;
}

void RecordedClock::resume(const Continuation& said) noexcept
{
    changeScale(said.scale);
    if (!stamped && !reported) {
        const std::int64_t nextMs = withinCalendar(said.timeMs.value_or(startMs));
        if (!correct({nextMs, said.rtpTimestamp, said.scale, interval}))
            resumed = Pair{*said.rtpTimestamp, nextMs, speed};
        return;
    }
    const bool namesTime = said.timeMs && *said.timeMs > presentMs() && isOfInterval(*said.timeMs);
    const std::int64_t nextMs = namesTime ? *said.timeMs : timeOfNextFrame();
    resumed.reset();
    if (hasRunAhead(said)) {
        anchor(*said.rtpTimestamp, nextMs);
        resumed = pair;  // the first frame shows whether it was true
    } else if (said.rtpTimestamp) {
        resumed = Pair{*said.rtpTimestamp, nextMs, speed};
    } else if (namesTime && *said.timeMs - presentMs() > leapMs) {
        // It went on without us. Else it is where it was, and times in whole seconds say no more than is known.
        startMs = *said.timeMs;
        pair.reset();
        newest.reset();
    }
}

void RecordedClock::onFirstPacket(std::uint32_t rtpTimestamp) noexcept
{
    if (!beginsAt(rtpTimestamp))
        anchor(rtpTimestamp, startMs);
    else if (!newest)
        newest = rtpTimestamp;
}

void RecordedClock::onRestart(std::uint32_t rtpTimestamp) noexcept
{
    if (!continues(rtpTimestamp))
        beginRtpTime(rtpTimestamp);
}

bool RecordedClock::onSenderReport(const SenderReport& report) noexcept
{
    const auto utcUs = senderTimeUs(report, presentMs() * 1000);
    if (!utcUs)
        return true;
    Pair now{report.rtpTimestamp, withinCalendar((*utcUs + 500) / 1000), speed};
    if (!isOfInterval(now.timeMs))
        return false;
    learnSpeed(now);
    now.speed = speed;
    reported = true;
    before = std::exchange(pair, now);
    if (guessed)
        before.reset();
    guessed = false;
    if (stamped)
        reconcile();
    newest = now.rtpTimestamp;
    return true;
}

bool RecordedClock::agreesWith(const SenderReport& report) const noexcept
{
    const auto utcUs = senderTimeUs(report, presentMs() * 1000);
    if (!utcUs || !pair || !(stamped || reported))
        return false;
    return std::abs(timeOf(*pair, report.rtpTimestamp) - *utcUs / 1000) <= smallStepBackMs;
}

/// What the last report says against what frames have been told.
void RecordedClock::reconcile() noexcept
{
    const bool sameTime = std::abs(msBetween(highestStamped, pair->rtpTimestamp)) <= stepAheadMs;
    const std::int64_t saidMs = sameTime ? timeOf(*pair, highestStamped) : pair->timeMs;
    const std::int64_t behindMs = floorMs - saidMs;
    if (leap && behindMs > leapMs && pair->timeMs >= leap->fromMs - leapMs) {
        floorMs = leap->fromMs;
        aheadMs = 0;
        before.reset();
        leap.reset();
        return;
    }
    if (leap && std::abs(behindMs) <= leapMs && ++leap->confirmations == leapConfirmations)
        leap.reset();
    aheadMs = std::max<std::int64_t>(behindMs, 0);
}

/// Two times in a row, since a short gap between recordings looks like speed.
void RecordedClock::learnSpeed(const Pair& now) noexcept
{
    const std::int64_t rtpMs = lastReported ? msBetween(lastReported->rtpTimestamp, now.rtpTimestamp) : 0;
    if (lastReported && rtpMs >= 0 && rtpMs < shortestComparisonMs)
        return;
    const auto last = std::exchange(lastReported, now);
    if (!last || rtpMs < 0 || scale == 1)
        return;
    const double ratio = static_cast<double>(now.timeMs - last->timeMs) / static_cast<double>(rtpMs);
    std::optional<double> vote;
    if (isNear(ratio, scale))
        vote = scale;
    else if (isNear(ratio, 1))
        vote = 1;
    if (vote && vote == speedVote)
        speed = *vote;
    speedVote = vote;
}

std::int64_t RecordedClock::msBetween(std::uint32_t from, std::uint32_t to) const noexcept
{
    return std::int64_t{static_cast<std::int32_t>(to - from)} * 1000 / clockRate;
}

std::int64_t RecordedClock::timeOf(const Pair& from, std::uint32_t rtpTimestamp) const noexcept
{
    const auto ticks = static_cast<std::int32_t>(rtpTimestamp - from.rtpTimestamp);
    const double ms = static_cast<double>(ticks) * 1000 / clockRate * from.speed;
    constexpr auto longest = static_cast<double>(latestMs);
    return withinCalendar(from.timeMs + std::llround(std::clamp(ms, -longest, longest)));
}

bool RecordedClock::isOfInterval(std::int64_t timeMs) const noexcept
{
    return timeMs >= interval.beginMs - intervalMarginMs && timeMs <= interval.endMs + intervalMarginMs;
}

bool RecordedClock::continues(std::uint32_t rtpTimestamp) const noexcept
{
    return !newest || continuesFrom(*newest, rtpTimestamp);
}

bool RecordedClock::continuesFrom(std::uint32_t from, std::uint32_t to) const noexcept
{
    const std::int64_t ms = msBetween(from, to);
    return ms >= -smallStepBackMs && ms <= stepAheadMs;
}

/// Whether there is a pair to go by. An announced timestamp must be near the first one that comes: some devices
/// announce 0, or that of another session. An interval that begins in a gap may begin further on in RTP time, where
/// that is the time of recording: a true timestamp is disbelieved then, and the frames are early by the gap until the
/// first report. Wrong timestamps are the more frequent ones, and without reports nothing would put them right.
bool RecordedClock::beginsAt(std::uint32_t rtpTimestamp) const noexcept
{
    if (!pair || newest)
        return pair.has_value();
    const std::int64_t ms = msBetween(pair->rtpTimestamp, rtpTimestamp);
    return ms >= -stepBackMs && ms <= stepAheadMs;
}

/// Whether RTP time has begun anew without a word: it runs back, or to where nothing was asked for.
bool RecordedClock::jumps(std::uint32_t rtpTimestamp) const noexcept
{
    if (!newest)
        return false;
    const std::int64_t ms = msBetween(*newest, rtpTimestamp);
    const auto tolerance = static_cast<std::int64_t>(static_cast<double>(stepBackMs) * std::clamp(scale, 1.0, 64.0));
    return ms < -tolerance || (ms > stepAheadMs && !isOfInterval(timeOf(*pair, rtpTimestamp)));
}

std::int64_t RecordedClock::timeOfNextFrame() const noexcept
{
    return stamped ? withinCalendar(floorMs + usualFrameMs) : startMs;
}

/// Whether RTP time has gone on during a rest, in which nothing was played: it goes on where it was, and yet far
/// behind: further than the next frame, or the next key frame, with which a device may go on and yet name the place of
/// the pause. Where the device itself went on, the time that it names has gone on, too.
bool RecordedClock::hasRunAhead(const Continuation& said) const noexcept
{
    if (!stamped || !pair || !said.timeMs || !said.rtpTimestamp || !continues(*said.rtpTimestamp))
        return false;
    const std::int64_t present = presentMs();
    const bool stayed = *said.timeMs >= present - pauseMarginMs && *said.timeMs <= present + pauseMarginMs;
    const std::int64_t nextFrameWithinMs = std::max(longestKeyFrameDistanceMs, stepMs + pauseMarginMs);
    return stayed && timeOf(*pair, *said.rtpTimestamp) - std::max(present, *said.timeMs) > nextFrameWithinMs;
}

/// Where the answer to the last PLAY says, if this is what it speaks of; else behind the last frame.
void RecordedClock::beginRtpTime(std::uint32_t rtpTimestamp) noexcept
{
    if (resumed && continuesFrom(resumed->rtpTimestamp, rtpTimestamp))
        anchor(resumed->rtpTimestamp, resumed->timeMs);
    else
        anchor(rtpTimestamp, timeOfNextFrame());
}

/// From here on by our own knowledge, until a report comes.
void RecordedClock::anchor(std::uint32_t rtpTimestamp, std::int64_t timeMs) noexcept
{
    pair = Pair{rtpTimestamp, timeMs, speed};
    before.reset();
    lastReported.reset();
    speedVote.reset();
    newest = rtpTimestamp;
    highestStamped = rtpTimestamp;  // those of the RTP time before do not compare with what comes
    aheadMs = 0;
    guessed = true;
}

void RecordedClock::noticeLeap(std::int64_t timeMs, std::uint32_t rtpTimestamp) noexcept
{
    const std::int64_t stepMs = timeMs - presentMs();
    const std::int64_t expectedMs = stamped ? msBetween(highestStamped, rtpTimestamp) : 0;
    if (stepMs > stepAheadMs || (stepMs > leapMs && stepMs - expectedMs > leapMs))
        leap = Leap{presentMs()};
}

std::int64_t RecordedClock::stamp(std::uint32_t rtpTimestamp) noexcept
{
    if (!beginsAt(rtpTimestamp))
        anchor(rtpTimestamp, startMs);
    else if (jumps(rtpTimestamp) || (resumed && !continues(rtpTimestamp)))
        beginRtpTime(rtpTimestamp);
    resumed.reset();
    guessed = false;
    newest = rtpTimestamp;

    const auto ticks = static_cast<std::int32_t>(rtpTimestamp - pair->rtpTimestamp);
    const bool inFront = ticks < 0 && before;
    std::int64_t timeMs = timeOf(inFront ? *before : *pair, rtpTimestamp);
    if (ticks > farTicks) {
        pair = Pair{rtpTimestamp, timeMs, pair->speed};
        before.reset();
    }
    const std::int64_t progressMs = stamped ? msBetween(highestStamped, rtpTimestamp) : 0;
    if (aheadMs != 0 && progressMs > 0)
        aheadMs -= std::min(aheadMs, (std::min(progressMs, stepAheadMs) + 1) / 2);
    if (!inFront)
        timeMs = withinCalendar(timeMs + aheadMs);
    noticeLeap(timeMs, rtpTimestamp);
    if (!stamped || progressMs > 0 || progressMs < -stepBackMs)
        highestStamped = rtpTimestamp;
    if (stamped && timeMs > floorMs)
        stepMs = timeMs - floorMs;
    floorMs = stamped ? std::max(floorMs, timeMs) : timeMs;
    stamped = true;
    return floorMs;
}
}  // namespace Tavro8::media

#include <utility>

#include "rtsp/RTSPClientState.h"

#include "wire/Rtcp.h"
#include "wire/Text.h"

#include <algorithm>

/// What the client does with recorded media; see RTSPClient.cpp for the session and its life.
namespace Tavro8::Utility
{
namespace
{
constexpr const char* playing = "Tavro8::Utility::RTSPClient::playRecorded";
constexpr const char* pausing = "Tavro8::Utility::RTSPClient::pauseRecorded";

// A farewell so near to the end of the interval is the end: recordings end with a file. Not farther away at speed:
// there the farewell may be that of a file as well, and the silence behind it tells.
constexpr std::int64_t nearEndMs = 5000;
// What an answer may be off from what was asked for: it begins with the key frame or the file in front.
constexpr std::int64_t answerMarginMs = 5 * 60'000;

/// Whether a refusal may be that of a speed or of key frames only. Devices that do not know these answer with a
/// missing option, an unknown function or parameter, even with a place that they do not find. Who may not watch, or is
/// one too many, is refused whatever is asked for.
bool mayConcernManner(wire::RtspError error) noexcept
{
    return error == wire::RtspError::optionNotSupported || error == wire::RtspError::serverError ||
           error == wire::RtspError::notFound || error == wire::RtspError::requestRefused;
}

/// Nothing was required of the device: a missing option is a refusal like any other.
ResultCode resultOfRefusal(wire::RtspClientSession::Failed why)
{
    if (why.error == wire::RtspError::optionNotSupported)
        why.error = wire::RtspError::requestRefused;
    return resultOf(why);
}

/// Whether one asks for less speed or fewer frames than the other, and for more of nothing.
bool asksForLess(const RecordedPlay& one, const RecordedPlay& other) noexcept
{
    return one.scale <= other.scale && (other.keyFramesOnly || !one.keyFramesOnly) &&
           (one.scale != other.scale || one.keyFramesOnly != other.keyFramesOnly);
}
}  // namespace

template <typename Body>
void RTSPClient::State::forEachReceiving(Body&& body)
{
    for (const auto& track : tracks) {
        if (track->isReceiving() && track->isEstablished())
            body(*track);
    }
}

void RTSPClient::State::onReady()
{
    establishTracks();
    beginSupervision();
    resting = true;
    logger.info("Tavro8::Utility::RTSPClient::prepareRecorded", "ready to play ", url);
    tell(std::exchange(onPlay, nullptr), {});
}

void RTSPClient::State::playRecorded(const RecordedPlay& wanted, PlayHandler handlePlay)
{
    if (!recorded || phase != Phase::playing || awaitsPlayOrPause())
        return postResult([handler = std::move(handlePlay)](const error_code& ec) { handler(ec, {}); },
                          ResultCode::invalidState);
    playAsked = wanted;
    askedAgain = false;
    onPlayDone = std::move(handlePlay);
    sendPlay();
}

void RTSPClient::State::sendPlay()
{
    const RecordedPlay& wanted = *playAsked;
    wire::RtspPlayRequest request;
    if (wanted.interval)
        request.range = write(wire::ClockRange{wanted.interval->beginMs, wanted.interval->endMs});
    if (namesScale())
        request.scale = std::to_string(wanted.scale);
    if (wanted.keyFramesOnly)
        request.headers.add("Frames", "intra");
    // What comes until the answer is of the old place, where media came; else it is ahead of the answer.
    if (resting && wanted.interval)
        awaitNewPlace(true);
    else if (resting || wanted.interval)
        forEachReceiving([&](RTSPTrack& track) { resting ? track.unmute() : track.mute(); });
    perform(session->play(request));
}

/// The ordinary speed is only named to leave another one.
bool RTSPClient::State::namesScale() const noexcept
{
    return playAsked->scale != 1 || (playTaken.scale != 1 && !askedAgain);
}

/// No media are due: those that come all the same are dropped.
void RTSPClient::State::rest()
{
    resting = true;
    awaitNewPlace(false);
    forEachReceiving([](RTSPTrack& track) { track.mute(); });
}

void RTSPClient::State::awaitNewPlace(bool awaited) noexcept
{
    awaitsNewPlace = awaited;
    takesDetour = channelsShared || awaited;
}

/// Some devices send reports while they are paused, and a farewell when they hear of another place: a report that goes
/// on with what was played is of the old one.
bool RTSPClient::State::isOfNewPlace(bool rtcp, wire::ByteView packet)
{
    if (!rtcp)
        return true;
    const wire::RtcpCompound compound = wire::parseRtcp(packet);
    return std::ranges::any_of(compound.senderReports, [&](const wire::RtcpSenderReport& report) {
        bool goesOn = false;
        forEachReceiving([&](const RTSPTrack& track) { goesOn = goesOn || track.agreesWith(report); });
        return !goesOn;
    });
}

/// Media come in front of the answer.
void RTSPClient::State::beginAsAsked()
{
    awaitNewPlace(false);
    forEachReceiving([&](RTSPTrack& track) {
        track.beginRecorded(startAsAsked());
        track.unmute();
    });
}

media::RecordedClock::Start RTSPClient::State::startAsAsked() const
{
    media::RecordedClock::Start start;
    const auto [beginMs, endMs] = *playAsked->interval;
    start.timeMs = beginMs - beginMs % 1000;  // as the device is told
    start.scale = playAsked->scale;
    start.interval = {start.timeMs, endMs};
    return start;
}

/// Where a track really begins.
media::RecordedClock::Start RTSPClient::State::startAsAnswered(const RTSPTrack& track) const
{
    media::RecordedClock::Start start = startAsAsked();
    const wire::RtspPlayAnswer& answer = session->playAnswer();
    start.scale = answer.scale.value_or(1);
    if (answer.range && answer.range->beginMs + answerMarginMs >= start.interval.beginMs &&
        answer.range->beginMs - answerMarginMs <= start.interval.endMs)
        start.timeMs = answer.range->beginMs;
    if (const wire::RtspTrack* agreed = agreedOf(track))
        start.rtpTimestamp = agreed->firstRtpTimestamp;
    return start;
}

const wire::RtspTrack* RTSPClient::State::agreedOf(const RTSPTrack& track) const
{
    const auto& agreed = session->tracks();
    const auto found = std::ranges::find(agreed, track.description().index, &wire::RtspTrack::mediaIndex);
    return found == agreed.end() ? nullptr : &*found;
}

void RTSPClient::State::beginAsAnswered(RTSPTrack& track)
{
    const media::RecordedClock::Start start = startAsAnswered(track);
    const bool begun = resting && !awaitsNewPlace;  // by what came in front of the answer
    if (begun && track.getRecordedClock().correct(start))
        return;
    const wire::RtspTrack* agreed = agreedOf(track);
    track.beginRecorded(start, {agreed == nullptr ? std::nullopt : agreed->firstSequenceNumber, start.rtpTimestamp});
}

void RTSPClient::State::continueAsAnswered(RTSPTrack& track)
{
    const wire::RtspPlayAnswer& answer = session->playAnswer();
    const double scale = answer.scale.value_or(1);
    if (!resting)
        return track.getRecordedClock().changeScale(scale);
    media::RecordedClock::Continuation said{{}, {}, scale};
    if (answer.range)
        said.timeMs = answer.range->beginMs;
    if (const wire::RtspTrack* agreed = agreedOf(track))
        said.rtpTimestamp = agreed->firstRtpTimestamp;
    track.getRecordedClock().resume(said);
}

void RTSPClient::State::onRecordedPlaying()
{
    const auto now = std::chrono::steady_clock::now();
    const wire::RtspPlayAnswer& answer = session->playAnswer();
    const RecordedPlayAnswer said{answer.scale.value_or(1), wire::equalsNoCase(answer.frames, "intra")};
    forEachReceiving([&](RTSPTrack& track) {
        playAsked->interval ? beginAsAnswered(track) : continueAsAnswered(track);
        track.unmute();
        track.beginWatch(now);
    });
    if (playAsked->interval)
        placePlayed = playAsked->interval;
    resting = false;
    awaitNewPlace(false);
    playTaken = *std::exchange(playAsked, std::nullopt);
    logger.info(playing, "playing ", url, " at the speed of ", said.scale,
                said.keyFramesOnly ? ", key frames only" : "");
    if (const auto handler = std::exchange(onPlayDone, nullptr))
        guardedVoid(logger, playing, [&] { handler({}, said); });
    if (phase == Phase::playing)
        noticeEnd();  // it may have come in front of the answer
}

void RTSPClient::State::pauseRecorded(Completion handlePause)
{
    if (!recorded || phase != Phase::playing || awaitsPlayOrPause())
        return postResult(std::move(handlePause), ResultCode::invalidState);
    onPauseDone = std::move(handlePause);
    perform(session->pause());
}

/// The end may have come in front of the answer. Whoever is told may play again or tear down.
void RTSPClient::State::onPaused()
{
    const bool ended = !resting && isAtEnd();
    if (ended)
        handOutLast();
    if (phase != Phase::playing)
        return;
    rest();
    tell(std::exchange(onPauseDone, nullptr), {});
    if (ended && phase == Phase::playing && !awaitsPlayOrPause())
        reachEnd();
}

/// The device goes on as it was. Where it is to play on behind an end that `onPaused` could not tell, it has nothing
/// left to play.
void RTSPClient::State::onRefused(const wire::RtspClientSession::Failed& why)
{
    const bool ofPlay = why.kind == wire::RtspStepKind::play;
    logger.warning(ofPlay ? playing : pausing, wire::nameOf(why.kind), ' ', url, ": ", describeFailure(why));
    if (canAskForLess(why))
        return askForLess();
    const bool ended = resting && playAsked && !playAsked->interval && isAtEnd();
    playAsked.reset();
    if (resting)
        rest();
    forEachReceiving([&, now = std::chrono::steady_clock::now()](RTSPTrack& track) {
        if (!resting)
            track.unmute();
        track.beginWatch(now);
    });
    if (const auto handler = std::exchange(onPlayDone, nullptr))
        guardedVoid(logger, playing, [&] { handler(resultOfRefusal(why), {}); });
    else
        tell(std::exchange(onPauseDone, nullptr), resultOfRefusal(why));
    if (ended && phase == Phase::playing && !awaitsPlayOrPause())
        reachEnd();
}

bool RTSPClient::State::canAskForLess(const wire::RtspClientSession::Failed& why) const noexcept
{
    return why.kind == wire::RtspStepKind::play && mayConcernManner(why.error) && !askedAgain &&
           (namesScale() || playAsked->keyFramesOnly);
}

/// Some devices refuse to be told a speed, or which frames, instead of passing over it. What was taken last is asked
/// for where that is less, since the device can do so; else neither is named.
void RTSPClient::State::askForLess()
{
    askedAgain = true;
    const bool tookLess = asksForLess(playTaken, *playAsked);
    playAsked->scale = tookLess ? playTaken.scale : 1;
    playAsked->keyFramesOnly = tookLess && playTaken.keyFramesOnly;
    if (resting)
        rest();
    sendPlay();
}

/// Whether every track has said its farewell where the interval ends. A farewell elsewhere may be that of a file, with
/// the next behind it: it is the end when nothing follows (`watchProgress`).
bool RTSPClient::State::isAtEnd()
{
    bool all = true;
    forEachReceiving(
        [&](const RTSPTrack& track) { all = all && track.wasOwnBye() && track.hasSaidBye(track.statistics()); });
    return all && isNearEnd();
}

/// Asked whenever a report has come.
void RTSPClient::State::noticeEnd()
{
    if (resting || awaitsPlayOrPause() || phase != Phase::playing || !isAtEnd())
        return;
    handOutLast();
    if (phase == Phase::playing)
        reachEnd();
}

bool RTSPClient::State::isNearEnd()
{
    if (!placePlayed)
        return true;
    const std::int64_t nearMs = std::max<std::int64_t>(placePlayed->endMs, 0) - nearEndMs;
    bool any = false;
    forEachReceiving([&](const RTSPTrack& track) {
        const media::RecordedClock& clock = track.getRecordedClock();
        // Where key frames only are played, the next one may be behind the end. A longer step was a gap.
        const std::int64_t stepMs = std::min(clock.lastStepMs(), media::RecordedClock::longestKeyFrameDistanceMs);
        any = any || clock.lastMs() >= nearMs - stepMs;
    });
    return any;
}

void RTSPClient::State::reachEnd()
{
    rest();
    logger.info(playing, "everything has been played: ", url);
    if (const auto handler = onEnd)
        guardedVoid(logger, playing, handler);
}
}  // namespace Tavro8::Utility

#include <utility>

#include "rtsp/RTSPClientState.h"

#include "wire/Text.h"

#include <algorithm>

/// What the client does with recorded media; see RTSPClient.cpp for the session and its life.
namespace Tavro8::Utility
{
namespace
{
constexpr const char* playing = "Tavro8::Utility::RTSPClient::playRecorded";
constexpr const char* pausing = "Tavro8::Utility::RTSPClient::pauseRecorded";
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
    onPlayDone = std::move(handlePlay);

    wire::RtspPlayRequest request;
    if (wanted.interval)
        request.range = write(wire::ClockRange{wanted.interval->beginMs, wanted.interval->endMs});
    if (wanted.scale != 1 || scaleAsked != 1)
        request.scale = std::to_string(wanted.scale);
    if (wanted.keyFramesOnly)
        request.headers.add("Frames", "intra");
    scaleAsked = wanted.scale;
    if (wanted.interval) {
        // What comes until the answer is of the old place, where there is one; else it is ahead of the answer.
        forEachReceiving([&](RTSPTrack& track) { resting ? track.beginRecorded(startAsAsked()) : track.mute(); });
    }
    perform(session->play(request));
}

media::RecordedClock::Start RTSPClient::State::startAsAsked() const
{
    media::RecordedClock::Start start;
    start.timeMs = playAsked->interval->beginMs;
    start.scale = playAsked->scale;
    return start;
}

/// Where a track really begins.
media::RecordedClock::Start RTSPClient::State::startAsAnswered(const RTSPTrack& track) const
{
    media::RecordedClock::Start start = startAsAsked();
    const wire::RtspPlayAnswer& answer = session->playAnswer();
    start.scale = answer.scale.value_or(1);
    if (answer.range)
        start.timeMs = answer.range->beginMs;
    for (const wire::RtspTrack& agreed : session->tracks()) {
        if (agreed.mediaIndex == track.description().index)
            start.rtpTimestamp = agreed.firstRtpTimestamp;
    }
    return start;
}

void RTSPClient::State::onRecordedPlaying()
{
    const auto now = std::chrono::steady_clock::now();
    const wire::RtspPlayAnswer& answer = session->playAnswer();
    const RecordedPlayAnswer said{answer.scale.value_or(1), wire::equalsNoCase(answer.frames, "intra")};
    forEachReceiving([&](RTSPTrack& track) {
        media::RecordedClock* const clock = track.getRecordedClock();
        if (!playAsked->interval && clock != nullptr)
            clock->changeScale(said.scale);
        else if (resting && clock != nullptr)
            clock->correct(startAsAnswered(track));
        else if (playAsked->interval)
            track.beginRecorded(startAsAnswered(track));
        track.unmute();
        track.beginWatch(now);
    });
    resting = false;
    playAsked.reset();
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

void RTSPClient::State::onPaused()
{
    resting = true;
    tell(std::exchange(onPauseDone, nullptr), {});
}

/// The device goes on as it was.
void RTSPClient::State::onRefused(const wire::RtspClientSession::Failed& why)
{
    const bool ofPlay = why.kind == wire::RtspStepKind::play;
    logger.warning(ofPlay ? playing : pausing, wire::nameOf(why.kind), ' ', url, ": ", describeFailure(why));
    playAsked.reset();
    forEachReceiving([](RTSPTrack& track) { track.unmute(); });
    if (const auto handler = std::exchange(onPlayDone, nullptr))
        guardedVoid(logger, playing, [&] { handler(resultOf(why), {}); });
    else
        tell(std::exchange(onPauseDone, nullptr), resultOf(why));
}

/// Asked whenever a report has come: whether every track has said its farewell.
void RTSPClient::State::noticeEnd()
{
    if (resting || awaitsPlayOrPause() || phase != Phase::playing)
        return;
    bool all = true;
    forEachReceiving([&](const RTSPTrack& track) { all = all && track.hasSaidBye(track.statistics()); });
    if (!all)
        return;
    handOutLast();
    if (phase == Phase::playing)
        reachEnd();
}

void RTSPClient::State::reachEnd()
{
    resting = true;
    logger.info(playing, "everything has been played: ", url);
    if (const auto handler = onEnd)
        guardedVoid(logger, playing, handler);
}
}  // namespace Tavro8::Utility

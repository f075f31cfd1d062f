#include <utility>

#include "rtsp/RTSPClientState.h"

#include "rtsp/TrackSelection.h"
#include "wire/Url.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>

/// What the client does with tracks, their media and the time; see RTSPClient.cpp for the session and its life.
namespace Tavro8::Utility
{
namespace
{
// A device that reads nothing gets no more reports and packets once so much waits for it.
constexpr std::size_t maxQueuedBytes = 256 * 1024;

using Clock = std::chrono::steady_clock;

/// What a device offers, for the line that says why none of it is received.
std::string listTracks(const SessionDescription& description)
{
    std::string text;
    for (const SdpTrack& track : description.tracks) {
        text += text.empty() ? "" : ", ";
        text +=
            wire::percentSafe(track.kind) + ' ' + (track.encoding.empty() ? "?" : wire::percentSafe(track.encoding));
    }
    return text.empty() ? "no track" : text;
}
}  // namespace

// ---- tracks ---------------------------------------------------------------------------------------------------

void RTSPClient::State::onDescribed()
{
    const SessionDescription description = describeTracks(session->description(), audioSink.expectedCodec);
    addingTracks = true;
    const auto handler = std::exchange(onSdp, nullptr);
    guardedVoid(logger, "Tavro8::Utility::RTSPClient::performDefaultSteps", [&] { handler({}, description); });
    addingTracks = false;
    if (phase != Phase::negotiating)
        return;  // torn down by the handler
    if (tracks.empty())
        return fail(ResultCode::noSuchStream, wire::nameOf(wire::RtspStepKind::describe),
                    "nothing that the device offers can be received (" + listTracks(description) + ')');

    std::vector<wire::RtspTrackRequest> requests;
    for (const auto& track : tracks)
        requests.push_back({track->description().index, tracks.size() > 1, {}});
    perform(session->setup(std::move(requests)));
}

std::weak_ptr<RTSPTrack> RTSPClient::State::addTrack(TrackInitializer initializer)
{
    if (!addingTracks || tracks.size() >= maxTracks)
        return {};
    const auto& sections = session->description().media;
    const std::size_t index = initializer.track.index;
    if (index >= sections.size())
        return {};
    const bool receives = static_cast<bool>(initializer.onFrame);
    const bool video = initializer.track.kind == "video";
    const auto format = trackFormatOf(sections[index], initializer.track);
    auto track = std::make_shared<RTSPTrack>(std::move(initializer), logger);
    if (receives) {
        const LossHandling handling = video ? videoSink.lossHandling : LossHandling::flag;
        if (const char* refusal = track->receive(format, context->framePool(), handling)) {
            logger.info("Tavro8::Utility::RTSPClient::addTrack", url, ": ", refusal);
            return {};
        }
    }
    tracks.push_back(track);
    return track;
}

void RTSPClient::State::mapChannels()
{
    channelTable.fill(nobody);
    for (const wire::RtspTrack& agreed : session->tracks()) {
        const auto found = std::ranges::find_if(
            tracks, [&](const auto& track) { return track->description().index == agreed.mediaIndex; });
        if (found == tracks.end())
            continue;
        (*found)->establish(agreed.channels);
        const auto number = static_cast<std::uint8_t>((found - tracks.begin()) * 2);
        channelTable[agreed.channels.rtcp] = static_cast<std::uint8_t>(number + 1);
        channelTable[agreed.channels.rtp] = number;
    }
}

// ---- media ----------------------------------------------------------------------------------------------------

void RTSPClient::State::onInterleaved(const wire::InterleavedFrame& frame, const media::ArrivalTime& arrival)
{
    const std::uint8_t number = channelTable[frame.channel];
    if (number == nobody || (phase != Phase::playing && phase != Phase::negotiating))
        return;
    RTSPTrack& track = *tracks[number / 2];
    if (number % 2 != 0) {
        track.onRtcp(frame.payload, arrival);
    } else if (track.isReceiving()) {
        delivering = true;
        track.onRtp(frame.payload, arrival);
        delivering = false;
        if (phase == Phase::closed)
            tracks.clear();  // closed by the taker of the frame
    }
}

void RTSPClient::State::sendPacket(const std::weak_ptr<RTSPTrack>& weakTrack, const std::vector<std::uint8_t>& payload,
                                   std::uint32_t timestamp, Completion handleWritePacket)
{
    const auto track = weakTrack.lock();
    if (phase != Phase::playing || track == nullptr || !track->isEstablished())
        return postResult(std::move(handleWritePacket), ResultCode::invalidState);
    if (connection.queuedBytes() > maxQueuedBytes)
        return postResult(std::move(handleWritePacket), ResultCode::noResources);
    auto bytes = track->makePacket(payload, timestamp);
    if (bytes.empty())
        return postResult(std::move(handleWritePacket), ResultCode::outOfRange);
    connection.send(std::move(bytes),
                    [this, handler = std::move(handleWritePacket)](const error_code& ec) { tell(handler, ec); });
}

// ---- time -----------------------------------------------------------------------------------------------------

void RTSPClient::State::onTick(Clock::time_point now)
{
    const auto self = keepAlive();
    guardedVoid(logger, "Tavro8::Utility::RTSPClient::onTick", [&] {
        connection.trim();
        judgeTime(now);
    });
}

void RTSPClient::State::judgeTime(Clock::time_point now)
{
    const bool late = now >= deadline;
    switch (phase) {
    case Phase::connecting:
        if (late)
            fail(ResultCode::timedOut, "connecting", "the device does not answer");
        break;
    case Phase::negotiating:
        if (late)
            fail(ResultCode::timedOut, wire::nameOf(waitingFor), "the device does not answer");
        break;
    case Phase::playing:
        supervise(now);
        break;
    case Phase::closing:
        if (late)
            finishTeardown();
        break;
    case Phase::idle:
    case Phase::connected:
    case Phase::closed:
        break;
    }
}

void RTSPClient::State::supervise(Clock::time_point now)
{
    if (connection.skippedBytes() != 0 && !std::exchange(skipReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::supervise", url, ": bytes that belong to no packet are skipped");
    if (watchProgress(now))
        return;
    if (now >= nextKeepAlive) {
        nextKeepAlive = now + keepAliveInterval();
        perform(session->keepAlive());
    }
    if (now >= nextReport && phase == Phase::playing) {
        nextReport = now + timing.reportInterval;
        sendReports(now);
    }
}

/// Ends a stream that sends nothing, or nothing that fits its description. True when it has been ended.
bool RTSPClient::State::watchProgress(Clock::time_point now)
{
    std::uint64_t admitted = 0;
    std::uint64_t foreign = 0;
    bool receives = false;
    bool bye = false;
    bool formatChanged = false;
    for (const auto& track : tracks) {
        if (!track->isReceiving() || !track->isEstablished())
            continue;
        const media::TrackReceiver::Statistics total = track->statistics();
        receives = true;
        bye = bye || track->hasSaidBye(total);
        admitted += total.packets;
        foreign += total.foreignPackets;
        formatChanged = track->sendsOnlyForeign(total, now, timing.foreignLimit) || formatChanged;
    }
    if (admitted != admittedBefore) {
        admittedBefore = admitted;
        lastProgress = now;
    }
    const auto silence = now - lastProgress;
    if (formatChanged)
        fail(ResultCode::connectionLost, "receiving", "the format of the stream has changed");
    else if (receives && bye && silence >= timing.silenceAfterBye)
        fail(ResultCode::connectionLost, "receiving", "the device has ended the stream");
    else if (receives && stallTimeout.count() != 0 && silence >= stallTimeout && admitted == 0 && foreign != 0)
        fail(ResultCode::unsupportedMedia, "receiving", "the packets do not fit the description");
    else if (receives && stallTimeout.count() != 0 && silence >= stallTimeout)
        fail(ResultCode::timedOut, "receiving", "no packet has come for too long");
    return phase != Phase::playing;
}

void RTSPClient::State::sendReports(Clock::time_point now)
{
    for (const auto& track : tracks) {
        auto report = track->makeReport(ownSource, now);
        if (!report.empty() && connection.queuedBytes() <= maxQueuedBytes)
            connection.send(std::move(report));
    }
}

std::chrono::milliseconds RTSPClient::State::keepAliveInterval() const
{
    return timing.keepAliveInterval.value_or(session->keepAliveInterval());
}
}  // namespace Tavro8::Utility

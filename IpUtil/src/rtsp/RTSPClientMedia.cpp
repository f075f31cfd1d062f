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
    const SessionDescription description = describeTracks(session->description(), audioSink);
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
        requests.push_back(requestOf(*track));
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
        if (recorded)
            track->makeRecorded();
    }
    tracks.push_back(track);
    return track;
}

wire::RtspTrackRequest RTSPClient::State::requestOf(RTSPTrack& track)
{
    wire::RtspTrackRequest request{track.description().index, tracks.size() > 1};
    if (transport == RtspTransport::tcp || !track.isReceiving())
        return request;
    error_code ec;
    auto ports = RtpPorts::open(service, *context, connection.localAddress(), ec);
    if (ports == nullptr) {
        logger.warning("Tavro8::Utility::RTSPClient::performDefaultSteps", "no UDP ports can be opened (", ec.message(),
                       "), the stream is to be received over the RTSP connection: ", url);
        return request;
    }
    reportSmallBuffer(*ports);
    request.clientPort = ports->numbers();
    request.order = transport == RtspTransport::udp ? wire::RtspTransportOrder::udpThenInterleaved
                                                    : wire::RtspTransportOrder::interleavedThenUdp;
    track.offer(std::move(ports));
    return request;
}

/// Once for all streams: it is the same for each of them.
void RTSPClient::State::reportSmallBuffer(const RtpPorts& ports)
{
    const int given = ports.receiveBufferBytes();
    if (given >= context->datagramBufferBytes || std::exchange(context->smallBufferReported, true))
        return;
#ifdef __linux__
    constexpr const char* limit = ", which net.core.rmem_max limits";
#else
    constexpr const char* limit = "";
#endif
    logger.info("Tavro8::Utility::RTSPClient::performDefaultSteps", "the system holds ", given, " bytes of ",
                context->datagramBufferBytes, " asked for of a track over UDP", limit,
                ": bursts of packets may be lost under load");
}

/// Makes ready for media, also a second time when the device wants PLAY authorized.
void RTSPClient::State::establishTracks()
{
    channelTable.fill(nobody);
    channelsShared = false;
    takesDetour = awaitsNewPlace;
    for (const wire::RtspTrack& agreed : session->tracks()) {
        const auto found = std::ranges::find_if(
            tracks, [&](const auto& track) { return track->description().index == agreed.mediaIndex; });
        if (found == tracks.end())
            continue;
        establish(static_cast<std::size_t>(found - tracks.begin()), agreed);
    }
    for (const auto& track : tracks) {
        if (!track->isEstablished())
            track->closePorts();  // the device has left it out
    }
    const auto& agreed = session->tracks();
    const auto refused = std::ranges::find_if(agreed, &wire::RtspTrack::refusedOther);
    if (refused != agreed.end())
        learnTransport(!refused->transport.tcp);
}

void RTSPClient::State::establish(std::size_t number, const wire::RtspTrack& agreed)
{
    RTSPTrack& track = *tracks[number];
    if (agreed.transport.tcp) {
        track.establish(agreed.channels);
        if (channelTable[agreed.channels.rtp] != nobody || channelTable[agreed.channels.rtcp] != nobody)
            return shareChannels(number);
        channelTable[agreed.channels.rtcp] = static_cast<std::uint8_t>(number * 2 + 1);
        channelTable[agreed.channels.rtp] = static_cast<std::uint8_t>(number * 2);
    } else if (track.establishPorts(agreed.transport.ssrc)) {
        RtpPorts& ports = *track.getPorts();
        ports.start(*this, number, {connection.deviceAddress(), agreed.transport.source, agreed.transport.serverPort});
        ports.openWay(RTSPTrack::makeEmptyReport(ownSource));
    }
}

/// The device has named channels that are another track's already. Some do so and use those that they were asked for,
/// others send both tracks on one channel, where only the payload type tells them apart.
void RTSPClient::State::shareChannels(std::size_t number)
{
    channelsShared = true;
    takesDetour = true;
    const std::size_t asked = number * 2;
    if (channelTable[asked] == nobody && channelTable[asked + 1] == nobody) {
        channelTable[asked] = static_cast<std::uint8_t>(number * 2);
        channelTable[asked + 1] = static_cast<std::uint8_t>(number * 2 + 1);
    }
    if (!std::exchange(sharingReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::performDefaultSteps", url,
                       ": tracks share interleaved channels, they are told apart by their payload types");
}

/// Says once which way the device has refused, and remembers the other. A device that sends some tracks one way and
/// some the other has refused neither.
void RTSPClient::State::learnTransport(bool refusesInterleaved)
{
    const bool mixed = std::ranges::any_of(tracks, [&](const auto& track) {
        return track->isReceiving() && track->isEstablished() && (track->getPorts() != nullptr) != refusesInterleaved;
    });
    const RtspTransport accepted = refusesInterleaved ? RtspTransport::udp : RtspTransport::tcp;
    if (mixed || std::exchange(learntTransport, accepted) == accepted)
        return;
    if (accepted == RtspTransport::tcp)
        logger.warning("Tavro8::Utility::RTSPClient::performDefaultSteps",
                       "the device refuses UDP, the stream is received over the RTSP connection: ", url);
    else
        logger.warning("Tavro8::Utility::RTSPClient::performDefaultSteps",
                       "the device refuses media over the RTSP connection, the stream is received over UDP: ", url);
}

/// What the device sends over UDP does not get here: ends the session in good order, so that whoever is told can
/// connect anew and ask for the other way.
void RTSPClient::State::giveUpUdp()
{
    logger.warning("Tavro8::Utility::RTSPClient::supervise",
                   "nothing arrives over UDP, the stream is to be received over the RTSP connection: ", url);
    learntTransport = RtspTransport::tcp;
    lastFailure = ResultCode::timedOut;
    auto handler = std::exchange(onClosed, nullptr);
    teardown([this](const error_code&) { tell(std::exchange(onClosed, nullptr), ResultCode::timedOut); });
    onClosed = std::move(handler);  // dropped if the owner ends the connection meanwhile
}

// ---- media ----------------------------------------------------------------------------------------------------

void RTSPClient::State::onReading() noexcept
{
    // While these lines are on their way the system copies.
    for (const auto& track : tracks)
        track->prefetch();
}

void RTSPClient::State::onInterleaved(const wire::InterleavedFrame& frame, const media::ArrivalTime& arrival)
{
    const std::uint8_t number = channelTable[frame.channel];
    RTSPTrack* track = number == nobody ? nullptr : playingTrack(number / 2U);
    if (track == nullptr)
        return;
    if (takesDetour) {
        if (awaitsNewPlace && isOfNewPlace(number % 2 != 0, frame.payload))
            beginAsAsked();
        if (channelsShared)
            return onSharedChannel(*track, number % 2 != 0, frame.payload, arrival);
    }
    if (number % 2 != 0)
        onRtcp(*track, frame.payload, arrival);
    else if (track->isReceiving())
        deliverRtp(*track, frame.payload, arrival);
}

void RTSPClient::State::onRtcp(RTSPTrack& track, wire::ByteView packet, const media::ArrivalTime& arrival)
{
    track.onRtcp(packet, arrival);
    if (recorded)
        noticeEnd();
}

/// Reports name their source, by which each track knows its own.
void RTSPClient::State::onSharedChannel(RTSPTrack& named, bool rtcp, wire::ByteView packet,
                                        const media::ArrivalTime& arrival)
{
    const auto receives = [](const RTSPTrack& track) {
        return track.isReceiving() && track.isEstablished() && track.getPorts() == nullptr;
    };
    RTSPTrack* owner = receives(named) ? &named : nullptr;
    const auto payloadType = static_cast<std::uint8_t>(packet.size() < 2 ? 0 : packet[1] & 0x7FU);
    for (const auto& track : tracks) {
        if (!receives(*track))
            continue;
        if (rtcp)
            track->onRtcp(packet, arrival);
        else if (track->takes(payloadType) && (owner == nullptr || !owner->takes(payloadType)))
            owner = track.get();
    }
    if (rtcp && recorded)
        noticeEnd();
    if (!rtcp && owner != nullptr)
        deliverRtp(*owner, packet, arrival);
}

void RTSPClient::State::onRtpDatagram(std::size_t number, wire::ByteView bytes, const media::ArrivalTime& arrival)
{
    if (RTSPTrack* track = playingTrack(number))
        deliverRtp(*track, bytes, arrival);
}

void RTSPClient::State::onRtcpDatagram(std::size_t number, wire::ByteView bytes, const media::ArrivalTime& arrival)
{
    if (RTSPTrack* track = playingTrack(number))
        track->onRtcp(bytes, arrival);
}

void RTSPClient::State::onTruncatedDatagram(std::size_t number)
{
    if (RTSPTrack* track = playingTrack(number))
        track->onTruncated();
}

void RTSPClient::State::onPortsBroken(const error_code& ec, const std::string& reason)
{
    fail(ec, "receiving", reason);
}

/// Null when media is not wanted any more. It may come before PLAY is answered.
RTSPTrack* RTSPClient::State::playingTrack(std::size_t number) const noexcept
{
    const bool wanted = phase == Phase::playing || phase == Phase::negotiating;
    return wanted && number < tracks.size() ? tracks[number].get() : nullptr;
}

void RTSPClient::State::deliverRtp(RTSPTrack& track, wire::ByteView packet, const media::ArrivalTime& arrival)
{
    whileDelivering([&] { track.onRtp(packet, arrival); });
}

/// Hands out frames. Whoever takes one may end the connection: the tracks stay until `body` has returned.
template <typename Body>
void RTSPClient::State::whileDelivering(Body&& body)
{
    delivering = true;
    const auto end = [this] {
        delivering = false;
        if (phase == Phase::closed)
            tracks.clear();
    };
    try {
        std::forward<Body>(body)();
    } catch (...) {
        end();
        throw;
    }
    end();
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
        for (std::size_t i = 0; playingTrack(i) != nullptr; ++i)
            whileDelivering([&] { tracks[i]->onTick(now); });
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
        if (late && awaitsPlayOrPause())
            fail(ResultCode::timedOut, wire::nameOf(waitingFor), "the device does not answer");
        else
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
    warnOfOddities();
    // While the answer to PLAY or PAUSE is awaited nothing need come, and a farewell may be that of the old place.
    if (!resting && !awaitsPlayOrPause() && watchProgress(now))
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

void RTSPClient::State::warnOfOddities()
{
    if (connection.skippedBytes() != 0 && !std::exchange(skipReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::supervise", url, ": bytes that belong to no packet are skipped");
    const bool strays = std::ranges::any_of(tracks, [](const auto& track) {
        return track->getPorts() != nullptr && track->getPorts()->strayDatagrams() != 0;
    });
    if (strays && !std::exchange(strayReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::supervise", url,
                       ": datagrams that do not come from the device are dropped");
}

/// Ends a stream that sends nothing, or nothing that fits its description. True when it has been ended.
bool RTSPClient::State::watchProgress(Clock::time_point now)
{
    const auto receives = [](const auto& track) { return track->isReceiving() && track->isEstablished(); };
    const bool hasPictures =
        std::ranges::any_of(tracks, [&](const auto& track) { return receives(track) && track->isVideo(); });
    std::optional<Ending> ending;
    for (const auto& track : tracks) {
        if (receives(track) && !ending)
            ending = judge(*track, track->isVideo() || !hasPictures, now);
    }
    if (ending && ending->farewell)
        handOutLast();
    if (!ending || phase != Phase::playing)
        return phase != Phase::playing;
    if (ending->byUdp)
        giveUpUdp();
    else if (ending->farewell && recorded)
        reachEnd();
    else
        fail(ending->result, "receiving", ending->reason);
    return true;
}

/// Where frames are not marked the last one waits for the next to begin, which does not come after a farewell. Only
/// then: where a connection breaks or falls silent, it may be half a frame.
void RTSPClient::State::handOutLast()
{
    for (std::size_t i = 0; playingTrack(i) != nullptr; ++i) {
        if (tracks[i]->isReceiving() && tracks[i]->hasSaidBye(tracks[i]->statistics()))
            whileDelivering([&] { tracks[i]->flush(); });
    }
}

/// Each track by itself: living sound does not make up for pictures that stand still. Sound beside pictures is not
/// vital, its silence ends nothing.
std::optional<RTSPClient::State::Ending> RTSPClient::State::judge(RTSPTrack& track, bool vital, Clock::time_point now)
{
    const media::TrackReceiver::Statistics total = track.statistics();
    const auto silence = track.silence(total, now);
    if (total.malformedPackets != 0 && !std::exchange(malformedReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::supervise", url, ": packets that cannot be read are dropped (",
                       media::describe(track.lastFault()), ')');
    if (total.ignoredReports != 0 && !std::exchange(ignoredReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::supervise", url,
                       ": sender reports of a time outside the recording are ignored");
    if (track.sendsOnlyForeign(total, now, timing.foreignLimit) || total.formatChanged)
        return Ending{ResultCode::connectionLost, "the format of the stream has changed"};
    const bool frameless = track.bringsNoFrame(total, now, timing.framelessLimit);
    if (vital && frameless)
        return Ending{ResultCode::timedOut, "packets come, but no frame for too long"};
    if (vital)
        return judgeSilence(track, total, silence, now);
    if (stallTimeout.count() != 0 && silence >= stallTimeout)
        reportSilentSound();
    return std::nullopt;
}

std::optional<RTSPClient::State::Ending> RTSPClient::State::judgeSilence(const RTSPTrack& track,
                                                                         const media::TrackReceiver::Statistics& total,
                                                                         std::chrono::steady_clock::duration silence,
                                                                         Clock::time_point now) const
{
    if (transport == RtspTransport::udp && track.awaitsFirstDatagram()) {
        if (now - playingSince < timing.firstDatagramLimit)
            return std::nullopt;
        return Ending{ResultCode::timedOut, "nothing arrives over UDP", true};
    }
    if (track.hasSaidBye(total) && silence >= timing.silenceAfterBye)
        return Ending{ResultCode::connectionLost, "the device has ended the stream", false, true};
    if (stallTimeout.count() == 0 || silence < stallTimeout)
        return std::nullopt;
    if (total.packets == 0 && total.foreignPackets != 0)
        return Ending{ResultCode::unsupportedMedia, "the packets do not fit the description"};
    return Ending{ResultCode::timedOut, track.isVideo() ? "no packet of the pictures has come for too long"
                                                        : "no packet of the sound has come for too long"};
}

void RTSPClient::State::reportSilentSound()
{
    if (!std::exchange(silentSoundReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::supervise", url, ": no sound comes beside the pictures");
}

void RTSPClient::State::sendReports(Clock::time_point now)
{
    for (const auto& track : tracks) {
        const auto report = track->makeReport(ownSource, now);
        if (report.empty())
            continue;
        if (RtpPorts* ports = track->getPorts())
            ports->sendRtcp(report);
        else if (connection.queuedBytes() <= maxQueuedBytes)
            connection.send(track->interleave(report));
    }
}

std::chrono::milliseconds RTSPClient::State::keepAliveInterval() const
{
    return timing.keepAliveInterval.value_or(session->keepAliveInterval());
}
}  // namespace Tavro8::Utility

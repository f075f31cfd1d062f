#include <utility>

#include "rtsp/RTSPClientState.h"

#include "rtsp/TrackSelection.h"
#include "wire/Text.h"
#include "wire/Url.h"

#include <IpUtil/RTSPClient.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/post.hpp>
#include <random>

namespace Tavro8::Utility
{
namespace
{
constexpr const char* sourcePath = "IpUtil/src/rtsp/RTSPClient";
constexpr std::uint16_t defaultRtspPort = 554;
// A device that reads nothing gets no more reports and packets once so much waits for it.
constexpr std::size_t maxQueuedBytes = 256 * 1024;

using Clock = std::chrono::steady_clock;

std::string randomHex()
{
    std::random_device random;
    std::string text;
    for (int i = 0; i < 4; ++i)
        wire::appendNumber(text, random(), 16);
    return text;
}

std::string formUrl(const asio::ConnectionInfo& info, const std::string& path)
{
    wire::Url url;
    url.scheme = "rtsp";
    url.host = info.host;
    url.port = info.port == defaultRtspPort ? std::uint16_t{0} : info.port;
    url.target = path.starts_with('/') ? path : '/' + path;
    return wire::formatWithoutCredentials(url);
}

wire::RtspKeepAlive keepAliveOf(const std::optional<RtspMethod>& method)
{
    if (!method)
        return wire::RtspKeepAlive::automatic;
    switch (*method) {
    case RTSP_METHOD_OPTIONS:
        return wire::RtspKeepAlive::options;
    case RTSP_METHOD_GET_PARAMETER:
        return wire::RtspKeepAlive::getParameter;
    case RTSP_METHOD_SET_PARAMETER:
        return wire::RtspKeepAlive::setParameter;
    }
    return wire::RtspKeepAlive::automatic;
}

ResultCode resultOf(const wire::RtspClientSession::Failed& failed)
{
    using wire::RtspError;
    switch (failed.error) {
    case RtspError::none:
        return ResultCode::success;
    case RtspError::wrongCredentials:
    case RtspError::authenticationMissing:
    case RtspError::authenticationUnknown:
    case RtspError::forbidden:
        return ResultCode::accessDenied;
    case RtspError::notFound:
    case RtspError::sessionNotFound:
        return ResultCode::resourceNotFound;
    case RtspError::notEnoughBandwidth:
    case RtspError::serviceUnavailable:
        return ResultCode::deviceBusy;
    case RtspError::unsupportedTransport:
        return ResultCode::streamRefused;
    case RtspError::optionNotSupported:
        return ResultCode::notSupported;
    case RtspError::redirected:
        return ResultCode::unexpectedStatus;
    case RtspError::requestRefused:
        return failed.kind == wire::RtspStepKind::setup || failed.kind == wire::RtspStepKind::play
                   ? ResultCode::streamRefused
                   : ResultCode::requestRejected;
    case RtspError::serverError:
        return ResultCode::deviceError;
    case RtspError::badDescription:
        return ResultCode::malformedResponse;
    case RtspError::noTracks:
        return ResultCode::noSuchStream;
    case RtspError::misuse:
        return ResultCode::invalidState;
    }
    return ResultCode::unexpected;
}

std::string describeFailure(const wire::RtspClientSession::Failed& failed)
{
    std::string text;
    if (failed.status != 0) {
        wire::appendNumber(text, failed.status);
        text += ' ';
    }
    if (!failed.reason.empty())
        text += failed.reason + ": ";
    return text + wire::describe(failed.error);
}

template <typename Function>
Function take(Function& function)
{
    return std::exchange(function, nullptr);
}

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

RTSPClient::State::State(boost::asio::io_context& io, std::shared_ptr<ILogger> hostLogger)
    : Client(io),
      service(io),
      loggerOwner(std::move(hostLogger)),
      logger(loggerOwner.get(), sourcePath),
      timing(context->timing),
      connection(io, *context, *this),
      ownSource(std::random_device{}())
{
    channelTable.fill(nobody);
}

RTSPClient::State::~State() = default;

// ---- beginning ------------------------------------------------------------------------------------------------

void RTSPClient::State::initialize(const std::shared_ptr<const asio::ConnectionInfo>& info, const std::string& path,
                                   Completion handleSession)
{
    if (phase != Phase::idle || info == nullptr) {
        const ResultCode reason = info == nullptr ? ResultCode::invalidArgument : ResultCode::invalidState;
        return postResult(std::move(handleSession), reason);
    }
    phase = Phase::connecting;
    onSession = std::move(handleSession);
    url = formUrl(*info, path);
    credentials = {info->user, info->password};
    deadline = Clock::now() + connectTimeout;
    context->startTicking(*this);
    logger.debug("Tavro8::Utility::RTSPClient::initialize", "connecting for ", url);
    connection.connect(info->host, info->port);
}

void RTSPClient::State::onConnected()
{
    phase = Phase::connected;
    tell(take(onSession), {});
}

void RTSPClient::State::performDefaultSteps(const Headers& headers, SdpHandler handleSdp, Completion handlePlay)
{
    if (phase != Phase::connected) {
        const error_code reason =
            phase == Phase::closed && lastFailure ? lastFailure : make_error_code(ResultCode::invalidState);
        boost::asio::post(service, [self = keepAlive(), this, reason, handler = std::move(handleSdp)] {
            guardedVoid(logger, "Tavro8::Utility::RTSPClient::performDefaultSteps", [&] { handler(reason, {}); });
        });
        return;
    }
    phase = Phase::negotiating;
    onSdp = std::move(handleSdp);
    onPlay = std::move(handlePlay);
    if (transport == RtspTransport::udp)
        logger.warning("Tavro8::Utility::RTSPClient::performDefaultSteps",
                       "UDP is not available, the stream is received over the RTSP connection: ", url);

    wire::RtspSessionConfig config;
    config.url = url;
    config.credentials = credentials;
    config.cnonce = randomHex;
    config.userAgent = "IpUtil/1.0";
    for (const auto& [name, value] : headers)
        config.headers.add(name, value);
    config.keepAlive = keepAliveOf(keepAliveMethod);
    session.emplace(std::move(config));
    perform(session->start());
}

// ---- the session ----------------------------------------------------------------------------------------------

void RTSPClient::State::onMessage(const wire::RtspMessage& message)
{
    if (session)
        perform(session->handle(message));
}

void RTSPClient::State::perform(wire::RtspClientSession::Step step)
{
    using Session = wire::RtspClientSession;
    if (const auto* out = std::get_if<Session::Send>(&step))
        send(*out);
    else if (std::holds_alternative<Session::Described>(step))
        onDescribed();
    else if (std::holds_alternative<Session::Playing>(step))
        onPlaying();
    else if (const auto* refused = std::get_if<Session::KeepAliveRefused>(&step))
        onKeepAliveRefused(refused->status);
    else if (std::holds_alternative<Session::Closed>(step))
        finishTeardown();
    else if (const auto* failed = std::get_if<Session::Failed>(&step))
        fail(resultOf(*failed), wire::nameOf(failed->kind), describeFailure(*failed));
}

void RTSPClient::State::send(const wire::RtspClientSession::Send& out)
{
    if (out.kind != wire::RtspStepKind::keepAlive && out.kind != wire::RtspStepKind::answer) {
        waitingFor = out.kind;
        if (phase == Phase::negotiating)
            deadline = Clock::now() + timing.requestTimeout;
    }
    if (out.kind == wire::RtspStepKind::play)
        mapChannels();  // media may be on its way before the answer
    connection.send({out.bytes.begin(), out.bytes.end()});
}

void RTSPClient::State::onDescribed()
{
    const SessionDescription description = describeTracks(session->description(), audioSink.expectedCodec);
    addingTracks = true;
    const auto handler = take(onSdp);
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

void RTSPClient::State::onPlaying()
{
    const auto now = Clock::now();
    phase = Phase::playing;
    nextKeepAlive = now + keepAliveInterval();
    nextReport = now + timing.reportInterval;
    lastProgress = now;
    logger.info("Tavro8::Utility::RTSPClient::performDefaultSteps", "playing ", url);
    tell(take(onPlay), {});
}

void RTSPClient::State::onKeepAliveRefused(unsigned status)
{
    if (!std::exchange(refusalReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::performDefaultSteps", "keep-alive ", url,
                       " is refused with status ", status, "; the stream goes on");
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

// ---- the end --------------------------------------------------------------------------------------------------

void RTSPClient::State::onBroken(const error_code& ec, const std::string& reason)
{
    const bool opening = phase == Phase::connecting || phase == Phase::connected;
    const bool playing = phase == Phase::playing;
    fail(ec, opening ? "connecting" : playing ? "receiving" : wire::nameOf(waitingFor), reason);
}

void RTSPClient::State::fail(const error_code& ec, const char* step, const std::string& reason)
{
    if (phase == Phase::closed)
        return;
    if (phase == Phase::closing)
        return finishTeardown();
    logger.error("Tavro8::Utility::RTSPClient::performDefaultSteps", step, ' ', url, ": ", reason);
    lastFailure = ec;

    auto session_ = take(onSession);
    auto sdp = take(onSdp);
    auto play = take(onPlay);
    auto closedHandler = take(onClosed);
    const Phase failedIn = phase;
    sayGoodBye();
    close();
    // The tracks live until the handler has read their counters.
    if (session_)
        tell(session_, ec);
    else if (sdp)
        guardedVoid(logger, "Tavro8::Utility::RTSPClient::performDefaultSteps", [&] { sdp(ec, {}); });
    else if (play)
        tell(play, ec);
    else if (failedIn == Phase::playing && closedHandler)
        tell(closedHandler, ec);
    dropTracks();
}

/// A device that still listens need not keep the session until its time-out.
void RTSPClient::State::sayGoodBye()
{
    if (!session)
        return;
    const auto step = session->teardown();
    if (const auto* out = std::get_if<wire::RtspClientSession::Send>(&step))
        connection.sendAtOnce(out->bytes);
}

void RTSPClient::State::teardown(Completion completion)
{
    if (context == nullptr)
        return;  // with the I/O context everything has ended already
    onSession = nullptr;
    onSdp = nullptr;
    onPlay = nullptr;
    onClosed = nullptr;
    std::ranges::for_each(tracks, [](const auto& track) { track->mute(); });
    if (phase == Phase::closing) {
        onTornDown.push_back(std::move(completion));
        return;
    }
    if (phase == Phase::negotiating || phase == Phase::playing) {
        const auto step = session->teardown();
        if (const auto* out = std::get_if<wire::RtspClientSession::Send>(&step)) {
            phase = Phase::closing;
            deadline = Clock::now() + timing.teardownTimeout;
            onTornDown.push_back(std::move(completion));
            connection.send({out->bytes.begin(), out->bytes.end()});
            return;
        }
    }
    close();
    dropTracks();
    if (completion)
        postResult(std::move(completion), ResultCode::success);
}

void RTSPClient::State::finishTeardown()
{
    const auto completions = std::exchange(onTornDown, {});
    close();
    dropTracks();
    for (const Completion& completion : completions)
        tell(completion, {});
}

void RTSPClient::State::close() noexcept
{
    phase = Phase::closed;
    if (context != nullptr)
        context->stopTicking(*this);
    connection.close();
}

void RTSPClient::State::dropTracks()
{
    // Not inside the delivery of a frame: the track is at work then, and goes when it has returned.
    if (!delivering)
        tracks.clear();
}

void RTSPClient::State::onContextShutdown() noexcept
{
    phase = Phase::closed;
    connection.release();
    onSession = nullptr;
    onSdp = nullptr;
    onPlay = nullptr;
    onClosed = nullptr;
    onTornDown.clear();
    tracks.clear();
}

std::shared_ptr<void> RTSPClient::State::keepAlive()
{
    return owner->shared_from_this();
}

void RTSPClient::State::tell(const Completion& completion, const error_code& ec) const noexcept
{
    if (completion)
        guardedVoid(logger, "Tavro8::Utility::RTSPClient", [&] { completion(ec); });
}

void RTSPClient::State::postResult(Completion completion, ResultCode result)
{
    boost::asio::post(
        service, [self = keepAlive(), this, completion = std::move(completion), result] { tell(completion, result); });
}

// ---- the public face ------------------------------------------------------------------------------------------

std::shared_ptr<RTSPClient> RTSPClient::create(boost::asio::io_context& service, ILogger* logger)
{
    return create(service, std::shared_ptr<ILogger>(std::shared_ptr<void>(), logger));
}

std::shared_ptr<RTSPClient> RTSPClient::create(boost::asio::io_context& service, std::shared_ptr<ILogger> logger)
{
    const std::shared_ptr<RTSPClient> client(new RTSPClient(std::make_unique<State>(service, std::move(logger))));
    client->state->owner = client.get();
    return client;
}

RTSPClient::RTSPClient(std::unique_ptr<State> state) : state(std::move(state)) {}

RTSPClient::~RTSPClient() = default;

ILogger* RTSPClient::logger() const noexcept
{
    return state->logger.getLogger();
}

void RTSPClient::setTransport(RtspTransport transport)
{
    state->transport = transport;
}

void RTSPClient::setConnectTimeout(std::chrono::milliseconds timeout)
{
    state->connectTimeout = timeout;
}

void RTSPClient::setStallTimeout(std::chrono::milliseconds timeout)
{
    state->stallTimeout = timeout;
}

void RTSPClient::setKeepAliveCommand(RtspMethod method)
{
    state->keepAliveMethod = method;
}

void RTSPClient::setVideoSinkParams(const VideoSinkParams& params)
{
    state->videoSink = params;
}

void RTSPClient::setAudioSinkParams(const AudioSinkParams& params)
{
    state->audioSink = params;
}

const VideoSinkParams& RTSPClient::getVideoSinkParams() const noexcept
{
    return state->videoSink;
}

const AudioSinkParams& RTSPClient::getAudioSinkParams() const noexcept
{
    return state->audioSink;
}

void RTSPClient::initialize(const std::shared_ptr<const asio::ConnectionInfo>& info, const std::string& path,
                            Completion handleSession)
{
    state->initialize(info, path, std::move(handleSession));
}

void RTSPClient::performDefaultSteps(const Headers& headers, SdpHandler handleSdp, Completion handlePlay)
{
    state->performDefaultSteps(headers, std::move(handleSdp), std::move(handlePlay));
}

std::weak_ptr<RTSPTrack> RTSPClient::addTrack(TrackInitializer initializer)
{
    return state->addTrack(std::move(initializer));
}

void RTSPClient::sendPacket(const std::weak_ptr<RTSPTrack>& track, std::vector<std::uint8_t> payload,
                            std::uint32_t timestamp, Completion handleWritePacket)
{
    state->sendPacket(track, payload, timestamp, std::move(handleWritePacket));
}

void RTSPClient::setClosedHandler(Completion handleClosed)
{
    state->onClosed = std::move(handleClosed);
}

StreamCounters RTSPClient::counters(const std::weak_ptr<RTSPTrack>& track) const
{
    const auto held = track.lock();
    return held == nullptr ? StreamCounters{} : held->counters();
}

void RTSPClient::teardown(Completion completion)
{
    const auto self = shared_from_this();  // a handler that is dropped may have been the last to hold it
    state->teardown(std::move(completion));
}
}  // namespace Tavro8::Utility

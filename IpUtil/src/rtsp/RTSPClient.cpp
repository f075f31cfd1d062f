#include <utility>

#include "rtsp/RTSPClientState.h"

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

template <typename Function>
Function take(Function& function)
{
    return std::exchange(function, nullptr);
}

}  // namespace

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
        return ResultCode::malformedReply;
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

RTSPClient::State::State(boost::asio::io_context& io, std::shared_ptr<ILogger> hostLogger)
    : Client(io),
      service(io),
      loggerOwner(std::move(hostLogger)),
      logger(loggerOwner.get(), sourcePath),
      timing(context->timing),
      ownSource(std::random_device{}()),
      connection(io, *context, *this)
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

void RTSPClient::State::performDefaultSteps(const Headers& headers, SdpHandler handleSdp, Completion handlePlay,
                                            bool recordedMedia)
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
    recorded = recordedMedia;
    if (recorded)
        transport = RtspTransport::tcp;
    onSdp = std::move(handleSdp);
    onPlay = std::move(handlePlay);

    wire::RtspSessionConfig config;
    config.url = url;
    config.credentials = credentials;
    config.cnonce = randomHex;
    config.userAgent = "IpUtil/1.0";
    for (const auto& [name, value] : headers)
        config.headers.add(name, value);
    config.keepAlive = keepAliveOf(keepAliveMethod);
    config.playAtOnce = !recorded;
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
        recorded ? onRecordedPlaying() : onPlaying();
    else if (std::holds_alternative<Session::Ready>(step))
        onReady();
    else if (std::holds_alternative<Session::Paused>(step))
        onPaused();
    else if (const auto* refusal = std::get_if<Session::Refused>(&step))
        onRefused(refusal->why);
    else if (const auto* refused = std::get_if<Session::KeepAliveRefused>(&step))
        onKeepAliveRefused(refused->status);
    else if (std::holds_alternative<Session::Closed>(step))
        finishTeardown();
    else if (const auto* failed = std::get_if<Session::Failed>(&step))
        fail(resultOf(*failed), wire::nameOf(failed->kind), describeFailure(*failed));
}

void RTSPClient::State::send(const wire::RtspClientSession::Send& out)
{
    const bool besides = out.kind == wire::RtspStepKind::keepAlive || out.kind == wire::RtspStepKind::answer;
    if (besides && connection.queuedBytes() > maxQueuedBytes)
        return;
    if (!besides) {
        waitingFor = out.kind;
        if (phase == Phase::negotiating || phase == Phase::playing)
            deadline = Clock::now() + timing.requestTimeout;
    }
    if (out.kind == wire::RtspStepKind::play && !recorded)
        establishTracks();  // media may be on its way before the answer
    connection.send({out.bytes.begin(), out.bytes.end()});
}

void RTSPClient::State::beginSupervision()
{
    const auto now = Clock::now();
    phase = Phase::playing;
    nextKeepAlive = now + keepAliveInterval();
    nextReport = now + timing.reportInterval;
    playingSince = now;
    for (const auto& track : tracks)
        track->beginWatch(now);
}

void RTSPClient::State::onPlaying()
{
    beginSupervision();
    logger.info(
        "Tavro8::Utility::RTSPClient::performDefaultSteps", "playing ", url,
        std::ranges::any_of(tracks, [](const auto& track) { return track->getPorts() != nullptr; }) ? " over UDP" : "");
    tell(take(onPlay), {});
}

void RTSPClient::State::onKeepAliveRefused(unsigned status)
{
    if (!std::exchange(refusalReported, true))
        logger.warning("Tavro8::Utility::RTSPClient::performDefaultSteps", "keep-alive ", url,
                       " is refused with status ", status, "; the stream goes on");
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
    forgetHandlers();
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
    sayByeToPorts();
    const auto step = session->teardown();
    if (const auto* out = std::get_if<wire::RtspClientSession::Send>(&step))
        connection.sendAtOnce(out->bytes);
}

void RTSPClient::State::sayByeToPorts()
{
    for (const auto& track : tracks) {
        if (RtpPorts* ports = track->getPorts())
            ports->sendRtcp(track->makeBye(ownSource));
    }
}

void RTSPClient::State::teardown(Completion completion)
{
    if (context == nullptr)
        return;  // with the I/O context everything has ended already
    forgetHandlers();
    std::ranges::for_each(tracks, [](const auto& track) { track->mute(); });
    if (phase == Phase::closing) {
        onTornDown.push_back(std::move(completion));
        return;
    }
    if (phase == Phase::negotiating || phase == Phase::playing) {
        sayByeToPorts();
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
    for (const auto& track : tracks) {
        track->mute();
        track->closePorts();
    }
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
    const auto keptUntilTheEnd = connection.release();
    forgetHandlers();
    onTornDown.clear();
    for (const auto& track : tracks)
        track->closePorts();
    tracks.clear();
}

void RTSPClient::State::forgetHandlers() noexcept
{
    onSession = nullptr;
    onSdp = nullptr;
    onPlay = nullptr;
    onClosed = nullptr;
    onEnd = nullptr;
    onPlayDone = nullptr;
    onPauseDone = nullptr;
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

RtspTransport RTSPClient::getTransport() const noexcept
{
    return state->transport;
}

RtspTransport RTSPClient::getWorkingTransport() const noexcept
{
    return state->learntTransport.value_or(state->transport);
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
    state->performDefaultSteps(headers, std::move(handleSdp), std::move(handlePlay), false);
}

void RTSPClient::prepareRecorded(const Headers& headers, SdpHandler handleSdp, Completion handleReady)
{
    state->performDefaultSteps(headers, std::move(handleSdp), std::move(handleReady), true);
}

void RTSPClient::playRecorded(const RecordedPlay& wanted, PlayHandler handlePlay)
{
    state->playRecorded(wanted, std::move(handlePlay));
}

void RTSPClient::pauseRecorded(Completion handlePause)
{
    state->pauseRecorded(std::move(handlePause));
}

void RTSPClient::setEndHandler(std::function<void()> handleEnd)
{
    state->onEnd = std::move(handleEnd);
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

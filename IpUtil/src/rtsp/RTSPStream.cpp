#include <utility>

#include "rtsp/RTSPStreamState.h"

#include "rtsp/RtspTrack.h"
#include "rtsp/TrackSelection.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/post.hpp>
#include <map>
#include <mutex>

namespace Tavro8::Utility
{
namespace
{
constexpr const char* sourcePath = "IpUtil/src/rtsp/RTSPStream";
constexpr std::size_t receiverBytes = 128;  // what a receiver is likely to look at for a frame
constexpr MediaKind bothKinds[] = {MediaKind::video, MediaKind::audio};

const char* nameOf(MediaKind kind) noexcept
{
    return kind == MediaKind::video ? "video" : "audio";
}

StreamCounters sum(StreamCounters a, const StreamCounters& b) noexcept
{
    a.frames += b.frames;
    a.keyFrames += b.keyFrames;
    a.bytes += b.bytes;
    a.lostPackets += b.lostPackets;
    a.malformedPackets += b.malformedPackets;
    a.jitterMs = b.jitterMs;
    return a;
}

StreamCounters difference(StreamCounters a, const StreamCounters& b) noexcept
{
    a.frames -= b.frames;
    a.keyFrames -= b.keyFrames;
    a.bytes -= b.bytes;
    a.lostPackets -= b.lostPackets;
    a.malformedPackets -= b.malformedPackets;
    return a;
}
}  // namespace

RTSPStream::State::State(boost::asio::io_context& io, ILogger* hostLogger, Hooks deviceHooks)
    : Client(io),
      service(io),
      failures(std::make_shared<LoggerDetail::CollapsingLogger>(hostLogger, deviceHooks.keepAlive)),
      logger(failures.get(), sourcePath),
      timing(context->timing),
      hooks(std::move(deviceHooks)),
      backoff(timing.firstRetry, timing.longestRetry),
      random(std::random_device{}())
{}

RTSPStream::State::~State() = default;

// ---- receivers ------------------------------------------------------------------------------------------------

void RTSPStream::State::add(const std::shared_ptr<RTSPReceiver>& receiver)
{
    if (receiver == nullptr ||
        std::ranges::find(registrations, receiver, &Registration::receiver) != registrations.end())
        return;
    const MediaKind kind = receiver->mediaKind();
    registrations.push_back({receiver, kind, framesFlowed, totals(kind)});
    listHotMemory(kind);
    switch (phase) {
    case Phase::idle:
        connect();
        break;
    case Phase::connecting:
        introduce(*receiver);  // its settings still count
        break;
    case Phase::playing:
        if (isSetUp(kind) || of(kind).requested || !of(kind).described)
            guardedVoid(logger, "Tavro8::Utility::RTSPStream::regReceiver",
                        [&] { receiver->onStreamState(stateOf(kind)); });
        else
            reconnect();
        break;
    case Phase::settingUp:  // looked after once the stream plays
    case Phase::waitingForDevice:
    case Phase::waitingForRetry:
    case Phase::reconnecting:
        break;
    }
}

void RTSPStream::State::remove(const std::shared_ptr<RTSPReceiver>& receiver)
{
    const auto gone = std::ranges::remove(registrations, receiver, &Registration::receiver);
    registrations.erase(gone.begin(), gone.end());
    if (!registrations.empty())
        return watchLeftover();
    if (phase == Phase::idle)
        return;
    endConnection();
    phase = Phase::idle;
    played = lost = false;
    backoff.reset();
    // Whoever comes next has seen no frame: times that a leap of some clock left ahead need not be waited for.
    for (Kind& kind : kinds) {
        if (kind.clock)
            kind.clock->forgetFloor();
    }
}

void RTSPStream::State::restart()
{
    if (phase == Phase::connecting || phase == Phase::settingUp || phase == Phase::playing)
        reconnect();
    else if (phase == Phase::waitingForRetry)
        connect();
}

void RTSPStream::State::onDeviceConnected()
{
    learntTransport.reset();  // the network between us may be another now
    if (phase == Phase::waitingForDevice || phase == Phase::waitingForRetry)
        connect();
}

void RTSPStream::State::onDeviceClosed()
{
    if (phase == Phase::idle)
        return;
    endConnection();
    phase = Phase::waitingForDevice;
    played = lost = false;
}

void RTSPStream::State::shutDown()
{
    endConnection();
    phase = Phase::idle;
    registrations.clear();
}

bool RTSPStream::State::wants(MediaKind kind) const
{
    return std::ranges::any_of(registrations,
                               [kind](const Registration& registration) { return registration.kind == kind; });
}

// ---- one connection -------------------------------------------------------------------------------------------

void RTSPStream::State::connect()
{
    retryTimer.reset();
    if (registrations.empty()) {
        phase = Phase::idle;
        return;
    }
    std::shared_ptr<const asio::ConnectionInfo> info;
    std::string path;
    guardedVoid(logger, "Tavro8::Utility::RTSPStream::connect", [&] {
        info = hooks.connectionInfo ? hooks.connectionInfo() : nullptr;
        path = info != nullptr && hooks.path ? hooks.path() : std::string();
    });
    if (info == nullptr) {
        phase = Phase::waitingForDevice;
        return;
    }
    phase = Phase::connecting;
    ++connectionNumber;
    prepareClient();
    client->initialize(info, path, bound(&State::onSession));
}

void RTSPStream::State::prepareClient()
{
    framesFlowed = false;
    for (Kind& kind : kinds)
        kind.described = kind.requested = false;
    client = RTSPClient::create(service, failures);
    client->setClosedHandler(bound(&State::onClosed));
    for (const Registration& registration : registrations)
        introduce(*registration.receiver);
}

void RTSPStream::State::introduce(RTSPReceiver& receiver)
{
    guardedVoid(logger, "Tavro8::Utility::RTSPStream::connect", [&] {
        receiver.onConnectionStart();
        receiver.initializeClient(*client);
    });
}

void RTSPStream::State::onSession(const error_code& ec)
{
    if (ec)
        return onAttemptFailed(ec);
    client->performDefaultSteps({}, bound(&State::onSdp), bound(&State::onPlay));
}

/// What did not work is not tried again and again, unless somebody asks for something else. Chosen when no receiver can
/// set up the client any more.
void RTSPStream::State::chooseTransport()
{
    const RtspTransport wanted = client->getTransport();
    if (wantedTransport != wanted)
        learntTransport.reset();
    wantedTransport = wanted;
    if (learntTransport)
        client->setTransport(*learntTransport);
}

RtspTransport RTSPStream::State::getTransport() const noexcept
{
    // As long as nothing else was learnt, what was asked for holds, and `automatic` begins with the connection.
    const bool udp = client != nullptr && client->getWorkingTransport() == RtspTransport::udp;
    return udp ? RtspTransport::udp : RtspTransport::tcp;
}

void RTSPStream::State::learnTransport()
{
    const RtspTransport working = client->getWorkingTransport();
    if (working != client->getTransport())
        learntTransport = working;
}

void RTSPStream::State::onSdp(const error_code& ec, const SessionDescription& description)
{
    if (ec)
        return onAttemptFailed(ec);
    phase = Phase::settingUp;
    chooseTransport();
    chooseTracks(description);
}

void RTSPStream::State::chooseTracks(const SessionDescription& description)
{
    const AudioSinkParams& audio = client->getAudioSinkParams();
    for (const MediaKind kind : bothKinds) {
        of(kind).requested = wants(kind);
        for (const SdpTrack& track : description.tracks) {
            const bool suits = kind == MediaKind::video ? isWantedVideo(track) : isWantedAudio(track, audio);
            if (!suits || (of(kind).requested && !offerTrack(track, kind)))
                continue;
            of(kind).described = true;
            break;
        }
        if (of(kind).requested && !of(kind).described && !std::exchange(of(kind).missingReported, true))
            logger.error("Tavro8::Utility::RTSPStream::chooseTracks", "the device offers no ", nameOf(kind),
                         " in a format that can be received");
    }
}

bool RTSPStream::State::offerTrack(const SdpTrack& description, MediaKind kind)
{
    // A bare `this`, for the sake of the path of each frame: the track delivers nothing after the teardown of its
    // client, its failure or the end of the I/O context, and one of these comes before the stream lets go of the
    // client.
    const auto weakTrack =
        client->addTrack({description, [this, kind](const GDRV::MediaFrame& frame) { deliver(kind, frame); }});
    const auto track = weakTrack.lock();
    if (track == nullptr)
        return false;
    of(kind).track = weakTrack;
    if (of(kind).clock)
        track->resumeClock(*of(kind).clock);  // times neither run backwards nor jump from one connection to the next
    listHotMemory(kind);
    return true;
}

/// What `deliver` needs for each frame.
void RTSPStream::State::listHotMemory(MediaKind kind)
{
    const auto track = of(kind).track.lock();
    if (track == nullptr)
        return;
    media::HotMemory hot;
    hot.add(&registrations, sizeof registrations + sizeof framesFlowed);
    for (const Registration& registration : registrations) {
        if (registration.kind == kind)
            hot.add(registration.receiver.get(), receiverBytes);
    }
    track->setTakersMemory(hot);
}

void RTSPStream::State::onPlay(const error_code& ec)
{
    if (ec)
        return onAttemptFailed(ec);
    phase = Phase::playing;
    learnTransport();
    playedOver = client->getWorkingTransport();
    played = true;
    lost = false;
    healthTimer.emplace(service, timing.healthyLife);
    healthTimer->async_wait(bound(&State::onHealthy));
    playingSince = std::chrono::steady_clock::now();
    bool leftOut = false;
    for (const MediaKind kind : bothKinds) {
        if (isSetUp(kind))
            of(kind).missingReported = false;
        if (!of(kind).requested && of(kind).described && wants(kind))
            leftOut = true;  // somebody has come since the tracks were chosen
        else
            tellState(kind, stateOf(kind));
    }
    if (leftOut)
        reconnect();
    else
        watchLeftover();
}

/// What failed before is over; a failure that comes next is logged again. A device that plays for a moment and fails
/// again and again is not over it, and its lines stay folded.
void RTSPStream::State::onHealthy(const error_code& ec)
{
    if (!ec && phase == Phase::playing)
        failures->forget();
}

bool RTSPStream::State::hasLeftoverVideo() const
{
    return phase == Phase::playing && isSetUp(MediaKind::video) && !wants(MediaKind::video);
}

/// A single track cannot be ended where the device controls all of them together: the session is made anew without
/// it. Pictures are worth that, a leftover sound track costs next to nothing.
void RTSPStream::State::watchLeftover()
{
    if (!hasLeftoverVideo())
        return;
    leftoverTimer.emplace(service, timing.leftoverLimit);
    leftoverTimer->async_wait(bound(&State::onLeftover));
}

void RTSPStream::State::onLeftover(const error_code& ec)
{
    if (!ec && hasLeftoverVideo())
        reconnect();
}

void RTSPStream::State::deliver(MediaKind kind, const GDRV::MediaFrame& frame)
{
    if (!std::exchange(framesFlowed, true))
        backoff.reset();
    if (!frame.parameterSets.empty())
        of(kind).parameterSets.assign(frame.parameterSets.begin(), frame.parameterSets.end());
    for (Registration& registration : registrations) {
        if (registration.kind != kind)
            continue;
        if (registration.joining)
            deliverToJoining(registration, frame);
        else
            registration.receiver->onFrame(frame);
    }
}

/// Who joins a running stream sees it begin as the others did: with a key frame that names its parameter sets. Those of
/// sound are no part of its frames, so that the first one is copied with them.
void RTSPStream::State::deliverToJoining(Registration& registration, const GDRV::MediaFrame& frame)
{
    if (!frame.keyFrame) {
        if (client->getVideoSinkParams().lossHandling == LossHandling::flag)
            registration.receiver->onFrame(frame);
        return;
    }
    registration.joining = false;
    GDRV::MediaFrame first = frame;
    const auto& sets = of(registration.receiver->mediaKind()).parameterSets;
    if (frame.codec == GDRV::MediaCodec::aac && frame.parameterSets.empty()) {
        media::FrameBuffer& copy = context->framePool()->acquire(frame.data.size() + sets.size());
        std::ranges::copy(sets, std::ranges::copy(frame.data, copy.data()).out);
        first.data = {copy.data(), frame.data.size()};
        first.parameterSets = {copy.data() + frame.data.size(), sets.size()};
        first.buffer = &copy;
        registration.receiver->onFrame(first);
        copy.Release();
        return;
    }
    const auto found = std::search(frame.data.begin(), frame.data.end(), sets.begin(), sets.end());
    if (GDRV::isVideo(frame.codec) && found != frame.data.end())
        first.parameterSets = frame.data.subspan(static_cast<std::size_t>(found - frame.data.begin()), sets.size());
    registration.receiver->onFrame(first);
}

// ---- failure and repetition -----------------------------------------------------------------------------------

void RTSPStream::State::onAttemptFailed(const error_code& ec)
{
    learnTransport();
    // The way that was taken instead is refused as well: all of them are tried again, one after the other.
    if (ec == ResultCode::streamRefused || ec == ResultCode::deviceError)
        learntTransport.reset();
    collectCounters();
    client.reset();
    const bool firstAfterLoss = std::exchange(lost, false);
    if (std::exchange(played, false))
        lost = !firstAfterLoss;  // what was a restart on purpose has become a loss
    retryAfter(backoff.next(std::uniform_real_distribution<>(0, 1)(random)));
    tellAll(ec);
    if (firstAfterLoss && hooks.onLost)
        guardedVoid(logger, "Tavro8::Utility::RTSPStream::connect", [&] { hooks.onLost(); });
}

void RTSPStream::State::onClosed(const error_code& ec)
{
    const bool otherWay = client->getWorkingTransport() != playedOver;
    learnTransport();
    collectCounters();
    client.reset();
    if (otherWay)
        return connect();  // nothing was lost: the device is asked again in another way
    const auto life = std::chrono::steady_clock::now() - playingSince;
    const bool steady = framesFlowed && life >= timing.steadyLife;
    lost = true;
    tellAll(ec);
    if (steady)
        connect();
    else
        retryAfter(backoff.next(std::uniform_real_distribution<>(0, 1)(random)));
}

void RTSPStream::State::retryAfter(std::chrono::milliseconds delay)
{
    phase = Phase::waitingForRetry;
    retryTimer.emplace(service, delay);
    retryTimer->async_wait([weak = weak_from_this(), number = connectionNumber](const error_code& ec) {
        const auto self = weak.lock();
        if (self != nullptr && !ec && self->phase == Phase::waitingForRetry && self->connectionNumber == number)
            self->connect();
    });
}

/// Ends the session first: devices with few places would refuse the second one.
void RTSPStream::State::reconnect()
{
    phase = Phase::reconnecting;
    collectCounters();
    ++connectionNumber;  // nothing of the old connection counts any more
    std::exchange(client, nullptr)->teardown(bound(&State::onEnded));
}

void RTSPStream::State::endConnection()
{
    collectCounters();
    retryTimer.reset();
    healthTimer.reset();
    leftoverTimer.reset();
    ++connectionNumber;
    if (client != nullptr)
        std::exchange(client, nullptr)->teardown();
}

/// Before the tracks of a connection go.
void RTSPStream::State::collectCounters()
{
    for (Kind& kind : kinds) {
        if (const auto track = kind.track.lock()) {
            kind.finished = sum(kind.finished, track->counters());
            kind.clock = track->clockCarry();
        }
        kind.track.reset();
    }
}

// ---- what receivers are told ----------------------------------------------------------------------------------

bool RTSPStream::State::isSetUp(MediaKind kind) const
{
    const auto track = of(kind).track.lock();
    return track != nullptr && track->isEstablished();
}

error_code RTSPStream::State::stateOf(MediaKind kind) const
{
    if (isSetUp(kind))
        return {};
    return of(kind).described ? ResultCode::streamRefused : ResultCode::noSuchStream;
}

void RTSPStream::State::tellState(MediaKind kind, const error_code& ec)
{
    for (const Registration& registration : registrations) {
        if (registration.kind == kind)
            guardedVoid(logger, "Tavro8::Utility::RTSPStream::tellState",
                        [&] { registration.receiver->onStreamState(ec); });
    }
}

void RTSPStream::State::tellAll(const error_code& ec)
{
    for (const MediaKind kind : bothKinds)
        tellState(kind, ec);
}

StreamCounters RTSPStream::State::totals(MediaKind kind) const
{
    const auto track = of(kind).track.lock();
    return track == nullptr ? of(kind).finished : sum(of(kind).finished, track->counters());
}

StreamCounters RTSPStream::State::counters(const RTSPReceiver& receiver) const
{
    const auto found = std::ranges::find_if(
        registrations, [&](const Registration& registration) { return registration.receiver.get() == &receiver; });
    return found == registrations.end() ? StreamCounters{} : difference(totals(receiver.mediaKind()), found->before);
}

void RTSPStream::State::onContextShutdown() noexcept
{
    contextGone = true;
    phase = Phase::idle;
    ++connectionNumber;
    retryTimer.reset();
    healthTimer.reset();
    leftoverTimer.reset();
    for (Kind& kind : kinds)
        kind.track.reset();
    // Receivers usually hold the stream: moved out first, since one of them may hold it last.
    const auto keepUntilTheEnd = weak_from_this().lock();
    const auto clientToGo = std::move(client);
    const auto receiversToGo = std::exchange(registrations, {});
}

// ---- the public face ------------------------------------------------------------------------------------------

RTSPStream::RTSPStream(boost::asio::io_context& service, ILogger* logger, Hooks hooks)
    : state(std::make_shared<State>(service, logger, std::move(hooks)))
{}

RTSPStream::~RTSPStream()
{
    if (!state->contextGone)
        boost::asio::post(state->service, [state = state] { state->shutDown(); });
}

boost::asio::io_context& RTSPStream::service() const noexcept
{
    return state->service;
}

// All of them are posted, never run at once: so they keep their order whichever thread they come from, and nothing
// changes the receivers while these are being told something.

void RTSPStream::regReceiver(const std::shared_ptr<RTSPReceiver>& receiver)
{
    boost::asio::post(state->service, [state = state, receiver] {
        guardedVoid(state->logger, "Tavro8::Utility::RTSPStream::regReceiver", [&] { state->add(receiver); });
    });
}

void RTSPStream::unregReceiver(const std::shared_ptr<RTSPReceiver>& receiver, std::function<void()> completion)
{
    boost::asio::post(state->service, [state = state, receiver, completion = std::move(completion)] {
        guardedVoid(state->logger, "Tavro8::Utility::RTSPStream::unregReceiver", [&] { state->remove(receiver); });
        if (completion)
            guardedVoid(state->logger, "Tavro8::Utility::RTSPStream::unregReceiver", completion);
    });
}

void RTSPStream::restart()
{
    boost::asio::post(state->service, [state = state] {
        guardedVoid(state->logger, "Tavro8::Utility::RTSPStream::restart", [&] { state->restart(); });
    });
}

void RTSPStream::deviceConnected()
{
    boost::asio::post(state->service, [state = state] {
        guardedVoid(state->logger, "Tavro8::Utility::RTSPStream::deviceConnected", [&] { state->onDeviceConnected(); });
    });
}

void RTSPStream::deviceClosed()
{
    boost::asio::post(state->service, [state = state] {
        guardedVoid(state->logger, "Tavro8::Utility::RTSPStream::deviceClosed", [&] { state->onDeviceClosed(); });
    });
}

StreamCounters RTSPStream::counters(const RTSPReceiver& receiver) const
{
    return state->counters(receiver);
}

RtspTransport RTSPStream::getTransport() const
{
    return state->getTransport();
}

// ---- RTSPSource -----------------------------------------------------------------------------------------------

struct RTSPSource::State {
    boost::asio::io_context& service;
    ILogger* logger;
    Hooks hooks;
    std::mutex mutex;  // guards `streams`; nothing is called while it is held
    std::map<std::pair<std::uint32_t, std::uint32_t>, std::weak_ptr<RTSPStream>> streams;

    std::vector<std::shared_ptr<RTSPStream>> present()
    {
        std::vector<std::shared_ptr<RTSPStream>> result;
        const std::lock_guard lock(mutex);
        for (const auto& [place, weak] : streams) {
            if (auto stream = weak.lock())
                result.push_back(std::move(stream));
        }
        return result;
    }
};

RTSPSource::RTSPSource(boost::asio::io_context& service, ILogger* logger, Hooks hooks)
    : state(new State{service, logger, std::move(hooks), {}, {}})
{}

RTSPSource::~RTSPSource() = default;

std::shared_ptr<RTSPStream> RTSPSource::getStream(std::uint32_t channel, std::uint32_t stream)
{
    RTSPStream::Hooks hooks{state->hooks.connectionInfo, {}, state->hooks.onLost, state->hooks.keepAlive};
    if (state->hooks.path)
        hooks.path = [path = state->hooks.path, channel, stream] { return path(channel, stream); };

    const std::lock_guard lock(state->mutex);
    std::erase_if(state->streams, [](const auto& entry) { return entry.second.expired(); });
    auto& entry = state->streams[{channel, stream}];
    auto result = entry.lock();
    if (result == nullptr) {
        result = std::make_shared<RTSPStream>(state->service, state->logger, std::move(hooks));
        entry = result;
    }
    return result;
}

void RTSPSource::deviceConnected()
{
    for (const auto& stream : state->present())
        stream->deviceConnected();
}

void RTSPSource::deviceClosed()
{
    for (const auto& stream : state->present())
        stream->deviceClosed();
}
}  // namespace Tavro8::Utility

#include <utility>

#include "RecordingPlayback.h"

#include "Device.h"
#include "ObjectName.h"
#include "UtcText.h"

#include <IpUtil/RTSPClient.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <limits>
#include <string>

namespace Uniview
{
namespace
{
using Tavro8::error_code;
using Tavro8::guarded;
using Tavro8::guardedVoid;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::GDRV::DateTimeRange;
using Tavro8::GDRV::MediaFrame;
using Tavro8::Utility::RecordedPlay;
using Tavro8::Utility::RecordedPlayAnswer;
using Tavro8::Utility::RTSPClient;
using Tavro8::Utility::SdpTrack;

constexpr const char* sourcePath = "Drivers/Uniview/src/RecordingPlayback";
constexpr const char* opening = "Uniview::RecordingPlayback::Open";
constexpr const char* playing = "Uniview::RecordingPlayback::Play";
constexpr const char* pausing = "Uniview::RecordingPlayback::Pause";
constexpr const char* seeking = "Uniview::RecordingPlayback::Seek";
constexpr const char* speeding = "Uniview::RecordingPlayback::SetSpeed";
constexpr const char* closing = "Uniview::RecordingPlayback::Close";
constexpr const char* destroying = "Uniview::RecordingPlayback::Destroy";
constexpr const char* receiving = "Uniview::RecordingPlayback::onFrame";

constexpr std::uint64_t millisecondsPerSecond = 1000;
constexpr std::uint64_t lastSecond = std::numeric_limits<std::uint32_t>::max();

// Shorter ones are jitter of the recorder's clock, or a moment without packets.
constexpr std::uint64_t shortestGapMs = 2000;
// Recorders may begin with the next key frame.
constexpr std::uint64_t firstKeyFrameWithinMs = 10'000;
// Played fast, a recorder's reports correct the times in between by as much, at each unit of speed above one.
constexpr std::uint64_t correctionMs = 6000;
// Whoever closes the connection so near to the end of the interval has sent it all.
constexpr std::uint64_t nearEndMs = 2000;

/// Units of the interval's place in a replay path: whole seconds, all that the interval touches.
std::string replayPath(std::uint32_t channel, const DateTimeRange& interval)
{
    const std::uint64_t begin = interval.begin / millisecondsPerSecond;
    const std::uint64_t end = std::min((interval.end - 1) / millisecondsPerSecond + 1, lastSecond);
    return "/c" + std::to_string(std::uint64_t{channel} + 1) + "/b" + std::to_string(begin) + "/e" +
           std::to_string(end) + "/replay/";
}

std::shared_ptr<Tavro8::ILogger> withLifetime(const std::shared_ptr<Tavro8::ILogger>& logger,
                                              const std::shared_ptr<void>& lifetime)
{
    return {std::make_shared<std::pair<std::shared_ptr<void>, std::shared_ptr<void>>>(logger, lifetime), logger.get()};
}
}  // namespace

/// One `Open`.
struct RecordingPlayback::Session {
    std::uint64_t number = 0;
    DateTimeRange interval;
    std::shared_ptr<RTSPClient> client;
    bool ready = false;  // the host has been told
    bool busy = false;   // a PLAY or PAUSE is under way
    bool ended = false;  // since the device played last

    struct Manner {
        bool playing = false;
        std::uint32_t speed = 1;
        bool keyFramesOnly = false;

        friend bool operator==(const Manner&, const Manner&) = default;
    };
    Manner wanted;  // by the host
    Manner actual;  // by the device
    std::optional<std::uint64_t> wantedPosition;

    bool hasVideo = false;
    std::uint64_t position = 0;  // of the last frame, in the beginning where it was asked for
    bool frameSeen = false;      // since then

    void startAt(std::uint64_t asked) noexcept
    {
        position = asked;
        frameSeen = false;
    }
};

Tavro8::GDRV::IRecordingPlayback* RecordingPlayback::create(Device* device, std::uint32_t channel,
                                                            Tavro8::GDRV::IRecordingPlaybackHandler* handler,
                                                            Tavro8::GDRV::IMediaFrameHandler* frames,
                                                            const Tavro8::ParameterMap& parameters)
{
    const auto object = std::make_shared<RecordingPlayback>(device, channel, handler, frames, parameters);
    object->self = object;
    device->whenClosing(object, [weak = object->weak_from_this()] {
        if (const auto playback = weak.lock())
            playback->onService(closing,
                                [](RecordingPlayback& self) { self.endCurrent(toResult(ResultCode::cancelled)); });
    });
    return object.get();
}

RecordingPlayback::RecordingPlayback(Device* device, std::uint32_t channel,
                                     Tavro8::GDRV::IRecordingPlaybackHandler* handler,
                                     Tavro8::GDRV::IMediaFrameHandler* frames, const Tavro8::ParameterMap& parameters)
    : device(device),
      channel(channel),
      handler(handler),
      frames(frames),
      parameters(parameters),
      lifetime(device->getLifetimeToken()),
      deviceLogger(withLifetime(device->getLogger(), lifetime)),
      logger(deviceLogger.get(), sourcePath, playbackObjectName(channel))
{}

void* RecordingPlayback::FindContract(const char* name) noexcept
{
    using namespace Tavro8::GDRV;
    return Tavro8::findContractIn<IRecordingPlayback, IDeviceChannel, Tavro8::IContract>(this, name);
}

// ---- host threads -------------------------------------------------------------------------------------------------

/// Runs `body` on the I/O context, behind what was posted before; from then on the host may destroy the device, too.
template <typename Body>
void RecordingPlayback::onService(Tavro8::LogPlace operation, Body&& body)
{
    boost::asio::post(device->service(), [self = shared_from_this(), keepDevice = device->shared_from_this(), operation,
                                          body = std::forward<Body>(body)] {
        guardedVoid(self->logger, operation, [&] {
            if (!self->gate.isClosed())
                body(*self);
        });
    });
}

void RecordingPlayback::Destroy() noexcept
{
    const auto object = self;  // lives until this call ends
    guardedVoid(logger, destroying, [&] {
        logger.info(destroying, "Destroy");
        gate.close();
        boost::asio::post(device->service(), [playback = shared_from_this(), keepDevice = device->shared_from_this()] {
            if (const auto session = std::exchange(playback->current, nullptr))
                playback->release(*session);
        });
        self.reset();
    });
}

std::int32_t RecordingPlayback::Open(const DateTimeRange& interval) noexcept
{
    return guarded(logger, opening, toResult(ResultCode::unexpected), [&] { return open(interval); });
}

std::int32_t RecordingPlayback::open(const DateTimeRange& interval)
{
    if (interval.begin >= interval.end)
        return toResult(ResultCode::invalidArgument);
    if (interval.begin / millisecondsPerSecond > lastSecond)
        return toResult(ResultCode::outOfRange);
    if (!device->hasBeenConnected()) {
        logger.error(opening, "Recordings can be played once the device has connected");
        return toResult(ResultCode::invalidState);
    }
    const auto session = std::make_shared<Session>();
    session->interval = interval;
    session->wantedPosition = interval.begin;
    const std::lock_guard lock(mutex);
    if (opened)
        return toResult(ResultCode::invalidState);
    session->number = ++openings;
    onService(opening, [session](RecordingPlayback& object) {
        object.current = session;
        const std::int32_t result = guarded(object.logger, opening, toResult(ResultCode::noResources), [&] {
            object.begin(session);
            return toResult(ResultCode::success);
        });
        if (result != toResult(ResultCode::success))
            object.onReady(session, ResultCode::noResources);
    });
    opened = Opened{session->number, interval};
    logger.info(opening, "Playing of recordings (", utcText(interval.begin), " - ", utcText(interval.end), ')');
    return toResult(ResultCode::success);
}

/// Checks a wish of the host by what is open, and hands it to the I/O context. `body` gives the wish, a function of the
/// session, or a result other than 0.
template <typename Body>
std::int32_t RecordingPlayback::ask(Tavro8::LogPlace operation, Body&& body) noexcept
{
    return guarded(logger, operation, toResult(ResultCode::unexpected), [&] {
        const std::lock_guard lock(mutex);
        if (!opened)
            return toResult(ResultCode::invalidState);
        return body(*opened, [&](auto&& wish) {
            onService(operation, [number = opened->number, wish](RecordingPlayback& object) {
                const SessionPtr session = object.current;
                if (session == nullptr || session->number != number)
                    return;
                wish(*session);
                object.drive(session);
            });
            return toResult(ResultCode::success);
        });
    });
}

std::int32_t RecordingPlayback::Play() noexcept
{
    return ask(playing, [](const Opened&, auto&& wish) {
        return wish([](Session& session) {
            session.wanted.playing = true;
            if (session.ended && !session.wantedPosition)
                session.wantedPosition = session.interval.begin;
        });
    });
}

std::int32_t RecordingPlayback::Pause() noexcept
{
    return ask(pausing, [](const Opened&, auto&& wish) {
        return wish([](Session& session) { session.wanted.playing = false; });
    });
}

std::int32_t RecordingPlayback::Seek(std::uint64_t timestampMs) noexcept
{
    return ask(seeking, [timestampMs](const Opened& what, auto&& wish) {
        if (timestampMs < what.interval.begin || timestampMs >= what.interval.end)
            return toResult(ResultCode::outOfRange);
        return wish([timestampMs](Session& session) { session.wantedPosition = timestampMs; });
    });
}

std::int32_t RecordingPlayback::SetSpeed(std::uint32_t factor, bool keyFramesOnly) noexcept
{
    return ask(speeding, [factor, keyFramesOnly](const Opened& what, auto&& wish) {
        if (factor != 1 && factor != 2 && factor != 4 && factor != 8)
            return toResult(ResultCode::outOfRange);
        if ((factor != 1 && !what.offersSpeed) || (keyFramesOnly && !what.offersKeyFrames))
            return toResult(ResultCode::notSupported);
        return wish([factor, keyFramesOnly](Session& session) {
            session.wanted.speed = factor;
            session.wanted.keyFramesOnly = keyFramesOnly;
        });
    });
}

void RecordingPlayback::Close() noexcept
{
    guardedVoid(logger, closing, [&] {
        {
            const std::lock_guard lock(mutex);
            opened.reset();
        }
        onService(closing, [](RecordingPlayback& object) { object.endCurrent(toResult(ResultCode::success)); });
    });
}

/// The host may open anew, unless it has done so already.
void RecordingPlayback::forget(const Session& session)
{
    const std::lock_guard lock(mutex);
    if (opened && opened->number == session.number)
        opened.reset();
}

/// Notes what the device has shown of itself.
template <typename Change>
void RecordingPlayback::note(const Session& session, Change&& change)
{
    const std::lock_guard lock(mutex);
    if (opened && opened->number == session.number)
        change(*opened);
}

// ---- the I/O thread -----------------------------------------------------------------------------------------------

template <typename Body>
void RecordingPlayback::tell(Body&& body)
{
    if (handler != nullptr)
        gate.call(std::forward<Body>(body));
}

void RecordingPlayback::tellState(std::int32_t result)
{
    if (frames != nullptr)
        gate.call([&] { frames->OnStreamState(this, result); });
}

void RecordingPlayback::begin(const SessionPtr& session)
{
    const auto client = RTSPClient::create(device->service(), deviceLogger);
    session->client = client;
    Tavro8::Utility::initializeRTSPClientFromParams(*client, parameters);
    client->setVideoSinkParams(Tavro8::Utility::readVideoSinkParams(parameters, deviceLogger.get()));
    // The client drops these handlers, and with them the references, when it is torn down or has failed.
    client->setClosedHandler(
        [self = shared_from_this(), session](const error_code& ec) { self->onConnectionClosed(session, ec); });
    client->setEndHandler([self = shared_from_this(), session] { self->onEnd(session); });
    client->initialize(
        device->getRtspConnectionInfo(), replayPath(channel, session->interval),
        [self = shared_from_this(), session](const error_code& ec) {
            if (ec)
                return self->onReady(session, ec);
            session->client->prepareRecorded(
                {},
                [self, session](const error_code& error, const Tavro8::Utility::SessionDescription& description) {
                    if (error)
                        self->onReady(session, error);
                    else
                        self->addTracks(session, description);
                },
                [self, session](const error_code& error) { self->onReady(session, error); });
        });
}

/// The first of each kind that can be received.
void RecordingPlayback::addTracks(const SessionPtr& session, const Tavro8::Utility::SessionDescription& description)
{
    for (const char* const kind : {"video", "audio"}) {
        const bool added = std::ranges::any_of(description.tracks, [&](const SdpTrack& track) {
            if (track.kind != kind || track.direction == SdpTrack::Direction::sendOnly)
                return false;
            const auto onFrames = [self = shared_from_this(), session](const MediaFrame& frame) {
                self->onFrame(*session, frame);
            };
            return !session->client->addTrack({track, onFrames}).expired();
        });
        session->hasVideo = session->hasVideo || (added && kind == std::string_view("video"));
    }
}

void RecordingPlayback::onReady(const SessionPtr& session, const error_code& ec)
{
    if (session != current)
        return;
    if (ec) {
        forget(*session);
        release(*std::exchange(current, nullptr));
        return tell([&] { handler->Opened(this, Tavro8::Utility::translateSystemError(ec)); });
    }
    session->ready = true;
    tell([&] { handler->Opened(this, toResult(ResultCode::success)); });
    drive(session);
}

/// Brings the device one step nearer to what the host wants.
void RecordingPlayback::drive(const SessionPtr& session)
{
    if (session != current || !session->ready || session->busy)
        return;
    if (session->wanted.playing && (session->wanted != session->actual || session->wantedPosition))
        sendPlay(session);
    else if (!session->wanted.playing && session->actual.playing)
        sendPause(session);
}

void RecordingPlayback::sendPlay(const SessionPtr& session)
{
    RecordedPlay asked;
    asked.scale = session->wanted.speed;
    asked.keyFramesOnly = session->wanted.keyFramesOnly;
    if (session->wantedPosition) {
        asked.interval = {static_cast<std::int64_t>(*session->wantedPosition),
                          static_cast<std::int64_t>(session->interval.end)};
        if (!session->actual.playing)
            session->startAt(*session->wantedPosition);  // frames may come in front of the answer
    }
    session->wantedPosition.reset();
    session->busy = true;
    session->client->playRecorded(
        asked, [self = shared_from_this(), session, asked](const error_code& ec, const RecordedPlayAnswer& answer) {
            self->onPlayed(session, asked, ec, answer);
        });
}

void RecordingPlayback::onPlayed(const SessionPtr& session, const RecordedPlay& asked, const error_code& ec,
                                 const RecordedPlayAnswer& answer)
{
    if (session != current)
        return;
    session->busy = false;
    if (ec) {
        takeBack(*session, asked);
        tellState(Tavro8::Utility::translateSystemError(ec));
        return drive(session);
    }
    if (asked.interval && session->actual.playing)
        session->startAt(static_cast<std::uint64_t>(asked.interval->beginMs));
    session->ended = false;
    session->actual.playing = true;
    tellState(judgeAnswer(*session, asked, answer));
    drive(session);
}

/// The device goes on as it was, and with it the wishes that it has refused. What the host has wished since stays.
void RecordingPlayback::takeBack(Session& session, const RecordedPlay& asked)
{
    if (session.wanted.speed == asked.scale)
        session.wanted.speed = session.actual.speed;
    if (session.wanted.keyFramesOnly == asked.keyFramesOnly)
        session.wanted.keyFramesOnly = session.actual.keyFramesOnly;
    if (session.actual.playing)
        return;
    session.wanted.playing = false;
    if (asked.interval && !session.wantedPosition)
        session.wantedPosition = static_cast<std::uint64_t>(asked.interval->beginMs);
}

/// A speed near to the one that was asked for is taken as it; none at all says that the device offers none.
std::int32_t RecordingPlayback::judgeAnswer(Session& session, const RecordedPlay& asked,
                                            const RecordedPlayAnswer& answer)
{
    const bool speedTaken = asked.scale == 1 || answer.scale != 1;
    const bool keyFramesTaken = !asked.keyFramesOnly || answer.keyFramesOnly;
    session.actual.speed = speedTaken ? asked.scale : 1;
    session.actual.keyFramesOnly = asked.keyFramesOnly && keyFramesTaken;
    if (speedTaken && keyFramesTaken)
        return toResult(ResultCode::success);
    if (session.wanted.speed == asked.scale)
        session.wanted.speed = session.actual.speed;
    if (!keyFramesTaken)
        session.wanted.keyFramesOnly = false;
    note(session, [&](Opened& what) {
        what.offersSpeed = what.offersSpeed && speedTaken;
        what.offersKeyFrames = what.offersKeyFrames && keyFramesTaken;
    });
    logger.warning(speeding, "the device does not offer ", speedTaken ? "to play key frames only" : "this speed");
    return toResult(ResultCode::notSupported);
}

void RecordingPlayback::sendPause(const SessionPtr& session)
{
    session->busy = true;
    session->client->pauseRecorded([self = shared_from_this(), session](const error_code& ec) {
        if (session != self->current)
            return;
        session->busy = false;
        if (ec) {
            session->wanted.playing = session->actual.playing;  // it goes on
            return self->tellState(Tavro8::Utility::translateSystemError(ec));
        }
        session->actual.playing = false;
        self->drive(session);
    });
}

void RecordingPlayback::onEnd(const SessionPtr& session)
{
    if (session != current)
        return;
    session->actual.playing = false;
    session->ended = true;
    if (!session->wantedPosition)
        session->wanted.playing = false;
    tell([&] { handler->EndReached(this); });
    drive(session);
}

/// Some recorders close the connection instead of a farewell.
void RecordingPlayback::onConnectionClosed(const SessionPtr& session, const error_code& ec)
{
    if (session != current)
        return;
    const bool reached =
        session->frameSeen && session->position + nearEndMs * session->actual.speed >= session->interval.end;
    if (reached && !session->ended) {
        session->ended = true;
        tell([&] { handler->EndReached(this); });
    }
    endCurrent(session->ended ? toResult(ResultCode::success) : Tavro8::Utility::translateSystemError(ec));
}

void RecordingPlayback::onFrame(Session& session, const MediaFrame& frame)
{
    if (Tavro8::GDRV::isVideo(frame.codec) == session.hasVideo)
        watchForGap(session, frame);
    if (frames != nullptr)
        gate.call([&] { frames->OnFrame(this, frame); });
}

/// Time that passes without RTP time is a gap between recordings.
void RecordingPlayback::watchForGap(Session& session, const MediaFrame& frame)
{
    const auto time = static_cast<std::uint64_t>(std::max<std::int64_t>(frame.timestampMs, 0));
    const std::uint64_t speed = session.actual.speed;
    const std::uint64_t longestFrameMs = session.actual.keyFramesOnly ? frame.durationMs : shortestGapMs;
    const std::uint64_t expected =
        session.position + (session.frameSeen ? std::min<std::uint64_t>(frame.durationMs, longestFrameMs) : 0);
    const std::uint64_t tolerance =
        (session.frameSeen ? shortestGapMs : firstKeyFrameWithinMs) + correctionMs * (speed - 1);
    session.position = time;
    session.frameSeen = true;
    if (time <= expected + tolerance)
        return;
    logger.debug(receiving, "Nothing is recorded from ", utcText(expected), " to ", utcText(time));
    tell([&] { handler->GapReached(this, {expected, time}); });
}

/// Ends what is open, if anything is, and tells the host.
void RecordingPlayback::endCurrent(std::int32_t result)
{
    const SessionPtr session = std::exchange(current, nullptr);
    if (session == nullptr)
        return;
    forget(*session);
    release(*session);
    if (!session->ready)
        tell([&] { handler->Opened(this, toResult(ResultCode::cancelled)); });
    tell([&] { handler->Closed(this, result); });
}

/// Says goodbye to the device; nothing of the session comes any more.
void RecordingPlayback::release(Session& session)
{
    if (const auto client = std::exchange(session.client, nullptr))
        client->teardown();
}
}  // namespace Uniview

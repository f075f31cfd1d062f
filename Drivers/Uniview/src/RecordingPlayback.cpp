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
#include <cmath>
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

// Shorter ones are jitter of the recorder's clock, or a moment without packets.
constexpr std::uint64_t shortestGapMs = 2000;
// Recorders may begin with the next key frame, and key frames are what they play fast.
constexpr std::uint64_t longestKeyFrameDistanceMs = 10'000;
// Played fast, a recorder's reports correct the times in between by as much, at each unit of speed above one.
constexpr std::uint64_t correctionMs = 6000;
// Whoever closes the connection so near to the end of the interval has sent it all, but for a frame that would be as
// far away as the one before. At no speed farther: a lost connection would be taken for the end.
constexpr std::uint64_t nearEndMs = 2000;
// Recorders may play the last group of pictures to its end; whoever sends more does not stop by itself.
constexpr std::uint64_t overrunMs = 5000;

constexpr std::uint32_t fastestFactor = 8;

/// The recorder's path of an interval. Channels count from 1.
std::string replayPath(std::uint32_t channel, const RecordedInterval& interval)
{
    return "/c" + std::to_string(std::uint64_t{channel} + 1) + "/b" + std::to_string(interval.beginSecond()) + "/e" +
           std::to_string(interval.endSecond()) + "/replay/";
}

std::uint64_t timeOf(const MediaFrame& frame) noexcept
{
    return static_cast<std::uint64_t>(std::max<std::int64_t>(frame.timestampMs, 0));
}

/// Recorders name the speed that their disks allow.
bool isNear(double scale, std::uint32_t factor) noexcept
{
    return std::abs(scale - factor) <= factor / 4.0;
}

/// The fastest of ours that the device reaches.
std::uint32_t reachedSpeed(double scale) noexcept
{
    std::uint32_t factor = fastestFactor;
    while (factor > 1 && scale < factor && !isNear(scale, factor))
        factor /= 2;
    return factor;
}

std::shared_ptr<Tavro8::ILogger> withLifetime(const std::shared_ptr<Tavro8::ILogger>& logger,
                                              const std::shared_ptr<void>& lifetime)
{
    return {std::make_shared<std::pair<std::shared_ptr<void>, std::shared_ptr<void>>>(logger, lifetime), logger.get()};
}
}  // namespace

/// Where playing is in the interval.
struct RecordingPlayback::Place {
    std::uint64_t position = 0;  // of the last frame, in the beginning where it was asked for
    bool frameSeen = false;      // since then
    bool ended = false;          // the host has been told so, and the device was not asked for another place since
    std::uint64_t step = 0;      // from the frame before to the last
};

/// One `Open`.
struct RecordingPlayback::Session {
    std::uint64_t number = 0;
    RecordedInterval interval;
    std::shared_ptr<RTSPClient> client;
    bool ready = false;    // the host has been told
    bool busy = false;     // a PLAY or PAUSE is under way
    bool seeking = false;  // a PLAY that names a place is
    bool placed = false;   // the device has taken such a PLAY, so it can go on without one

    struct Manner {
        bool playing = false;
        std::uint32_t speed = 1;
        bool keyFramesOnly = false;

        friend bool operator==(const Manner&, const Manner&) = default;
    };
    Manner wanted;  // by the host
    Manner actual;  // by the device
    std::optional<std::uint64_t> wantedPosition;

    double scale = 1;          // the device's word for its speed
    bool pictureSeen = false;  // a video track may be described, and yet be refused or silent
    Place place;

    /// The host wants the device to play elsewhere than where it is.
    bool isLeaving() const noexcept { return seeking || (wanted.playing && wantedPosition); }
    bool isNearEnd() const noexcept
    {
        const std::uint64_t nearMs = nearEndMs + std::min(place.step, longestKeyFrameDistanceMs);
        return actual.playing && place.frameSeen && place.position + nearMs >= interval.get().end;
    }
    /// By how much the time of a frame may be wrong.
    std::uint64_t inaccuracyMs() const noexcept
    {
        return static_cast<std::uint64_t>(static_cast<double>(correctionMs) * (std::max(scale, 1.0) - 1));
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
    if (const std::int32_t result = RecordedInterval::check(interval); result != toResult(ResultCode::success))
        return result;
    if (!device->hasBeenConnected()) {
        logger.error(opening, "Recordings can be played once the device has connected");
        return toResult(ResultCode::invalidState);
    }
    const auto session = std::make_shared<Session>();
    session->interval = RecordedInterval(interval);
    session->wantedPosition = interval.begin;
    {
        const std::lock_guard lock(mutex);
        if (opened)
            return toResult(ResultCode::invalidState);
        session->number = ++openings;
        onService(opening, [session](RecordingPlayback& object) { object.start(session); });
        opened = Opened{session->number, session->interval};
    }
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
            if (session.place.ended && !session.wantedPosition)
                session.wantedPosition = session.interval.get().begin;
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
        if (!what.interval.contains(timestampMs))
            return toResult(ResultCode::outOfRange);
        return wish([timestampMs](Session& session) { session.wantedPosition = timestampMs; });
    });
}

std::int32_t RecordingPlayback::SetSpeed(std::uint32_t factor, bool keyFramesOnly) noexcept
{
    return ask(speeding, [factor, keyFramesOnly](const Opened& what, auto&& wish) {
        if (factor != 1 && factor != 2 && factor != 4 && factor != 8)
            return toResult(ResultCode::outOfRange);
        if (factor > what.fastest || (keyFramesOnly && !what.offersKeyFrames))
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
        // Within the lock: behind the begin of what is closed, in front of what is opened next.
        const std::lock_guard lock(mutex);
        if (!opened)
            return;
        onService(closing, [number = opened->number](RecordingPlayback& object) {
            if (object.current != nullptr && object.current->number == number)
                object.endCurrent(toResult(ResultCode::success));
        });
        opened.reset();
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

void RecordingPlayback::start(const SessionPtr& session)
{
    if (const auto left = std::exchange(current, session))
        release(*left);
    const std::int32_t result = guarded(logger, opening, toResult(ResultCode::noResources), [&] {
        begin(session);
        return toResult(ResultCode::success);
    });
    if (result != toResult(ResultCode::success))
        onReady(session, ResultCode::noResources);
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
        const auto receive = [&](const SdpTrack& track) {
            if (track.kind != kind || track.direction == SdpTrack::Direction::sendOnly)
                return false;
            const auto onFrames = [self = shared_from_this(), session](const MediaFrame& frame) {
                self->onFrame(session, frame);
            };
            return !session->client->addTrack({track, onFrames}).expired();
        };
        static_cast<void>(std::ranges::any_of(description.tracks, receive));
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
    if (session != current || !session->ready || session->busy || gate.isClosed())
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
    const Place before = session->place;
    if (session->wantedPosition) {
        asked.interval = {static_cast<std::int64_t>(*session->wantedPosition),
                          static_cast<std::int64_t>(session->interval.get().end)};
        // Frames of the new place may come in front of the answer; of the old one none comes any more.
        session->place = {*session->wantedPosition};
        session->seeking = true;
    }
    session->wantedPosition.reset();
    session->busy = true;
    session->client->playRecorded(asked, [self = shared_from_this(), session, asked,
                                          before](const error_code& ec, const RecordedPlayAnswer& answer) {
        if (session != self->current)
            return;
        session->busy = false;
        session->seeking = false;
        if (ec)
            takeBack(*session, asked, before);
        self->tellState(ec ? Tavro8::Utility::translateSystemError(ec) : self->takeAnswer(*session, asked, answer));
        self->drive(session);
    });
}

/// The device goes on as it was, and with it the wishes that it has refused. What the host has wished since stays.
void RecordingPlayback::takeBack(Session& session, const RecordedPlay& asked, const Place& before)
{
    if (asked.interval)
        session.place = before;
    if (session.wanted.speed == asked.scale)
        session.wanted.speed = session.actual.speed;
    if (session.wanted.keyFramesOnly == asked.keyFramesOnly)
        session.wanted.keyFramesOnly = session.actual.keyFramesOnly;
    if (session.actual.playing)
        return;
    session.wanted.playing = false;
    if (!session.placed && !session.wantedPosition)
        session.wantedPosition = session.interval.get().begin;
}

/// Notes what the device has made of a PLAY, and gives what the host is told of it.
std::int32_t RecordingPlayback::takeAnswer(Session& session, const RecordedPlay& asked,
                                           const RecordedPlayAnswer& answer)
{
    session.placed = true;
    session.actual.playing = true;
    return judgeAnswer(session, asked, answer);
}

/// A speed near to the one that was asked for is taken as it; of another one the host is told.
std::int32_t RecordingPlayback::judgeAnswer(Session& session, const RecordedPlay& asked,
                                            const RecordedPlayAnswer& answer)
{
    const bool speedTaken = isNear(answer.scale, asked.scale);
    const bool keyFramesTaken = !asked.keyFramesOnly || answer.keyFramesOnly;
    session.scale = answer.scale;
    session.actual.speed = speedTaken ? asked.scale : reachedSpeed(answer.scale);
    session.actual.keyFramesOnly = asked.keyFramesOnly && keyFramesTaken;
    if (speedTaken && keyFramesTaken)
        return toResult(ResultCode::success);
    if (session.wanted.speed == asked.scale)
        session.wanted.speed = session.actual.speed;
    if (!keyFramesTaken)
        session.wanted.keyFramesOnly = false;
    note(session, [&](Opened& what) {
        if (session.actual.speed < asked.scale)
            what.fastest = std::min(what.fastest, session.actual.speed);
        what.offersKeyFrames = what.offersKeyFrames && keyFramesTaken;
    });
    if (!speedTaken)
        logger.warning(speeding, "the device does not offer this speed: asked ", asked.scale, ", plays at ",
                       answer.scale);
    if (!keyFramesTaken)
        logger.warning(speeding, "the device does not offer to play key frames only");
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
            self->tellState(Tavro8::Utility::translateSystemError(ec));
        } else {
            session->actual.playing = false;
        }
        self->drive(session);
    });
}

void RecordingPlayback::onEnd(const SessionPtr& session)
{
    if (session != current)
        return;
    session->actual.playing = false;
    reachEnd(session);
}

/// The interval was played. A device that plays on is paused.
void RecordingPlayback::reachEnd(const SessionPtr& session)
{
    if (!session->wantedPosition)
        session->wanted.playing = false;
    if (!std::exchange(session->place.ended, true))
        tell([&] { handler->EndReached(this); });
    drive(session);
}

/// Some recorders close the connection instead of a farewell.
void RecordingPlayback::onConnectionClosed(const SessionPtr& session, const error_code& ec)
{
    if (session != current)
        return;
    const bool ended = !session->isLeaving() && (session->place.ended || session->isNearEnd());
    if (ended && !session->place.ended)
        tell([&] { handler->EndReached(this); });
    endCurrent(ended ? toResult(ResultCode::success) : Tavro8::Utility::translateSystemError(ec));
}

void RecordingPlayback::onFrame(const SessionPtr& session, const MediaFrame& frame)
{
    if (timeOf(frame) > session->interval.get().end + overrunMs + session->inaccuracyMs())
        return onOverrun(session);
    const bool picture = Tavro8::GDRV::isVideo(frame.codec);
    if (picture && !std::exchange(session->pictureSeen, true))
        session->place.frameSeen = false;  // what sound has shown ends here, and the first key frame may be late
    if (picture || !session->pictureSeen)
        watchForGap(*session, frame);
    if (frames != nullptr)
        gate.call([&] { frames->OnFrame(this, frame); });
}

/// The device does not stop at the end of the interval.
void RecordingPlayback::onOverrun(const SessionPtr& session)
{
    if (session != current || session->place.ended)
        return;
    logger.warning(receiving, "the device plays on behind the end of the interval, ",
                   utcText(session->interval.get().end));
    reachEnd(session);
}

/// Time that passes without RTP time is a gap between recordings. Pictures tell it; as long as none has come, sound.
void RecordingPlayback::watchForGap(Session& session, const MediaFrame& frame)
{
    Place& place = session.place;
    const std::uint64_t time = timeOf(frame);
    const std::uint64_t expected = place.position + (place.frameSeen ? frame.durationMs : 0);
    const std::uint64_t tolerance =
        (place.frameSeen ? shortestGapMs : longestKeyFrameDistanceMs) + session.inaccuracyMs();
    place.step = place.frameSeen ? time - std::min(time, place.position) : 0;
    place.position = time;
    place.frameSeen = true;
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

#pragma once

#include "RecordedInterval.h"

#include <IpUtil/ErrorCode.h>
#include <IpUtil/GlobalService.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/ParametersContainer.h>
#include <Tavro8/GDRV/IRecordingPlayback.h>
#include <Tavro8/ILogger.h>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

namespace Tavro8::Utility
{
struct RecordedPlay;
struct RecordedPlayAnswer;
struct SessionDescription;
}  // namespace Tavro8::Utility

namespace Uniview
{
class Device;

/// Plays what a device has recorded on one channel, over an RTSP connection of its own.
///
/// Operations only say what the host wants; on the device's I/O thread that is compared with what the device does, and
/// one PLAY or PAUSE at a time brings it there. So wishes that follow each other fast (a slider) cost no more requests
/// than the device can answer. What the device refuses is told by `OnStreamState`; it then goes on as it was. Only a
/// speed, or key frames only, may be refused and the rest be done: told as 8, like what the answer does not confirm.
///
/// Frames come on the I/O thread, over TCP: a handler that takes its time slows the device down, and nothing piles up.
///
/// Host threads call the operations; `mutex` guards what these have to know at once, `current` and all in it belong to
/// the I/O context.
class RecordingPlayback final : public Tavro8::GDRV::IRecordingPlayback,
                                public std::enable_shared_from_this<RecordingPlayback> {
public:
    /// Makes an object that the host releases with `Destroy`. Arguments as in `IDevice::CreateRecordingPlayback`;
    /// `parameters` are those of live sources, but for `transport`. `device` outlives the object.
    static Tavro8::GDRV::IRecordingPlayback* create(Device* device, std::uint32_t channel,
                                                    Tavro8::GDRV::IRecordingPlaybackHandler* handler,
                                                    Tavro8::GDRV::IMediaFrameHandler* frames,
                                                    const Tavro8::ParameterMap& parameters);
    /// Used by `create`.
    RecordingPlayback(Device* device, std::uint32_t channel, Tavro8::GDRV::IRecordingPlaybackHandler* handler,
                      Tavro8::GDRV::IMediaFrameHandler* frames, const Tavro8::ParameterMap& parameters);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }

    /// 2 while something is open and before the device has connected, else what `RecordedInterval::check` says. What
    /// was opened with success ends with `Closed`; when `Opened` tells a failure nothing follows.
    std::int32_t Open(const Tavro8::GDRV::DateTimeRange& interval) noexcept override;

    // 2 when nothing is open. All may be called before `Opened` was told.

    std::int32_t Play() noexcept override;  ///< behind the end: from the begin again
    std::int32_t Pause() noexcept override;
    /// 6 outside the interval. Devices know whole seconds. While paused the next `Play` begins there.
    std::int32_t Seek(std::uint64_t timestampMs) noexcept override;
    /// 6 for another factor. 8 for what the device has shown not to offer, which `OnStreamState` tells the first time:
    /// it then plays at a speed of its own.
    std::int32_t SetSpeed(std::uint32_t factor, bool keyFramesOnly) noexcept override;
    void Close() noexcept override;

private:
    struct Place;
    struct Session;
    using SessionPtr = std::shared_ptr<Session>;

    /// What the host has open.
    struct Opened {
        std::uint64_t number;
        RecordedInterval interval;
        std::uint32_t fastest = 8;  // as far as the device has shown
        bool offersKeyFrames = true;
    };

    std::int32_t open(const Tavro8::GDRV::DateTimeRange& interval);
    template <typename Body>
    std::int32_t ask(Tavro8::LogPlace operation, Body&& body) noexcept;
    template <typename Body>
    void onService(Tavro8::LogPlace operation, Body&& body);
    void forget(const Session& session);
    template <typename Change>
    void note(const Session& session, Change&& change);

    // On the I/O context:
    void start(const SessionPtr& session);
    void begin(const SessionPtr& session);
    void addTracks(const SessionPtr& session, const Tavro8::Utility::SessionDescription& description);
    void onReady(const SessionPtr& session, const Tavro8::error_code& ec);
    void drive(const SessionPtr& session);
    void sendPlay(const SessionPtr& session);
    static void takeBack(Session& session, const Tavro8::Utility::RecordedPlay& asked, const Place& before);
    std::int32_t takeAnswer(Session& session, const Tavro8::Utility::RecordedPlay& asked,
                            const Tavro8::Utility::RecordedPlayAnswer& answer);
    std::int32_t judgeAnswer(Session& session, const Tavro8::Utility::RecordedPlay& asked,
                             const Tavro8::Utility::RecordedPlayAnswer& answer);
    void sendPause(const SessionPtr& session);
    void onEnd(const SessionPtr& session);
    void reachEnd(const SessionPtr& session);
    void onConnectionClosed(const SessionPtr& session, const Tavro8::error_code& ec);
    void onFrame(const SessionPtr& session, const Tavro8::GDRV::MediaFrame& frame);
    void onOverrun(const SessionPtr& session);
    void watchForGap(Session& session, const Tavro8::GDRV::MediaFrame& frame);
    void endCurrent(std::int32_t result);
    void release(Session& session);
    void tellState(std::int32_t result);
    template <typename Body>
    void tell(Body&& body);

    Device* const device;  // not owned
    const std::uint32_t channel;
    Tavro8::GDRV::IRecordingPlaybackHandler* const handler;  // the host's, may be null
    Tavro8::GDRV::IMediaFrameHandler* const frames;          // likewise
    const Tavro8::Utility::ParametersContainer parameters;
    const std::shared_ptr<void> lifetime;
    const std::shared_ptr<Tavro8::ILogger> deviceLogger;  // holds the lifetime, too
    const Tavro8::LoggerHelper logger;
    Tavro8::Utility::HandlerGate gate;

    std::mutex mutex;
    std::optional<Opened> opened;  // guarded by `mutex`
    std::uint64_t openings = 0;    // guarded by `mutex`
    SessionPtr current;            // only on the I/O context
    std::shared_ptr<void> self;    // the host's reference
};
}  // namespace Uniview

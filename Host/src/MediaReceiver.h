#pragma once

#include "FormatHistory.h"
#include "Monitor.h"

#include <Tavro8/GDRV/ILiveSource.h>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace Host
{
class FrameQueue;

/// What one source has delivered so far.
struct ReceivedMedia {
    std::uint64_t frames = 0;
    std::uint64_t keyFrames = 0;
    std::uint64_t bytes = 0;
    std::uint64_t damagedFrames = 0;
    FormatHistory formats;
    std::optional<Monitor::Clock::time_point> firstFrame;  ///< when it arrived
    Tavro8::GDRV::StreamStatistics statistics;             ///< the module's own, as last reported
    std::uint64_t statisticsCount = 0;                     ///< how often it has reported them
    std::int32_t streamState = 0;  ///< the last that the module told: why nothing comes, 0 while it plays
};

/// The host's ear at one source: counts what comes, passes it on, and knows whether the source runs.
/// Its handler operations arrive on the module's threads.
class MediaReceiver final : private Tavro8::GDRV::IAsyncDeviceChannelHandler, private Tavro8::GDRV::IMediaFrameHandler {
public:
    /// `frameQueue` (may be null) gets every frame.
    MediaReceiver(Monitor& sharedMonitor, FrameQueue* frameQueue) : monitor(sharedMonitor), queue(frameQueue) {}

    Tavro8::GDRV::IAsyncDeviceChannelHandler* getChannelHandler() noexcept { return this; }
    Tavro8::GDRV::IMediaFrameHandler* getFrameHandler() noexcept { return this; }

    ReceivedMedia getReceived() const;
    bool hasFrames() const;
    std::uint64_t getStatisticsCount() const;
    bool isStopped() const noexcept { return stopped; }  ///< call under the monitor's lock

    void* FindContract(const char* name) noexcept override;

private:
    void Started(Tavro8::IContract* source) noexcept override;
    void Stopped(Tavro8::IContract* source) noexcept override;
    void StatisticsUpdated(Tavro8::IContract* source,
                           const Tavro8::GDRV::StreamStatistics& statistics) noexcept override;
    void SettingsApplied(Tavro8::IContract* source, const char* resource, std::int32_t result) noexcept override;
    void OnFrame(Tavro8::IContract* source, const Tavro8::GDRV::MediaFrame& frame) noexcept override;
    void OnStreamState(Tavro8::IContract* source, std::int32_t result) noexcept override;

    Monitor& monitor;
    FrameQueue* const queue;
    bool stopped = true;  // guarded by the monitor

    mutable std::mutex mutex;  // guards received; taken alone or after the monitor's lock, never before it
    ReceivedMedia received;
};
}  // namespace Host

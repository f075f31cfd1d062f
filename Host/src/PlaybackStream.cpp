#include "PlaybackStream.h"

#include "DeviceSession.h"
#include "FrameQueue.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <string>
#include <utility>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
using GDRV::DateTimeRange;
using GDRV::MediaFrame;
namespace
{
constexpr std::int32_t notSupported = Tavro8::toResult(Tavro8::ResultCode::notSupported);
}

PlaybackStream::PlaybackStream(GDRV::IDevice& device, std::uint32_t channel, Monitor& sharedMonitor,
                               FrameQueue* frameQueue, Callbacks streamCallbacks)
    : monitor(sharedMonitor),
      queue(frameQueue),
      callbacks(std::move(streamCallbacks)),
      video(sharedMonitor, nullptr),
      audio(sharedMonitor, nullptr),
      cutter([frameQueue](const MediaFrame& placed) { frameQueue->pushWaiting(placed); })
{
    const std::int32_t result = device.CreateRecordingPlayback(channel, this, this, {}, &playback);
    requireMade(playback, "the recordings of channel " + std::to_string(channel) + " cannot be played", result);
}

PlaybackStream::~PlaybackStream()
{
    playback->Destroy();
}

std::int32_t PlaybackStream::open(const DateTimeRange& interval) noexcept
{
    endMs = static_cast<std::int64_t>(interval.end);
    return playback->Open(interval);
}

std::int32_t PlaybackStream::setSpeed(std::uint32_t factor, bool keyFramesOnly) noexcept
{
    const std::int32_t result = playback->SetSpeed(factor, keyFramesOnly);
    if (result == notSupported)
        noteRefusedSpeed();
    return result;
}

std::optional<Monitor::Clock::time_point> PlaybackStream::getFirstFrame() const
{
    const auto ofVideo = getVideo().firstFrame;
    return ofVideo ? ofVideo : getAudio().firstFrame;
}

PlayedMedia PlaybackStream::getPlayed() const
{
    const std::lock_guard lock(mutex);
    return played;
}

void* PlaybackStream::FindContract(const char* name) noexcept
{
    if (void* handler = Tavro8::findContractIn<GDRV::IRecordingPlaybackHandler, Tavro8::IContract>(
            static_cast<GDRV::IRecordingPlaybackHandler*>(this), name))
        return handler;
    return Tavro8::findContractIn<GDRV::IMediaFrameHandler>(static_cast<GDRV::IMediaFrameHandler*>(this), name);
}

void PlaybackStream::Opened(GDRV::IRecordingPlayback*, std::int32_t result) noexcept
{
    monitor.change([&] { state.opened = result; });
}

void PlaybackStream::GapReached(GDRV::IRecordingPlayback*, const DateTimeRange& gap) noexcept
{
    if (queue != nullptr)
        cutter.cut(gap);
    {
        const std::lock_guard lock(mutex);
        ++played.gaps;
        played.gapMs += std::max(gap.begin, gap.end) - gap.begin;
    }
    callbacks.gap(gap);
}

void PlaybackStream::EndReached(GDRV::IRecordingPlayback*) noexcept
{
    monitor.change([this] { state.ended = true; });
}

void PlaybackStream::Closed(GDRV::IRecordingPlayback*, std::int32_t result) noexcept
{
    monitor.change([&] { state.closed = result; });
}

void PlaybackStream::OnStreamState(Tavro8::IContract*, std::int32_t result) noexcept
{
    if (result == notSupported)
        return noteRefusedSpeed();
    monitor.change([&] { state.refusal = result; });
}

void PlaybackStream::noteRefusedSpeed() noexcept
{
    monitor.change([this] { state.speedRefused = true; });
}

void PlaybackStream::OnFrame(Tavro8::IContract* source, const MediaFrame& frame) noexcept
{
    if (frame.timestampMs >= endMs)
        return;
    count(frame);
    (isVideo(frame.codec) ? video : audio).getFrameHandler()->OnFrame(source, frame);
    if (queue == nullptr)
        return;
    cutter.take(frame);
    const std::lock_guard lock(mutex);
    played.soundLeftOut = cutter.getWithheld();
}

void PlaybackStream::count(const MediaFrame& frame)
{
    const auto time = static_cast<std::uint64_t>(std::max<std::int64_t>(frame.timestampMs, 0));
    const std::lock_guard lock(mutex);
    played.losses += frame.lostPacketsBefore ? 1 : 0;
    if (!played.recorded)
        played.recorded = DateTimeRange{time, time};
    played.recorded->begin = std::min(played.recorded->begin, time);
    played.recorded->end = std::max(played.recorded->end, time);
}
}  // namespace Host

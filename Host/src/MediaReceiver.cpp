#include "MediaReceiver.h"

#include "FrameQueue.h"

namespace Host
{
namespace GDRV = Tavro8::GDRV;

ReceivedMedia MediaReceiver::getReceived() const
{
    const std::lock_guard lock(mutex);
    return received;
}

bool MediaReceiver::hasFrames() const
{
    const std::lock_guard lock(mutex);
    return received.frames > 0;
}

std::uint64_t MediaReceiver::getStatisticsCount() const
{
    const std::lock_guard lock(mutex);
    return received.statisticsCount;
}

void* MediaReceiver::FindContract(const char* name) noexcept
{
    if (void* handler = Tavro8::findContractIn<GDRV::IAsyncDeviceChannelHandler>(getChannelHandler(), name))
        return handler;
    return Tavro8::findContractIn<GDRV::IMediaFrameHandler>(getFrameHandler(), name);
}

void MediaReceiver::Started(Tavro8::IContract*) noexcept
{
    monitor.change([this] { stopped = false; });
}

void MediaReceiver::Stopped(Tavro8::IContract*) noexcept
{
    monitor.change([this] { stopped = true; });
}

void MediaReceiver::StatisticsUpdated(Tavro8::IContract*, const GDRV::StreamStatistics& statistics) noexcept
{
    {
        const std::lock_guard lock(mutex);
        received.statistics = statistics;
        ++received.statisticsCount;
    }
    monitor.change([] {});
}

void MediaReceiver::SettingsApplied(Tavro8::IContract*, const char*, std::int32_t) noexcept {}

void MediaReceiver::OnStreamState(Tavro8::IContract*, std::int32_t result) noexcept
{
    const std::lock_guard lock(mutex);
    received.streamState = result;
}

void MediaReceiver::OnFrame(Tavro8::IContract*, const GDRV::MediaFrame& frame) noexcept
{
    bool first = false;
    {
        const std::lock_guard lock(mutex);
        first = received.frames++ == 0;
        received.keyFrames += frame.keyFrame ? 1 : 0;
        received.damagedFrames += frame.damaged ? 1 : 0;
        received.bytes += frame.data.size();
        received.formats.add(frame);
        if (first)
            received.firstFrame = Monitor::Clock::now();
    }
    if (queue != nullptr)
        queue->push(frame);
    if (first)
        monitor.change([] {});
}
}  // namespace Host

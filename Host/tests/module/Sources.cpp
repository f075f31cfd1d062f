#include "Sources.h"

#include "Clip.h"

#include <chrono>
#include <ctime>
#include <utility>

namespace Sample
{
namespace GDRV = Tavro8::GDRV;
namespace
{
std::int64_t nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}
}  // namespace

void Stream::start(Tavro8::IContract* asSource)
{
    if (started.exchange(true))
        return;
    source = asSource;
    if (handler != nullptr)
        handler->Started(source);
    loop.post(this, [self = shared_from_this(), run = ++runs] { self->begin(run); });
}

void Stream::begin(unsigned run)
{
    if (run != runs)
        return;
    if (state == 0)
        loop.post(this, [self = shared_from_this(), run] { self->tick(run, Clock::now()); });
    if (frames != nullptr)
        frames->OnStreamState(source, state);
}

void Stream::stop()
{
    if (!started.exchange(false))
        return;
    ++runs;
    loop.post(this, [self = shared_from_this()] {
        if (self->handler != nullptr)
            self->handler->Stopped(self->source);
    });
}

void Stream::tick(unsigned run, Clock::time_point due)
{
    if (run != runs)
        return;
    // Everything is arranged before the host is called, which may end the stream in that call.
    const auto next = due + std::chrono::milliseconds(frameMs);
    loop.post(
        this, [self = shared_from_this(), run, next] { self->tick(run, next); }, next);

    GDRV::MediaFrame frame;
    frame.timestampMs = nowMs();
    frame.durationMs = frameMs;
    const std::vector<std::uint8_t> payload = produce(index, frame);
    if (payload.empty())
        return;
    const FrameMemory* memory = FrameMemory::make(payload);
    frame.data = memory->bytes();
    frame.buffer = memory;
    deliver(frame, payload.size());
    memory->Release();
}

void Stream::deliver(const GDRV::MediaFrame& frame, std::size_t bytes)
{
    ++index;
    ++statistics.frames;
    statistics.keyFrames += frame.keyFrame ? 1 : 0;
    statistics.bytes += bytes;
    statistics.framesPerSecond = framesPerSecond;
    statistics.bitsPerSecond = statistics.bytes * 8 * framesPerSecond / statistics.frames;
    if (handler != nullptr && index % framesPerSecond == 0)
        loop.post(this, [self = shared_from_this(), now = statistics] {
            self->handler->StatisticsUpdated(self->source, now);
        });
    if (frames != nullptr)
        frames->OnFrame(source, frame);
}

Stream::Produce testPicture(bool changesSize)
{
    return [changesSize](std::uint64_t index, GDRV::MediaFrame& frame) {
        const Clip& clip = changesSize && index >= framesPerSecond ? largeClip() : smallClip();
        const std::size_t unit = index % clip.accessUnits.size();
        frame.codec = GDRV::MediaCodec::h264;
        frame.keyFrame = unit == 0;
        frame.width = clip.width;
        frame.height = clip.height;
        return std::vector<std::uint8_t>(clip.accessUnits[unit].begin(), clip.accessUnits[unit].end());
    };
}

Stream::Produce testTone()
{
    return [](std::uint64_t index, GDRV::MediaFrame& frame) {
        std::vector<std::uint8_t> samples = tone(index);
        frame.codec = GDRV::MediaCodec::g711U;
        frame.keyFrame = true;
        frame.sampleRate = 8000;
        frame.channelCount = 1;
        frame.sampleCount = static_cast<std::uint32_t>(samples.size());
        return samples;
    };
}

Stream::Produce afterHardWork(Stream::Produce produce)
{
    return [produce = std::move(produce)](std::uint64_t index, GDRV::MediaFrame& frame) {
        const std::clock_t enough = std::clock() + CLOCKS_PER_SEC * 4 / 10;  // CPU of the process
        while (index == 0 && std::clock() < enough)
            ;
        return produce(index, frame);
    };
}

Stream::Produce nothing()
{
    return [](std::uint64_t, GDRV::MediaFrame&) { return std::vector<std::uint8_t>(); };
}
}  // namespace Sample

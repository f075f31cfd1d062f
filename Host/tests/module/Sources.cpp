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

std::vector<std::uint8_t> pictureOf(const Clip& clip, std::uint64_t index, GDRV::MediaFrame& frame)
{
    const std::size_t picture = index % clip.pictures.size();
    frame.codec = clip.codec;
    frame.keyFrame = picture % clip.keyFrameInterval == 0;
    frame.width = clip.width;
    frame.height = clip.height;
    return {clip.pictures[picture].begin(), clip.pictures[picture].end()};
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

Stream::Produce testPicture()
{
    return [](std::uint64_t index, GDRV::MediaFrame& frame) { return pictureOf(smallClip(), index, frame); };
}

Stream::Produce growingPicture()
{
    return [](std::uint64_t index, GDRV::MediaFrame& frame) {
        return pictureOf(index < framesPerSecond ? smallClip() : largeClip(), index, frame);
    };
}

Stream::Produce changingPicture()
{
    constexpr std::uint64_t change = 10;
    return [](std::uint64_t index, GDRV::MediaFrame& frame) {
        const Clip& clip = index < change ? smallClip() : index < 2 * change ? h265Clip() : jpegClip();
        return pictureOf(clip, index % change, frame);
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

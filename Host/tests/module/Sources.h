#pragma once

#include "Loop.h"
#include "Settings.h"

#include <Tavro8/GDRV/ILiveSource.h>
#include <atomic>
#include <functional>
#include <memory>
#include <vector>

namespace Sample
{
/// The life of a live source, the same for pictures and sound: a frame every 40 ms while it runs.
///
/// Waiting tasks keep the stream alive, so that a source may be destroyed while one is under way.
class Stream : public std::enable_shared_from_this<Stream> {
public:
    /// Fills in frame number `index`; the second part is its payload.
    using Produce = std::function<std::vector<std::uint8_t>(std::uint64_t index, Tavro8::GDRV::MediaFrame& frame)>;

    /// `streamState`: what the host is told of the stream; unless it is 0, no frame comes.
    Stream(Loop& deviceLoop, Tavro8::GDRV::IAsyncDeviceChannelHandler* channelHandler,
           Tavro8::GDRV::IMediaFrameHandler* frameHandler, Produce produceFrame, std::int32_t streamState)
        : loop(deviceLoop),
          handler(channelHandler),
          frames(frameHandler),
          produce(std::move(produceFrame)),
          state(streamState)
    {}

    void start(Tavro8::IContract* asSource);
    void stop();
    void end() { loop.forget(this); }  ///< afterwards nothing reaches the handlers

private:
    using Clock = Loop::Clock;

    void begin(unsigned run);
    void tick(unsigned run, Clock::time_point due);
    void deliver(const Tavro8::GDRV::MediaFrame& frame, std::size_t bytes);

    Loop& loop;                                               // the device's, which outlives its sources
    Tavro8::GDRV::IAsyncDeviceChannelHandler* const handler;  // the host's, may be null
    Tavro8::GDRV::IMediaFrameHandler* const frames;           // likewise
    const Produce produce;
    const std::int32_t state;
    Tavro8::IContract* source = nullptr;  ///< what the host knows as the source
    std::atomic<bool> started{false};
    std::atomic<unsigned> runs{0};  ///< a tick of an earlier run does nothing

    // The loop's thread.
    std::uint64_t index = 0;
    Tavro8::GDRV::StreamStatistics statistics;
};

/// A source of the SDK around a stream. `Interface` is `IVideoSource` or `IAudioSource`.
template <typename Interface>
class Source final : public Interface {
public:
    Source(std::uint32_t channelIndex, std::shared_ptr<Stream> sourceStream, std::unique_ptr<Settings> sourceSettings)
        : channel(channelIndex), stream(std::move(sourceStream)), settings(std::move(sourceSettings))
    {}

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Interface, Tavro8::GDRV::IDeviceChannel, Tavro8::IContract>(this, name);
    }
    void Destroy() noexcept override
    {
        stream->end();
        settings->end();
        delete this;
    }
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }
    void Start() noexcept override { stream->start(this); }
    void Stop() noexcept override { stream->stop(); }
    std::int32_t ApplySettings(const Tavro8::ParameterMap& parameters) noexcept override
    {
        return settings->apply(this, parameters);
    }

private:
    ~Source() override = default;

    const std::uint32_t channel;
    const std::shared_ptr<Stream> stream;
    const std::unique_ptr<Settings> settings;
};

Stream::Produce testPicture();
Stream::Produce growingPicture();   ///< larger from the second second on
Stream::Produce changingPicture();  ///< 0.4 s of H.264, then 0.4 s of H.265, then MJPEG
Stream::Produce testTone();
Stream::Produce afterHardWork(Stream::Produce produce);  ///< the first frame costs 0.4 s of CPU more
Stream::Produce nothing();                               ///< frames without payload are not delivered
}  // namespace Sample

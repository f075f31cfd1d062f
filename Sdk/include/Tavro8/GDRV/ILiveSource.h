#pragma once

#include <Tavro8/GDRV/IDeviceChannel.h>
#include <Tavro8/GDRV/MediaFrame.h>
#include <Tavro8/ParameterMap.h>

namespace Tavro8::GDRV
{
/// Receives the frames of one source, and hears how its stream stands.
class IMediaFrameHandler : public IContract {
public:
    /// Slot 3. One frame, on the device's I/O thread: do no more here than to keep a `FrameReference` or to
    /// copy; every other stream of that thread waits meanwhile. `source` is the object that delivers.
    virtual void OnFrame(IContract* source, const MediaFrame& frame) noexcept = 0;

    /// Slot 4. How the stream stands: 0 when the device plays it, else why no media comes (no such stream, refused,
    /// connection lost, ...). Told at each change and after each failed attempt, on the device's I/O thread; the module
    /// goes on trying by itself.
    virtual void OnStreamState(IContract* source, std::int32_t result) noexcept = 0;
};

/// A live stream of pictures of one channel.
///
/// `Start` and `Stop` may be called from any thread and return at once. The host hears of the start and of
/// the completed stop through its channel handler; `Start` while started and `Stop` while stopped do nothing.
/// The connection to the device is made, lost and made again underneath, without the host's help.
class IVideoSource : public IDeviceChannel {
public:
    virtual void Start() noexcept = 0;  ///< slot 5
    virtual void Stop() noexcept = 0;   ///< slot 6

    /// Slot 7. Applies stream and image settings (`codec`, `resolution`, `brightness`, ...). The outcome of
    /// each resource goes to `SettingsApplied`; the return value says whether the request was taken.
    virtual std::int32_t ApplySettings(const ParameterMap& parameters) noexcept = 0;
};

/// The live sound of one channel; otherwise like `IVideoSource`.
class IAudioSource : public IDeviceChannel {
public:
    virtual void Start() noexcept = 0;  ///< slot 5
    virtual void Stop() noexcept = 0;   ///< slot 6

    /// Slot 7. Applies microphone settings (`volume`, `noiseReduce`, ...), as `IVideoSource::ApplySettings`.
    virtual std::int32_t ApplySettings(const ParameterMap& parameters) noexcept = 0;
};
}  // namespace Tavro8::GDRV

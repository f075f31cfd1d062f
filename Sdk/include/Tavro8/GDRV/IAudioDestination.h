#pragma once

#include <Tavro8/GDRV/IDeviceChannel.h>
#include <span>

namespace Tavro8::GDRV
{
/// A piece of sound for the device's speaker: signed 16-bit samples, 8000 a second, one channel.
struct AudioFrame {
    std::span<const std::int16_t> samples;
};

/// What the host hears of talk-back, on the destination's own thread. `Started` is told when the line stands and sound
/// reaches the device; `Stopped` and `StatisticsUpdated` are not told.
class IAudioDestinationHandler : public IAsyncDeviceChannelHandler {
public:
    /// Slot 7. A call is over: 0 after `HangUp`, else why the line could not be opened or broke. Once for each `Call`
    /// that was not skipped because one was under way.
    virtual void CallEnded(IContract* destination, std::int32_t result) noexcept = 0;
};

/// Talk-back: what the host pushes is played by the device. All operations return at once; the work runs on
/// a thread of the destination's own, in the order of the calls. Any thread.
class IAudioDestination : public IDeviceChannel {
public:
    virtual void Call() noexcept = 0;                                   ///< slot 5: opens the line
    virtual void PushAudioFrame(const AudioFrame& frame) noexcept = 0;  ///< slot 6: the samples are copied
    virtual void HangUp() noexcept = 0;                                 ///< slot 7: closes the line
};
}  // namespace Tavro8::GDRV

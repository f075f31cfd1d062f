#pragma once

#include <Tavro8/GDRV/IDeviceChannel.h>
#include <span>

namespace Tavro8::GDRV
{
/// A piece of sound for the device's speaker: signed 16-bit samples, 8000 a second, one channel.
struct AudioFrame {
    std::span<const std::int16_t> samples;
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

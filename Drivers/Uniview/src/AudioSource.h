#pragma once

#include "Device.h"

#include <IpUtil/RTSPReceiverBase.h>
#include <Tavro8/GDRV/ILiveSource.h>

// Compiled once, in AudioSource.cpp.
extern template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IAudioSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IAudioSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IAudioSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverAudioSource<Uniview::Device>;

namespace Uniview
{
/// Live sound of a channel. Threads as in `RTSPReceiverBase`.
class AudioSource final : public Tavro8::Utility::RTSPReceiverAudioSource<Device> {
public:
    /// Makes a source that the host releases with `Destroy`. Arguments as in `IDevice::CreateAudioSource`.
    static Tavro8::GDRV::IAudioSource* create(Device* device, std::uint32_t channel,
                                              Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                              Tavro8::GDRV::IMediaFrameHandler* frames,
                                              const Tavro8::ParameterMap& parameters, Tavro8::IContract* parent);

    using RTSPReceiverAudioSource::RTSPReceiverAudioSource;

    /// Settings are not written to the device yet: "not supported".
    std::int32_t ApplySettings(const Tavro8::ParameterMap& changed) noexcept override;
};
}  // namespace Uniview

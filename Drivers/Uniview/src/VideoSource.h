#pragma once

#include "Device.h"

#include <IpUtil/RTSPReceiverBase.h>
#include <Tavro8/GDRV/ILiveSource.h>

// Compiled once, in VideoSource.cpp.
extern template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IVideoSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IVideoSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IVideoSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverVideoSource<Uniview::Device>;

namespace Uniview
{
/// Live video of one stream of a channel. Threads as in `RTSPReceiverBase`.
class VideoSource final : public Tavro8::Utility::RTSPReceiverVideoSource<Device> {
public:
    /// Makes a source that the host releases with `Destroy`. Arguments as in `IDevice::CreateVideoSource`.
    static Tavro8::GDRV::IVideoSource* create(Device* device, std::uint32_t channel, std::uint32_t stream,
                                              Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                              Tavro8::GDRV::IMediaFrameHandler* frames,
                                              const Tavro8::ParameterMap& parameters, Tavro8::IContract* parent);

    using RTSPReceiverVideoSource::RTSPReceiverVideoSource;

    /// Settings are not written to the device yet: "not supported".
    std::int32_t ApplySettings(const Tavro8::ParameterMap& changed) noexcept override;
};
}  // namespace Uniview

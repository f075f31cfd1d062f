#pragma once

#include <Tavro8/IContract.h>
#include <Tavro8/ParameterMap.h>
#include <cstdint>

namespace Tavro8::GDRV
{
/// What the host's configuration says of one device. The module copies what it needs during
/// `IModule::CreateDevice`; the object may go when that call has returned.
class IDeviceDescription : public IContract {
public:
    /// Slot 3. A name for people, used in log lines; may be empty.
    virtual const char* GetName() const noexcept = 0;

    /// Slot 4. How many video channels the host has configured.
    virtual std::uint32_t GetVideoChannelCount() const noexcept = 0;

    /// Slot 5. Settings of the device, such as `localServerPort` and `localServerIP`. They outrank the
    /// settings repository.
    virtual const ParameterMap& GetProperties() const noexcept = 0;

    /// Slot 6. General parameters of the device model, such as `trackLog` and `channelNumbering`.
    virtual const ParameterMap& GetModelParameters() const noexcept = 0;

    /// Slot 7. Parameters of the device model for one channel (counted from 0): integers such as
    /// `presetCount`, `rayCount`, `relayCount` and `panSpeed`, flags such as `supportsAreaZoom`, and the `TextMap`
    /// `maxFpsForCodec`. An unknown channel gives an empty map.
    virtual const ParameterMap& GetChannelModelParameters(std::uint32_t channel) const noexcept = 0;
};
}  // namespace Tavro8::GDRV

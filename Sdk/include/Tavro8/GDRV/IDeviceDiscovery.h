#pragma once

#include <Tavro8/IContract.h>
#include <cstdint>

namespace Tavro8::GDRV
{
class IDeviceDiscovery;

/// A device that answered a discovery. The texts belong to the caller.
struct DiscoveredDevice {
    const char* address = "";  ///< as `IDevice::Open` takes it, without credentials
    const char* brand = "";
    const char* model = "";
    const char* serialNumber = "";
    const char* firmware = "";
};

class IDeviceDiscoveryHandler : public IContract {
public:
    virtual void DeviceFound(IDeviceDiscovery* discovery, const DiscoveredDevice& device) noexcept = 0;  ///< slot 3
    virtual void DiscoveryCompleted(IDeviceDiscovery* discovery, std::int32_t result) noexcept = 0;  ///< slot 4: once
};

/// Finds devices in the network.
class IDeviceDiscovery : public IContract {
public:
    virtual void Destroy() noexcept = 0;        ///< slot 3
    virtual std::int32_t Start() noexcept = 0;  ///< slot 4
    virtual void Stop() noexcept = 0;           ///< slot 5
};
}  // namespace Tavro8::GDRV

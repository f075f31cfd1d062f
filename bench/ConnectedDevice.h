#pragma once

#include "Device.h"

#include <IpUtil/GlobalService.h>
#include <Tavro8/GDRV.h>
#include <cstdint>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace kelvo::bench
{
/// A camera as the module has it, with one channel, for benches that measure below the module's entry points.
class ConnectedDevice {
public:
    /// Blocks; throws `std::runtime_error` when the device cannot be connected to.
    explicit ConnectedDevice(const std::string& address, Tavro8::ParameterMap channelModelParameters = {})
    {
        const auto description = std::make_shared<Uniview::DeviceTraits>();
        description->videoChannelCount = 1;
        description->channelModelParameters.push_back(std::move(channelModelParameters));
        device = Uniview::Device::create(&handler, nullptr, description, *service);
        device->Open(address.c_str());
        if (handler.connected.get_future().get() == 0)
            return;
        device->Destroy();
        throw std::runtime_error("the device cannot be connected to");
    }
    ~ConnectedDevice() { device->Destroy(); }
    ConnectedDevice(const ConnectedDevice&) = delete;
    ConnectedDevice& operator=(const ConnectedDevice&) = delete;

    Uniview::Device* operator->() const noexcept { return device.get(); }

private:
    class Handler final : public Tavro8::GDRV::IDeviceHandler {
    public:
        void* FindContract(const char*) noexcept override { return nullptr; }
        void Connected(Tavro8::GDRV::IDevice*) noexcept override { connected.set_value(0); }
        void ConnectFailed(Tavro8::GDRV::IDevice*, std::int32_t result) noexcept override
        {
            connected.set_value(result);
        }
        void ConnectionLost(Tavro8::GDRV::IDevice*, std::int32_t) noexcept override {}
        void Closed(Tavro8::GDRV::IDevice*) noexcept override {}

        std::promise<std::int32_t> connected;
    };

    const std::shared_ptr<Tavro8::Utility::GlobalService> service = Tavro8::Utility::GlobalService::instance();
    Handler handler;
    std::shared_ptr<Uniview::Device> device;
};
}  // namespace kelvo::bench

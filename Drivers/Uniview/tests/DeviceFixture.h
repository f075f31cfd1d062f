#pragma once

#include "Device.h"

#include "HostFakes.h"
#include "ModuleSettings.h"
#include "ScriptedHttpPeer.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace Uniview::test
{
inline constexpr const char* portPath = "/LAPI/V1.0/Network/Port";
inline constexpr const char* portsPath = "/LAPI/V1.0/Network/Ports";
inline constexpr const char* infoPath = "/LAPI/V1.0/System/DeviceInfo";

inline std::string deviceInfo(int type)
{
    return "{\"Response\":{\"ResponseCode\":0,\"Data\":{\"DeviceName\":\"x\",\"DeviceType\":\t" + std::to_string(type) +
           "}}}";
}

/// A device and the peer that it connects to.
class DeviceFixture : public ::testing::Test {
protected:
    ~DeviceFixture() override
    {
        if (device != nullptr)
            device->Destroy();
    }

    /// Makes the device and a peer that answers like a camera with RTSP port 8554.
    void make(std::uint32_t channels = 1, const Tavro8::ParameterMap& properties = {})
    {
        const auto description = std::make_shared<DeviceTraits>();
        description->videoChannelCount = channels;
        description->properties = properties;
        make(description);
    }
    void make(const std::shared_ptr<DeviceTraits>& description)
    {
        peer.answer(portPath, 200, "{\"Response\":{\"Data\":{\"HTTPPort\":80,\"RTSPPort\":\t8554}}}");
        peer.answer(infoPath, 200, deviceInfo(0));
        device = Device::create(&handler, &logger, description, *service);
    }
    void open() { ASSERT_EQ(device->Open(("http://admin:secret@" + peer.address()).c_str()), 0); }
    void connect()
    {
        open();
        ASSERT_TRUE(handler.waitConnected());
    }
    /// Destroys the device, whose children are destroyed already, and waits for what they still have to say goodbye to.
    void leave()
    {
        if (device != nullptr)
            device->Destroy();
        device.reset();
        ModuleSettings::lifetimeGate().waitUntilEmpty();
        service->barrier();
    }
    void failToConnect()
    {
        open();
        ASSERT_TRUE(handler.waitFailed());
    }

    kelvo::test::RecordingLogger logger;
    kelvo::test::DeviceHandler handler;
    kelvo::test::ScriptedHttpPeer peer;
    std::shared_ptr<Tavro8::Utility::GlobalService> service = Tavro8::Utility::GlobalService::instance();
    std::shared_ptr<Device> device;
};
}  // namespace Uniview::test

#pragma once

#include "DeviceFixture.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Uniview::test
{
using Lines = std::vector<std::string>;

/// A telemetry channel of a device that is a scripted peer.
class TelemetryFixture : public DeviceFixture {
protected:
    enum class Kind { camera, recorder, multichannelCamera };

    ~TelemetryFixture() override
    {
        if (telemetry != nullptr)
            telemetry->Destroy();
    }

    /// Makes the device, with four channels unless it is a camera.
    void make(Kind kind = Kind::camera)
    {
        const auto description = std::make_shared<DeviceTraits>();
        description->videoChannelCount = kind == Kind::camera ? 1 : 4;
        description->modelParameters = general;
        description->channelModelParameters.assign(description->videoChannelCount, model);
        DeviceFixture::make(description);
        peer.answer(infoPath, 200, deviceInfo(kind == Kind::recorder ? 1 : 0));
    }

    /// Opens the device, makes its telemetry, and forgets what was sent until then.
    void connect(Kind kind = Kind::camera, std::uint32_t channel = 0)
    {
        make(kind);
        DeviceFixture::connect();
        createTelemetry(channel);
        sentBefore = peer.requests().size();
    }
    void createTelemetry(std::uint32_t channel = 0)
    {
        ASSERT_EQ(device->CreateTelemetry(channel, &telemetry), 0);
        adjuster = Tavro8::queryContract<Tavro8::GDRV::ITelemetryAdjuster>(telemetry);
        pointClick = Tavro8::queryContract<Tavro8::GDRV::ITelemetryPointClick>(telemetry);
        absolute = Tavro8::queryContract<Tavro8::GDRV::IAbsoluteTelemetry>(telemetry);
    }
    static std::string reply(const std::string& data)
    {
        return R"({"Response":{"ResponseCode":0,"ResponseString":"Succeed","Data":)" + data + "}}";
    }

    /// "METHOD /path body" of each request of the telemetry.
    Lines sent() const
    {
        const Lines requests = peer.requests();
        const Lines bodies = peer.bodies();
        Lines lines;
        for (std::size_t i = sentBefore; i < requests.size(); ++i)
            lines.push_back(bodies[i].empty() ? requests[i] : requests[i] + ' ' + bodies[i]);
        return lines;
    }
    /// The same, and forgets it.
    Lines takeSent()
    {
        const Lines lines = sent();
        sentBefore += lines.size();
        return lines;
    }

    /// What the device's model can do; set before `make`.
    Tavro8::ParameterMap model{
        {"panSpeed", 9},
        {"tiltSpeed", 8},
        {"zoomSpeed", 7},
        {"focusSpeed", 6},
        {"irisSpeed", 10},
        {"presetCount", 255},
        {"supportsAreaZoom", true},
        {"supportsPointMove", true},
        {"supportsDirectMove", true},
        {"supportsDirectZoom", true},
        {"supportsPresetTour", true},
    };
    Tavro8::ParameterMap general;

    Tavro8::GDRV::ITelemetry* telemetry = nullptr;
    Tavro8::GDRV::ITelemetryAdjuster* adjuster = nullptr;
    Tavro8::GDRV::ITelemetryPointClick* pointClick = nullptr;
    Tavro8::GDRV::IAbsoluteTelemetry* absolute = nullptr;

private:
    std::size_t sentBefore = 0;
};
}  // namespace Uniview::test

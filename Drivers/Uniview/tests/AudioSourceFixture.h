#pragma once

#include "DeviceFixture.h"
#include "ModuleSettings.h"
#include "ScriptedPeer.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Uniview::test
{
using Results = std::vector<std::pair<std::string, std::int32_t>>;
using Exchanges = std::vector<std::string>;

inline constexpr const char* cameraPath = "/LAPI/V1.0/Media/Audio/Input";
inline constexpr const char* getCamera = "GET /LAPI/V1.0/Media/Audio/Input";
inline constexpr const char* putCamera = "PUT /LAPI/V1.0/Media/Audio/Input";
inline constexpr const char* ok = "{\"Response\":{\"ResponseCode\":0,\"ResponseString\":\"Succeed\",\"Data\":null}}";
inline constexpr const char* refused =
    "{\"Response\":{\"ResponseCode\":1,\"ResponseString\":\"No\",\"StatusString\":\"Never\",\"Data\":null}}";
inline constexpr const char* noHttp = "RTSP/1.0 200 OK\r\n\r\n";

inline std::string reply(const std::string& data)
{
    return "{\"Response\":{\"ResponseCode\":0,\"Data\":" + data + "}}";
}

/// G.711 as long as somebody listens.
inline Tavro8::Utility::testkit::Camera singingCamera()
{
    using namespace Tavro8::Utility::testkit;
    Camera camera;
    camera.sdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\nm=audio 0 RTP/AVP 0\r\na=control:sound\r\n";
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        sender.payloadType = 0;
        for (int i = 0; i < 10; ++i)
            sender.sendFrame(connection, {Bytes(160, 0xff)}, 160);
    };
    return camera;
}

/// A source of sound, the device that it belongs to, and the servers of that device.
class AudioSourceFixture : public DeviceFixture {
protected:
    ~AudioSourceFixture() override
    {
        destroy();
        leave();
    }

    void create(std::uint32_t channel = 0, const Tavro8::ParameterMap& parameters = {})
    {
        ASSERT_EQ(device->CreateAudioSource(channel, &sound, &sound, parameters, nullptr, &source), 0);
    }
    void destroy()
    {
        if (source != nullptr)
            std::exchange(source, nullptr)->Destroy();
    }
    /// A connected device of a kind, and a source of its channel.
    void prepare(int deviceType = 0, std::uint32_t channels = 1,
                 const Tavro8::Utility::testkit::Camera& camera = singingCamera())
    {
        rtsp = std::make_unique<Tavro8::Utility::testkit::ScriptedPeer>(camera.script());
        make(channels);
        peer.answer(portPath, 200, portReply());
        peer.answer(infoPath, 200, deviceInfo(deviceType));
        connect();
        create();
    }
    std::size_t count(const std::string& request) const
    {
        const auto all = peer.requests();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), request));
    }
    /// The body of the last request of that name.
    std::string bodyOf(const std::string& request) const
    {
        const auto requests = peer.requests();
        const auto bodies = peer.bodies();
        std::string found;
        for (std::size_t i = 0; i < requests.size() && i < bodies.size(); ++i) {
            if (requests[i] == request)
                found = bodies[i];
        }
        return found;
    }
    /// What a camera's input was asked and told, in that order.
    Exchanges exchanges() const
    {
        const auto requests = peer.requests();
        const auto bodies = peer.bodies();
        Exchanges found;
        for (std::size_t i = 0; i < requests.size() && i < bodies.size(); ++i) {
            if (requests[i] == getCamera)
                found.emplace_back("GET");
            else if (requests[i] == putCamera)
                found.push_back("PUT " + bodies[i]);
        }
        return found;
    }
    void expectError(const std::string& message, const std::string& function)
    {
        const kelvo::test::LogLine line = logger.find("chan 0: " + message);
        EXPECT_EQ(line.message, "[127.0.0.1:" + std::to_string(peer.port()) + "] chan 0: " + message) << logger.text();
        EXPECT_EQ(line.function, "Uniview::AudioSource::" + function);
        EXPECT_EQ(line.file, "Drivers/Uniview/src/AudioSource");
        EXPECT_EQ(line.severity, Tavro8::LogSeverity::error);
    }
    std::string portReply() const
    {
        return "{\"Response\":{\"Data\":{\"RTSPPort\":\t" + std::to_string(rtsp->port()) + "}}}";
    }
    /// The device is lost, and not found again before it comes back.
    void loseDevice()
    {
        peer.staySilent(portPath);
        device->reportExchange(Tavro8::ResultCode::deviceUnreachable);
        device->reportExchange(Tavro8::ResultCode::deviceUnreachable);
        ASSERT_TRUE(handler.waitLost());
    }
    void bringDeviceBack()
    {
        ASSERT_TRUE(peer.waitForRequest(std::string("GET ") + portPath, 2));
        peer.answer(portPath, 200, portReply());
        peer.breakSilence(200, portReply());
        ASSERT_TRUE(handler.waitConnected(2));
    }
    /// The host gives up source and device, and is not held up by what they had under way.
    void expectQuickFarewell()
    {
        destroy();
        device->Destroy();
        device.reset();
        auto empty = std::async(std::launch::async, [] { ModuleSettings::lifetimeGate().waitUntilEmpty(); });
        // A request that is not given up ends by itself too, later than this.
        EXPECT_EQ(empty.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    }
    std::int32_t apply(const Tavro8::ParameterMap& given) { return source->ApplySettings(given); }
    /// What the host is told of one request.
    Results applied(const Tavro8::ParameterMap& given)
    {
        EXPECT_EQ(apply(given), 0);
        EXPECT_TRUE(sound.waitSettings("all"));
        return sound.settingsResults();
    }

    kelvo::test::ChannelHandler sound;
    std::unique_ptr<Tavro8::Utility::testkit::ScriptedPeer> rtsp;
    Tavro8::GDRV::IAudioSource* source = nullptr;
};
}  // namespace Uniview::test

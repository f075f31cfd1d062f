#pragma once

#include "AudioDestination.h"
#include "CallHandler.h"
#include "DeviceFixture.h"
#include "ScriptedPeer.h"

#include <IpUtil/GlobalService.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Uniview::test
{
using Tavro8::Utility::testkit::Bytes;
using Tavro8::Utility::testkit::Camera;
using Tavro8::Utility::testkit::ScriptedPeer;

inline constexpr const char* sdpHead = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n";
inline constexpr const char* videoSection = "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track1\r\n";
inline constexpr const char* liveSoundSection = "m=audio 0 RTP/AVP 8\r\na=control:track2\r\na=recvonly\r\n";

/// The description of a device that takes `formats` ("0", or payload types with their rtpmap lines) on its way back.
inline std::string sdpWithBackChannel(const std::string& formats, const std::string& more = {})
{
    return std::string(sdpHead) + videoSection + liveSoundSection + "m=audio 0 RTP/AVP " + formats + "\r\n" + more +
           "a=control:back\r\na=sendonly\r\n";
}

/// A connected device, its RTSP peer and a talk-back channel.
class TalkFixture : public DeviceFixture {
protected:
    ~TalkFixture() override
    {
        destroy();
        leave();
    }

    /// Connects the device to `rtspPort`.
    void connectTo(std::uint16_t rtspPort, std::uint32_t channels = 1)
    {
        make(channels);
        peer.answer(portPath, 200, "{\"Response\":{\"Data\":{\"RTSPPort\":\t" + std::to_string(rtspPort) + "}}}");
        connect();
    }
    void startCamera(const Camera& camera, std::uint32_t channels = 1)
    {
        rtsp = std::make_unique<ScriptedPeer>(camera.script());
        connectTo(rtsp->port(), channels);
    }
    void createDestination(std::uint32_t channel = 0, const Tavro8::ParameterMap& parameters = {})
    {
        ASSERT_EQ(device->CreateAudioDestination(channel, &calls, parameters, &destination), 0);
    }
    /// A call whose line stands.
    void talk(const Camera& camera)
    {
        startCamera(camera);
        createDestination();
        destination->Call();
        ASSERT_TRUE(calls.waitStarted()) << logger.text();
    }
    /// Ends the call, after which the peer has got everything.
    void hangUp()
    {
        const std::size_t before = calls.ends().size();
        destination->HangUp();
        ASSERT_TRUE(calls.waitEnded(before + 1));
    }
    void destroy()
    {
        if (destination != nullptr)
            std::exchange(destination, nullptr)->Destroy();
    }
    void push(const std::vector<std::int16_t>& samples) { destination->PushAudioFrame({samples}); }

    kelvo::test::CallHandler calls;
    std::unique_ptr<ScriptedPeer> rtsp;
    Tavro8::GDRV::IAudioDestination* destination = nullptr;
};
}  // namespace Uniview::test

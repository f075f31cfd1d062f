#include "AudioDestination.h"

#include "TalkFixture.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace
{
using namespace Uniview::test;
using kelvo::test::LogLine;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Samples = std::vector<std::int16_t>;

constexpr const char* backChannelTag = "www.onvif.org/ver20/backchannel";
constexpr const char* dozenFormats = "a=rtpmap:99 MPEG4-GENERIC/48000/2\r\n"
                                     "a=rtpmap:100 MPEG4-GENERIC/16000\r\n"
                                     "a=fmtp:100 mode=AAC-hbr;config=1408;sizelength=13;indexlength=3\r\n"
                                     "a=rtpmap:101 G726-16/8000\r\n"
                                     "a=rtpmap:102 L16/8000\r\n"
                                     "a=rtpmap:103 PCMU/16000\r\n"
                                     "a=rtpmap:104 PCMU/8000/2\r\n"
                                     "a=rtpmap:8 PCMA/8000\r\n"
                                     "a=rtpmap:0 PCMU/8000/1\r\n";

Camera cameraWith(const std::string& sdp)
{
    Camera camera;
    camera.sdp = sdp;
    camera.publicMethods = "OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, SET_PARAMETER";
    return camera;
}

std::uint32_t be32(const Bytes& bytes, std::size_t at)
{
    return (std::uint32_t{bytes.at(at)} << 24U) | (std::uint32_t{bytes.at(at + 1)} << 16U) |
           (std::uint32_t{bytes.at(at + 2)} << 8U) | bytes.at(at + 3);
}

unsigned be16(const Bytes& bytes, std::size_t at)
{
    return bytes.at(at) * 256U + bytes.at(at + 1);
}

class AudioDestination : public TalkFixture {
protected:
    /// A call that cannot be opened; gives what the host is told.
    std::int32_t callInVain(const Camera& camera)
    {
        startCamera(camera);
        createDestination();
        destination->Call();
        EXPECT_TRUE(calls.waitEnded());
        EXPECT_EQ(calls.started(), 0U);
        return calls.ends().empty() ? -1 : calls.ends().front();
    }
    /// What a device gets that takes a law with these codes.
    void expectPackets(const char* format, std::uint8_t payloadType, std::uint8_t silence, std::uint8_t loudest)
    {
        talk(cameraWith(sdpWithBackChannel(format)));
        // 100 + 200 + 100 samples: the third packet stays incomplete.
        push(Samples(100, 0));
        push(Samples(200, std::numeric_limits<std::int16_t>::max()));
        push(Samples(100, 0));
        hangUp();
        EXPECT_TRUE(logger.contains("HangUp, sent: 3")) << "pushed pieces, not packets";

        Bytes first(100, silence);
        first.insert(first.end(), 60, loudest);
        Bytes second(140, loudest);
        second.insert(second.end(), 20, silence);
        const auto received = rtsp->received();
        ASSERT_EQ(received.size(), 2U);
        const Bytes& one = received[0].payload;
        const Bytes& two = received[1].payload;
        EXPECT_EQ(Bytes(one.begin() + 12, one.end()), first);
        EXPECT_EQ(Bytes(two.begin() + 12, two.end()), second);
        EXPECT_EQ(one[0], 0x80) << "version 2, no padding, extension or source list";
        EXPECT_EQ(two[0], 0x80);
        EXPECT_EQ(one[1], 0x80 | payloadType) << "the marker begins the talk spurt";
        EXPECT_EQ(two[1], payloadType);
        EXPECT_EQ((be16(one, 2) + 1) % 65536, be16(two, 2));
        EXPECT_EQ(be32(one, 4) + 160, be32(two, 4));
        EXPECT_EQ(be32(one, 8), be32(two, 8));
    }
    /// A device that refuses a step behind the description.
    void expectRefusedPlay(const char* method)
    {
        Camera camera = cameraWith(sdpWithBackChannel("0"));
        camera.statuses[method] = 455;
        EXPECT_EQ(callInVain(camera), toResult(ResultCode::streamRefused));
        expectError("error sending play comand:", "handlePlay");
    }
    /// The line that contains `text`, which names its function in the driver's source.
    void expectError(const std::string& text, const std::string& function)
    {
        const LogLine line = logger.find(text);
        EXPECT_NE(line.message.find("ad 0: " + text), std::string::npos) << line.message;
        EXPECT_EQ(line.function, "Uniview::AudioDestination::" + function) << text;
        EXPECT_EQ(line.file, "Drivers/Uniview/src/AudioDestination");
        EXPECT_EQ(line.severity, Tavro8::LogSeverity::error);
    }
};

TEST_F(AudioDestination, asksForTheBackChannelOnEveryRequest)
{
    talk(cameraWith(sdpWithBackChannel("0")));
    hangUp();
    const auto requests = rtsp->requests();
    std::vector<std::string> methods;
    for (const auto& request : requests) {
        methods.push_back(request.method);
        EXPECT_EQ(request.headers.at("require"), backChannelTag) << request.method;
    }
    EXPECT_EQ(methods, (std::vector<std::string>{"OPTIONS", "DESCRIBE", "SETUP", "PLAY", "TEARDOWN"}));
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(rtsp->port()) + "/media/video1";
    EXPECT_EQ(requests.at(1).uri, url);
    EXPECT_EQ(requests.at(2).uri, url + "/back") << "the way back alone is set up";
    EXPECT_EQ(calls.ends(), std::vector<std::int32_t>{0});
    EXPECT_EQ(calls.others(), 0U);
    EXPECT_EQ(logger.errorCount(), 0U) << logger.text();
}

TEST_F(AudioDestination, numbersChannelsFromOneInThePath)
{
    startCamera(cameraWith(sdpWithBackChannel("0")), 4);
    createDestination(3);
    destination->Call();
    ASSERT_TRUE(calls.waitStarted());
    EXPECT_NE(rtsp->requests().at(0).uri.find("/media/video4"), std::string::npos);
    hangUp();
    EXPECT_TRUE(logger.contains("ad 3: HangUp, sent: 0"));
}

TEST_F(AudioDestination, sendsPacketsOfTwentyMillisecondsInMuLaw)
{
    expectPackets("0", 0, 0xff, 0x80);
}

TEST_F(AudioDestination, sendsPacketsOfTwentyMillisecondsInALaw)
{
    expectPackets("8", 8, 0xd5, 0xaa);
}

TEST_F(AudioDestination, takesTheFirstG711FormatOfADozen)
{
    talk(cameraWith(sdpWithBackChannel("99 100 101 102 103 104 9 8 0", dozenFormats)));
    push(Samples(160, 0));
    hangUp();
    ASSERT_EQ(rtsp->received().size(), 1U);
    const Bytes packet = rtsp->received().front().payload;
    EXPECT_EQ(packet[1] & 0x7f, 8);
    EXPECT_EQ(Bytes(packet.begin() + 12, packet.end()), Bytes(160, 0xd5));
}

TEST_F(AudioDestination, prefersATrackThatTakesG711)
{
    const std::string sdp = std::string(sdpHead) +
                            "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 G726-32/8000\r\na=control:first\r\na=sendonly\r\n" +
                            "m=audio 0 RTP/AVP 98\r\na=rtpmap:98 PCMU/8000\r\na=control:second\r\na=sendonly\r\n";
    talk(cameraWith(sdp));
    push(Samples(160, 0));
    hangUp();
    EXPECT_NE(rtsp->requests().at(2).uri.find("/second"), std::string::npos);
    ASSERT_EQ(rtsp->received().size(), 1U);
    EXPECT_EQ(rtsp->received().front().payload[1] & 0x7f, 98);
}

TEST_F(AudioDestination, deviceWithoutABackChannelIsNotSetUp)
{
    EXPECT_EQ(callInVain(cameraWith(std::string(sdpHead) + videoSection + liveSoundSection)),
              toResult(ResultCode::noSuchStream));
    expectError("Cannot find track with sendonly attribute for backchannel.", "handleSdp");
    EXPECT_EQ(rtsp->count("SETUP"), 0U);
    EXPECT_EQ(rtsp->count("PLAY"), 0U);
}

TEST_F(AudioDestination, picturesThatAreSentToTheDeviceAreNoBackChannel)
{
    EXPECT_EQ(callInVain(cameraWith(std::string(sdpHead) + videoSection + "a=sendonly\r\n")),
              toResult(ResultCode::noSuchStream));
}

TEST_F(AudioDestination, backChannelWithoutG711IsUnsupported)
{
    EXPECT_EQ(callInVain(cameraWith(sdpWithBackChannel("97", "a=rtpmap:97 OPUS/48000/2\r\n"))),
              toResult(ResultCode::unsupportedMedia));
    EXPECT_EQ(rtsp->count("SETUP"), 0U);
    expectError("The back channel takes no G.711 at 8000 Hz", "handleSdp");
}

TEST_F(AudioDestination, deviceThatDoesNotKnowBackChannelsSaysSo)
{
    Camera camera = cameraWith(sdpWithBackChannel("0"));
    camera.statuses["DESCRIBE"] = 551;
    EXPECT_EQ(callInVain(camera), toResult(ResultCode::notSupported));
    expectError("failed request sdp:", "handleSdp");
    EXPECT_EQ(rtsp->count("SETUP"), 0U);
}

TEST_F(AudioDestination, brokenAnswerIsNoDescriptionThatCannotBeRead)
{
    Camera camera = cameraWith(sdpWithBackChannel("0"));
    camera.intercept = [](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        return request.method == "DESCRIBE" && connection.write("RTSP/1.0 200 OK\r\nContent-Length: abc\r\n\r\n");
    };
    EXPECT_EQ(callInVain(camera), toResult(ResultCode::malformedResponse));
    expectError("failed request sdp:", "handleSdp");
    EXPECT_FALSE(logger.contains("Failed to parse sdp"));
}

TEST_F(AudioDestination, descriptionThatIsNoneIsSaidToBeNone)
{
    EXPECT_EQ(callInVain(cameraWith("<html>not here</html>")), toResult(ResultCode::malformedReply));
    expectError("Failed to parse sdp", "handleSdp");
}

TEST_F(AudioDestination, descriptionWithoutTracksHasNoBackChannel)
{
    EXPECT_EQ(callInVain(cameraWith(sdpHead)), toResult(ResultCode::noSuchStream));
    expectError("Cannot find track with sendonly attribute for backchannel.", "handleSdp");
}

TEST_F(AudioDestination, tellsWhenTheDeviceRefusesTheTrack)
{
    expectRefusedPlay("SETUP");
}

TEST_F(AudioDestination, tellsWhenTheDeviceRefusesToPlay)
{
    expectRefusedPlay("PLAY");
}

TEST_F(AudioDestination, tellsWhenNobodyAnswersTheRtspPort)
{
    std::uint16_t port = 0;
    {
        const ScriptedPeer gone([](ScriptedPeer::Connection&) {});
        port = gone.port();
    }
    connectTo(port);
    createDestination();
    destination->Call();
    ASSERT_TRUE(calls.waitEnded());
    EXPECT_EQ(calls.ends().front(), toResult(ResultCode::deviceUnreachable));
    expectError("Session initialization error:", "handleSession");
}

TEST_F(AudioDestination, cannotCallADeviceThatIsNotConnected)
{
    make();
    createDestination();
    destination->Call();
    ASSERT_TRUE(calls.waitEnded());
    EXPECT_EQ(calls.ends().front(), toResult(ResultCode::invalidState));
    expectError("Session initialization error:", "openLine");
}

TEST_F(AudioDestination, keepsTheSessionAliveWithSetParameter)
{
    Camera camera = cameraWith(sdpWithBackChannel("0"));
    camera.session = "88;timeout=1";  // half of it
    std::promise<void> asked;
    camera.intercept = [&, first = true](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) mutable {
        if (request.method == "SET_PARAMETER" && std::exchange(first, false))
            asked.set_value();
        return false;
    };
    talk(camera);
    EXPECT_EQ(asked.get_future().wait_for(kelvo::test::patience), std::future_status::ready);
    EXPECT_GE(rtsp->count("SET_PARAMETER"), 1U);
    EXPECT_EQ(rtsp->count("GET_PARAMETER"), 0U);
    hangUp();
}

TEST_F(AudioDestination, lineThatBreaksInTheMiddleOfASentenceEndsTheCall)
{
    Camera camera = cameraWith(sdpWithBackChannel("0"));
    std::promise<void> enough;
    camera.afterPlay = [heard = enough.get_future().share()](ScriptedPeer::Connection& connection) {
        heard.wait();
        if (connection.number == 0)
            connection.close();
    };
    talk(camera);
    push(Samples(160, 0));
    enough.set_value();
    ASSERT_TRUE(calls.waitEnded());
    push(Samples(160, 0));
    destination->HangUp();
    destination->Call();  // the destination can be used again
    ASSERT_TRUE(calls.waitStarted(2));
    hangUp();
    ASSERT_EQ(calls.ends().size(), 2U);
    EXPECT_EQ(calls.ends()[0], toResult(ResultCode::connectionLost));
    EXPECT_EQ(calls.ends()[1], 0);
}

TEST_F(AudioDestination, deviceThatNeverReadsEndsTheCall)
{
    Camera camera = cameraWith(sdpWithBackChannel("0"));
    std::promise<void> done;
    camera.afterPlay = [ended = done.get_future().share()](ScriptedPeer::Connection&) { ended.wait(); };
    startCamera(camera);
    Tavro8::Utility::TalkBackContext context;
    context.objectName = "ad 0";
    context.limits.ahead = std::chrono::hours(100);  // as if it had been pushed over hours
    const auto line = std::make_shared<Uniview::AudioDestination>(device.get(), &calls, std::move(context));
    line->adopt();
    line->Call();
    ASSERT_TRUE(calls.waitStarted());
    const Samples second(8000, 0);
    // More than the systems of both ends hold; bounded for the case that this fails.
    for (int i = 0; i < 200'000 && calls.ends().empty(); ++i) {
        line->PushAudioFrame({second});
        std::this_thread::yield();
    }
    ASSERT_TRUE(calls.waitEnded());
    EXPECT_EQ(calls.ends().front(), toResult(ResultCode::noResources));
    expectError("Failed to write packet:", "handleWritePacket");
    EXPECT_EQ(logger.count("Failed to write packet:"), 1U);
    done.set_value();
    line->Destroy();
}

TEST_F(AudioDestination, hangingUpWhileTheDeviceIsAskedEndsTheCall)
{
    Camera camera = cameraWith(sdpWithBackChannel("0"));
    std::promise<void> asked;
    std::promise<void> done;
    camera.beforePlayAnswer = [&asked, ended = done.get_future().share()](ScriptedPeer::Connection&) {
        asked.set_value();
        ended.wait();
    };
    startCamera(camera);
    createDestination();
    destination->Call();
    asked.get_future().wait();
    push(Samples(160, 0));
    destination->HangUp();
    done.set_value();
    ASSERT_TRUE(calls.waitEnded());
    EXPECT_EQ(calls.ends(), std::vector<std::int32_t>{0});
    EXPECT_EQ(calls.started(), 0U);
}

TEST_F(AudioDestination, callsAgainAndAgain)
{
    startCamera(cameraWith(sdpWithBackChannel("8")));
    createDestination();
    for (std::size_t i = 1; i <= 3; ++i) {
        destination->Call();
        ASSERT_TRUE(calls.waitStarted(i));
        push(Samples(320, 0));
        hangUp();
        EXPECT_EQ(rtsp->received().size(), 2 * i);
        EXPECT_EQ(rtsp->count("TEARDOWN"), i);
    }
    EXPECT_EQ(logger.count("HangUp, sent: 1"), 3U);
}

TEST_F(AudioDestination, soundPushedWhileTheLineIsOpenedIsHeard)
{
    startCamera(cameraWith(sdpWithBackChannel("0")));
    createDestination();
    destination->Call();
    push(Samples(160, 0));
    ASSERT_TRUE(calls.waitStarted());
    hangUp();
    EXPECT_EQ(rtsp->received().size(), 1U);
}

TEST_F(AudioDestination, saysGoodByeWhenItIsDestroyedInTheMiddleOfACall)
{
    talk(cameraWith(sdpWithBackChannel("0")));
    push(Samples(160, 0));
    destroy();
    EXPECT_TRUE(calls.ends().empty());
    leave();
    EXPECT_EQ(rtsp->count("TEARDOWN"), 1U);
    EXPECT_TRUE(calls.ends().empty());
}

TEST_F(AudioDestination, mayBeDestroyedFromItsOwnCallbacks)
{
    std::promise<void> destroyed;
    calls.onStarted = [&](Tavro8::IContract*) {
        destroy();
        destroyed.set_value();
    };
    startCamera(cameraWith(sdpWithBackChannel("0")));
    createDestination();
    destination->Call();
    destroyed.get_future().wait();
    leave();
    EXPECT_TRUE(calls.ends().empty());
    EXPECT_EQ(rtsp->count("TEARDOWN"), 1U);
}

TEST_F(AudioDestination, keepsNoFileUnlessTheEnvironmentAsksForIt)
{
    ASSERT_EQ(std::getenv("KELVO_SPEAKER_AUDIO_OUTPUT_DUMP_DIR"), nullptr) << "this test needs it unset";
    namespace fs = std::filesystem;
    const fs::path before = fs::current_path();
    const fs::path place = fs::temp_directory_path() / ("kelvo-no-dump-" + std::to_string(std::random_device{}()));
    ASSERT_TRUE(fs::create_directory(place));
    fs::current_path(place);
    talk(cameraWith(sdpWithBackChannel("0")));
    push(Samples(160, 0));
    hangUp();
    fs::current_path(before);
    const auto files = std::count_if(fs::directory_iterator(place), fs::directory_iterator(), [](const auto& entry) {
        const std::string name = entry.path().filename().string();
        return name.starts_with("file_") && name.ends_with(".bin");
    });
    EXPECT_EQ(files, 0);
    fs::remove_all(place);
}

TEST_F(AudioDestination, isMadeForChannelsOfTheDeviceOnly)
{
    make(2);
    Tavro8::GDRV::IAudioDestination* made = nullptr;
    EXPECT_EQ(device->CreateAudioDestination(2, &calls, {}, &made), toResult(ResultCode::notFound));
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(device->CreateAudioDestination(0, &calls, {}, nullptr), toResult(ResultCode::invalidArgument));
    ASSERT_EQ(device->CreateAudioDestination(1, nullptr, {}, &made), 0);
    EXPECT_EQ(made->GetChannelIndex(), 1U);
    made->Call();
    made->Destroy();
}
}  // namespace

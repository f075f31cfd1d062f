#include "AudioSource.h"

#include "DeviceFixture.h"
#include "ScriptedPeer.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace
{
using namespace Uniview::test;
using kelvo::test::LogLine;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::Utility::testkit::Bytes;
using Tavro8::Utility::testkit::Camera;
using Tavro8::Utility::testkit::PacketSender;
using Tavro8::Utility::testkit::ScriptedPeer;
using Results = std::vector<std::pair<std::string, std::int32_t>>;
using Exchanges = std::vector<std::string>;

constexpr const char* cameraPath = "/LAPI/V1.0/Media/Audio/Input";
constexpr const char* getCamera = "GET /LAPI/V1.0/Media/Audio/Input";
constexpr const char* putCamera = "PUT /LAPI/V1.0/Media/Audio/Input";
constexpr const char* ok = "{\"Response\":{\"ResponseCode\":0,\"ResponseString\":\"Succeed\",\"Data\":null}}";
constexpr const char* refused =
    "{\"Response\":{\"ResponseCode\":1,\"ResponseString\":\"No\",\"StatusString\":\"Never\",\"Data\":null}}";

constexpr const char* noHttp = "RTSP/1.0 200 OK\r\n\r\n";
constexpr const char* unreadable = "{\"Response\":{}}";
constexpr const char* whyUnreadable = " HTTP response cannot be read, request:/LAPI/V1.0/Media/Audio/Input, "
                                      "reason:\"ResponseCode\" is missing or not an integer";

std::string reply(const std::string& data)
{
    return "{\"Response\":{\"ResponseCode\":0,\"Data\":" + data + "}}";
}

/// G.711 as long as somebody listens.
Camera singingCamera()
{
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

class AudioSource : public DeviceFixture {
protected:
    ~AudioSource() override
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
    void prepare(int deviceType = 0, std::uint32_t channels = 1, const Camera& camera = singingCamera())
    {
        rtsp = std::make_unique<ScriptedPeer>(camera.script());
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
        const LogLine line = logger.find("chan 0: " + message);
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
        device->reportExchange(ResultCode::deviceUnreachable);
        device->reportExchange(ResultCode::deviceUnreachable);
        ASSERT_TRUE(handler.waitLost());
    }
    void bringDeviceBack()
    {
        ASSERT_TRUE(peer.waitForRequest(std::string("GET ") + portPath, 2));
        peer.answer(portPath, 200, portReply());
        peer.breakSilence(200, portReply());
        ASSERT_TRUE(handler.waitConnected(2));
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
    std::unique_ptr<ScriptedPeer> rtsp;
    Tavro8::GDRV::IAudioSource* source = nullptr;
};

// ---- the microphone -------------------------------------------------------------------------------------------

TEST_F(AudioSource, aMicrophoneThatIsOnIsLeftAlone)
{
    prepare();
    peer.answer(cameraPath, 200, reply("{\"IsMute\":0}"));
    source->Start();
    ASSERT_TRUE(logger.waitFor("Microphone is already turned on"));
    EXPECT_TRUE(sound.waitFrames(1));
    EXPECT_EQ(logger.find("Microphone is already turned on").function, "Uniview::AudioSource::Start");
    EXPECT_EQ(count(getCamera), 1U);
    EXPECT_EQ(count(putCamera), 0U);
}

TEST_F(AudioSource, aMutedMicrophoneIsTurnedOn)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply("{\"IsMute\":1}"));
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    source->Start();
    ASSERT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_EQ(bodyOf(putCamera), "{\"IsMute\": 0}");
    EXPECT_TRUE(sound.waitFrames(1));
    EXPECT_EQ(logger.errorCount(), 0U) << logger.text();
}

TEST_F(AudioSource, aMicrophoneWhoseStateIsNotToldIsTurnedOn)
{
    for (const char* const data : {"{}", "{\"IsMute\":\"0\"}", "null", "[0]"}) {
        SCOPED_TRACE(data);
        const std::size_t before = count(putCamera);
        if (device == nullptr)
            prepare();
        peer.answer(std::string("GET ") + cameraPath, 200, reply(data));
        peer.answer(std::string("PUT ") + cameraPath, 200, "");
        source->Start();
        ASSERT_TRUE(peer.waitForRequest(putCamera, before + 1));
        ASSERT_TRUE(logger.waitFor("Microphone is turned on", before + 1));
        source->Stop();
        ASSERT_TRUE(sound.waitStopped(before + 1));
    }
}

TEST_F(AudioSource, aRecorderHasAnInputForEachChannelCountedFromOne)
{
    prepare(1, 3);
    const std::string path = "/LAPI/V1.0/Channels/1/Media/Audio/Input";
    peer.answer("GET " + path, 200, reply("{\"IsMute\":1}"));
    peer.answer("PUT " + path, 200, ok);
    source->Start();
    EXPECT_TRUE(peer.waitForRequest("PUT " + path));
    EXPECT_EQ(count(getCamera), 0U);
}

TEST_F(AudioSource, aCameraWithSeveralChannelsHasOneInput)
{
    prepare(1000, 3);
    peer.answer(cameraPath, 200, reply("{\"IsMute\":0}"));
    source->Start();
    EXPECT_TRUE(peer.waitForRequest(getCamera));
    EXPECT_TRUE(logger.waitFor("Microphone is already turned on"));
}

TEST_F(AudioSource, aCameraThatDoesNotTellItsStateIsTurnedOnDirectly)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 404, "");
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    source->Start();
    ASSERT_TRUE(logger.waitFor("Microphone is turned on"));
    expectError("Bad request to turn on the microphone.", "Start");
    EXPECT_EQ(logger.find("Microphone is turned on").function, "Uniview::AudioSource::startIPC");
    EXPECT_EQ(bodyOf(putCamera), "{\"IsMute\": 0}");
}

TEST_F(AudioSource, aMicrophoneThatCannotBeTurnedOnDoesNotPreventReception)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, refused);
    peer.answer(std::string("PUT ") + cameraPath, 500, "");
    source->Start();
    EXPECT_TRUE(sound.waitFrames(1));
    ASSERT_TRUE(logger.waitFor("HTTP response has error code:500"));
    ASSERT_TRUE(logger.waitFor("Bad request to turn on the microphone", 2));
    expectError("Bad request to turn on the microphone.", "Start");
    expectError(" Internal API error :No, status :Never", "Start");
    const auto lines = logger.lines();
    EXPECT_TRUE(std::ranges::any_of(lines, [](const LogLine& line) {
        return line.function == "Uniview::AudioSource::startIPC" &&
               line.message.ends_with("chan 0: Bad request to turn on the microphone");
    }));
}

TEST_F(AudioSource, repliesAboutTheMicrophoneThatCannotBeReadAreToldWithTheirReason)
{
    prepare();
    peer.answer(cameraPath, 200, unreadable);
    source->Start();
    ASSERT_TRUE(logger.waitFor("Bad request to turn on the microphone", 2));
    EXPECT_EQ(logger.count(whyUnreadable), 2U) << logger.text();
    expectError(whyUnreadable, "Start");
    const auto lines = logger.lines();
    EXPECT_TRUE(std::ranges::any_of(lines, [](const LogLine& line) {
        return line.function == "Uniview::AudioSource::startIPC" && line.message.ends_with(whyUnreadable);
    }));
}

TEST_F(AudioSource, aRecorderThatRefusesIsNotAskedInTheCamerasWay)
{
    prepare(1, 2);
    peer.answer("GET /LAPI/V1.0/Channels/1/Media/Audio/Input", 200, refused);
    source->Start();
    EXPECT_TRUE(sound.waitFrames(1));
    ASSERT_TRUE(logger.waitFor("Bad request to turn on the microphone."));
    source->Stop();
    ASSERT_TRUE(sound.waitStopped());
    applied({{"volume", 1}});  // an exchange that a request in the camera's way would come before
    EXPECT_EQ(count(putCamera), 0U);
}

TEST_F(AudioSource, aDeviceThatHangsDoesNotDelayReception)
{
    prepare();
    peer.staySilent(cameraPath);
    source->Start();
    ASSERT_TRUE(sound.waitFrames(1));
    ASSERT_TRUE(peer.waitForRequest(getCamera));
    destroy();
    EXPECT_EQ(logger.errorCount(), 0U) << "a request that is given up is no failure";
}

TEST_F(AudioSource, aMicrophoneThatIsNeverSwitchedOnHoldsUpNoFarewell)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply("{\"IsMute\":1}"));
    peer.staySilent(putCamera);
    source->Start();
    ASSERT_TRUE(peer.waitForRequest(putCamera));
    destroy();
    device->Destroy();
    device.reset();
    auto empty = std::async(std::launch::async, [] { Uniview::ModuleSettings::lifetimeGate().waitUntilEmpty(); });
    // A request that is not given up ends by itself too, later than this.
    EXPECT_EQ(empty.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST_F(AudioSource, startedBeforeTheDeviceConnectsTurnsTheMicrophoneOnLater)
{
    rtsp = std::make_unique<ScriptedPeer>(singingCamera().script());
    make();
    peer.answer(portPath, 200, portReply());
    peer.answer(std::string("GET ") + cameraPath, 200, reply("{\"IsMute\":1}"));
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    create();
    source->Start();
    EXPECT_EQ(count(getCamera), 0U);
    connect();
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_TRUE(sound.waitFrames(1));
}

TEST_F(AudioSource, aNewConnectionLooksAfterTheMicrophoneAgain)
{
    Camera camera = singingCamera();
    camera.afterPlay = [play = camera.afterPlay](ScriptedPeer::Connection& connection) {
        play(connection);
        if (connection.number == 0)
            connection.close();
    };
    prepare(0, 1, camera);
    peer.answer(cameraPath, 200, reply("{\"IsMute\":0}"));
    source->Start();
    EXPECT_TRUE(logger.waitFor("Microphone is already turned on", 2));
}

TEST_F(AudioSource, startedWhileTheDeviceIsLostTurnsTheMicrophoneOnLater)
{
    prepare();
    loseDevice();
    peer.answerRaw(getCamera, noHttp);
    source->Start();
    ASSERT_TRUE(logger.waitFor("Bad request to turn on the microphone."));
    peer.answer(getCamera, 200, reply("{\"IsMute\":1}"));
    peer.answer(putCamera, 200, ok);
    bringDeviceBack();
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_FALSE(logger.contains("no packet of the sound")) << "not with a connection after the next";
    EXPECT_TRUE(sound.waitFrames(1));
}

TEST_F(AudioSource, aMicrophoneThatWasOnBeforeTheDeviceCameBackIsLookedAfterAgain)
{
    prepare();
    loseDevice();
    peer.answer(getCamera, 200, reply("{\"IsMute\":0}"));
    source->Start();
    ASSERT_TRUE(logger.waitFor("Microphone is already turned on"));
    peer.answer(getCamera, 200, reply("{\"IsMute\":1}"));
    peer.answer(putCamera, 200, ok);
    bringDeviceBack();
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_FALSE(logger.contains("no packet of the sound")) << "not with a connection after the next";
}

TEST_F(AudioSource, aDeviceThatAnsweredNothingAtTheStartIsAskedWithTheNextConnection)
{
    const auto well = std::make_shared<std::atomic<bool>>(false);  // the camera's threads outlive this
    Camera camera = singingCamera();
    camera.intercept = [well](ScriptedPeer::Connection& connection, const ScriptedPeer::Request&) {
        const bool refuses = !*well;
        if (refuses)
            connection.close();
        return refuses;
    };
    prepare(0, 1, camera);
    kelvo::test::ChannelHandler picture;
    Tavro8::GDRV::IVideoSource* video = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 0, &picture, &picture, {}, nullptr, &video), 0);
    video->Start();
    ASSERT_TRUE(picture.waitState(toResult(ResultCode::connectionLost))) << "their stream tries again later";
    peer.answerRaw(getCamera, noHttp);
    source->Start();
    ASSERT_TRUE(logger.waitFor("Bad request to turn on the microphone."));
    peer.answer(getCamera, 200, reply("{\"IsMute\":1}"));
    peer.answer(putCamera, 200, ok);
    *well = true;
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_FALSE(logger.contains("no packet of the sound")) << "not with a connection after the next";
    video->Destroy();
}

TEST_F(AudioSource, asksOnceForEachStart)
{
    prepare();
    peer.answer(cameraPath, 200, reply("{\"IsMute\":0}"));
    source->Start();
    source->Start();
    ASSERT_TRUE(sound.waitFrames(1));
    ASSERT_TRUE(logger.waitFor("Microphone is already turned on"));
    source->Stop();
    ASSERT_TRUE(sound.waitStopped());
    EXPECT_EQ(count(getCamera), 1U);
}

// ---- the microphone and settings ------------------------------------------------------------------------------

constexpr const char* muted = "{\"InputGain\":1,\"IsMute\":1}";
constexpr const char* listening = "{\"InputGain\":1,\"IsMute\":0}";
constexpr const char* unmute = "PUT {\"IsMute\": 0}";

std::string writeOf(int volume, int isMute)
{
    return "PUT {\"InputGain\":" + std::to_string(volume) + ",\"IsMute\":" + std::to_string(isMute) + '}';
}

/// A camera that keeps the read of the first settings waiting.
class WaitingAudioSource : public AudioSource {
protected:
    void prepare(std::uint32_t channels = 1, const Camera& camera = singingCamera())
    {
        AudioSource::prepare(0, channels, camera);
        peer.answer(putCamera, 200, ok);
    }
    void applyAndHang()
    {
        const std::size_t before = count(getCamera);
        peer.staySilent(getCamera);
        ASSERT_EQ(apply({{"volume", 90}}), 0);
        ASSERT_TRUE(peer.waitForRequest(getCamera, before + 1));
    }
    /// Answers what hangs; later reads find the other state.
    void goOn(const char* state, const char* later)
    {
        service->barrier();  // what does not wait for its turn would be under way by now
        peer.answer(getCamera, 200, reply(later));
        peer.breakSilence(200, reply(state));
    }
    /// What the camera is asked up to the end of settings that come last.
    Exchanges exchangesToTheEnd(std::size_t settingsBefore = 1)
    {
        EXPECT_TRUE(sound.waitSettings("all", settingsBefore));
        EXPECT_EQ(apply({{"volume", 91}}), 0);
        EXPECT_TRUE(sound.waitSettings("all", settingsBefore + 1));
        return exchanges();
    }
};

TEST_F(WaitingAudioSource, settingsRightBehindAStartLeaveTheMicrophoneOn)
{
    prepare();
    peer.staySilent(getCamera);
    source->Start();
    ASSERT_EQ(apply({{"volume", 90}}), 0);
    ASSERT_TRUE(peer.waitForRequest(getCamera));
    goOn(muted, listening);
    ASSERT_TRUE(sound.waitSettings("all"));
    EXPECT_EQ(exchanges(), (Exchanges{"GET", unmute, "GET", writeOf(90, 0)}));
    EXPECT_EQ(sound.settingsResults(), (Results{{"audioInput", 0}, {"all", 0}}));
}

TEST_F(WaitingAudioSource, theMicrophoneWaitsForSettingsAndReceptionDoesNot)
{
    prepare();
    applyAndHang();
    source->Start();
    EXPECT_TRUE(sound.waitFrames(1));
    goOn(muted, muted);
    ASSERT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_EQ(exchanges(), (Exchanges{"GET", writeOf(90, 1), "GET", unmute}));
}

TEST_F(WaitingAudioSource, settingsOfAnotherChannelLeaveTheMicrophoneOn)
{
    prepare(2);
    kelvo::test::ChannelHandler otherSound;
    Tavro8::GDRV::IAudioSource* other = nullptr;
    ASSERT_EQ(device->CreateAudioSource(1, &otherSound, &otherSound, {}, nullptr, &other), 0);
    peer.staySilent(getCamera);
    source->Start();
    ASSERT_EQ(other->ApplySettings({{"volume", 90}}), 0);
    ASSERT_TRUE(peer.waitForRequest(getCamera));
    goOn(muted, listening);
    ASSERT_TRUE(otherSound.waitSettings("all"));
    EXPECT_EQ(exchanges(), (Exchanges{"GET", unmute, "GET", writeOf(90, 0)}));
    other->Destroy();
}

TEST_F(WaitingAudioSource, theMicrophoneOfAStoppedSourceIsLeftAlone)
{
    prepare();
    applyAndHang();
    source->Start();
    source->Stop();
    ASSERT_TRUE(sound.waitStopped()) << "does not wait for the turn";
    goOn(muted, muted);
    EXPECT_EQ(exchangesToTheEnd(), (Exchanges{"GET", writeOf(90, 1), "GET", writeOf(91, 1)}));
}

TEST_F(WaitingAudioSource, theMicrophoneOfADestroyedSourceIsLeftAlone)
{
    prepare(2);
    kelvo::test::ChannelHandler otherSound;
    Tavro8::GDRV::IAudioSource* other = nullptr;
    ASSERT_EQ(device->CreateAudioSource(1, &otherSound, &otherSound, {}, nullptr, &other), 0);
    applyAndHang();
    other->Start();
    other->Destroy();
    goOn(muted, muted);
    EXPECT_EQ(exchangesToTheEnd(), (Exchanges{"GET", writeOf(90, 1), "GET", writeOf(91, 1)}));
}

TEST_F(WaitingAudioSource, aSourceThatIsStartedAgainWhileItWaitsIsSeenToOnce)
{
    prepare();
    applyAndHang();
    source->Start();
    source->Stop();
    source->Start();
    goOn(muted, muted);
    ASSERT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_EQ(exchangesToTheEnd(), (Exchanges{"GET", writeOf(90, 1), "GET", unmute, "GET", writeOf(91, 1)}));
}

TEST_F(WaitingAudioSource, aFailureOfAnEarlierStartDoesNotSilenceThatOfTheNext)
{
    AudioSource::prepare(1);
    const std::string path = "/LAPI/V1.0/Channels/1/Media/Audio/Input";
    peer.staySilent(path);
    source->Start();
    ASSERT_TRUE(peer.waitForRequest("GET " + path));
    source->Stop();
    ASSERT_TRUE(sound.waitStopped());
    source->Start();
    peer.answer(path, 200, refused);
    peer.breakSilence(200, refused);
    EXPECT_TRUE(logger.waitFor("Bad request to turn on the microphone.", 2));
}

TEST_F(WaitingAudioSource, aMicrophoneWhoseDeviceIsClosedWhileItWaitsIsSeenToLater)
{
    prepare();
    applyAndHang();
    source->Start();
    device->Close();
    ASSERT_TRUE(handler.waitClosed());
    goOn(muted, muted);
    ASSERT_TRUE(sound.waitSettings("all"));
    service->barrier();  // the settings give their turn up
    service->barrier();  // the microphone has had its own
    EXPECT_EQ(exchanges(), (Exchanges{"GET"}));
    open();
    ASSERT_TRUE(handler.waitConnected(2));
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_EQ(exchanges(), (Exchanges{"GET", "GET", unmute}));
}

TEST_F(WaitingAudioSource, theMicrophoneOfANewConnectionWaitsToo)
{
    std::promise<void> hangUp;
    Camera camera = singingCamera();
    camera.afterPlay = [play = camera.afterPlay,
                        hungUp = hangUp.get_future().share()](ScriptedPeer::Connection& connection) {
        if (connection.number == 0) {
            hungUp.wait();
            connection.close();
        } else {
            play(connection);
        }
    };
    prepare(1, camera);
    peer.answer(getCamera, 200, reply(listening));
    source->Start();
    ASSERT_TRUE(logger.waitFor("Microphone is already turned on"));
    applyAndHang();
    hangUp.set_value();
    ASSERT_TRUE(sound.waitFrames(1)) << "of the second connection";
    goOn(listening, listening);
    EXPECT_TRUE(logger.waitFor("Microphone is already turned on", 2));
    EXPECT_EQ(exchanges(), (Exchanges{"GET", "GET", writeOf(90, 0), "GET"}));
}

// ---- another device at the next address -----------------------------------------------------------------------

constexpr const char* recorderPath = "/LAPI/V1.0/Channels/1/Media/Audio/Input";
constexpr const char* getRecorder = "GET /LAPI/V1.0/Channels/1/Media/Audio/Input";

/// A camera that keeps an answer waiting while the host opens another address.
class ReopenedAudioSource : public WaitingAudioSource {
protected:
    /// Another device, which answers for its audio input by what it is told.
    void openOther(int deviceType = 0)
    {
        next.answer(portPath, 200, portReply());
        next.answer(infoPath, 200, deviceInfo(deviceType));
        ASSERT_EQ(device->Open(("http://admin:secret@" + next.address()).c_str()), 0);
        ASSERT_TRUE(handler.waitConnected(2));
    }
    std::size_t countOther(const std::string& request) const
    {
        const auto all = next.requests();
        return static_cast<std::size_t>(std::count(all.begin(), all.end(), request));
    }

    kelvo::test::ScriptedHttpPeer next;
    const Results closed{{"audioInput", toResult(ResultCode::invalidState)},
                         {"all", toResult(ResultCode::invalidState)}};
};

TEST_F(ReopenedAudioSource, settingsReadFromOneDeviceAreNotWrittenToAnother)
{
    prepare();
    next.answer(cameraPath, 200, reply(listening));
    applyAndHang();
    openOther();
    goOn(muted, muted);
    ASSERT_TRUE(sound.waitSettings("all"));
    EXPECT_EQ(sound.settingsResults(), closed);
    EXPECT_EQ(exchanges(), (Exchanges{"GET"}));
    EXPECT_EQ(countOther(getCamera) + countOther(putCamera), 0U);
}

TEST_F(ReopenedAudioSource, theMicrophoneOfTheOtherDeviceIsTurnedOn)
{
    prepare();
    peer.staySilent(getCamera);
    next.answer(getCamera, 200, reply(muted));
    next.answer(putCamera, 200, ok);
    source->Start();
    ASSERT_TRUE(peer.waitForRequest(getCamera));
    openOther();
    ASSERT_TRUE(sound.waitFrames(1));
    goOn(muted, muted);
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_EQ(exchanges(), (Exchanges{"GET"}));
    EXPECT_EQ(countOther(putCamera), 1U);
}

TEST_F(ReopenedAudioSource, theMicrophoneOfAClosedDeviceIsLeftAlone)
{
    prepare();
    peer.staySilent(getCamera);
    source->Start();
    ASSERT_TRUE(peer.waitForRequest(getCamera));
    device->Close();
    ASSERT_TRUE(handler.waitClosed());
    goOn(muted, muted);
    next.answer(getCamera, 200, reply(muted));
    next.answer(putCamera, 200, ok);
    openOther();
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_EQ(exchanges(), (Exchanges{"GET"}));
    EXPECT_EQ(countOther(putCamera), 1U);
}

TEST_F(ReopenedAudioSource, failuresOfTheOneDeviceDoNotLoseTheOther)
{
    prepare();
    next.answerRaw(cameraPath, noHttp);
    applyAndHang();
    ASSERT_EQ(apply({{"volume", 91}}), 0);
    openOther();
    peer.breakSilenceRaw(noHttp);
    ASSERT_TRUE(sound.waitSettings("all", 2));
    service->barrier();
    EXPECT_EQ(countOther(getCamera), 1U);
    EXPECT_EQ(handler.lostTotal(), 0) << logger.text();
}

TEST_F(ReopenedAudioSource, settingsOfADeviceOfAnotherKindKeepTheirTurn)
{
    prepare();
    next.staySilent(recorderPath);
    applyAndHang();
    openOther(1);
    ASSERT_EQ(apply({{"volume", 91}}), 0);
    ASSERT_TRUE(next.waitForRequest(getRecorder));
    ASSERT_EQ(apply({{"volume", 92}}), 0);
    goOn(muted, muted);
    ASSERT_TRUE(sound.waitSettings("all"));
    EXPECT_EQ(sound.settingsResults(), closed);
    service->barrier();  // the turn is given up
    service->barrier();  // what began with it would be under way by now
    EXPECT_EQ(countOther(getRecorder), 1U);
    next.answer(recorderPath, 200, reply(listening));
    next.breakSilence(200, reply(listening));
    ASSERT_TRUE(sound.waitSettings("all", 3));
    EXPECT_EQ(next.requests().back(), std::string("PUT ") + recorderPath);
    EXPECT_EQ(next.bodies().back(), writeOf(92, 0).substr(4));
}

TEST_F(ReopenedAudioSource, settingsThatWaitAreNotForADeviceOfAnotherKind)
{
    prepare();
    applyAndHang();
    ASSERT_EQ(apply({{"volume", 91}}), 0);
    openOther(1);
    goOn(muted, muted);
    ASSERT_TRUE(sound.waitSettings("all", 2));
    EXPECT_EQ(sound.settingsResults().back().second, toResult(ResultCode::invalidState));
    EXPECT_EQ(countOther(getCamera), 0U);
}

TEST_F(ReopenedAudioSource, theMicrophoneThatWaitsIsThatOfADeviceOfAnotherKind)
{
    prepare();
    next.answer(getRecorder, 200, reply(muted));
    next.answer(std::string("PUT ") + recorderPath, 200, ok);
    applyAndHang();
    source->Start();
    ASSERT_TRUE(sound.waitFrames(1));
    openOther(1);
    goOn(muted, muted);
    EXPECT_TRUE(logger.waitFor("Microphone is turned on"));
    EXPECT_EQ(countOther(getCamera), 0U);
}

TEST_F(ReopenedAudioSource, requestsToBothDevicesAreTakenBack)
{
    prepare();
    next.staySilent(recorderPath);
    applyAndHang();
    openOther(1);
    ASSERT_EQ(apply({{"volume", 91}}), 0);
    ASSERT_TRUE(next.waitForRequest(getRecorder));
    destroy();
    device->Destroy();
    device.reset();
    auto empty = std::async(std::launch::async, [] { Uniview::ModuleSettings::lifetimeGate().waitUntilEmpty(); });
    // A request that is not given up ends by itself too, later than this.
    EXPECT_EQ(empty.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(sound.settingsResults().empty());
}

// ---- settings -------------------------------------------------------------------------------------------------

constexpr const char* input = "{\"IsMute\":0,\"InputGain\":120,\"NoiseReduction\":{\"Enabled\":0},\"Gain\":25.4,"
                              "\"AudioInputNum\":2,\"AudioInputList\":[{\"ID\":1,\"Enabled\":1,\"Mode\":0},"
                              "{\"ID\":2,\"Enabled\":0,\"Mode\":0}]}";

TEST_F(AudioSource, writesSettingsBackWithWhatItDoesNotKnow)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply(input));
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    EXPECT_EQ(applied({{"volume", 200}, {"noiseReduce", 1}, {"micNumber", 2}, {"micMode", 3}}),
              (Results{{"audioInput", 0}, {"all", 0}}));
    EXPECT_EQ(bodyOf(putCamera), "{\"AudioInputList\":[{\"Enabled\":1,\"ID\":1,\"Mode\":0},{\"Enabled\":1,\"ID\":2,"
                                 "\"Mode\":3}],\"AudioInputNum\":2,\"Gain\":25.4,\"InputGain\":200,\"IsMute\":0,"
                                 "\"NoiseReduction\":{\"Enabled\":1}}");
    EXPECT_EQ(logger.errorCount(), 0U) << logger.text();
}

TEST_F(AudioSource, writesWhatIsSoAlready)
{
    prepare();
    peer.answer(cameraPath, 200, reply("{\"InputGain\":120}"));
    EXPECT_EQ(applied({{"volume", 120}}), (Results{{"audioInput", 0}, {"all", 0}}));
    EXPECT_EQ(count(getCamera), 1U);
    EXPECT_EQ(count(putCamera), 1U);
    EXPECT_EQ(bodyOf(putCamera), "{\"InputGain\":120}");
}

TEST_F(AudioSource, aModeAloneIsForTheMicrophoneChosenBefore)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply(input));
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    applied({{"micNumber", 2}});
    ASSERT_EQ(apply({{"micMode", 5}}), 0);
    ASSERT_TRUE(sound.waitSettings("all", 2));
    EXPECT_NE(bodyOf(putCamera).find("\"ID\":2,\"Mode\":5"), std::string::npos) << bodyOf(putCamera);
}

TEST_F(AudioSource, aMicrophoneThatWasNotWrittenIsNotTheChosenOne)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply(input));
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    applied({{"micNumber", 2}});
    ASSERT_EQ(apply({{"micNumber", 9}}), 0);  // there is none
    peer.answerOnce(std::string("PUT ") + cameraPath, 200, refused);
    ASSERT_EQ(apply({{"micNumber", 1}}), 0);
    ASSERT_EQ(apply({{"micMode", 5}}), 0);
    ASSERT_TRUE(sound.waitSettings("all", 4));
    const auto results = sound.settingsResults();
    EXPECT_EQ(results[3].second, toResult(ResultCode::notFound));
    EXPECT_EQ(results[5].second, toResult(ResultCode::apiError));
    EXPECT_EQ(results[7].second, 0);
    EXPECT_NE(bodyOf(putCamera).find("\"ID\":2,\"Mode\":5"), std::string::npos) << bodyOf(putCamera);
}

TEST_F(AudioSource, aModeForNoMicrophoneIsRefused)
{
    prepare();
    peer.answer(cameraPath, 200, reply(input));
    const auto code = toResult(ResultCode::invalidArgument);
    EXPECT_EQ(applied({{"micMode", 2}}), (Results{{"audioInput", code}, {"all", code}}));
    EXPECT_EQ(count(putCamera), 0U);
    expectError("There is no microphone for the mode, parameter:micMode", "applyAudioSettings");
}

TEST_F(AudioSource, tellsASettingsResourceThatCannotBeRead)
{
    prepare();
    peer.answer(cameraPath, 500, "");
    const Results results = applied({{"volume", 1}});
    EXPECT_EQ(results,
              (Results{{"audioInput", toResult(ResultCode::deviceError)}, {"all", toResult(ResultCode::deviceError)}}));
    expectError("Bad response while tried to get audio settings", "applyAudioSettings");
    EXPECT_EQ(count(putCamera), 0U);
}

TEST_F(AudioSource, tellsSettingsThatAreTooLarge)
{
    prepare();
    peer.answer(cameraPath, 200, reply('"' + std::string(2U << 20U, 'a') + '"'));
    ASSERT_EQ(apply({{"volume", 1}}), 0);
    ASSERT_TRUE(sound.waitSettings("all"));
    EXPECT_EQ(sound.settingsResults().back().second, toResult(ResultCode::responseTooLarge));
    EXPECT_EQ(logger.count("Can't parse audio settings: "), 1U);
    EXPECT_EQ(count(putCamera), 0U);
}

TEST_F(AudioSource, tellsSettingsThatAreNotJson)
{
    for (const std::string& body : {std::string("<html/>"), reply("[1]"), reply("null")}) {
        if (device == nullptr)
            prepare();
        const std::size_t before = sound.settingsResults().size();
        peer.answer(cameraPath, 200, body);
        ASSERT_EQ(apply({{"volume", 1}}), 0);
        ASSERT_TRUE(sound.waitSettings("all", before / 2 + 1));
        EXPECT_EQ(sound.settingsResults().back().second, toResult(ResultCode::malformedReply)) << body;
    }
    expectError("Can't parse audio settings: \"Data\" is not an object", "applyAudioSettings");
    EXPECT_EQ(logger.count("Can't parse audio settings"), 3U);
    EXPECT_FALSE(logger.contains("Bad response while tried to get audio settings"));
}

TEST_F(AudioSource, tellsARefusedWriteWithItsRequest)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply("{\"InputGain\":1}"));
    peer.answer(std::string("PUT ") + cameraPath, 200, refused);
    EXPECT_EQ(applied({{"volume", 2}}),
              (Results{{"audioInput", toResult(ResultCode::apiError)}, {"all", toResult(ResultCode::apiError)}}));
    expectError("Failed to apply settings", "applyAudioSettings");
    expectError("Failed request details:\nPUT /LAPI/V1.0/Media/Audio/Input\n{\"InputGain\":2}", "applyAudioSettings");
}

TEST_F(AudioSource, aReplyToAWriteThatCannotBeReadIsToldWithItsReason)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply("{\"InputGain\":1}"));
    peer.answer(std::string("PUT ") + cameraPath, 200, unreadable);
    const auto code = toResult(ResultCode::malformedReply);
    EXPECT_EQ(applied({{"volume", 2}}), (Results{{"audioInput", code}, {"all", code}}));
    expectError(whyUnreadable, "applyAudioSettings");
    expectError("Failed to apply settings", "applyAudioSettings");
}

TEST_F(AudioSource, aHostileDeviceNeitherControlsNorFloodsTheLogWithItsOwnWords)
{
    prepare();
    const std::string words = "\x7f \xC2\x9B"
                              "31m \xFF \\u000a \\u0085 ";
    peer.answer(std::string("GET ") + cameraPath, 200,
                reply("{\"A\":\"" + words + "\",\"InputGain\":1,\"Z\":\"" + std::string(1'000'000, 'z') + "\"}"));
    peer.answer(std::string("PUT ") + cameraPath, 500, "");
    applied({{"volume", 2}});
    const std::string line = logger.find("Failed request details:\n").message;
    EXPECT_LT(line.size(), 1500U);
    EXPECT_TRUE(line.ends_with("zzz...")) << line.substr(0, 1500);
    const std::string body = line.substr(std::min(line.size(), line.find("\n{") + 1));
    EXPECT_NE(body.find("{\"A\":\"   31m \xEF\xBF\xBD \\n   \",\"InputGain\":2,"), std::string::npos) << body;
    EXPECT_TRUE(std::ranges::none_of(body, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }));
}

TEST_F(AudioSource, aMicrophoneThatTheDeviceDoesNotHaveIsNotFound)
{
    prepare();
    peer.answer(cameraPath, 200, reply(input));
    EXPECT_EQ(applied({{"micNumber", 3}, {"volume", 1}}),
              (Results{{"audioInput", toResult(ResultCode::notFound)}, {"all", toResult(ResultCode::notFound)}}));
    EXPECT_EQ(count(putCamera), 0U);
}

TEST_F(AudioSource, aRecordersInputIsWrittenUnderItsChannel)
{
    prepare(1, 2);
    destroy();
    create(1);
    const std::string path = "/LAPI/V1.0/Channels/2/Media/Audio/Input";
    peer.answer("GET " + path, 200, reply("{\"InputGain\":1}"));
    peer.answer("PUT " + path, 200, ok);
    applied({{"volume", 2}});
    EXPECT_EQ(bodyOf("PUT " + path), "{\"InputGain\":2}");
}

TEST_F(AudioSource, settingsOfAnotherTypeAreRefusedAtOnce)
{
    prepare();
    for (const Tavro8::ParameterMap& wrong :
         {Tavro8::ParameterMap{{"volume", 2.5}}, Tavro8::ParameterMap{{"noiseReduce", std::string("much")}},
          Tavro8::ParameterMap{{"encoding", 1}}, Tavro8::ParameterMap{{"samplerate", std::string("8000")}}})
        EXPECT_EQ(apply(wrong), toResult(ResultCode::invalidArgument));
    EXPECT_TRUE(sound.settingsResults().empty());
}

TEST_F(AudioSource, settingsNeedADeviceThatWasConnected)
{
    make();
    create();
    EXPECT_EQ(apply({{"volume", 1}}), toResult(ResultCode::invalidState));
    EXPECT_EQ(applied({{"encoding", std::string("G.711")}}), (Results{{"all", 0}})) << "nothing to be asked of it";
}

TEST_F(AudioSource, settingsThatWaitWhenTheDeviceIsClosedAreNotWritten)
{
    prepare();
    peer.staySilent(getCamera);
    peer.answer(putCamera, 200, ok);
    ASSERT_EQ(apply({{"volume", 1}}), 0);
    ASSERT_EQ(apply({{"volume", 2}}), 0);
    ASSERT_TRUE(peer.waitForRequest(getCamera));
    device->Close();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(apply({{"volume", 3}}), toResult(ResultCode::invalidState));
    peer.breakSilence(200, reply("{\"InputGain\":1}"));
    ASSERT_TRUE(sound.waitSettings("all", 2));
    const auto code = toResult(ResultCode::invalidState);
    EXPECT_EQ(sound.settingsResults(),
              (Results{{"audioInput", code}, {"all", code}, {"audioInput", code}, {"all", code}}));
    EXPECT_EQ(count(getCamera), 1U);
    EXPECT_EQ(count(putCamera), 0U);
    expectError("The device was closed before its settings were written", "applyAudioSettings");
}

TEST_F(AudioSource, settingsAreAppliedOneAfterTheOther)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply("{\"InputGain\":0}"));
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    for (int i = 1; i <= 5; ++i)
        ASSERT_EQ(apply({{"volume", i}}), 0);
    ASSERT_TRUE(sound.waitSettings("all", 5));
    Exchanges expected;
    for (int i = 1; i <= 5; ++i)
        expected.insert(expected.end(), {"GET", "PUT {\"InputGain\":" + std::to_string(i) + '}'});
    EXPECT_EQ(exchanges(), expected);
}

TEST_F(AudioSource, settingsDoNotWaitForThoseOfThePicture)
{
    prepare();
    peer.answer(std::string("GET ") + cameraPath, 200, reply("{\"InputGain\":0}"));
    peer.answer(std::string("PUT ") + cameraPath, 200, ok);
    kelvo::test::ChannelHandler picture;
    Tavro8::GDRV::IVideoSource* video = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 0, &picture, &picture, {}, nullptr, &video), 0);
    const std::string silent = "GET /LAPI/V1.0/Channels/0/Media/VideoInMode";
    peer.staySilent(silent);
    ASSERT_EQ(video->ApplySettings({{"brightness", 5}}), 0);
    ASSERT_TRUE(peer.waitForRequest(silent));
    EXPECT_EQ(applied({{"volume", 44}}), (Results{{"audioInput", 0}, {"all", 0}}));
    const Results ofPicture = picture.settingsResults();
    EXPECT_EQ(std::ranges::count(ofPicture, "all", &Results::value_type::first), 0) << "still waits for the device";
    video->Destroy();
}

TEST_F(AudioSource, channelsOfACameraDoNotUndoEachOthersSettings)
{
    prepare(0, 2);
    kelvo::test::ChannelHandler otherSound;
    Tavro8::GDRV::IAudioSource* other = nullptr;
    ASSERT_EQ(device->CreateAudioSource(1, &otherSound, &otherSound, {}, nullptr, &other), 0);
    peer.staySilent(getCamera);
    peer.answer(putCamera, 200, ok);
    ASSERT_EQ(apply({{"volume", 7}}), 0);
    ASSERT_EQ(other->ApplySettings({{"noiseReduce", 1}}), 0);
    ASSERT_TRUE(peer.waitForRequest(getCamera));
    service->barrier();
    // What the input holds once the first is written is what the second reads.
    peer.answer(getCamera, 200, reply("{\"InputGain\":7,\"NoiseReduction\":{\"Enabled\":0}}"));
    peer.breakSilence(200, reply("{\"InputGain\":0,\"NoiseReduction\":{\"Enabled\":0}}"));
    ASSERT_TRUE(sound.waitSettings("all"));
    ASSERT_TRUE(otherSound.waitSettings("all"));
    EXPECT_EQ(exchanges(), (Exchanges{"GET", "PUT {\"InputGain\":7,\"NoiseReduction\":{\"Enabled\":0}}", "GET",
                                      "PUT {\"InputGain\":7,\"NoiseReduction\":{\"Enabled\":1}}"}));
    other->Destroy();
}

TEST_F(AudioSource, channelsOfARecorderDoNotWaitForEachOther)
{
    make(2);
    peer.answer(infoPath, 200, deviceInfo(1));
    create();  // what the device is does not show before it has connected
    kelvo::test::ChannelHandler otherSound;
    Tavro8::GDRV::IAudioSource* other = nullptr;
    ASSERT_EQ(device->CreateAudioSource(1, &otherSound, &otherSound, {}, nullptr, &other), 0);
    connect();
    const std::string silent = "GET /LAPI/V1.0/Channels/1/Media/Audio/Input";
    peer.staySilent(silent);
    peer.answer("/LAPI/V1.0/Channels/2/Media/Audio/Input", 200, reply("{\"InputGain\":1}"));
    ASSERT_EQ(apply({{"volume", 2}}), 0);
    ASSERT_TRUE(peer.waitForRequest(silent));
    ASSERT_EQ(other->ApplySettings({{"volume", 3}}), 0);
    ASSERT_TRUE(otherSound.waitSettings("all"));
    EXPECT_EQ(otherSound.settingsResults(), (Results{{"audioInput", 0}, {"all", 0}}));
    EXPECT_TRUE(sound.settingsResults().empty()) << "still waits for the device";
    other->Destroy();
}

TEST_F(AudioSource, takesALimitedNumberOfSettings)
{
    prepare();
    peer.staySilent(cameraPath);
    for (std::size_t i = 0; i < Uniview::SettingsQueue::maxTaken; ++i)
        ASSERT_EQ(apply({{"volume", 1}}), 0);
    EXPECT_EQ(apply({{"volume", 1}}), toResult(ResultCode::deviceBusy));
    destroy();
    EXPECT_TRUE(sound.settingsResults().empty());
}

TEST_F(AudioSource, settingsOfADestroyedSourceMakeRoom)
{
    prepare(0, 2);
    kelvo::test::ChannelHandler otherSound;
    Tavro8::GDRV::IAudioSource* other = nullptr;
    ASSERT_EQ(device->CreateAudioSource(1, &otherSound, &otherSound, {}, nullptr, &other), 0);
    peer.staySilent(cameraPath);
    ASSERT_EQ(apply({{"volume", 1}}), 0);
    for (std::size_t i = 1; i < Uniview::SettingsQueue::maxTaken; ++i)
        ASSERT_EQ(other->ApplySettings({{"volume", 1}}), 0);
    EXPECT_EQ(apply({{"volume", 1}}), toResult(ResultCode::deviceBusy));
    other->Destroy();
    EXPECT_EQ(apply({{"volume", 1}}), 0);
}

TEST_F(AudioSource, mayBeDestroyedInsideTheResultOfItsSettings)
{
    prepare();
    peer.answer(cameraPath, 200, reply(input));
    std::promise<void> destroyed;
    sound.onSettings = [&](Tavro8::IContract*, const std::string&) {
        destroy();
        destroyed.set_value();
    };
    ASSERT_EQ(apply({{"volume", 120}}), 0);
    ASSERT_EQ(apply({{"volume", 120}}), 0);
    destroyed.get_future().wait();
    leave();
    EXPECT_EQ(sound.settingsResults().size(), 1U);
}

// ---- what is received -----------------------------------------------------------------------------------------

TEST_F(AudioSource, valuesThatAskForWhatComesAnywayKeepTheConnection)
{
    prepare();
    peer.answer(cameraPath, 200, reply("{\"IsMute\":0}"));
    source->Start();
    ASSERT_TRUE(sound.waitFrames(1));
    // A restart would come before the exchange that the volume takes.
    const Results results = applied(
        {{"encoding", std::string("G.711")}, {"algorithm", std::string("u-law")}, {"samplerate", 8000}, {"volume", 1}});
    EXPECT_EQ(results, (Results{{"audioInput", 0}, {"all", 0}}));
    service->barrier();
    EXPECT_EQ(rtsp->count("TEARDOWN"), 0U);
    EXPECT_EQ(rtsp->connectionCount(), 1U);
}

TEST_F(AudioSource, anotherLawIsAskedForWithANewConnection)
{
    prepare();
    peer.answer(cameraPath, 200, reply("{\"IsMute\":0}"));
    source->Start();
    ASSERT_TRUE(sound.waitFrames(1));
    applied({{"encoding", std::string("G.711")}, {"algorithm", std::string("A-law")}});
    EXPECT_TRUE(sound.waitState(toResult(ResultCode::noSuchStream))) << "the camera has no such sound";
    EXPECT_GE(rtsp->connectionCount(), 2U);
}

TEST_F(AudioSource, takesTheTrackThatItWasMadeFor)
{
    Camera camera = singingCamera();
    camera.sdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n"
                 "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 MPEG4-GENERIC/16000/1\r\n"
                 "a=fmtp:97 mode=AAC-hbr;config=1408;sizelength=13;indexlength=3\r\na=control:aac\r\n"
                 "m=audio 0 RTP/AVP 8\r\na=control:a\r\n"
                 "m=audio 0 RTP/AVP 0\r\na=control:u\r\n";
    std::vector<std::promise<std::string>> tracks(4);
    camera.intercept = [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method == "SETUP")
            tracks.at(connection.number).set_value(request.uri.substr(request.uri.rfind('/')));
        return false;
    };
    rtsp = std::make_unique<ScriptedPeer>(camera.script());
    make();
    peer.answer(portPath, 200, portReply());
    connect();
    const struct {
        Tavro8::ParameterMap parameters;
        const char* track;
    } cases[] = {
        {{}, "/aac"},
        {{{"encoding", std::string("G.711")}}, "/a"},
        {{{"encoding", std::string("u-law")}}, "/u"},
        {{{"samplerate", 8000}}, "/a"},
    };
    ASSERT_EQ(std::size(cases), tracks.size());
    for (std::size_t i = 0; i < tracks.size(); ++i) {
        create(0, cases[i].parameters);
        source->Start();
        EXPECT_EQ(tracks[i].get_future().get(), cases[i].track);
        source->Stop();
        ASSERT_TRUE(sound.waitStopped(i + 1));
        destroy();
    }
}

TEST_F(AudioSource, takesTheFormatThatItWasMadeForOfATrackThatHasSeveral)
{
    Camera camera;
    camera.sdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\nm=audio 0 RTP/AVP 0 98 97\r\n"
                 "a=rtpmap:0 PCMU/8000\r\na=rtpmap:98 OPUS/48000/2\r\na=rtpmap:97 MPEG4-GENERIC/48000/2\r\n"
                 "a=fmtp:97 mode=AAC-hbr;config=1190;sizelength=13;indexlength=3\r\na=control:sound\r\n";
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        sender.payloadType = 97;
        for (int i = 0; i < 10; ++i)
            sender.sendFrame(connection, {Bytes{0x00, 0x10, 0x00, 0x20, 1, 2, 3, 4}}, 1024);
    };
    rtsp = std::make_unique<ScriptedPeer>(camera.script());
    make();
    peer.answer(portPath, 200, portReply());
    connect();
    create(0, {{"samplerate", 48000}});
    source->Start();
    EXPECT_TRUE(sound.waitFrames(1)) << logger.text();
}
}  // namespace

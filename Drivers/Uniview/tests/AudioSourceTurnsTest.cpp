#include "AudioSourceFixture.h"

#include <algorithm>
#include <future>
#include <gtest/gtest.h>
#include <string>

// Sources of sound that share an audio input: requests that wait for each other, and for a device that changes.
namespace
{
using namespace Uniview::test;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::Utility::testkit::Camera;
using Tavro8::Utility::testkit::ScriptedPeer;

// ---- the microphone and settings ------------------------------------------------------------------------------

constexpr const char* muted = "{\"InputGain\":1,\"IsMute\":1}";
constexpr const char* listening = "{\"InputGain\":1,\"IsMute\":0}";
constexpr const char* unmute = "PUT {\"IsMute\": 0}";

std::string writeOf(int volume, int isMute)
{
    return "PUT {\"InputGain\":" + std::to_string(volume) + ",\"IsMute\":" + std::to_string(isMute) + '}';
}

/// A camera that keeps the read of the first settings waiting.
class WaitingAudioSource : public AudioSourceFixture {
protected:
    void prepare(std::uint32_t channels = 1, const Camera& camera = singingCamera())
    {
        AudioSourceFixture::prepare(0, channels, camera);
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
    AudioSourceFixture::prepare(1);
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
    expectQuickFarewell();
    EXPECT_TRUE(sound.settingsResults().empty());
}
}  // namespace

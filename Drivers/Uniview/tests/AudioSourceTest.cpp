#include "AudioSource.h"

#include "AudioSourceFixture.h"

#include <algorithm>
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <memory>
#include <string>

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

constexpr const char* unreadable = "{\"Response\":{}}";
constexpr const char* whyUnreadable = " HTTP response cannot be read, request:/LAPI/V1.0/Media/Audio/Input, "
                                      "reason:\"ResponseCode\" is missing or not an integer";

class AudioSource : public AudioSourceFixture {};

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
    expectQuickFarewell();
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

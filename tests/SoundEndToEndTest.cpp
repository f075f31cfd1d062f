#include "EndToEnd.h"
#include "ScriptedHttpPeer.h"
#include "Sound.h"

#include <fstream>
#include <gmock/gmock.h>
#include <optional>

// The device's microphone and loudspeaker, used by the reference host through the shipped module.
namespace
{
using namespace kelvo::test;
using ::testing::HasSubstr;

Json::Value audioInput(const SimulatorProcess& device, unsigned channel = 0)
{
    return device.admin("GET", "state")["settings"]["audio"][channel];
}

TEST(MicrophoneEndToEnd, aMutedOneIsSwitchedOnByWhoeverWantsToHear)
{
    const SimulatorProcess device(smallPictures({"--microphone", "muted"}));
    const ScratchFolder folder;
    const auto live = [&](std::vector<std::string> words) {
        words.insert(words.begin(), "live");
        const HostRun run = runHost(folder, deviceAddress(device), words);
        EXPECT_EQ(run.status, 0) << run.errors;
    };
    live({"--seconds", "0.01"});
    EXPECT_EQ(audioInput(device)["data"]["IsMute"], 1) << "pictures need no microphone";
    const std::string file = folder.file("live.mkv");
    live({"--seconds", "1.5", "--audio", "--output", file});
    EXPECT_EQ(audioInput(device)["data"]["IsMute"], 0);
    EXPECT_GT(loudness(soundOf({"-i", file})), 1000);

    live({"--seconds", "0.01", "--audio"});
    EXPECT_EQ(audioInput(device)["writes"], 1) << "one that is on is left alone";
}

TEST(MicrophoneEndToEnd, aRecorderSwitchesOnThatOfTheChannel)
{
    const SimulatorProcess device(smallPictures({"--kind", "recorder", "--channels", "2", "--microphone", "muted"}));
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device),
                                {"--channels", "2", "live", "--channel", "1", "--seconds", "0.5", "--audio"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(audioInput(device, 0)["data"]["IsMute"], 1);
    EXPECT_EQ(audioInput(device, 1)["data"]["IsMute"], 0);
}

TEST(MicrophoneEndToEnd, itsSettingsReachTheirMembers)
{
    const SimulatorProcess device(smallPictures());
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device),
                                {"settings", "set", "volume=90", "noiseReduce=1", "micNumber=2", "micMode=3"});
    EXPECT_EQ(run.status, 0) << run.all();
    const Json::Value input = audioInput(device);
    EXPECT_EQ(input["data"]["InputGain"], 90);
    EXPECT_EQ(input["data"]["NoiseReduction"]["Enabled"], 1);
    EXPECT_EQ(input["data"]["AudioInputList"][1]["Enabled"], 1);
    EXPECT_EQ(input["data"]["AudioInputList"][1]["Mode"], 3);
    EXPECT_EQ(input["data"]["AudioInputList"][0]["Enabled"], 1) << "nobody has switched it off";
    expectNothingLost(input);
}

TEST(MicrophoneEndToEnd, onlyTheSoundThatIsWantedIsTaken)
{
    const ScratchFolder folder;
    const struct {
        const char* offered;
        std::vector<std::string> wanted;
        bool comes;
    } cases[] = {
        {"g711u", {"--sound", "encoding=G.711"}, true},
        {"g711u", {"--sound", "encoding=G.711", "--sound", "algorithm=u-law", "--sound", "samplerate=8000"}, true},
        {"g711u", {"--sound", "encoding=G.711", "--sound", "algorithm=A-law"}, false},
        {"aac", {}, true},
        {"aac", {"--sound", "encoding=G.711"}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offered + testing::PrintToString(c.wanted));
        const SimulatorProcess device(smallPictures({"--audio-codec", c.offered}));
        std::vector<std::string> words{"live", "--seconds", "0.3", "--audio"};
        words.insert(words.end(), c.wanted.begin(), c.wanted.end());
        const HostRun run = runHost(folder, deviceAddress(device), words);
        EXPECT_EQ(run.status, 0) << run.errors;
        EXPECT_GT(run.event("summary")["frames"].asUInt(), 0U) << "pictures come in any case";
        EXPECT_EQ(run.event("summary")["audioFrames"].asUInt() > 0, c.comes);
        const std::string remark = "remark: of the sound that --sound asks for none has come\n";
        EXPECT_EQ(run.errors.find(remark) != std::string::npos, !c.comes) << run.errors;
    }
}

/// One that does not do what it is told.
class StubbornMicrophoneEndToEnd : public testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(Faults, StubbornMicrophoneEndToEnd,
                         testing::Values("status:503", "apierror:7", "hang", "close"),
                         [](const auto& test) { return test.param.substr(0, test.param.find(':')); });

TEST_P(StubbornMicrophoneEndToEnd, keepsNobodyFromSeeingAndHearing)
{
    const SimulatorProcess device(smallPictures({"--fault", GetParam() + "@Audio/Input"}));
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device), {"live", "--seconds", "1", "--audio"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_GT(run.event("summary")["frames"].asUInt(), 0U);
    EXPECT_GT(run.event("summary")["audioFrames"].asUInt(), 0U);
    EXPECT_EQ(run.event("summary")["reconnects"], 0);
    if (GetParam() != "hang") {
        EXPECT_THAT(run.errors, HasSubstr("Bad request to turn on the microphone"));
    }
}

/// A device that writes down what is spoken to it, and a second of something like a voice.
class TalkEndToEnd : public testing::Test {
protected:
    void start(std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.end(), {"--talk-back", heardFile});
        device.emplace(smallPictures(arguments));
    }

    HostRun talk(const std::vector<std::string>& words)
    {
        std::vector<std::string> all{"talk"};
        all.insert(all.end(), words.begin(), words.end());
        return runHost(folder, deviceAddress(*device), all);
    }

    /// A sweep with a tone, which never repeats itself, at the rate of a call: nothing but the law of G.711 changes it.
    std::string voice(const std::string& seconds = "1")
    {
        const std::string file = folder.file("voice.wav");
        const std::string source = "aevalsrc=0.3*sin(2*PI*(200+300*t)*t)+0.15*sin(2*PI*1234*t):s=8000:d=" + seconds;
        const ProgramResult made = runProgram({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", source, file});
        EXPECT_EQ(made.output + made.errors, "");
        return file;
    }

    Json::Value call(unsigned channel = 0) const { return device->admin("GET", "state")["talkBack"][channel]; }
    bool hasEnded() const
    {
        return eventually([this] { return call()["active"] == false; });
    }

    ScratchFolder folder;
    const std::string heardFile = folder.file("heard.wav");
    std::optional<SimulatorProcess> device;
};

class TalkEndToEndIn : public TalkEndToEnd, public testing::WithParamInterface<std::string> {};
INSTANTIATE_TEST_SUITE_P(Offers, TalkEndToEndIn, testing::Values("g711u", "g711a", "many"),
                         [](const auto& test) { return test.param; });

TEST_P(TalkEndToEndIn, whatIsSpokenIsHeard)
{
    start({"--back-channel", GetParam()});
    const std::string file = voice();
    const HostRun run = talk({"--input", file});
    ASSERT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.event("summary")["packets"], 50);
    EXPECT_EQ(run.errors, "");

    EXPECT_TRUE(hasEnded());
    EXPECT_EQ(call()["calls"], 1);
    EXPECT_EQ(call()["packets"], 50);
    EXPECT_EQ(call()["lost"], 0);
    EXPECT_EQ(call()["strange"], 0);
    EXPECT_EQ(call()["law"], GetParam() == "g711u" ? "g711u" : "g711a");
    const Samples heard = soundOf({"-i", heardFile});
    EXPECT_EQ(heard.size(), 8000U);
    const Samples spoken = soundOf({"-i", file});
    EXPECT_GT(correlation(spoken, heard), 0.99);
    EXPECT_NEAR(loudness(heard) / loudness(spoken), 1, 0.05);
}

TEST_F(TalkEndToEnd, aRecorderIsSpokenToOnTheChannelThatIsNamed)
{
    start({"--kind", "recorder", "--channels", "2"});
    const HostRun run =
        runHost(folder, deviceAddress(*device), {"--channels", "2", "talk", "--channel", "1", "--input", voice("0.2")});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(call(0)["calls"], 0);
    EXPECT_EQ(call(1)["packets"], 10);
}

TEST_F(TalkEndToEnd, aDeviceThatCannotBeSpokenToSaysSo)
{
    const struct {
        const char* offer;
        const char* reason;
        int code;
    } cases[] = {
        {"none", "the call was refused: not supported (result 8); the device cannot be talked to", 8},
        {"hidden",
         "the call was refused: the device offers no such stream (result 1024); the device cannot be talked to", 1024}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offer);
        start({"--back-channel", c.offer});
        const HostRun run = talk({"--input", voice("0.2")});
        EXPECT_EQ(run.status, 3);
        EXPECT_EQ(run.event("failure")["code"], c.code);
        EXPECT_EQ(run.event("failure")["message"], c.reason);
        EXPECT_TRUE(run.event("summary").isNull());
        EXPECT_EQ(call()["calls"], 0);
    }
}

TEST_F(TalkEndToEnd, aCallThatTheDeviceBreaksOffEndsWithTheReason)
{
    start({"--fault", "talk-drop:20"});
    const HostRun run = talk({"--input", voice("30")});
    EXPECT_EQ(run.status, 4);
    EXPECT_EQ(run.event("failure")["code"], 257);
    EXPECT_THAT(run.event("failure")["message"].asString(),
                HasSubstr("the call broke: the connection to the device was lost"));
    EXPECT_GE(run.event("summary")["packets"].asUInt(), 20U);
    EXPECT_EQ(call()["calls"], 1) << "nobody has called again";
}

TEST_F(TalkEndToEnd, whoeverInterruptsHangsUpAndWasHeardSoFar)
{
    start();
    const std::string file = voice("30");
    RunningHost host(folder, deviceAddress(*device), {"talk", "--input", file});
    EXPECT_TRUE(eventually([this] { return call()["packets"].asUInt() >= 25; }));
    const HostRun run = host.interrupt();
    EXPECT_EQ(run.status, 130);
    EXPECT_TRUE(hasEnded());
    EXPECT_EQ(device->admin("GET", "counters")["rtsp"]["requests"]["TEARDOWN"], 1);
    EXPECT_EQ(run.event("summary")["packets"], call()["packets"]) << "what was on its way arrived";
    const Samples heard = soundOf({"-i", heardFile});
    EXPECT_EQ(heard.size(), call()["bytes"].asUInt());
    EXPECT_GT(correlation(soundOf({"-i", file}), heard), 0.99);
}

TEST_F(TalkEndToEnd, aFileWithoutSoundTroublesNoDevice)
{
    start();
    std::ofstream(folder.file("words.wav")) << "this is no sound, however long one listens to it\n";
    const HostRun run = talk({"--input", folder.file("words.wav")});
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.errors, HasSubstr("of no kind that FFmpeg reads"));
    EXPECT_EQ(device->admin("GET", "requests").size(), 0U);
}

TEST_F(TalkEndToEnd, aServerThatOthersHaveWrittenHears)
{
    ChildProcess server({programUnderTest("onvif-server"), folder.file("heard.alaw"), "PCMA"});
    // The first start on a machine takes its time: GStreamer looks through all its plug-ins.
    const auto port = server.readLine(ChildProcess::Clock::now() + std::chrono::seconds(30));
    ASSERT_TRUE(port) << server.errors();
    ScriptedHttpPeer management;
    management.answer("/LAPI/V1.0/System/DeviceInfo", 200,
                      R"({"Response":{"ResponseCode":0,"Data":{"DeviceType":0}}})");
    management.answer("/LAPI/V1.0/Network/Port", 200,
                      R"({"Response":{"ResponseCode":0,"Data":{"RTSPPort":)" + *port + "}}}");

    const std::string file = voice("30");
    RunningHost host(folder, "http://" + management.address(), {"talk", "--input", file});
    server.awaitOutput("heard 8000\n");  // before the call ends: what the server has not yet played then, it drops
    EXPECT_EQ(host.interrupt().status, 130);
    EXPECT_GT(
        correlation(soundOf({"-i", file}), soundOf({"-f", "alaw", "-ar", "8000", "-i", folder.file("heard.alaw")})),
        0.99);
}
}  // namespace

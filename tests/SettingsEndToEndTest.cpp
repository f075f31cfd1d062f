#include "EndToEnd.h"
#include "Luma.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <map>
#include <optional>

// Settings of streams and pictures, from the reference host through the shipped module to the simulated device.
namespace
{
using namespace kelvo::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

using Words = std::vector<std::string>;

/// A device and a host that tells it how to be.
class SettingsEndToEnd : public testing::Test {
protected:
    void start(Words arguments = {})
    {
        arguments.push_back("--no-audio");
        device.emplace(smallPictures(arguments));
    }

    HostRun set(const Words& assignments, const Words& options = {})
    {
        Words words = options;
        words.insert(words.end(), {"settings", "set"});
        words.insert(words.end(), assignments.begin(), assignments.end());
        return runHost(folder, deviceAddress(*device), words);
    }
    void mustSet(const Words& assignments)
    {
        const HostRun run = set(assignments);
        ASSERT_EQ(run.status, 0) << run.all();
    }

    std::string recording() const { return folder.file("live.mkv"); }
    std::string recording(int part) const { return folder.file("live-" + std::to_string(part) + ".mkv"); }

    /// A host that records while others change settings.
    RunningHost watch(const Words& further = {}) const
    {
        Words words{"live", "--seconds", "0"};
        words.insert(words.end(), further.begin(), further.end());
        return RunningHost(folder, deviceAddress(*device), words);
    }
    RunningHost record() const { return watch({"--output", recording()}); }

    Luma snapshot(const std::string& name)
    {
        const std::string file = folder.file(name);
        const HostRun run = runHost(folder, deviceAddress(*device), {"live", "--seconds", "0.01", "--snapshot", file});
        EXPECT_EQ(run.status, 0) << run.errors;
        return Luma({"-i", file});
    }

    /// What the device's settings are, and what clients did to them.
    Json::Value settings() const { return device->admin("GET", "state")["settings"]; }
    Json::Value mainStream() const { return settings()["video"][0]["data"]["VideoStreamInfos"][0]["VideoEncodeInfo"]; }
    Json::Value image(const std::string& resource) const { return settings()["image"][0][resource]; }

    /// "METHOD path" of what has been asked about settings.
    Words requests() const
    {
        Words all;
        for (const Json::Value& request : device->admin("GET", "requests")) {
            const std::string target = request["target"].asString();
            if (target.find("/Image/") != target.npos || target.find("/Media/") != target.npos)
                all.push_back(request["method"].asString() + ' ' + target);
        }
        return all;
    }

    ScratchFolder folder;
    std::optional<SimulatorProcess> device;
};

/// Result codes by resource.
std::map<std::string, int> results(const HostRun& run)
{
    std::map<std::string, int> all;
    for (const Json::Value& event : run.events)
        if (event["event"] == "result")
            all[event["resource"].asString()] = event["code"].asInt();
    return all;
}

/// Codecs of what was received, in their order.
Words codecs(const Json::Value& report)
{
    Words all;
    for (const Json::Value& format : report["formats"])
        all.push_back(format["codec"].asString());
    return all;
}

/// A value for something in each of the eight resources.
const Words oneOfEach{"bitRate=400",
                      "captureMode=1280x720x25",
                      "exposureCompensation=7",
                      "smartIlluminationLevel=300",
                      "redGain=5",
                      "defogLevel=3",
                      "ldcLevel=20",
                      "brightness=140"};

/// For both generations of firmware.
class SettingsEndToEndWith : public SettingsEndToEnd, public testing::WithParamInterface<std::string> {
protected:
    SettingsEndToEndWith() { start({"--dialect", GetParam()}); }
};
INSTANTIATE_TEST_SUITE_P(Dialects, SettingsEndToEndWith, testing::Values("old", "new"),
                         [](const auto& test) { return test.param; });

TEST_P(SettingsEndToEndWith, everyCodecIsReceivedAndRecordedWhileItIsSwitched)
{
    RunningHost host = record();
    host.await("live.mkv");
    mustSet({"codec=H.265"});
    host.await("live-2.mkv");
    mustSet({"codec=MJPEG"});
    host.await("live-3.mkv");
    const Json::Value statistics =
        host.awaitEvent("statistics", [](const Json::Value& event) { return event["formats"].size() == 3; });
    EXPECT_THAT(codecs(statistics), ElementsAre("h264", "h265", "mjpeg"));

    const HostRun run = host.interrupt();
    EXPECT_EQ(run.status, 130);
    const Json::Value summary = run.event("summary");
    EXPECT_THAT(codecs(summary), ElementsAre("h264", "h265", "mjpeg"));
    EXPECT_EQ(summary["codec"], "mjpeg");
    ASSERT_EQ(summary["parts"].size(), 3U);
    const struct {
        std::string file;
        const char* codec;
    } parts[] = {{recording(), "h264"}, {recording(2), "hevc"}, {recording(3), "mjpeg"}};
    for (const auto& part : parts) {
        SCOPED_TRACE(part.file);
        EXPECT_EQ(codecsOf(part.file), std::string("codec_name=") + part.codec + "\nwidth=320\nheight=240\n");
        EXPECT_EQ(decodeErrorsOf(part.file), "");
    }
}

TEST_P(SettingsEndToEndWith, everySettingOfAStreamReachesItsMember)
{
    const Json::Value before = settings();
    mustSet({"codec=H.265", "resolution=192x144", "fps=20", "bitRate=200", "bitrateControl=VBR", "quality=7",
             "smoothing=3", "smartEncodeMode=1", "svcMode=2", "keyFrameInterval=30"});
    const bool old = GetParam() == "old";
    const Json::Value stream = mainStream();
    EXPECT_EQ(stream[old ? "EncodeFmt" : "EncodeFormat"], old ? 13 : 2);
    EXPECT_EQ(stream["Resolution"]["Width"], 192);
    EXPECT_EQ(stream["Resolution"]["Height"], 144);
    EXPECT_EQ(stream["FrameRate"], 20);
    EXPECT_EQ(stream["BitRate"], 200);
    EXPECT_EQ(stream[old ? "EncMode" : "BitRateType"], 1);
    EXPECT_EQ(stream["ImageQuality"], 7);
    EXPECT_EQ(stream["SmoothLevel"], 3);
    EXPECT_EQ(stream["SmartEncodeMode"], 1);
    EXPECT_EQ(old ? stream["VideoSvcCfg"]["Mode"] : stream["SVCMode"], 2);
    EXPECT_EQ(stream[old ? "IInterval" : "IFrameInterval"], 30);

    const Json::Value video = settings()["video"][0];
    EXPECT_EQ(video["writes"], 1);
    expectNothingLost(video);
    for (const unsigned other : {1U, 2U})
        EXPECT_EQ(video["data"]["VideoStreamInfos"][other].toStyledString(),
                  before["video"][0]["data"]["VideoStreamInfos"][other].toStyledString());
    EXPECT_EQ(settings()["image"].toStyledString(), before["image"].toStyledString());
}

TEST_F(SettingsEndToEnd, theSecondStreamChangesAlone)
{
    start();
    const Json::Value before = mainStream();
    const HostRun run = set({"codec=MJPEG", "--stream", "1"});
    EXPECT_EQ(run.status, 0) << run.all();
    EXPECT_EQ(mainStream().toStyledString(), before.toStyledString());
    const HostRun live = runHost(folder, deviceAddress(*device), {"live", "--stream", "1", "--seconds", "0.2"});
    EXPECT_EQ(live.event("summary")["codec"], "mjpeg");
    EXPECT_EQ(live.event("summary")["width"], 160);
}

TEST_F(SettingsEndToEnd, anotherSizeIsReceivedAndRecordedWhileItIsSwitched)
{
    for (const char* change : {"close", "continue"}) {
        SCOPED_TRACE(change);
        start({"--format-change", change});
        RunningHost host = record();
        host.await("live.mkv");
        mustSet({"resolution=192x144"});
        host.await("live-2.mkv");
        const Json::Value summary = host.interrupt().event("summary");
        EXPECT_EQ(summary["width"], 192);
        EXPECT_EQ(summary["height"], 144);
        EXPECT_EQ(summary["reconnects"] == 0, change == std::string("continue")) << summary["reconnects"].asUInt();
        EXPECT_THAT(codecsOf(recording()), HasSubstr("width=320\nheight=240"));
        EXPECT_THAT(codecsOf(recording(2)), HasSubstr("width=192\nheight=144"));
        EXPECT_EQ(decodeErrorsOf(recording(2)), "");
    }
}

TEST_F(SettingsEndToEnd, anotherFrameRateNeedsNoOtherConnection)
{
    start();
    RunningHost host = watch({"--frames"});
    host.awaitEvent("frame", [](const Json::Value&) { return true; });
    mustSet({"fps=10"});
    Json::Int64 before = 0;
    int slow = 0;  // in a row
    host.awaitEvent("frame", [&](const Json::Value& frame) {
        const Json::Int64 distance = frame["timestampMs"].asInt64() - before;
        before += distance;
        slow = std::abs(distance - 100) <= 25 ? slow + 1 : 0;
        return slow == 4;
    });
    const HostRun run = host.interrupt();
    EXPECT_EQ(run.event("summary")["reconnects"], 0);
    EXPECT_EQ(device->admin("GET", "counters")["rtsp"]["connections"], 1);
}

TEST_F(SettingsEndToEnd, oneValueOfThePictureLeavesEverythingElseAsItWas)
{
    start();
    Json::Value expected = settings();
    const HostRun run = set({"contrast=90"});
    EXPECT_EQ(run.status, 0) << run.all();
    EXPECT_EQ(results(run).size(), 9U) << "all eight are read";
    EXPECT_EQ(std::ranges::count_if(requests(), [](const auto& request) { return request.starts_with("PUT"); }), 1);

    Json::Value& enhance = expected["image"][0]["Image/Enhance"];
    ASSERT_TRUE(enhance["lostMembers"].empty() && enhance["strangeMembers"].empty());
    enhance["data"]["Contrast"] = 90;
    enhance["writes"] = 1;
    EXPECT_EQ(settings().toStyledString(), expected.toStyledString());
}

TEST_F(SettingsEndToEnd, eachResourceIsWrittenOnceAndLosesNothing)
{
    start();
    const HostRun run = set(oneOfEach);
    EXPECT_EQ(run.status, 0) << run.all();
    for (const auto& [resource, code] : results(run))
        EXPECT_EQ(code, 0) << resource;
    const Json::Value after = settings();
    Json::Value all = after["image"][0];
    all["stream"] = after["video"][0];
    EXPECT_EQ(all.size(), 8U);
    for (const std::string& resource : all.getMemberNames()) {
        SCOPED_TRACE(resource);
        EXPECT_EQ(all[resource]["writes"], 1);
        EXPECT_EQ(all[resource]["refusals"], 0);
        expectNothingLost(all[resource]);
    }
}

TEST_F(SettingsEndToEnd, aResourceThatTheDeviceRefusesIsNamedAndTheOthersAreWritten)
{
    for (const std::string method : {"GET", "PUT"}) {
        SCOPED_TRACE(method);
        start({"--fault", "status:503@" + method + " /LAPI/V1.0/Channels/0/Image/Advanced/Exposure"});
        const HostRun run = set(oneOfEach);
        EXPECT_EQ(run.status, 4);
        for (const auto& [resource, code] : results(run))
            EXPECT_EQ(code != 0, resource == "exposure" || resource == "all") << resource << ' ' << code;
        EXPECT_EQ(results(run).size(), 9U);
        EXPECT_THAT(run.event("failure")["message"].asString(), HasSubstr("not applied: exposureCompensation"));

        Json::Value images = settings()["image"][0];
        EXPECT_EQ(images["Image/Advanced/Exposure"]["writes"], 0);
        images.removeMember("Image/Advanced/Exposure");
        EXPECT_EQ(settings()["video"][0]["writes"], 1);
        for (const std::string& resource : images.getMemberNames())
            EXPECT_EQ(images[resource]["writes"], 1) << resource;
    }
}

TEST_F(SettingsEndToEnd, aDeviceThatOwesAnAnswerNobodyNeedsHasAppliedTheRest)
{
    start({"--fault", "hang@Exposure"});
    const HostRun run = set({"brightness=45"}, {"--timeout", "3"});
    EXPECT_EQ(run.status, 0) << run.all();
    EXPECT_EQ(results(run)["imageEnhance"], 0);
    EXPECT_THAT(run.errors, HasSubstr("remark: no answer in time for exposure, but nothing was to be changed there"));
    EXPECT_EQ(image("Image/Enhance")["data"]["Brightness"], 45);
}

TEST_F(SettingsEndToEnd, aValueThatTheDeviceDoesNotTakeChangesNothing)
{
    start();
    const Json::Value before = image("Image/Enhance")["data"];
    const HostRun run = set({"brightness=256"});  // in an answer with status 200
    EXPECT_EQ(run.status, 4);
    EXPECT_NE(results(run)["imageEnhance"], 0);
    EXPECT_EQ(image("Image/Enhance")["refusals"], 1);
    EXPECT_EQ(image("Image/Enhance")["data"].toStyledString(), before.toStyledString());
}

TEST_F(SettingsEndToEnd, aRecorderIsAskedForThePictureOfItsChannelAlone)
{
    start({"--kind", "recorder", "--channels", "2"});
    const Words two{"--channels", "2"};
    const HostRun run = set({"brightness=130", "--channel", "1"}, two);
    EXPECT_EQ(run.status, 0) << run.all();
    EXPECT_THAT(requests(),
                ElementsAre("GET /LAPI/V1.0/Channels/2/Image/Enhance", "PUT /LAPI/V1.0/Channels/2/Image/Enhance"));
    EXPECT_EQ(settings()["image"][1]["Image/Enhance"]["data"]["Brightness"], 130);
    EXPECT_EQ(settings()["image"][0]["Image/Enhance"]["writes"], 0);

    const HostRun other = set({"codec=H.265", "--channel", "1"}, two);
    EXPECT_EQ(other.status, 4) << "recorders are not asked for it";
    EXPECT_EQ(other.event("failure")["code"], 8);
    EXPECT_EQ(requests().size(), 3U) << "one more look at the picture";
}

TEST_F(SettingsEndToEnd, brightnessAndMirrorAreSeenInThePicture)
{
    start();
    const Luma before = snapshot("before.png");
    EXPECT_EQ(before.letter(), Luma::topLeft);
    mustSet({"brightness=168", "imageMirror=2"});
    const Luma after = snapshot("after.png");
    EXPECT_GT(after.mean() - before.mean(), 20);
    EXPECT_LT(after.mean() - before.mean(), 80);
    EXPECT_EQ(after.letter(), Luma::topRight);
}
}  // namespace

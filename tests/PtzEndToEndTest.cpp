#include "EndToEnd.h"
#include "PictureCaption.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <optional>

// The simulated device's heads, moved by the reference host through the shipped module.
namespace
{
using namespace kelvo::test;
using ::testing::HasSubstr;

/// A device and a host that moves it.
class PtzEndToEnd : public testing::Test {
protected:
    void start(const std::vector<std::string>& arguments = {}) { device.emplace(smallPictures(arguments)); }

    HostRun ptz(std::vector<std::string> words, const std::vector<std::string>& options = {})
    {
        words.insert(words.begin(), "ptz");
        words.insert(words.begin(), options.begin(), options.end());
        return runHost(folder, deviceAddress(*device), words);
    }

    Json::Value head(unsigned channel = 0) const { return device->admin("GET", "state")["ptz"][channel]; }

    /// What the device was asked last of all.
    Json::Value lastRequest() const
    {
        const Json::Value requests = device->admin("GET", "requests");
        return requests[requests.size() - 1];
    }

    void look(const std::string& pan, const std::string& tilt, const std::string& zoom)
    {
        const HostRun run = ptz({"absolute", "--pan", pan, "--tilt", tilt, "--zoom", zoom, "--speed", "9"});
        ASSERT_EQ(run.status, 0) << run.errors;
        EXPECT_EQ(run.errors, "");
    }

    ScratchFolder folder;
    std::optional<SimulatorProcess> device;
};

/// What cameras and recorders want to be told differently.
class PtzEndToEndOf : public PtzEndToEnd, public testing::WithParamInterface<std::string> {
protected:
    PtzEndToEndOf() { start({"--kind", GetParam(), "--channels", "1"}); }
};
INSTANTIATE_TEST_SUITE_P(Kinds, PtzEndToEndOf, testing::Values("camera", "recorder"),
                         [](const auto& test) { return test.param; });

TEST_F(PtzEndToEnd, aPositionThatWasSetIsRead)
{
    start();
    const HostRun set = ptz({"absolute", "--pan", "30", "--tilt", "10", "--zoom", "2"});
    EXPECT_EQ(set.status, 0) << set.errors;
    EXPECT_EQ(set.event("result")["code"], 0);
    const HostRun read = ptz({"position"});
    EXPECT_EQ(read.status, 0) << read.errors;
    EXPECT_EQ(read.event("position")["pan"], 30.0);
    EXPECT_EQ(read.event("position")["tilt"], 10.0);
    EXPECT_EQ(read.event("position")["zoom"], 2.0);

    look("330.5", "-20.25", "1");
    EXPECT_EQ(ptz({"position"}).event("position")["tilt"], -20.25);
    const HostRun one = ptz({"absolute", "--tilt", "45"});
    EXPECT_EQ(one.event("position")["pan"], 330.5) << "what is not given stays";
    EXPECT_EQ(one.event("position")["tilt"], 45.0);
}

TEST_F(PtzEndToEnd, aSnapshotShowsWhereTheCameraLooks)
{
    start({"--no-audio"});
    const auto snapshot = [this](const char* name) {
        const std::string file = folder.file(name);
        const HostRun run = runHost(folder, deviceAddress(*device), {"live", "--seconds", "0.01", "--snapshot", file});
        EXPECT_EQ(run.status, 0) << run.errors;
        return captionsOf({"-i", file})[0];
    };
    look("30", "10", "2");
    const Caption there = snapshot("there.png");
    look("147.25", "-86", "4.5");
    const Caption elsewhere = snapshot("elsewhere.png");
    look("30", "10", "2");
    EXPECT_GT(difference(there, elsewhere), 0.3);
    EXPECT_LT(difference(there, snapshot("again.png")), 0.1);
}

TEST_F(PtzEndToEnd, eachMovementIsObeyedAndStopped)
{
    start();
    const struct {
        std::vector<std::string> words;
        int command;
        int first;
        int second;
    } cases[] = {
        {{"move", "0", "4"}, 1026, 0, 4},  {{"move", "0", "-4"}, 1028, 0, 4}, {{"move", "3", "0"}, 1282, 3, 0},
        {{"move", "-3", "0"}, 1284, 3, 0}, {{"move", "-3", "5"}, 1794, 3, 5}, {{"move", "-3", "-5"}, 1796, 3, 5},
        {{"move", "3", "5"}, 2050, 3, 5},  {{"move", "3", "-5"}, 2052, 3, 5}, {{"zoom", "2"}, 770, 0, 0},
        {{"zoom", "-2"}, 772, 0, 0},       {{"focus", "2"}, 516, 0, 0},       {{"focus", "-2"}, 514, 0, 0},
        {{"iris", "2"}, 258, 0, 0},        {{"iris", "-2"}, 260, 0, 0},
    };
    for (const auto& c : cases) {
        auto words = c.words;
        words.insert(words.end(), {"--seconds", "0.001"});
        const HostRun run = ptz(words);
        EXPECT_EQ(run.status, 0) << run.errors;
        const Json::Value requests = device->admin("GET", "requests");
        ASSERT_GE(requests.size(), 2U);
        EXPECT_EQ(requests[requests.size() - 2]["body"],
                  "{\"PTZCmd\":" + std::to_string(c.command) + ",\"Para1\":" + std::to_string(c.first) +
                      ",\"Para2\":" + std::to_string(c.second) + ",\"Para3\":0}");
        EXPECT_EQ(requests[requests.size() - 1]["body"], R"({"PTZCmd":2305,"Para1":0,"Para2":0,"Para3":0})");
        EXPECT_FALSE(head()["moving"].asBool());
    }
    EXPECT_EQ(head()["commands"].asUInt(), 2 * std::size(cases)) << "the device refused some";
}

TEST_F(PtzEndToEnd, aMovementLastsAsLongAsItWasAskedFor)
{
    start();
    const HostRun run = ptz({"move", "10", "-10", "--seconds", "0.5"});
    EXPECT_EQ(run.status, 0) << run.errors;
    // At least 20 degrees a second for half a second; a busy machine stops it later.
    EXPECT_GE(head()["position"]["pan"].asDouble(), 10.0);
    EXPECT_EQ(head()["position"]["tilt"].asDouble() + head()["position"]["pan"].asDouble(), 0.0);
}

TEST_F(PtzEndToEnd, theCameraStopsWhenTheUserInterrupts)
{
    start();
    auto command = hostCommand(folder, deviceAddress(*device));
    command.insert(command.end(), {"ptz", "zoom", "1", "--seconds", "0"});
    ChildProcess host(command);
    EXPECT_TRUE(eventually([this] { return head()["moving"].asBool(); }));
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_EQ(head()["moving"], false);
}

TEST_F(PtzEndToEnd, aUserWhoInterruptsIsToldThatTheDeviceDoesNotAnswer)
{
    start({"--fault", "hang@PTZCtrl"});
    auto command = hostCommand(folder, deviceAddress(*device));
    command.insert(command.end(), {"ptz", "move", "1", "0", "--seconds", "0"});
    ChildProcess host(command);
    EXPECT_TRUE(eventually([this] { return lastRequest()["target"] == "/LAPI/V1.0/Channel/0/PTZ/PTZCtrl"; }));
    host.signal(SIGINT);
    host.awaitErrors("stopping; the device does not answer, Ctrl-C again to give up");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
}

TEST_F(PtzEndToEnd, aPositionThatTheDeviceRefusesIsNotReached)
{
    start();
    look("10", "5", "1");
    const HostRun run = ptz({"absolute", "--tilt", "120", "--wait", "0.5"});  // beyond what the head can
    EXPECT_EQ(run.event("result")["code"], 0) << "the refusal is in the body of the answer";
    EXPECT_EQ(run.event("position")["arrived"], false);
    EXPECT_EQ(run.event("position")["tilt"], 5.0);
    EXPECT_THAT(run.errors, HasSubstr("the camera is not there and has not moved: it may have refused"));
    EXPECT_EQ(ptz({"absolute", "--tilt", "6", "--speed", "9"}).event("position")["arrived"], true);
}

TEST_F(PtzEndToEnd, eachKindOfDeviceIsAddressedAsItExpects)
{
    const struct {
        const char* kind;
        const char* channels;
        const char* hostChannel;
        const char* control;
        const char* position;
    } cases[] = {
        {"camera", "1", "0", "/LAPI/V1.0/Channel/0/PTZ/PTZCtrl", "/LAPI/V1.0/Channels/0/PTZ/AbsoluteZoom"},
        {"multichannel", "3", "2", "/LAPI/V1.0/Channel/3/PTZ/PTZCtrl", "/LAPI/V1.0/Channels/3/PTZ/AbsoluteZoom"},
        {"recorder", "3", "1", "/LAPI/V1.0/Channels/2/PTZ/PTZCtrl", "/LAPI/V1.0/Channels/2/PTZ/AbsoluteZoom"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        start({"--kind", c.kind, "--channels", c.channels});
        const std::vector<std::string> options{"--channels", c.channels};
        EXPECT_EQ(ptz({"stop", "--channel", c.hostChannel}, options).status, 0);
        EXPECT_EQ(lastRequest()["target"], c.control);
        EXPECT_EQ(head(static_cast<unsigned>(std::stoul(c.hostChannel)))["commands"], 1);
        EXPECT_EQ(ptz({"position", "--channel", c.hostChannel}, options).status, 0);
        EXPECT_EQ(lastRequest()["target"], c.position);
    }
}

TEST_F(PtzEndToEnd, areasAndPointsChangeTheView)
{
    start();
    look("100", "0", "1");
    EXPECT_EQ(ptz({"point", "0.75", "0.5"}).status, 0);
    EXPECT_EQ(head()["target"]["pan"], 115.0);
    EXPECT_EQ(ptz({"absolute", "--pan", "100", "--zoom", "1", "--speed", "9"}).status, 0);
    EXPECT_EQ(ptz({"area", "0.5", "0.25", "0.5", "0.5"}).status, 0);
    EXPECT_EQ(head()["target"]["pan"], 115.0);
    EXPECT_EQ(head()["target"]["zoom"], 2.0);
    look("100", "0", "2");
    EXPECT_EQ(ptz({"area", "-0.5", "-0.5", "2", "2"}).status, 0);
    EXPECT_EQ(head()["target"]["zoom"], 1.0);
}

TEST_P(PtzEndToEndOf, presetsAreStoredReplacedRecalledAndRemoved)
{
    for (const char* pan : {"50", "60"}) {  // the second replaces the first
        look(pan, "5", "3");
        const HostRun stored = ptz({"preset", "set", "2"});
        EXPECT_EQ(stored.status, 0) << stored.errors;
    }
    ASSERT_EQ(head()["presets"].size(), 1U);
    EXPECT_EQ(head()["presets"][0]["id"], 3);
    EXPECT_EQ(head()["presets"][0]["name"], "Preset3");
    EXPECT_EQ(head()["presets"][0]["pan"], 60.0);

    look("0", "0", "1");
    EXPECT_EQ(ptz({"preset", "goto", "2"}).status, 0);
    EXPECT_EQ(head()["target"]["pan"], 60.0);
    EXPECT_EQ(head()["target"]["zoom"], 3.0);
    EXPECT_EQ(ptz({"preset", "remove", "2"}).status, 0);
    EXPECT_TRUE(head()["presets"].empty());
    const HostRun gone = ptz({"preset", "goto", "2"});
    EXPECT_EQ(gone.status, 4);
    EXPECT_EQ(gone.event("result")["code"], 514);
}

TEST_P(PtzEndToEndOf, theLastPresetIsOneBehindTheCount)
{
    look("50", "5", "3");
    const HostRun stored = ptz({"preset", "set", "255"});
    EXPECT_EQ(stored.status, 0) << stored.errors;
    ASSERT_EQ(head()["presets"].size(), 1U);
    EXPECT_EQ(head()["presets"][0]["id"], 256);
    look("0", "0", "1");
    EXPECT_EQ(ptz({"preset", "goto", "255"}).status, 0);
    EXPECT_EQ(head()["target"]["pan"], 50.0);
    EXPECT_EQ(ptz({"preset", "remove", "255"}).status, 0);
    EXPECT_TRUE(head()["presets"].empty());
    EXPECT_EQ(ptz({"preset", "set", "256"}).event("result")["code"], 6);
}

TEST_P(PtzEndToEndOf, toursAreWrittenPlayedAndStopped)
{
    const HostRun early = ptz({"tour", "fill", "1", "--point", "0:1"});
    EXPECT_EQ(early.status, 4) << "there is no such preset yet";
    EXPECT_EQ(early.event("result")["code"], 770);
    EXPECT_EQ(ptz({"preset", "set", "0"}).status, 0);
    look("40", "0", "1");
    EXPECT_EQ(ptz({"preset", "set", "1"}).status, 0);

    EXPECT_EQ(ptz({"tour", "fill", "1", "--point", "0:60:9"}).status, 0);
    const HostRun again = ptz({"tour", "fill", "1", "--point", "0:60:9", "--point", "1:3"});
    EXPECT_EQ(again.status, 0) << again.errors;
    const Json::Value patrols = head()["patrols"];
    ASSERT_EQ(patrols.size(), 1U);
    EXPECT_EQ(patrols[0]["ID"], 1);
    ASSERT_EQ(patrols[0]["Actions"].size(), 2U);
    EXPECT_EQ(patrols[0]["Actions"][0]["Duration"], 60'000);
    EXPECT_EQ(patrols[0]["Actions"][1]["PresetID"], 2);

    EXPECT_EQ(ptz({"tour", "start", "1"}).status, 0);
    EXPECT_EQ(head()["patrol"], 1);
    EXPECT_EQ(ptz({"tour", "stop", "1"}).status, 0);
    EXPECT_TRUE(head()["patrol"].isNull());
    EXPECT_EQ(ptz({"tour", "start", "1", "--seconds", "0.01"}).status, 0);
    EXPECT_TRUE(head()["patrol"].isNull());
    EXPECT_EQ(ptz({"tour", "start", "0"}).event("result")["code"], 514) << "which the device does not have";
}

TEST_F(PtzEndToEnd, aDeviceThatRefusesIsReported)
{
    start({"--fault", "status:503@PTZ"});
    const HostRun moved = ptz({"move", "5", "0", "--seconds", "0.01"});
    EXPECT_EQ(moved.status, 4);
    EXPECT_EQ(moved.event("failure")["message"],
              "move failed: HTTP response has error: Service Unavailable, request: /LAPI/V1.0/Channel/0/PTZ/PTZCtrl")
        << "without what stands in front of a line of the log";
    const std::vector<std::string> others[] = {
        {"position"},           {"absolute", "--pan", "1"}, {"point", "0", "0"},
        {"preset", "set", "1"}, {"preset", "goto", "1"},    {"tour", "start", "0"}};
    for (const auto& words : others) {
        const HostRun run = ptz(words);
        EXPECT_EQ(run.status, 4);
        EXPECT_EQ(run.event("failure")["code"], 515) << run.output;
    }
    EXPECT_EQ(head()["commands"], 0);
}

TEST_F(PtzEndToEnd, whatTheModelCannotDoIsNotSent)
{
    start();
    const std::string model = folder.file("model.json");
    std::ofstream(model) << R"({"supportsDirectMove": false, "supportsDirectZoom": false, "supportsAreaZoom": false,
                                "supportsPointMove": false, "supportsPresetTour": false, "panSpeed": 5, "presetCount": 3})";
    const struct {
        std::vector<std::string> words;
        int code;
    } cases[] = {{{"absolute", "--pan", "1"}, 8},
                 {{"area", "0", "0", "1", "1"}, 8},
                 {{"point", "0", "0"}, 8},
                 {{"tour", "start", "0"}, 8},
                 {{"preset", "set", "4"}, 6}};
    for (const auto& c : cases) {
        const HostRun run = ptz(c.words, {"--model", model});
        EXPECT_EQ(run.status, 4);
        EXPECT_EQ(run.event("result")["code"], c.code);
    }
    const HostRun fast = ptz({"move", "6", "0", "--seconds", "0.01"}, {"--model", model});
    EXPECT_EQ(fast.status, 2);
    EXPECT_THAT(fast.errors, HasSubstr("the speed 6 is beyond the model's limit: panSpeed is 5"));
    EXPECT_EQ(head()["commands"], 0) << "not even a stop";
}
}  // namespace

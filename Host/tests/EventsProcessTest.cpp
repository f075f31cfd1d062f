#include "HostFixture.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

class Events : public testing::Test, protected HostFixture {
protected:
    /// Lets it run until it has printed `text`, then interrupts it.
    const ChildProcess& runUntil(const std::string& text, const std::vector<std::string>& arguments)
    {
        ChildProcess& host = start(arguments);
        host.awaitOutput(text);
        host.signal(SIGINT);
        status = host.awaitEnd();
        return host;
    }
};

TEST_F(Events, tellsProgramsOfInputsAndDetectors)
{
    runUntil("\"state\":\"end\"", {"--json", "--device", "camera", "events", "--detector", "motion", "--seconds", "0"});
    EXPECT_EQ(status, 130);
    const Json::Value input = getEvent("input");
    EXPECT_EQ(input["input"], 1);
    EXPECT_TRUE(input["state"].isBool());

    const auto all = getEvents();
    const auto first = std::ranges::find_if(all, [](const Json::Value& event) { return event["event"] == "detector"; });
    ASSERT_NE(first, all.end());
    const Json::Value& begin = *first;
    EXPECT_EQ(begin["type"], "motion");
    EXPECT_EQ(begin["state"], "begin");
    EXPECT_EQ(begin["channel"], 0);
    EXPECT_EQ(begin["alarmType"], "MotionAlarmOn");
    EXPECT_EQ(begin["time"], "2017-03-09T06:28:14.042Z");
    EXPECT_EQ(begin["fields"]["AlarmLevel"], 2);
    EXPECT_EQ(begin["fields"]["AlarmSrcName"], "Yard");
    EXPECT_EQ(begin["fields"]["Confirmed"], true);

    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["inputs"].asUInt(),
              std::ranges::count(all, "input", [](const Json::Value& event) { return event["event"].asString(); }));
    EXPECT_GE(summary["detections"].asUInt(), 2U);
}

TEST_F(Events, tellsPeopleTheSame)
{
    const ChildProcess& host = runUntil(
        "crossLineDetectType", {"--device", "camera", "events", "--detector", "crossLineDetectType", "--seconds", "0"});
    EXPECT_EQ(status, 130);
    EXPECT_THAT(host.output(), HasSubstr("crossLineDetectType momentary, channel 0 (LineDetectorCrossed)\n"));
    EXPECT_THAT(host.output(), HasSubstr(" detector events in "));
}

TEST_F(Events, anEventWithoutADeviceTimeHasNone)
{
    runUntil("crossLineDetectType",
             {"--json", "--device", "camera", "events", "--detector", "crossLineDetectType", "--seconds", "0"});
    const Json::Value event = getEvent("detector");
    EXPECT_TRUE(event.isMember("time"));
    EXPECT_TRUE(event["time"].isNull());
    EXPECT_EQ(event["state"], "momentary");
}

TEST_F(Events, watchesEachChannel)
{
    const ChildProcess& host = runUntil("motion begin, channel 1", {"--channels", "2", "--device", "recorder", "events",
                                                                    "--detector", "motion", "--seconds", "0"});
    EXPECT_THAT(host.output(), HasSubstr("motion begin, channel 0"));
}

TEST_F(Events, endsWhenTheTimeIsOver)
{
    const ChildProcess& host = run({"--device", "camera", "events", "--detector", "motion", "--seconds", "0.2"});
    EXPECT_EQ(status, 0);
    EXPECT_THAT(host.output(), HasSubstr("input 1 on\n"));
    EXPECT_EQ(host.errors(), "");
}

TEST_F(Events, saysWhichDetectorThereIsNot)
{
    const ChildProcess& host = run({"--json", "--device", "camera", "events"});
    EXPECT_EQ(status, 4);
    EXPECT_THAT(host.errors(), HasSubstr("channel 0 has no detector \"enterAreaDetectType\""));
    EXPECT_EQ(getEvent("failure")["code"], 7);
}

TEST_F(Events, refusesANameThatIsNoDetectors)
{
    const ChildProcess& host = run({"--device", "camera", "events", "--detector", "smoke"});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(host.errors(), HasSubstr("smoke"));
}

TEST_F(Events, aDeviceWithoutInputsIsAFailure)
{
    const ChildProcess& host = run({"--device", "mute", "events", "--detector", "motion"});
    EXPECT_EQ(status, 4);
    EXPECT_THAT(host.errors(), HasSubstr("no inputs and relays"));
}

class Relay : public testing::Test, protected HostFixture {};

TEST_F(Relay, isSwitched)
{
    const ChildProcess& host = run({"--device", "camera", "relay", "0", "on"});
    EXPECT_EQ(status, 0) << host.errors();
    EXPECT_EQ(host.output(), "relay 0 is on\n");
    run({"--json", "--device", "camera", "relay", "0", "off"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(getEvent("result")["code"], 0);
}

TEST_F(Relay, stateMayBeWrittenInAnyCase)
{
    EXPECT_EQ(run({"--device", "camera", "relay", "0", "ON"}).output(), "relay 0 is on\n");
    EXPECT_EQ(run({"--device", "camera", "relay", "0", "Off"}).output(), "relay 0 is off\n");
}

TEST_F(Relay, thatIsNotThereOrJamsIsAFailure)
{
    const struct {
        const char* index;
        int code;
    } cases[] = {{"7", 6}, {"1", 1025}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.index);
        const ChildProcess& host = run({"--json", "--device", "camera", "relay", c.index, "on"});
        EXPECT_EQ(status, 4);
        EXPECT_EQ(getEvent("result")["code"], c.code);
        EXPECT_EQ(getEvent("failure")["code"], c.code);
        EXPECT_THAT(host.errors(), HasSubstr(std::string("relay ") + c.index + " could not be switched: "));
    }
}

TEST_F(Relay, ofADeviceThatDoesNotAnswerIsNotWaitedForForEver)
{
    const ChildProcess& host = run({"--device", "dark", "--timeout", "0.1", "relay", "0", "on"});
    EXPECT_EQ(status, 4);
    EXPECT_THAT(host.errors(), HasSubstr("did not answer in time"));
}

TEST_F(Relay, needsAnIndexAndAState)
{
    for (const auto& arguments : {std::vector<std::string>{}, {"0"}, {"zero", "on"}, {"-1", "on"}, {"0", "maybe"}}) {
        std::vector<std::string> all{"--device", "camera", "relay"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const ChildProcess& host = run(all);
        EXPECT_EQ(status, 2) << testing::PrintToString(all);
        EXPECT_EQ(host.output(), "");
    }
}
}  // namespace
}  // namespace Host

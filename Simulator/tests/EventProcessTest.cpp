#include "Eventually.h"
#include "JsonText.h"
#include "NotificationPeer.h"
#include "Programs.h"
#include "SimulatorProcess.h"
#include "TemporaryFile.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

constexpr const char* subscriptionPath = "/LAPI/V1.0/System/Event/Subscription";

/// A simulator to which `peer` subscribes.
class Events : public testing::Test {
protected:
    static std::string statusOf(const ProgramResult& result)
    {
        return result.output.substr(result.output.rfind('\n') + 1);
    }

    /// "Response" of the envelope that curl fetched.
    static Json::Value responseOf(const ProgramResult& result)
    {
        return parseJson(result.output.substr(0, result.output.rfind('\n')))["Response"];
    }

    ProgramResult send(const std::string& method, const std::string& path, const std::string& body = {})
    {
        return simulator.lapi(path, {"--request", method, "--data", body});
    }

    std::string subscribe()
    {
        return responseOf(send("POST", subscriptionPath, peer.subscription()))["Data"]["ID"].asString();
    }

    void push(const std::string& command)
    {
        EXPECT_TRUE(simulator.admin("POST", "events", command)["subscribers"].isUInt()) << command;
    }

    Json::Value state() const { return simulator.admin("GET", "state"); }

    bool comesTo(const char* counter, int value) const
    {
        return eventually([&] { return state()["counters"][counter] == value; });
    }

    static std::string bodyOf(const std::string& message) { return message.substr(message.find("\r\n\r\n") + 4); }
    static Json::Value alarmOf(const std::string& message) { return parseJson(bodyOf(message))["AlarmInfo"]; }

    SimulatorProcess simulator;
    NotificationPeer peer;
};

TEST_F(Events, arriveToTheByteOnOneConnection)
{
    EXPECT_EQ(subscribe(), "1");
    push(R"([{"type": "MotionAlarmOn", "time": 1489040894}, {"type": "MotionAlarmOff", "time": 1489040895}])");
    EXPECT_EQ(peer.accept(), "127.0.0.1");
    const std::string body = R"({"Reference": "127.0.0.1:)" + simulator.port("httpPort") +
                             R"(/Subscription/Subscribers/1", "AlarmInfo": {"AlarmType": "MotionAlarmOn", )"
                             R"("AlarmLevel": 0, "TimeStamp": 1489040894, "AlarmSeq": 1, "AlarmSrcID": 1, )"
                             R"("AlarmSrcType": 8, "AlarmSrcName": "Camera1"}})";
    EXPECT_EQ(peer.readMessage(), "POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\nHost: 127.0.0.1:" +
                                      std::to_string(peer.port()) +
                                      "\r\nContent-Type: application/json\r\nConnection: keep-alive\r\n"
                                      "Content-Length: " +
                                      std::to_string(body.size()) + "\r\n\r\n" + body);
    const Json::Value second = alarmOf(peer.readMessage());
    EXPECT_EQ(second["AlarmType"], "MotionAlarmOff");
    EXPECT_EQ(second["AlarmSeq"], 2);
    EXPECT_TRUE(comesTo("delivered", 2));
    EXPECT_EQ(state()["subscriptions"][0]["delivered"], 2);
}

TEST_F(Events, doNotMindAnAnswer)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn"})");
    peer.accept();
    peer.readMessage();
    peer.write("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    push(R"({"type": "MotionAlarmOff"})");
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOff");
}

TEST_F(Events, goToEverySubscriber)
{
    NotificationPeer other;
    subscribe();
    send("POST", subscriptionPath, other.subscription());
    EXPECT_EQ(simulator.admin("POST", "events", R"({"type": "EnterArea", "channel": 2})")["subscribers"], 2);
    for (NotificationPeer* receiver : {&peer, &other}) {
        receiver->accept();
        const std::string message = receiver->readMessage();
        EXPECT_EQ(alarmOf(message)["AlarmSrcID"], 3);
        EXPECT_NE(message.find(receiver == &peer ? "Subscribers/1" : "Subscribers/2"), std::string::npos);
    }
}

TEST_F(Events, findTheirWayAgainWhenTheConnectionWasLost)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn"})");
    peer.accept();
    peer.readMessage();
    peer.close();
    push(R"({"type": "MotionAlarmOff"})");
    peer.accept();
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOff");
}

TEST_F(Events, thatNobodyTakesAreCounted)
{
    subscribe();
    peer.stopListening();
    push(R"({"type": "MotionAlarmOn"})");
    EXPECT_TRUE(comesTo("failed", 1));
    EXPECT_EQ(state()["subscriptions"][0]["failed"], 1);
    simulator.admin("DELETE", "counters");
    EXPECT_EQ(state()["counters"]["failed"], 0);
}

TEST_F(Events, areLostWhenTooManyWait)
{
    subscribe();
    const std::string picture = R"({"pictureBytes": 16777216})";
    push('[' + picture + ',' + picture + ',' + picture + ',' + picture + ',' + picture + ']');
    EXPECT_EQ(state()["counters"]["failed"], 2) << "64 MiB may wait";
    peer.accept();
    EXPECT_GT(peer.readMessage().size(), 16'777'216u) << "those before them are on their way";
}

TEST_F(Events, comeInPieces)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn", "form": "split"})");
    peer.accept();
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOn");
    push(R"({"type": "MotionAlarmOff", "form": "slow", "interval": 1})");
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOff");

    // The next piece would come in ten minutes; cancelling the subscription ends what is under way.
    push(R"({"type": "MotionAlarmOn", "form": "split", "interval": 600000})");
    const std::string head = peer.readSome();
    EXPECT_TRUE(head.starts_with("POST ") && head.ends_with("\r\n\r\n")) << head;
    EXPECT_EQ(statusOf(send("DELETE", std::string(subscriptionPath) + "/1")), "200");
    EXPECT_EQ(peer.readToEnd(), "");
    subscribe();
    push(R"({"type": "MotionAlarmOn", "form": "slow", "interval": 600000})");
    peer.accept();
    EXPECT_EQ(peer.readSome(), "P");
    EXPECT_EQ(statusOf(send("DELETE", std::string(subscriptionPath) + "/2")), "200");
    EXPECT_EQ(peer.readToEnd(), "");
}

TEST_F(Events, comeByteByByteAndInChunks)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn", "form": "bytes"})");
    peer.accept();
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOn");
    push(R"({"body": "0123456789", "form": "chunked"})");
    const std::string chunks = "4\r\n0123\r\n4\r\n4567\r\n2\r\n89\r\n0\r\n\r\n";
    std::string received;
    while (!received.ends_with("\r\n0\r\n\r\n"))
        received += peer.readSome();
    EXPECT_EQ(bodyOf(received), chunks);
}

TEST_F(Events, comeSeveralAtOnce)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn", "count": 100})");
    peer.accept();
    for (int i = 1; i <= 100; ++i)
        EXPECT_EQ(alarmOf(peer.readMessage())["AlarmSeq"], i);
    EXPECT_TRUE(comesTo("delivered", 1)) << "one write";
}

TEST_F(Events, mayCarryLargePictures)
{
    subscribe();
    push(R"([{"pictureBytes": 700000}, {"type": "MotionAlarmOn"}, {"type": "MotionAlarmOn", "form": "oversized"}])");
    peer.accept();
    const std::string picture = peer.readMessage();
    EXPECT_TRUE(picture.starts_with("POST /LAPI/V1.0/System/Event/Notification/Structure HTTP/1.1\r\n"));
    EXPECT_GT(picture.size(), 700'000u);
    EXPECT_FALSE(parseJson(bodyOf(picture)).isMember("AlarmInfo"));
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOn");
    EXPECT_GT(bodyOf(peer.readMessage()).size(), 1024u * 1024u);
}

TEST_F(Events, mayHaveAConnectionOfTheirOwn)
{
    subscribe();
    push(R"([{"type": "MotionAlarmOn", "connection": "fresh"}])");
    peer.accept();
    EXPECT_EQ(alarmOf(peer.readToEnd())["AlarmType"], "MotionAlarmOn") << "closed behind it";
}

TEST_F(Events, areNotHeldUpByASlowOneBesideThem)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn", "form": "slow", "interval": 600000, "connection": "fresh"})");
    peer.accept();
    EXPECT_EQ(peer.readSome(), "P");
    push(R"({"type": "MotionAlarmOff"})");
    peer.accept();
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOff");
}

TEST_F(Events, areBrokenWhenAskedFor)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn", "form": "cut"})");
    peer.accept();
    EXPECT_TRUE(peer.readToEnd().find("{\"Reference\"") != std::string::npos);
    push(R"({"form": "garbage"})");
    peer.accept();
    EXPECT_NE(peer.readToEnd().find("This is not HTTP"), std::string::npos);

    push(R"([{"form": "headonly"}, {"body": "x"}])");
    peer.accept();
    EXPECT_EQ(bodyOf(peer.readMessage()), "");
    EXPECT_EQ(bodyOf(peer.readMessage()), "x") << "on the same connection";
    push(R"([{"body": "0123456789abcdefWXYZ", "form": "wronglength"}, {"body": "{\"a\": 1}", "form": "brokenjson"}])");
    EXPECT_EQ(bodyOf(peer.readMessage()), "0123");
    EXPECT_EQ(peer.read(16), "456789abcdefWXYZ");
    EXPECT_EQ(bodyOf(peer.readMessage()), "{\"a\"");
    EXPECT_TRUE(comesTo("delivered", 6)) << "what is sent as it should be sent is delivered";
}

TEST_F(Events, withoutEndEndWithTheirReceiver)
{
    subscribe();
    push(R"([{"form": "endless", "interval": 0}, {"type": "MotionAlarmOn"}])");
    peer.accept();
    peer.read(1024 * 1024);
    EXPECT_EQ(state()["counters"]["failed"], 0);
    peer.accept();  // closes the other
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "MotionAlarmOn");
    EXPECT_TRUE(comesTo("failed", 1));
}

TEST_F(Events, doNotKeepTheSimulatorFromStopping)
{
    NotificationPeer silent;  // and never reading
    subscribe();
    send("POST", subscriptionPath, silent.subscription());
    push(R"([{"type": "MotionAlarmOn", "form": "slow", "connection": "fresh"}, {"form": "endless", "interval": 0}])");
    peer.accept();
    peer.readSome();
    simulator.process().signal(SIGTERM);
    EXPECT_EQ(simulator.waitForExit(), 0) << "it would end with 1 if it took too long";
}

TEST_F(Events, tellAnInputThatChanges)
{
    subscribe();
    EXPECT_EQ(simulator.admin("POST", "inputs/1", R"({"state": true})")["subscribers"], 1);
    peer.accept();
    EXPECT_EQ(alarmOf(peer.readMessage())["AlarmType"], "InputAlarmOn");
    EXPECT_EQ(state()["inputs"][1], true);
    simulator.admin("POST", "inputs/1", R"({"state": false})");
    const Json::Value off = alarmOf(peer.readMessage());
    EXPECT_EQ(off["AlarmType"], "InputAlarmOff");
    EXPECT_EQ(off["AlarmSrcID"], 2);
    EXPECT_TRUE(simulator.admin("POST", "inputs/9", R"({"state": false})")["error"].isString());
}

TEST_F(Events, endWithTheirSubscription)
{
    subscribe();
    push(R"({"type": "MotionAlarmOn"})");
    peer.accept();
    peer.readMessage();
    const std::string one = std::string(subscriptionPath) + "/1";
    EXPECT_EQ(statusOf(send("PUT", one, R"({"Duration" : 1})")), "200");
    EXPECT_EQ(peer.readToEnd(), "") << "the connection goes with the subscription";
    EXPECT_EQ(state()["counters"]["expired"], 1);
    EXPECT_EQ(statusOf(send("PUT", one, R"({"Duration" : 60})")), "599");
    EXPECT_EQ(simulator.admin("POST", "events", R"({"type": "MotionAlarmOn"})")["subscribers"], 0);

    EXPECT_EQ(subscribe(), "2");
    simulator.admin("DELETE", "subscriptions");
    EXPECT_EQ(statusOf(send("DELETE", std::string(subscriptionPath) + "/2")), "599");
    EXPECT_EQ(subscribe(), "3");
    simulator.admin("POST", "reboot", R"({"milliseconds": 1})");
    EXPECT_TRUE(eventually([&] { return state()["subscriptions"].empty(); }));
}

TEST_F(Events, canBeRefusedByFaults)
{
    simulator.admin("POST", "faults", R"({"fault": "status:503@POST /LAPI/V1.0/System/Event"})");
    simulator.admin("POST", "faults", R"({"fault": "apierror:7@PUT /LAPI/V1.0/System/Event"})");
    simulator.admin("POST", "faults", R"({"fault": "nodata@PUT /LAPI/V1.0/System/Event"})");
    EXPECT_EQ(statusOf(send("POST", subscriptionPath, peer.subscription())), "503");
    const Json::Value renewal = responseOf(send("PUT", std::string(subscriptionPath) + "/1", R"({"Duration" : 60})"));
    EXPECT_EQ(renewal["ResponseCode"], 7);
    EXPECT_FALSE(renewal.isMember("Data"));
    EXPECT_EQ(statusOf(send("POST", subscriptionPath + std::string("/1"), peer.subscription())), "503");
    simulator.admin("DELETE", "faults");
    EXPECT_EQ(statusOf(send("POST", subscriptionPath, R"({"Port": "x"})")), "400");
    EXPECT_EQ(subscribe(), "1");
}

TEST_F(Events, relaysAreSwitchedAndLogged)
{
    constexpr auto path = "/LAPI/V1.0/IO/OutputSwitches/ManualAlarm";
    EXPECT_EQ(responseOf(send("PUT", path, R"({"Num":1,"IDs":[1],"AlarmAction":1})"))["ResponseCode"], 0);
    EXPECT_EQ(state()["relays"][0], true);
    simulator.process().awaitErrors("relays [true,false]");
    EXPECT_EQ(responseOf(send("PUT", path, R"({"Num":1,"IDs":[0],"AlarmAction":1})"))["ResponseCode"], 2);
    EXPECT_EQ(responseOf(send("GET", "/LAPI/V1.0/IO/InputSwitches/BasicInfos"))["Data"]["Num"], 4);
    EXPECT_EQ(responseOf(send("GET", "/LAPI/V1.0/IO/OutputSwitches/BasicInfos"))["Data"]["Num"], 2);
}

TEST(EventSource, isTheAddressTheDeviceServesOn)
{
    const struct {
        const char* bind;
        const char* reachedBy;
    } cases[] = {
        {"127.0.0.1", "127.0.0.1"},
        {"127.7.0.2", "127.7.0.2"},
        {"0.0.0.0", "127.7.0.3"},  // one program may be many devices
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.bind) + " reached by " + c.reachedBy);
        const SimulatorProcess simulator({"--bind", c.bind});
        NotificationPeer peer;
        simulator.lapi("http://" + std::string(c.reachedBy) + ':' + simulator.port("httpPort") + subscriptionPath,
                       {"--data", peer.subscription()});
        EXPECT_EQ(simulator.admin("POST", "events", R"({"type": "MotionAlarmOn"})")["subscribers"], 1);
        EXPECT_EQ(peer.accept(), c.reachedBy);
        EXPECT_NE(peer.readMessage().find("\"Reference\": \"" + std::string(c.reachedBy) + ':'), std::string::npos);
    }
}

TEST(EventSource, maySpeakIpv6)
{
    const SimulatorProcess simulator({"--bind", "::1"});
    NotificationPeer peer("::1");
    simulator.lapi("http://[::1]:" + simulator.port("httpPort") + subscriptionPath, {"--data", peer.subscription()});
    EXPECT_EQ(simulator.admin("POST", "events", R"({"type": "MotionAlarmOn"})")["subscribers"], 1);
    EXPECT_EQ(peer.accept(), "::1");
    EXPECT_NE(peer.readMessage().find("\r\nHost: [::1]:" + std::to_string(peer.port()) + "\r\n"), std::string::npos);
}

TEST(EventScripts, beginWithTheFirstSubscription)
{
    const TemporaryFile script(".json");
    std::ofstream(script.name()) << R"({"steps": [{"at": 0.05, "input": 1, "state": true},
                                                  {"at": 0, "event": {"type": "MotionAlarmOn", "channel": 0}}]})";
    const SimulatorProcess simulator({"--script", script.name()});
    NotificationPeer peer;
    for (int round = 1; round <= 2; ++round) {
        SCOPED_TRACE(round);
        simulator.lapi(subscriptionPath, {"--data", peer.subscription()});
        peer.accept();
        EXPECT_NE(peer.readMessage().find("MotionAlarmOn"), std::string::npos);
        EXPECT_NE(peer.readMessage().find("InputAlarmOn"), std::string::npos);
        simulator.lapi(subscriptionPath + std::string("/") + std::to_string(round), {"--request", "DELETE"});
        peer.readToEnd();
    }
}

TEST(EventScripts, areRefusedAtTheStart)
{
    const TemporaryFile script(".json");
    std::ofstream(script.name()) << "{\"steps\": [\n{\"at\": 1, \"input\": 4, \"state\": true}]}";
    const std::vector<std::string> command{simulatorProgram(), "--http-port", "0", "--rtsp-port", "0",
                                           "--script",         script.name()};
    const ProgramResult result = runProgram(command);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("The script '" + script.name() +
                                 "' is refused: Line 2, steps[0]: \"input\" is no whole number of 0..3"),
              std::string::npos)
        << result.errors;
    EXPECT_EQ(result.output, "");
    std::filesystem::remove(script.name());
    EXPECT_EQ(runProgram(command).status, 2) << "a file that does not exist is a wrong command line";
}

}  // namespace
}  // namespace simulator::test

#include "EndToEnd.h"
#include "JsonText.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

// What the simulated device pushes, through the shipped module to the reference host; and its relays.
namespace
{
using namespace kelvo::test;
using ::testing::HasSubstr;

/// A port on which nobody listens now. Should somebody take it meanwhile, the module tries it again every second.
std::string freePort()
{
    const int socket = ::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t length = sizeof address;
    const bool found = ::bind(socket, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                       ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    ::close(socket);
    EXPECT_TRUE(found);
    return std::to_string(ntohs(address.sin6_port));
}

/// `kelvo-host events` while it runs.
class EventsHost : public RunningHost {
public:
    EventsHost(const ScratchFolder& folder, const std::string& address, const std::string& port = freePort(),
               const std::vector<std::string>& further = {})
        : RunningHost(folder, address, command(port, further))
    {}

private:
    static std::vector<std::string> command(const std::string& port, const std::vector<std::string>& further)
    {
        std::vector<std::string> arguments{"--set", "localServerPort=" + port, "events", "--seconds", "0"};
        arguments.insert(arguments.end(), further.begin(), further.end());
        return arguments;
    }
};

/// What an event says in short, for comparing many.
std::string shortOf(const Json::Value& event)
{
    return event["event"] == "input" ? "input " + event["input"].asString() + (event["state"].asBool() ? " on" : " off")
                                     : event["type"].asString() + ' ' + event["state"].asString();
}

std::vector<std::string> happenings(const HostRun& run)
{
    std::vector<std::string> all;
    for (const Json::Value& event : run.events)
        if (event["event"] == "input" || event["event"] == "detector")
            all.push_back(shortOf(event));
    return all;
}

TEST(EventsEndToEnd, showWhatTheDevicesScriptPushes)
{
    const ScratchFolder folder;
    std::ofstream(folder.file("script.json")) << R"({"steps": [
        {"at": 0.1, "input": 1, "state": true},
        {"at": 0.2, "event": {"type": "MotionAlarmOn", "time": 1489040894, "fields": {"Zone": "yard"}}},
        {"at": 0.3, "event": {"type": "LineDetectorCrossed", "form": "split"}},
        {"at": 0.4, "event": {"type": "MotionAlarmOff", "form": "chunked"}},
        {"at": 0.5, "event": {"pictureBytes": 300000}},
        {"at": 0.6, "input": 1, "state": false},
        {"at": 0.7, "event": {"type": "ThermalTemperatureDetectOff"}},
        {"at": 0.8, "event": {"type": "TemperatureDetectionAlarm", "form": "bytes"}}]})";
    const SimulatorProcess device(smallPictures({"--script", folder.file("script.json")}));
    EventsHost host(folder, deviceAddress(device));
    host.await("TemperatureDetectionAlarm");
    const HostRun run = host.interrupt();
    EXPECT_THAT(happenings(run), testing::ElementsAre("input 1 on", "motion begin", "crossLineDetectType momentary",
                                                      "motion end", "input 1 off", "temperatureDetectType begin"));
    const Json::Value motion = run.events.at(1);
    EXPECT_EQ(motion["channel"], 0);
    EXPECT_EQ(motion["alarmType"], "MotionAlarmOn");
    EXPECT_EQ(motion["time"], "2017-03-09T06:28:14.000Z");
    EXPECT_EQ(motion["fields"]["Zone"], "yard");
}

TEST(EventsEndToEnd, theSubscriptionEndsWithTheHost)
{
    const ScratchFolder folder;
    const SimulatorProcess device(smallPictures());
    EventsHost host(folder, deviceAddress(device));
    ASSERT_TRUE(hasSubscribed(device));
    EXPECT_EQ(host.interrupt().status, 130);
    EXPECT_TRUE(eventually([&] { return device.admin("GET", "state")["subscriptions"].empty(); }));
    EXPECT_EQ(device.admin("GET", "state")["counters"]["expired"], 0);
}

TEST(EventsEndToEnd, aDetectorHearsOfItsOwnChannelAlone)
{
    const ScratchFolder folder;
    const SimulatorProcess device(smallPictures({"--kind", "recorder", "--channels", "2"}));
    EventsHost host(folder, deviceAddress(device), freePort(), {"--channels", "2", "--detector", "motion"});
    ASSERT_TRUE(hasSubscribed(device));
    device.admin("POST", "events", R"([{"type": "MotionAlarmOn", "channel": 1}, {"type": "MotionAlarmOn", "channel": 5},
                                       {"type": "EnterArea", "channel": 1}, {"type": "MotionAlarmOff", "channel": 1}])");
    host.await("\"end\"");
    const HostRun run = host.interrupt();
    EXPECT_THAT(happenings(run), testing::ElementsAre("motion begin", "motion end"));
    EXPECT_EQ(run.event("detector")["channel"], 1);
}

TEST(EventsEndToEnd, brokenNotificationsCostOnlyThemselves)
{
    const ScratchFolder folder;
    const SimulatorProcess device(smallPictures());
    EventsHost host(folder, deviceAddress(device));
    ASSERT_TRUE(hasSubscribed(device));
    for (const char* form : {"headonly", "cut", "brokenjson", "wronglength", "oversized", "garbage", "endless", "slow"})
        device.admin("POST", "events",
                     std::string(R"({"type": "EnterArea", "connection": "fresh", "form": ")") + form + "\"}");
    device.admin("POST", "events", R"({"type": "LeaveArea", "connection": "fresh"})");
    host.await("LeaveArea");
    const HostRun run = host.interrupt();
    EXPECT_THAT(happenings(run), testing::ElementsAre("leaveAreaDetectType momentary"));
}

TEST(EventsEndToEnd, notificationsOfAStrangerAreRefused)
{
    const ScratchFolder folder;
    const SimulatorProcess device(smallPictures({"--bind", "0.0.0.0"}));  // a device at each address of this machine
    const std::string port = freePort();
    EventsHost host(folder, deviceAddress(device), port);
    ASSERT_TRUE(hasSubscribed(device));
    const auto asStranger =
        runProgram({"curl", "--silent", "--digest", "--user", "admin:admin-123", "--data",
                    R"({"AddressType": 0,"IPAddress" : "127.0.0.1","Port" : )" + port + R"(,"Duration" : 60})",
                    "http://127.0.0.3:" + device.port("httpPort") + "/LAPI/V1.0/System/Event/Subscription"});
    ASSERT_THAT(asStranger.output, HasSubstr("Succeed"));
    const Json::Value pushed =
        device.admin("POST", "events", R"([{"type": "EnterArea"}, {"type": "EnterArea"}, {"type": "LeaveArea"}])");
    EXPECT_EQ(pushed["subscribers"], 2);
    host.await("LeaveArea");
    ASSERT_TRUE(eventually([&] {  // the stranger's have been sent, too, or refused
        const Json::Value counters = device.admin("GET", "state")["counters"];
        return counters["delivered"].asInt() + counters["failed"].asInt() == 6;
    }));
    EXPECT_THAT(happenings(host.interrupt()),
                testing::ElementsAre("enterAreaDetectType momentary", "enterAreaDetectType momentary",
                                     "leaveAreaDetectType momentary"));
}

TEST(RelayEndToEnd, isSwitchedOnAndOff)
{
    const ScratchFolder folder;
    const SimulatorProcess device(smallPictures());
    const auto relay = [&](const char* index, const char* state) {
        return runHost(folder, deviceAddress(device), {"relay", index, state});
    };
    EXPECT_EQ(relay("0", "ON").status, 0);
    EXPECT_EQ(device.admin("GET", "state")["relays"][0], true);
    EXPECT_EQ(device.admin("GET", "state")["relays"][1], false);
    EXPECT_EQ(relay("0", "OFF").status, 0);
    EXPECT_EQ(device.admin("GET", "state")["relays"][0], false);

    const HostRun beyond = relay("2", "on");  // the host's generous model knows sixteen, the device two
    EXPECT_EQ(beyond.status, 4);
    EXPECT_NE(beyond.event("result")["code"], 0);
}

TEST(RelayEndToEnd, aDeviceThatNeverAnswersHoldsUpNobody)
{
    const ScratchFolder folder;
    const SimulatorProcess device(smallPictures({"--fault", "hang@PUT /LAPI/V1.0/IO"}));
    auto command = hostCommand(folder, deviceAddress(device));
    command.insert(command.end(), {"--timeout", "1", "relay", "0", "on"});
    // The request by itself would last 15 s.
    const HostRun run = hostRun(runProgram(command, std::chrono::seconds(10)));
    EXPECT_EQ(run.status, 4);
    EXPECT_THAT(run.all(), HasSubstr("the device did not answer in time"));
}
}  // namespace

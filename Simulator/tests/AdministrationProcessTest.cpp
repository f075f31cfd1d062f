#include "Eventually.h"
#include "JsonText.h"
#include "Programs.h"
#include "SimulatorProcess.h"

#include <gtest/gtest.h>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

constexpr int curlCannotConnect = 7;
constexpr const char* portPath = "/LAPI/V1.0/Network/Port";

TEST(Administration, addsAndRemovesFaults)
{
    const SimulatorProcess simulator({"--fault", "hang@Elsewhere"});
    const Json::Value both = simulator.admin("POST", "faults", R"({"fault": "status:503@Port"})");
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[1], "status:503@Port");
    EXPECT_EQ(simulator.lapi(portPath).output.substr(simulator.lapi(portPath).output.rfind('\n') + 1), "503");
    EXPECT_EQ(simulator.admin("DELETE", "faults", R"({"fault": "status:503@Port"})").size(), 1u);
    EXPECT_EQ(simulator.admin("DELETE", "faults").size(), 0u);
    EXPECT_EQ(simulator.admin("GET", "faults").size(), 0u);
}

TEST(Administration, saysWhatItDoesNotUnderstand)
{
    const SimulatorProcess simulator;
    for (const char* body : {"{}", "x", "[]", R"({"fault": 3})", R"({"fault": "explode"})"}) {
        SCOPED_TRACE(body);
        EXPECT_TRUE(simulator.admin("POST", "faults", body)["error"].isString());
    }
    EXPECT_TRUE(simulator.admin("DELETE", "faults", R"({"fault": "hang"})")["error"].isString());
    EXPECT_TRUE(simulator.admin("POST", "reboot", R"({"milliseconds": -1})")["error"].isString());
    for (const char* body : {"", "{}", R"({"codec": "vp8"})", R"({"size": "641x360"})", R"({"size": "0x0"})"}) {
        SCOPED_TRACE(body);
        EXPECT_TRUE(simulator.admin("POST", "picture", body)["error"].isString());
    }
    EXPECT_TRUE(simulator.admin("GET", "nowhere")["error"].isString());
}

TEST(Administration, isAlsoOnTheLapiPortWithoutCredentials)
{
    const SimulatorProcess simulator;
    const ProgramResult result = runProgram({"curl", "--silent", simulator.lapiUrl("/simulator/counters")});
    EXPECT_TRUE(parseJson(result.output)["rtsp"].isObject());
    EXPECT_EQ(simulator.admin("GET", "requests").size(), 0u) << "it leaves no trace among the requests";
}

TEST(Administration, setsCountersToZero)
{
    const SimulatorProcess simulator;
    simulator.lapi(portPath);
    EXPECT_EQ(simulator.admin("GET", "requests").size(), 2u);
    simulator.admin("DELETE", "counters");
    EXPECT_EQ(simulator.admin("GET", "requests").size(), 0u);
    EXPECT_EQ(simulator.admin("GET", "counters")["connections"], 0);
}

TEST(Administration, restartsTheDevice)
{
    const SimulatorProcess simulator;
    EXPECT_EQ(simulator.lapi(portPath).status, 0);
    simulator.admin("POST", "reboot", R"({"milliseconds": 600000})");
    EXPECT_TRUE(eventually([&] { return simulator.lapi(portPath).status == curlCannotConnect; }));
    const std::string rtsp = "127.0.0.1:" + simulator.port("rtspPort");
    EXPECT_EQ(runProgram({"curl", "--silent", "telnet://" + rtsp}).status, curlCannotConnect);

    // The administration does not go down with the device; a second restart ends the first.
    simulator.admin("POST", "reboot", R"({"milliseconds": 1})");
    EXPECT_TRUE(eventually([&] { return simulator.lapi(portPath).status == 0; }));
}

TEST(Administration, closesAndOpensTheRtspPort)
{
    const SimulatorProcess simulator({"--size", "320x240", "--auth", "none"});
    const auto describe = [&] {
        return runProgram({"curl", "--silent", "--max-time", "10", simulator.rtspUrl("/media/video1", "")}).status;
    };
    EXPECT_EQ(describe(), 0);
    simulator.admin("POST", "rtsp/stop");
    EXPECT_EQ(describe(), curlCannotConnect);
    simulator.admin("POST", "rtsp/stop");
    simulator.admin("POST", "rtsp/start");
    EXPECT_EQ(describe(), 0);
    simulator.admin("POST", "rtsp/start");
    EXPECT_EQ(describe(), 0);
}

}  // namespace
}  // namespace simulator::test

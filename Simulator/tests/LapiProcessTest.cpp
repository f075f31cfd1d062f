#include "JsonText.h"
#include "Programs.h"
#include "SimulatorProcess.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

constexpr const char* portPath = "/LAPI/V1.0/Network/Port";
constexpr const char* informationPath = "/LAPI/V1.0/System/DeviceInfo";

/// The last line of what curl wrote: the HTTP status.
std::string statusOf(const ProgramResult& result)
{
    return result.output.substr(result.output.rfind('\n') + 1);
}

/// "Response" of the envelope that curl fetched.
Json::Value responseOf(const ProgramResult& result)
{
    return parseJson(result.output.substr(0, result.output.rfind('\n')))["Response"];
}

TEST(Lapi, givesItsPortsToCurlWithDigest)
{
    const SimulatorProcess simulator;
    const ProgramResult result = simulator.lapi(portPath);
    ASSERT_EQ(result.status, 0);
    EXPECT_EQ(statusOf(result), "200");
    EXPECT_NE(result.output.find("\"RTSPPort\":\t" + simulator.port("rtspPort")), std::string::npos) << result.output;
    EXPECT_EQ(responseOf(result)["Data"]["HTTPPort"], simulator.ready()["httpPort"]);
    EXPECT_EQ(responseOf(result)["CreatedID"], -1);
}

TEST(Lapi, takesThePasswordFromTheCommandLine)
{
    const SimulatorProcess simulator({"--user", "operator", "--password", "p:w d\"\xc3\xa4"});
    EXPECT_EQ(statusOf(simulator.lapi(portPath, {"--user", "operator:p:w d\"\xc3\xa4"})), "200");
    EXPECT_EQ(statusOf(simulator.lapi(portPath)), "401");
    EXPECT_EQ(simulator.ready()["user"], "operator");
    EXPECT_FALSE(simulator.ready().isMember("password"));
}

TEST(Lapi, refusesAWrongPassword)
{
    const SimulatorProcess simulator;
    const ProgramResult result = simulator.lapi(portPath, {"--user", "admin:wrong"});
    EXPECT_EQ(statusOf(result), "401");
    EXPECT_EQ(responseOf(result)["ResponseCode"], 1);
    EXPECT_EQ(responseOf(result)["Data"], Json::Value(Json::objectValue)) << "a refusal tells nothing";
}

TEST(Lapi, takesBasicOnlyWhenOffered)
{
    const auto fetch = [](const SimulatorProcess& simulator, const char* scheme) {
        return statusOf(runProgram({"curl", "--silent", "--max-time", "10", "--write-out", "\n%{http_code}", "--user",
                                    "admin:admin-123", scheme, simulator.lapiUrl(portPath)}));
    };
    const SimulatorProcess digest;
    EXPECT_EQ(fetch(digest, "--basic"), "401");
    EXPECT_EQ(fetch(digest, "--anyauth"), "200");
    const SimulatorProcess both({"--auth", "both"});
    EXPECT_EQ(fetch(both, "--basic"), "200");
    EXPECT_EQ(fetch(both, "--digest"), "200");
    const SimulatorProcess basic({"--auth", "basic"});
    EXPECT_EQ(fetch(basic, "--basic"), "200");
    EXPECT_EQ(fetch(basic, "--digest"), "401");
    const SimulatorProcess none({"--auth", "none"});
    EXPECT_EQ(fetch(none, "--no-basic"), "200");
}

TEST(Lapi, keepsTheConnection)
{
    const SimulatorProcess simulator;
    const ProgramResult result = simulator.lapi(portPath, {simulator.lapiUrl(informationPath)});
    EXPECT_EQ(statusOf(result), "200");
    const Json::Value counters = simulator.admin("GET", "counters");
    EXPECT_EQ(counters["statuses"]["401"], 2);
    EXPECT_EQ(counters["statuses"]["200"], 2);
    EXPECT_EQ(counters["connections"], 1);
}

TEST(Lapi, answersAnUnknownPathWith599)
{
    const SimulatorProcess simulator;
    const ProgramResult result = simulator.lapi("/LAPI/V1.0/Network/Ports");
    EXPECT_EQ(statusOf(result), "599");
    EXPECT_EQ(responseOf(result)["ResponseCode"], 1);
    EXPECT_EQ(responseOf(result)["ResponseURL"], "/LAPI/V1.0/Network/Ports");
}

TEST(Lapi, hasItsPortsUnderThePluralPathWhenTold)
{
    const SimulatorProcess simulator({"--ports-form", "plural"});
    EXPECT_EQ(statusOf(simulator.lapi(portPath)), "599");
    const ProgramResult result = simulator.lapi("/LAPI/V1.0/Network/Ports");
    EXPECT_EQ(statusOf(result), "200");
    EXPECT_EQ(responseOf(result)["Data"]["RTSPPort"], simulator.ready()["rtspPort"]);
}

TEST(Lapi, speaksTls)
{
    const SimulatorProcess simulator({"--https-port", "0"});
    const std::string url = "https://127.0.0.1:" + simulator.port("httpsPort") + portPath;
    const ProgramResult result = simulator.lapi(url, {"--insecure"});
    EXPECT_EQ(statusOf(result), "200");
    EXPECT_EQ(responseOf(result)["Data"]["HTTPSPort"], simulator.ready()["httpsPort"]);

    constexpr int unknownIssuer = 60;
    EXPECT_EQ(simulator.lapi(url).status, unknownIssuer);
    // Plain HTTP on the TLS port ends the connection, not the program.
    EXPECT_NE(runProgram({"curl", "--silent", "--http0.9", "http://127.0.0.1:" + simulator.port("httpsPort")}).status,
              0);
    EXPECT_EQ(statusOf(simulator.lapi(portPath)), "200");
}

TEST(Lapi, identifiesEachKind)
{
    const struct {
        const char* kind;
        int deviceType;
        const char* enhancePath;
        const char* streamsPath;
        const char* streamsStatus;
    } cases[] = {
        {"camera", 0, "/LAPI/V1.0/Channels/0/Image/Enhance", "/LAPI/V1.0/Channel/0/Media/Video/Streams/DetailInfos",
         "200"},
        {"multichannel", 0, "/LAPI/V1.0/Channels/4/Image/Enhance",
         "/LAPI/V1.0/Channel/4/Media/Video/Streams/DetailInfos", "200"},
        {"recorder", 1, "/LAPI/V1.0/Channels/4/Image/Enhance", "/LAPI/V1.0/Channel/4/Media/Video/Streams/DetailInfos",
         "599"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        const SimulatorProcess simulator({"--kind", c.kind});
        EXPECT_EQ(responseOf(simulator.lapi(informationPath))["Data"]["DeviceType"], c.deviceType);
        EXPECT_EQ(responseOf(simulator.lapi(c.enhancePath))["Data"]["Brightness"], 128);
        EXPECT_EQ(statusOf(simulator.lapi(c.streamsPath)), c.streamsStatus);
    }
}

TEST(Lapi, remembersTheMicrophone)
{
    const SimulatorProcess simulator;
    constexpr const char* path = "/LAPI/V1.0/Media/Audio/Input";
    EXPECT_EQ(responseOf(simulator.lapi(path, {"--request", "PUT", "--data", R"({"IsMute": 1})"}))["ResponseCode"], 0);
    EXPECT_EQ(responseOf(simulator.lapi(path))["Data"]["IsMute"], 1);

    // curl asks for credentials with an empty body first.
    Json::Value put;
    for (const Json::Value& request : simulator.admin("GET", "requests"))
        if (request["method"] == "PUT" && request["status"] == 200)
            put = request;
    EXPECT_EQ(put["body"], R"({"IsMute": 1})");
    EXPECT_EQ(put["scheme"], "Digest");
}

TEST(Lapi, tellsWhatAClientDidToTheSettings)
{
    const SimulatorProcess simulator;
    constexpr const char* path = "/LAPI/V1.0/Channels/0/Image/WhiteBalance/Video";
    const auto put = [&](const char* body) {
        return responseOf(simulator.lapi(path, {"--request", "PUT", "--data", body}))["ResponseCode"].asInt();
    };
    EXPECT_EQ(put(R"({"Mode": 1, "RedOffset": 5, "BlueOffset": 0, "Kelvin": 5600, "Locked": false, "Tint": 3})"), 0);
    EXPECT_EQ(put(R"({"Mode": 99})"), 2);
    const Json::Value state = simulator.admin("GET", "state")["settings"]["image"][0]["Image/WhiteBalance/Video"];
    EXPECT_EQ(state["data"]["RedOffset"], 5);
    EXPECT_EQ(state["data"]["Kelvin"], 5600.25);
    EXPECT_EQ(state["writes"], 1);
    EXPECT_EQ(state["refusals"], 1);
    EXPECT_EQ(state["lostMembers"], parseJson(R"(["Illuminant", "Kelvin"])"));
    EXPECT_EQ(state["strangeMembers"], parseJson(R"(["Tint"])"));
}

TEST(Lapi, survivesWhatIsNoHttp)
{
    const SimulatorProcess simulator;
    const ProgramResult telnet = runProgram({"curl", "--silent", "--max-time", "5", "--upload-file", "/proc/self/maps",
                                             "telnet://127.0.0.1:" + simulator.port("httpPort")});
    EXPECT_EQ(telnet.output.substr(0, 12), "HTTP/1.1 400");
    EXPECT_EQ(statusOf(simulator.lapi(portPath)), "200");
}

TEST(LapiFault, reachesCurl)
{
    constexpr int cannotConnect = 7;
    constexpr int timedOut = 28;
    constexpr int emptyReply = 52;
    constexpr int receiveError = 56;
    constexpr int partialFile = 18;
    constexpr int noHttp = 1;
    const struct {
        const char* fault;
        std::vector<int> exits;  ///< of curl; which of two depends on timing
        const char* status;
    } cases[] = {
        {"refuse", {cannotConnect, receiveError, emptyReply}, "000"},
        {"hang", {timedOut}, "000"},
        {"close", {emptyReply}, "000"},
        {"garbage", {noHttp}, "000"},
        {"status:503", {0}, "503"},
        {"status:404@Network", {0}, "404"},
        {"brokenjson", {0}, "200"},
        {"emptybody", {0}, "200"},
        {"nodata", {0}, "200"},
        {"truncate:404", {partialFile, receiveError}, "404"},
        {"slow:200", {0}, "200"},
    };
    const SimulatorProcess simulator({"--auth", "none"});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        simulator.admin("DELETE", "faults");
        simulator.admin("POST", "faults", std::string(R"({"fault": ")") + c.fault + "\"}");
        const ProgramResult result = runProgram({"curl", "--silent", "--max-time", "1", "--write-out",
                                                 "\n%{time_total}\n%{http_code}", simulator.lapiUrl(portPath)});
        EXPECT_TRUE(std::ranges::count(c.exits, result.status)) << result.status;
        EXPECT_EQ(statusOf(result), c.status) << result.output;
    }
    simulator.admin("DELETE", "faults");
    EXPECT_EQ(statusOf(simulator.lapi(portPath)), "200") << "without faults all is well again";
}

TEST(LapiFault, strikesOnlyWhereItsPatternStands)
{
    const SimulatorProcess simulator({"--fault", "status:500@DeviceInfo", "--fault", "slow:300@Network/Port"});
    EXPECT_EQ(statusOf(simulator.lapi(informationPath)), "500");
    const ProgramResult slow = simulator.lapi(portPath, {"--write-out", "\n%{time_total}\n%{http_code}"});
    EXPECT_EQ(statusOf(slow), "200");
    const std::string withoutStatus = slow.output.substr(0, slow.output.rfind('\n'));
    EXPECT_GE(std::stod(withoutStatus.substr(withoutStatus.rfind('\n') + 1)), 0.3);
}

TEST(LapiFault, strikesSettingsToo)
{
    const struct {
        const char* path;
        const char* fault;
        const char* status;
        int code;
    } cases[] = {
        {"/LAPI/V1.0/Channels/0/Image/LDC", "apierror:7@GET /LAPI/V1.0/Channels/0/Image/LDC", "200", 7},
        {"/LAPI/V1.0/Channels/0/Image/Defog/Video", "status:503@Defog", "503", 1},
        {"/LAPI/V1.0/Channel/0/Media/Video/Streams/DetailInfos", "nodata@DetailInfos", "200", 0},
        {"/LAPI/V1.0/Media/Audio/Input", "emptydata@Audio", "200", 0},
    };
    const SimulatorProcess simulator({"--auth", "none"});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_NE(responseOf(simulator.lapi(c.path))["Data"].size(), 0u);
        simulator.admin("POST", "faults", std::string(R"({"fault": ")") + c.fault + "\"}");
        const ProgramResult struck = simulator.lapi(c.path);
        EXPECT_EQ(statusOf(struck), c.status);
        EXPECT_EQ(responseOf(struck)["ResponseCode"], c.code);
        EXPECT_EQ(responseOf(struck)["Data"].empty(), c.code != 7);
    }
}

TEST(LapiFault, dripsAndTruncatesBodies)
{
    const SimulatorProcess simulator({"--auth", "none", "--fault", "drip:1@Port", "--fault", "truncate@DeviceInfo"});
    const ProgramResult dripped = simulator.lapi(portPath);
    EXPECT_EQ(statusOf(dripped), "200");
    EXPECT_EQ(responseOf(dripped)["ResponseCode"], 0) << "it arrives slowly, but whole";
    const ProgramResult truncated = simulator.lapi(informationPath);
    EXPECT_NE(truncated.status, 0);
    EXPECT_NE(truncated.output.find("ResponseURL"), std::string::npos) << "the first half of the body arrives";
}

}  // namespace
}  // namespace simulator::test

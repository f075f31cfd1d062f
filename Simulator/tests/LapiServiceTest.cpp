#include "LapiService.h"

#include "DeviceState.h"
#include "LapiEnvelope.h"
#include "LapiResources.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

/// A device without credentials, asked without a socket.
class LapiServiceTest : public testing::Test {
protected:
    explicit LapiServiceTest(Kind kind = Kind::camera, bool pluralPorts = false) : device(optionsFor(kind))
    {
        addLapiResources(router, device, pluralPorts);
    }

    static Options optionsFor(Kind kind)
    {
        Options options;
        options.kind = kind;
        options.channels = kind == Kind::camera ? 1 : 4;
        return options;
    }

    HttpAnswer ask(const std::string& method, const std::string& target, const std::string& body = {})
    {
        return service.answer({.method = method, .target = target, .authorization = {}, .body = body, .peer = "peer"},
                              Authenticator::Clock::now());
    }

    /// "Response" of an answer; null when the body is no envelope.
    static Json::Value response(const HttpAnswer& answer)
    {
        const auto envelope = parseJson(answer.body);
        return envelope ? (*envelope)["Response"] : Json::Value();
    }

    void inject(const char* text) { faults.add(std::get<Fault>(parseFault(text))); }

    Router router;
    DeviceState device;
    FaultTable faults;
    Activity activity;
    Authenticator authenticator{{.user = "admin", .password = "x", .realm = "r", .digest = false}, randomNonce};
    LapiService service{router, authenticator, faults, activity};
};

struct PluralPortsTest : LapiServiceTest {
    PluralPortsTest() : LapiServiceTest(Kind::camera, true) {}
};

constexpr const char* portPath = "/LAPI/V1.0/Network/Port";
constexpr const char* informationPath = "/LAPI/V1.0/System/DeviceInfo";

TEST_F(LapiServiceTest, answersWithTheEnvelope)
{
    const HttpAnswer answer = ask("GET", portPath);
    EXPECT_EQ(answer.status, 200u);
    EXPECT_EQ(response(answer)["ResponseURL"], portPath);
    EXPECT_EQ(response(answer)["ResponseCode"], 0);
    EXPECT_TRUE(response(answer)["Data"].isMember("RTSPPort"));
}

TEST_F(LapiServiceTest, answersUnknownPathsWith599)
{
    for (const char* path : {"/LAPI/V1.0/Network/Ports", "/LAPI/V1.0/Network/port", "/", "/LAPI/V1.0/Unknown"}) {
        SCOPED_TRACE(path);
        const HttpAnswer answer = ask("GET", path);
        EXPECT_EQ(answer.status, 599u);
        EXPECT_EQ(response(answer)["ResponseCode"], 1);
    }
    EXPECT_EQ(ask("POST", portPath).status, 599u);
}

TEST_F(LapiServiceTest, ignoresTheQueryWhenRouting)
{
    EXPECT_EQ(ask("GET", std::string(informationPath) + "?_=1").status, 200u);
}

TEST_F(PluralPortsTest, findsThePortsUnderTheOtherPath)
{
    EXPECT_EQ(ask("GET", portPath).status, 599u);
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/Network/Ports").status, 200u);
}

TEST_F(LapiServiceTest, misbehavesAsTold)
{
    using Manner = HttpAnswer::Manner;
    const struct {
        const char* fault;
        Manner manner;
        unsigned status;
    } cases[] = {
        {"hang", Manner::silent, 200},        {"close", Manner::closed, 200},
        {"garbage", Manner::garbage, 200},    {"status:503", Manner::whole, 503},
        {"truncate", Manner::truncated, 200}, {"truncate:404", Manner::truncated, 404},
        {"drip:5", Manner::dripped, 200},     {"slow:5", Manner::whole, 200},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        faults.clear();
        inject(c.fault);
        const HttpAnswer answer = ask("GET", portPath);
        EXPECT_EQ(answer.manner, c.manner);
        EXPECT_EQ(answer.status, c.status);
    }
    faults.clear();
    inject("slow:250");
    EXPECT_EQ(ask("GET", portPath).delay, std::chrono::milliseconds(250));
}

TEST_F(LapiServiceTest, spoilsBodiesAsTold)
{
    inject("brokenjson@Port");
    EXPECT_FALSE(parseJson(ask("GET", portPath).body));
    EXPECT_FALSE(ask("GET", portPath).body.empty());
    EXPECT_TRUE(parseJson(ask("GET", informationPath).body)) << "the pattern names another path";

    faults.clear();
    inject("emptybody");
    EXPECT_EQ(ask("GET", portPath).body, "");

    faults.clear();
    inject("nodata");
    EXPECT_FALSE(response(ask("GET", portPath)).isMember("Data"));

    faults.clear();
    inject("emptydata");
    EXPECT_EQ(response(ask("GET", portPath))["Data"], Json::Value(Json::objectValue));

    faults.clear();
    inject("apierror:7");
    EXPECT_EQ(response(ask("GET", portPath))["ResponseCode"], 7);
    EXPECT_EQ(ask("GET", portPath).status, 200u);
}

TEST_F(LapiServiceTest, recordsWhatItAnswered)
{
    inject("status:503@DeviceInfo");
    ask("GET", portPath);
    ask("GET", informationPath);
    inject("hang");
    ask("PUT", portPath, "body");
    const Json::Value counters = activity.counters();
    EXPECT_EQ(counters["requests"][std::string("GET ") + portPath].asInt(), 1);
    EXPECT_EQ(counters["statuses"]["503"].asInt(), 1);
    EXPECT_EQ(counters["statuses"]["0"].asInt(), 1) << "a request left without an answer has no status";
    const Json::Value log = activity.requests();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[1]["remark"], "status:503@DeviceInfo");
    EXPECT_EQ(log[2]["body"], "body");
}

TEST(LapiServiceAuthentication, refusesBeforeAnyResourceIsSeen)
{
    Options options;
    DeviceState device{options};
    Router router;
    addLapiResources(router, device, false);
    Authenticator authenticator({.user = "admin", .password = "secret", .realm = "r", .basic = true}, randomNonce);
    FaultTable faults;
    Activity activity;
    LapiService service(router, authenticator, faults, activity);

    const auto now = Authenticator::Clock::now();
    const HttpAnswer refused = service.answer({.method = "GET", .target = "/unknown"}, now);
    EXPECT_EQ(refused.status, 401u);
    ASSERT_EQ(refused.challenges.size(), 2u);
    EXPECT_EQ(refused.challenges[0].rfind("Digest ", 0), 0u);
    EXPECT_EQ(refused.challenges[1].rfind("Basic ", 0), 0u);

    const std::string credentials = "Basic YWRtaW46c2VjcmV0";
    EXPECT_EQ(service.answer({.method = "GET", .target = portPath, .authorization = credentials}, now).status, 200u);
    EXPECT_EQ(activity.requests()[1]["scheme"], "Basic") << "the log holds the scheme, never the credentials";
}

TEST(Administration, answersPlainJson)
{
    Router router;
    router.add("GET", "/simulator/x", [](const Call&) { return Reply{.data = 5}; });
    router.add("POST", "/simulator/x", [](const Call&) { return Reply{.status = 400, .code = 1, .text = "why"}; });
    EXPECT_EQ(answerAdministration(router, {.method = "GET", .target = "/simulator/x"}).body, "5\n");
    const HttpAnswer bad = answerAdministration(router, {.method = "POST", .target = "/simulator/x"});
    EXPECT_EQ(bad.status, 400u);
    EXPECT_EQ((*parseJson(bad.body))["error"], "why");
    EXPECT_EQ(answerAdministration(router, {.method = "GET", .target = "/simulator/y"}).status, 404u);
}

}  // namespace
}  // namespace simulator

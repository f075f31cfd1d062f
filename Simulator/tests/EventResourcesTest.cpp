#include <utility>  // ahead of Asio, which forgets it

#include "EventResources.h"

#include "LapiEnvelope.h"

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

namespace simulator
{
namespace
{

constexpr const char* subscriptionPath = "/LAPI/V1.0/System/Event/Subscription";
constexpr const char* manualAlarmPath = "/LAPI/V1.0/IO/OutputSwitches/ManualAlarm";

/// A body as clients write it, blanks included. Nobody listens at the discard port, which does not matter here.
constexpr const char* subscriptionBody = R"({"AddressType": 0,"IPAddress" : "127.0.0.1","Port" : 9,"Duration" : 60})";

/// The resources without a socket: the I/O context is never run.
class EventResourcesTest : public testing::Test {
protected:
    EventResourcesTest()
    {
        events.setHttpPort(8080);
        addEventResources(router, events, io);
        addEventAdministration(router, events, io);
    }

    Reply ask(const std::string& method, const std::string& path, const std::string& body = {})
    {
        auto match = router.find(method, path);
        if (match.handler == nullptr) {
            ADD_FAILURE() << method << ' ' << path;
            return {};
        }
        return (*match.handler)({.method = method,
                                 .path = path,
                                 .query = {},
                                 .captures = match.captures,
                                 .body = body,
                                 .deviceAddress = "127.0.0.3"});
    }

    Json::Value state() { return events.state(); }

    boost::asio::io_context context;
    IoState io{4, 2};
    DeviceEvents events{context, io, std::nullopt};
    Router router;
};

TEST_F(EventResourcesTest, subscribesWithAnIdentifierThatIsText)
{
    const Reply first = ask("POST", subscriptionPath, subscriptionBody);
    EXPECT_EQ(first.status, 200u);
    EXPECT_EQ(first.code, 0);
    EXPECT_EQ(first.data["ID"], "1");
    EXPECT_EQ(first.data["Reference"], "127.0.0.3:8080/Subscription/Subscribers/1");
    EXPECT_EQ(first.data["Duration"], 60);
    EXPECT_EQ(ask("POST", subscriptionPath, subscriptionBody).data["ID"], "2");
    EXPECT_EQ(state()["subscriptions"].size(), 2u);
    EXPECT_EQ(state()["subscriptions"][0]["deviceAddress"], "127.0.0.3");
}

TEST_F(EventResourcesTest, renewsAndCancels)
{
    ask("POST", subscriptionPath, subscriptionBody);
    const std::string one = std::string(subscriptionPath) + "/1";
    const Reply renewed = ask("PUT", one, R"({"Duration" : 6000})");
    EXPECT_EQ(renewed.code, 0);
    EXPECT_EQ(renewed.data["Duration"], 6000);
    EXPECT_GT(state()["subscriptions"][0]["remainingMs"], 5'000'000);
    EXPECT_EQ(ask("DELETE", one).code, 0);
    EXPECT_EQ(state()["subscriptions"].size(), 0u);
    EXPECT_EQ(state()["counters"]["subscribed"], 1u);
    EXPECT_EQ(state()["counters"]["renewed"], 1u);
    EXPECT_EQ(state()["counters"]["cancelled"], 1u);
}

TEST_F(EventResourcesTest, knowsAnIdentifierOnlyWhileItLives)
{
    ask("POST", subscriptionPath, subscriptionBody);
    ask("DELETE", "/simulator/subscriptions");
    for (const char* id : {"/1", "/0", "/7", "/x"}) {
        SCOPED_TRACE(id);
        for (const Reply& reply : {ask("PUT", subscriptionPath + std::string(id), R"({"Duration" : 60})"),
                                   ask("DELETE", subscriptionPath + std::string(id))}) {
            EXPECT_EQ(reply.status, 599u);
            EXPECT_EQ(reply.code, 1);
        }
    }
}

TEST_F(EventResourcesTest, refusesWrongBodiesOfSubscriptions)
{
    for (const char* body : {"", "[]", "{}", R"({"AddressType": 0,"IPAddress" : "","Port" : 9,"Duration" : 60})"}) {
        SCOPED_TRACE(body);
        EXPECT_EQ(ask("POST", subscriptionPath, body).status, 400u);
        EXPECT_EQ(ask("POST", subscriptionPath, body).code, 2);
    }
    EXPECT_EQ(state()["subscriptions"].size(), 0u);
    ask("POST", subscriptionPath, subscriptionBody);
    EXPECT_EQ(ask("PUT", std::string(subscriptionPath) + "/1", R"({"Duration" : 0})").status, 400u);
}

TEST_F(EventResourcesTest, hasRoomForSoManySubscriptions)
{
    for (std::size_t i = 0; i < Subscriptions::most; ++i)
        EXPECT_EQ(ask("POST", subscriptionPath, subscriptionBody).code, 0);
    const Reply refused = ask("POST", subscriptionPath, subscriptionBody);
    EXPECT_EQ(refused.status, 200u);
    EXPECT_NE(refused.code, 0);
    EXPECT_FALSE(refused.data.isMember("ID"));
}

TEST_F(EventResourcesTest, switchesRelays)
{
    EXPECT_EQ(ask("PUT", manualAlarmPath, R"({"Num":1,"IDs":[2],"AlarmAction":1})").code, 0);
    EXPECT_EQ(compactPrint(state()["relays"]), "[false,true]");
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/IO/OutputSwitches/BasicInfos").data["BasicInfos"][1]["Status"], 1);
    const Reply refused = ask("PUT", manualAlarmPath, R"({"Num":1,"IDs":[3],"AlarmAction":1})");
    EXPECT_EQ(refused.status, 200u);
    EXPECT_EQ(refused.code, 2);
    EXPECT_EQ(compactPrint(state()["relays"]), "[false,true]");
}

TEST_F(EventResourcesTest, changesInputsWhoeverListens)
{
    EXPECT_EQ(ask("POST", "/simulator/inputs/3", R"({"state": true})").data["subscribers"], 0u);
    EXPECT_EQ(compactPrint(state()["inputs"]), "[false,false,false,true]");
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/IO/InputSwitches/BasicInfos").data["BasicInfos"][3]["Status"], 1);
    ask("POST", subscriptionPath, subscriptionBody);
    EXPECT_EQ(ask("POST", "/simulator/inputs/3", R"({"state": false})").data["subscribers"], 1u);
    EXPECT_EQ(compactPrint(state()["inputs"]), "[false,false,false,false]");
}

TEST_F(EventResourcesTest, saysWhatTheAdministrationDoesNotUnderstand)
{
    const struct {
        const char* path;
        const char* body;
        const char* part;
    } cases[] = {
        {"/simulator/events", "", "no JSON"},
        {"/simulator/events", "{}", "one of"},
        {"/simulator/events", R"([{"type": "x"}, {"form": "y"}])", "[1]: there is no \"form\" 'y'"},
        {"/simulator/inputs/4", R"({"state": true})", "no input '4'"},
        {"/simulator/inputs/-1", R"({"state": true})", "no input '-1'"},
        {"/simulator/inputs/x", R"({"state": true})", "no input 'x'"},
        {"/simulator/inputs/0", "", "no JSON"},
        {"/simulator/inputs/0", "[]", "no JSON object"},
        {"/simulator/inputs/0", "{}", "\"state\" is missing"},
        {"/simulator/inputs/0", R"({"state": 1})", "neither true nor false"},
        {"/simulator/inputs/0", R"({"state": true, "now": 1})", "no member \"now\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.path) + ' ' + c.body);
        const Reply reply = ask("POST", c.path, c.body);
        EXPECT_EQ(reply.status, 400u);
        EXPECT_NE(reply.text.find(c.part), std::string::npos) << reply.text;
    }
    EXPECT_EQ(compactPrint(state()["inputs"]), "[false,false,false,false]");
}

}  // namespace
}  // namespace simulator

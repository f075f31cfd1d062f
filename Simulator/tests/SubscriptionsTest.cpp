#include "Subscriptions.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using namespace std::chrono_literals;

using Clock = Subscriptions::Clock;

constexpr Clock::time_point start{1000h};

SubscriptionRequest request(std::chrono::seconds duration = 60s)
{
    return {"192.0.2.1", 32000, duration};
}

TEST(SubscriptionRequest, isReadWithTheBlanksOfItsClients)
{
    const auto result =
        parseSubscription(R"({"AddressType": 0,"IPAddress" : "2001:db8::1","Port" : 32000,"Duration" : 60})");
    const auto* const read = std::get_if<SubscriptionRequest>(&result);
    ASSERT_NE(read, nullptr) << std::get<std::string>(result);
    EXPECT_EQ(read->address, "2001:db8::1");
    EXPECT_EQ(read->port, 32000);
    EXPECT_EQ(read->duration, 60s);
}

TEST(SubscriptionRequest, saysWhatIsWrongWithIt)
{
    const struct {
        const char* body;
        const char* part;
    } cases[] = {
        {"", "no JSON"},
        {"x", "no JSON"},
        {"[]", "no JSON object"},
        {"3", "no JSON object"},
        {"null", "no JSON object"},
        {"{}", "\"AddressType\" is missing"},
        {R"({"AddressType": 0, "Port": 1, "Duration": 60})", "\"IPAddress\" is missing"},
        {R"({"AddressType": 7, "IPAddress": "192.0.2.1", "Port": 1, "Duration": 60})", "\"AddressType\""},
        {R"({"AddressType": 0, "IPAddress": 7, "Port": 1, "Duration": 60})", "\"IPAddress\" is no text"},
        {R"({"AddressType": 0, "IPAddress": "", "Port": 1, "Duration": 60})", "\"IPAddress\" is no address"},
        {R"({"AddressType": 0, "IPAddress": "0.0.0.0", "Port": 1, "Duration": 60})", "\"IPAddress\" is no address"},
        {R"({"AddressType": 0, "IPAddress": "224.0.0.1", "Port": 1, "Duration": 60})", "\"IPAddress\" is no address"},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": 0, "Duration": 60})", "\"Port\""},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": 65536, "Duration": 60})", "\"Port\""},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": "1", "Duration": 60})", "\"Port\""},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": 1.5, "Duration": 60})", "\"Port\""},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": 1, "Duration": 0})", "\"Duration\""},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": 1, "Duration": -1})", "\"Duration\""},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": 1, "Duration": 1e30})", "\"Duration\""},
        {R"({"AddressType": 0, "IPAddress": "192.0.2.1", "Port": 1, "Duration": []})", "\"Duration\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        const auto result = parseSubscription(c.body);
        const auto* const why = std::get_if<std::string>(&result);
        ASSERT_NE(why, nullptr);
        EXPECT_NE(why->find(c.part), std::string::npos) << *why;
    }
}

TEST(SubscriptionRenewal, isADuration)
{
    EXPECT_EQ(std::get<std::chrono::seconds>(parseRenewal(R"({"Duration" : 60})")), 60s);
    for (const char* body : {"", "[]", "{}", R"({"Duration": "60"})", R"({"Duration": 0})", R"({"Duration": 86401})"})
        EXPECT_TRUE(std::holds_alternative<std::string>(parseRenewal(body))) << body;
}

TEST(Subscriptions, haveSmallNumbersThatAreNotUsedAgain)
{
    Subscriptions subscriptions;
    EXPECT_EQ(subscriptions.add(request(), "192.0.2.9", start)->id, 1u);
    EXPECT_EQ(subscriptions.add(request(), "192.0.2.9", start)->id, 2u) << "a receiver may have several";
    EXPECT_EQ(subscriptions.cancel("2", start), 2u);
    EXPECT_EQ(subscriptions.add(request(), "192.0.2.9", start)->id, 3u);
    ASSERT_EQ(subscriptions.list().size(), 2u);
    EXPECT_EQ(subscriptions.list()[1].id, 3u);
    EXPECT_EQ(subscriptions.list()[1].deviceAddress, "192.0.2.9");
}

TEST(Subscriptions, endWhenTheirTimeIsOver)
{
    Subscriptions subscriptions;
    subscriptions.add(request(60s), "", start);
    subscriptions.add(request(30s), "", start);
    EXPECT_EQ(subscriptions.nextEnd(), start + 30s);
    EXPECT_TRUE(subscriptions.expire(start + 29s).empty());
    EXPECT_EQ(subscriptions.expire(start + 30s), std::vector<unsigned>{2});
    EXPECT_EQ(subscriptions.nextEnd(), start + 60s);
    EXPECT_EQ(subscriptions.counters()["expired"], 1u);
    EXPECT_EQ(subscriptions.expire(start + 60s), std::vector<unsigned>{1});
    EXPECT_FALSE(subscriptions.nextEnd());
    EXPECT_TRUE(subscriptions.empty());
}

TEST(Subscriptions, liveOnWhenRenewed)
{
    Subscriptions subscriptions;
    subscriptions.add(request(60s), "", start);
    EXPECT_TRUE(subscriptions.renew("1", 60s, start + 50s));
    EXPECT_TRUE(subscriptions.expire(start + 109s).empty());
    EXPECT_EQ(subscriptions.expire(start + 110s).size(), 1u);
    EXPECT_EQ(subscriptions.counters()["renewed"], 1u);
}

TEST(Subscriptions, thatAreUnknownOrOverAreNeitherRenewedNorCancelled)
{
    Subscriptions subscriptions;
    subscriptions.add(request(60s), "", start);
    for (const char* id : {"0", "2", "", "01", "1 ", "+1", "x", "4294967297"}) {
        EXPECT_FALSE(subscriptions.renew(id, 60s, start)) << id;
        EXPECT_FALSE(subscriptions.cancel(id, start)) << id;
    }
    EXPECT_FALSE(subscriptions.renew("1", 60s, start + 60s)) << "over, though nobody has looked yet";
    EXPECT_FALSE(subscriptions.cancel("1", start + 60s));
    EXPECT_EQ(subscriptions.counters()["renewed"], 0u);
    EXPECT_EQ(subscriptions.counters()["cancelled"], 0u);
}

TEST(Subscriptions, areLimitedInNumber)
{
    Subscriptions subscriptions;
    for (std::size_t i = 0; i < Subscriptions::most; ++i)
        EXPECT_TRUE(subscriptions.add(request(), "", start));
    EXPECT_FALSE(subscriptions.add(request(), "", start));
    subscriptions.cancel("1", start);
    EXPECT_TRUE(subscriptions.add(request(), "", start));
}

TEST(Subscriptions, countWhatBecameOfNotifications)
{
    Subscriptions subscriptions;
    subscriptions.add(request(), "192.0.2.9", start);
    subscriptions.countPush(1, true);
    subscriptions.countPush(1, false);
    subscriptions.countPush(7, true);  // has ended meanwhile
    const Json::Value listing = subscriptions.listing(start + 10s);
    ASSERT_EQ(listing.size(), 1u);
    EXPECT_EQ(listing[0]["id"], "1");
    EXPECT_EQ(listing[0]["address"], "192.0.2.1");
    EXPECT_EQ(listing[0]["port"], 32000);
    EXPECT_EQ(listing[0]["deviceAddress"], "192.0.2.9");
    EXPECT_EQ(listing[0]["remainingMs"], 50'000);
    EXPECT_EQ(listing[0]["delivered"], 1u);
    EXPECT_EQ(listing[0]["failed"], 1u);
    EXPECT_EQ(subscriptions.counters()["delivered"], 2u);
    EXPECT_EQ(subscriptions.counters()["failed"], 1u);
    subscriptions.clearCounters();
    EXPECT_EQ(subscriptions.counters()["delivered"], 0u);
}

}  // namespace
}  // namespace simulator

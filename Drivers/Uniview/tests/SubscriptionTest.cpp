#include "Subscription.h"

#include "Lapi.h"

#include <gtest/gtest.h>
#include <locale>
#include <string>

namespace
{
using namespace Uniview;
using namespace std::chrono_literals;

Json::Value parsed(const std::string& text)
{
    Json::Value document;
    std::string error;
    EXPECT_TRUE(lapi::parseJson(text, document, error)) << error;
    return document;
}

TEST(Subscription, bodiesAreTextsOfTheirOwn)
{
    EXPECT_EQ(subscription::subscribeBody("192.0.2.7", 32000),
              R"({"AddressType": 0,"IPAddress" : "192.0.2.7","Port" : 32000,"Duration" : 60})");
    EXPECT_EQ(subscription::subscribeBody("", 0), R"({"AddressType": 0,"IPAddress" : "","Port" : 0,"Duration" : 60})");
    EXPECT_EQ(subscription::renewBody(), R"({"Duration" : 60})");
}

TEST(Subscription, theTypeOfAnIpv6AddressIsZeroToo)
{
    EXPECT_EQ(subscription::subscribeBody("2001:db8::1", 1),
              R"({"AddressType": 0,"IPAddress" : "2001:db8::1","Port" : 1,"Duration" : 60})");
}

/// What a host may have set: numbers with groups.
class Grouping final : public std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(Subscription, theHostsLocaleChangesNoNumber)
{
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new Grouping));
    const std::string body = subscription::subscribeBody("192.0.2.7", 32000);
    std::locale::global(before);
    EXPECT_NE(body.find(": 32000,"), std::string::npos) << body;
}

TEST(Subscription, pathOfASubscriptionEndsWithItsId)
{
    EXPECT_EQ(subscription::pathOf("0"), "/LAPI/V1.0/System/Event/Subscription/0");
}

TEST(Subscription, onlyATextIsAnId)
{
    const struct {
        const char* reply;
        const char* id;  // null: none
    } cases[] = {
        {R"({"Response":{"Data":{"ID":"5"}}})", "5"},
        {R"({"Response":{"Data":{"ID":""}}})", ""},
        {R"({"Response":{"ResponseCode":1,"Data":{"ID":"7"}}})", "7"},
        {R"({"Response":{"Data":{"ID":5}}})", nullptr},
        {R"({"Response":{"Data":{"ID":null}}})", nullptr},
        {R"({"Response":{"Data":{}}})", nullptr},
        {R"({"Response":{"Data":["ID"]}})", nullptr},
        {R"({"Response":{"Data":"ID"}})", nullptr},
        {R"({"Response":{}})", nullptr},
        {R"({"Response":[]})", nullptr},
        {R"({"Response":7})", nullptr},
        {R"([{"Response":{"Data":{"ID":"5"}}}])", nullptr},
        {"17", nullptr},
        {"null", nullptr},
        {"\"Response\"", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        const auto id = subscription::idOf(parsed(c.reply));
        ASSERT_EQ(id.has_value(), c.id != nullptr);
        EXPECT_EQ(id.value_or(""), c.id == nullptr ? "" : c.id);
    }
}

TEST(RepeatPace, repeatsAtOnceAndThenEverLater)
{
    subscription::RepeatPace pace(100ms, 10s);
    for (const auto expected : {0ms, 100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 6400ms, 10000ms, 10000ms})
        EXPECT_EQ(pace.next(), expected);
}

TEST(RepeatPace, beginsAgainAfterASuccess)
{
    subscription::RepeatPace pace(100ms, 10s);
    for (int i = 0; i < 5; ++i)
        pace.next();
    pace.reset();
    EXPECT_EQ(pace.next(), 0ms);
    EXPECT_EQ(pace.next(), 100ms);
}
}  // namespace

#include <utility>

#include "server/ClientAddress.h"

#include <gtest/gtest.h>

namespace Tavro8::server
{
TEST(ClientAddress, isTheSameInAllNotations)
{
    const struct {
        const char* left;
        const char* right;
    } cases[] = {
        {"192.0.2.7", "::ffff:192.0.2.7"}, {"192.0.2.7", "::FFFF:c000:207"}, {"2001:db8::1", "2001:0DB8:0::0001"},
        {"[2001:db8::1]", "2001:db8::1"},  {"fe80::1%1", "fe80::1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.left);
        const auto left = ClientAddress::parse(c.left);
        const auto right = ClientAddress::parse(c.right);
        ASSERT_TRUE(left && right);
        EXPECT_EQ(*left, *right);
        EXPECT_EQ(ClientAddress::Hash{}(*left), ClientAddress::Hash{}(*right));
    }
}

TEST(ClientAddress, tellsAddressesApart)
{
    EXPECT_NE(*ClientAddress::parse("192.0.2.7"), *ClientAddress::parse("192.0.2.8"));
    EXPECT_NE(*ClientAddress::parse("192.0.2.7"), *ClientAddress::parse("::192.0.2.7"));
}

TEST(ClientAddress, writesMappedAddressesAsIpv4)
{
    EXPECT_EQ(ClientAddress::parse("::ffff:192.0.2.7")->toText(), "192.0.2.7");
    EXPECT_EQ(ClientAddress::parse("2001:DB8::1")->toText(), "2001:db8::1");
}

TEST(ClientAddress, refusesOtherTexts)
{
    for (const char* text : {"", "camera", "192.0.2", "192.0.2.7:80", "[]", "[192.0.2.7", "::g", "256.0.0.1"})
        EXPECT_FALSE(ClientAddress::parse(text)) << text;
}
}  // namespace Tavro8::server

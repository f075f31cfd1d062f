#include <utility>

#include "LocalAddress.h"
#include "LocalServerSettings.h"

#include "ScriptedHttpPeer.h"

#include <gtest/gtest.h>
#include <string>

namespace
{
using namespace Uniview;
using namespace std::chrono_literals;
using kelvo::test::ScriptedHttpPeer;
using Tavro8::Utility::ParametersContainer;

boost::any text(const char* value)
{
    return std::string(value);
}

TEST(LocalServerSettings, portsAreIntegersOrDigits)
{
    EXPECT_EQ(portOf(32000), 32000);
    EXPECT_EQ(portOf(text("32000")), 32000);
    EXPECT_EQ(portOf(text("0")), 0);
    EXPECT_EQ(portOf(65535), 65535);
    for (const boost::any& wrong :
         {boost::any(-1), boost::any(65536), boost::any(3.5), text("65536"), text("http"), text("80x"), text(" 80"),
          text("-1"), text("000080"), text(""), boost::any(), boost::any(true)})
        EXPECT_FALSE(portOf(wrong));
}

TEST(LocalServerSettings, addressesAreThoseOfIp)
{
    EXPECT_EQ(addressOf(text("192.0.2.7")), "192.0.2.7");
    EXPECT_EQ(addressOf(text("2001:db8::1")), "2001:db8::1");
    EXPECT_EQ(addressOf(text("fe80::1%eth0")), "fe80::1");
    EXPECT_EQ(addressOf(text("fe80::1%1\",\"x\":\"")), "fe80::1");
    for (const boost::any& wrong :
         {text("host"), text("192.0.2"), text("192.0.2.7\""), text("1.2.3.4\",\"x\":\""), text("192.0.2.7 "), text(""),
          boost::any(7), boost::any(std::string("192.0.2.7\0\"", 11)), text("%eth0"), text("192.0.2.7:80")})
        EXPECT_FALSE(addressOf(wrong));
}

TEST(LocalServerSettings, nothingAndAnEmptyTextAreUnset)
{
    EXPECT_TRUE(isUnset({}));
    EXPECT_TRUE(isUnset(text("")));
    EXPECT_FALSE(isUnset(text("0")));
    EXPECT_FALSE(isUnset(0));
}

TEST(LocalServerSettings, thePortIsTheSetOneElseTheDefaultElseOurs)
{
    ParametersContainer parameters;
    EXPECT_EQ(localServerPortOf(parameters), 32000);
    parameters.setDefaultValue("localServerPort", 32500);
    EXPECT_EQ(localServerPortOf(parameters), 32500);
    parameters.setPersistentParam("localServerPort", 32600);
    EXPECT_EQ(localServerPortOf(parameters), 32600);
    parameters.setPersistentParam("localServerPort", 65536 + 80);
    EXPECT_EQ(localServerPortOf(parameters), 80);  // the low 16 bits
    parameters.setPersistentParam("localServerPort", std::string("32000"));
    EXPECT_THROW(localServerPortOf(parameters), boost::bad_any_cast);
}

TEST(LocalAddress, isOursOnTheWayToTheDevice)
{
    const ScriptedHttpPeer peer;
    EXPECT_EQ(detectLocalAddress("127.0.0.1", peer.port(), 10s), "127.0.0.1");
}

TEST(LocalAddress, isThatOfIpv6OnTheWayToAnIpv6Device)
{
    const ScriptedHttpPeer peer("::1");
    EXPECT_EQ(detectLocalAddress("::1", peer.port(), 10s), "::1");
    EXPECT_FALSE(detectLocalAddress("127.0.0.1", peer.port(), 10s));
}

TEST(LocalAddress, hasNoZoneForTheDevice)
{
    EXPECT_EQ(withoutZone("fe80::1%eth0"), "fe80::1");
    EXPECT_EQ(withoutZone("2001:db8::1"), "2001:db8::1");
    EXPECT_EQ(withoutZone("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(withoutZone(""), "");
}

TEST(LocalAddress, isNoneWhenTheDeviceCannotBeReached)
{
    std::uint16_t closed = 0;
    {
        const ScriptedHttpPeer gone;
        closed = gone.port();
    }
    EXPECT_FALSE(detectLocalAddress("127.0.0.1", closed, 10s));
    EXPECT_FALSE(detectLocalAddress("", closed, 10s));
    EXPECT_FALSE(detectLocalAddress("no address", closed, 10s));
}

TEST(LocalAddress, isGivenUpWhenItTakesTooLong)
{
    const ScriptedHttpPeer peer;
    EXPECT_FALSE(detectLocalAddress("127.0.0.1", peer.port(), 0ms));
}

TEST(LocalAddress, ofADeviceIsItsAddressOrWhatItsNameStandsFor)
{
    const ScriptedHttpPeer peer;
    EXPECT_EQ(resolveAddress("192.0.2.7", 80, 1s), "192.0.2.7");
    EXPECT_EQ(resolveAddress("2001:DB8::1", 80, 1s), "2001:db8::1");
    EXPECT_EQ(resolveAddress("localhost", peer.port(), 10s), "127.0.0.1");  // also where it is ::1 first
    EXPECT_EQ(resolveAddress("no such name", 80, 1s), "");
}
}  // namespace

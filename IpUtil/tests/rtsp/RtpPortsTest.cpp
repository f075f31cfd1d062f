#include <utility>

#include "rtsp/RtpPorts.h"

#include "Harness.h"
#include "UdpEnd.h"

#include <boost/asio/buffer.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using boost::asio::ip::address;
using boost::asio::ip::make_address;
using boost::asio::ip::udp;
using testing::ElementsAre;

struct Taker final : RtpPorts::Events {
    void onRtpDatagram(std::size_t track, wire::ByteView bytes, const media::ArrivalTime&) override
    {
        EXPECT_EQ(track, 3U);
        rtp.emplace_back(bytes.begin(), bytes.end());
        if (eachDatagram)
            eachDatagram();
    }
    void onRtcpDatagram(std::size_t, wire::ByteView bytes, const media::ArrivalTime&) override
    {
        rtcp.emplace_back(bytes.begin(), bytes.end());
    }
    void onTruncatedDatagram(std::size_t) override { FAIL() << "no datagram is longer than the room for it"; }
    void onPortsBroken(const error_code&, const std::string& reason) override { FAIL() << reason; }
    std::shared_ptr<void> keepAlive() override { return nullptr; }

    std::vector<Bytes> rtp, rtcp;
    std::function<void()> eachDatagram;
};

class RtpPortsTest : public ::testing::Test {
protected:
    RtpPortsTest()
    {
        error_code ec;
        ports = RtpPorts::open(*loop.io, StreamContext::of(*loop.io), make_address("127.0.0.1"), ec);
        EXPECT_NE(ports, nullptr) << ec.message();
        device.acceptSilently("client_port=" + std::to_string(ports->numbers().rtp) + '-' +
                              std::to_string(ports->numbers().rtcp));
        other.acceptSilently("client_port=" + std::to_string(ports->numbers().rtp) + '-' +
                             std::to_string(ports->numbers().rtcp));
    }
    ~RtpPortsTest() override { ports->close(); }

    Loop loop;
    Taker taker;
    UdpEnd device;
    UdpEnd other{"127.0.0.2"};
    std::shared_ptr<RtpPorts> ports;
};

TEST_F(RtpPortsTest, areNeighboursAndTheFirstIsEven)
{
    EXPECT_EQ(ports->numbers().rtp % 2, 0);
    EXPECT_EQ(ports->numbers().rtcp, ports->numbers().rtp + 1);
}

TEST_F(RtpPortsTest, takeDatagramsOfTheDeviceAlone)
{
    ports->start(taker, 3, {make_address("127.0.0.1"), "", {}});
    other.sendRtp(Bytes{6, 6, 6});
    device.sendRtp(Bytes{1, 2, 3});
    ASSERT_TRUE(loop.runUntil([&] { return !taker.rtp.empty(); }));
    EXPECT_THAT(taker.rtp, ElementsAre(Bytes{1, 2, 3}));
    EXPECT_EQ(ports->rtpDatagrams(), 1U);
    EXPECT_EQ(ports->strayDatagrams(), 1U);
}

TEST_F(RtpPortsTest, takeDatagramsOfTheSourceThatTheDeviceNames)
{
    ports->start(taker, 3, {make_address("127.0.0.1"), "127.0.0.2", {}});
    other.sendRtp(Bytes{7});
    device.sendRtp(Bytes{8});  // some name an address that they do not send from
    ASSERT_TRUE(loop.runUntil([&] { return taker.rtp.size() == 2; }));
    EXPECT_EQ(ports->strayDatagrams(), 0U);
}

TEST_F(RtpPortsTest, takeALongBurst)
{
    constexpr std::size_t count = 150;  // more than one turn reads
    ports->start(taker, 3, {make_address("127.0.0.1"), "", {}});
    for (std::size_t i = 0; i < count; ++i)
        device.sendRtp(Bytes{static_cast<std::uint8_t>(i)});
    ASSERT_TRUE(loop.runUntil([&] { return taker.rtp.size() == count; }));
    for (std::size_t i = 0; i < count; ++i)
        EXPECT_EQ(taker.rtp[i][0], i);
}

TEST_F(RtpPortsTest, mayBeClosedInsideADatagram)
{
    ports->start(taker, 3, {make_address("127.0.0.1"), "", {}});
    taker.eachDatagram = [&] { ports->close(); };
    device.sendRtp(Bytes{1});
    device.sendRtp(Bytes{2});
    ASSERT_TRUE(loop.runUntil([&] { return !taker.rtp.empty(); }));
    loop.io->restart();
    loop.io->run();  // until nothing is left
    EXPECT_EQ(taker.rtp.size(), 1U);
}

TEST_F(RtpPortsTest, giveTheirNumbersBack)
{
    ports->start(taker, 3, {make_address("127.0.0.1"), "", {}});
    const std::uint16_t number = ports->numbers().rtp;
    ports->close();
    EXPECT_NO_THROW(udp::socket(*loop.io, udp::endpoint(make_address("127.0.0.1"), number)));
}

TEST_F(RtpPortsTest, openTheWayAndReportToThePortsThatTheDeviceNames)
{
    const std::string answer = device.accept("client_port=" + std::to_string(ports->numbers().rtp) + "-1");
    ports->start(taker, 3, {make_address("127.0.0.1"), "", wire::parseTransport(answer)->serverPort});
    ports->openWay(Bytes{0x80, 201});
    ports->sendRtcp(Bytes{0x81, 201});
    ASSERT_TRUE(loop.runUntil([&] {
        const auto rtcp = device.takeRtcp();
        taker.rtcp.insert(taker.rtcp.end(), rtcp.begin(), rtcp.end());
        return taker.rtcp.size() == 2;
    }));
    EXPECT_THAT(taker.rtcp, ElementsAre(Bytes{0x80, 201}, Bytes{0x81, 201}));
    const auto rtp = device.takeRtp();
    ASSERT_EQ(rtp.size(), 1U);
    EXPECT_EQ(rtp[0].size(), 12U);
    EXPECT_EQ(rtp[0][0], 0x80);
}

TEST_F(RtpPortsTest, reportToWhereTheDevicesReportsComeFromWhenItNamesNoPorts)
{
    ports->start(taker, 3, {make_address("127.0.0.1"), "", {}});
    ports->openWay(Bytes{1});
    ports->sendRtcp(Bytes{2});
    EXPECT_TRUE(device.takeRtcp().empty());
    device.sendRtcp(Bytes{0x80, 200, 0, 0});
    ASSERT_TRUE(loop.runUntil([&] { return taker.rtcp.size() == 1; }));
    ports->sendRtcp(Bytes{3});
    std::vector<Bytes> got;
    ASSERT_TRUE(loop.runUntil([&] { return !(got = device.takeRtcp()).empty(); }));
    EXPECT_THAT(got, ElementsAre(Bytes{3}));
}

TEST_F(RtpPortsTest, sendNothingToAnotherSourceBeforeItHasSent)
{
    const std::string answer = other.accept("client_port=" + std::to_string(ports->numbers().rtp) + '-' +
                                            std::to_string(ports->numbers().rtcp));
    ports->start(taker, 3, {make_address("127.0.0.1"), "127.0.0.2", wire::parseTransport(answer)->serverPort});
    ports->openWay(Bytes{1});
    ports->sendRtcp(Bytes{2});
    other.sendRtp(Bytes{7});
    ASSERT_TRUE(loop.runUntil([&] { return taker.rtp.size() == 1; }));
    ports->sendRtcp(Bytes{3});
    std::vector<Bytes> got;
    ASSERT_TRUE(loop.runUntil([&] { return !(got = other.takeRtcp()).empty(); }));
    EXPECT_THAT(got, ElementsAre(Bytes{3}));
    EXPECT_TRUE(other.takeRtp().empty());
}

TEST(RtpPorts, areOfTheFamilyOfTheConnection)
{
    Loop loop;
    error_code ec;
    const address local = make_address("::1");
    const auto ports = RtpPorts::open(*loop.io, StreamContext::of(*loop.io), local, ec);
    if (ports == nullptr)
        GTEST_SKIP() << "this machine has no IPv6: " << ec.message();
    Taker taker;
    ports->start(taker, 3, {local, "", {}});
    udp::socket device(*loop.io, udp::endpoint(local, 0));
    device.send_to(boost::asio::buffer(Bytes{5}), udp::endpoint(local, ports->numbers().rtp));
    EXPECT_TRUE(loop.runUntil([&] { return taker.rtp.size() == 1; }));
    ports->close();
}

TEST(RtpPorts, areNotOpenedWhereThisMachineIsNot)
{
    Loop loop;
    error_code ec;
    EXPECT_EQ(RtpPorts::open(*loop.io, StreamContext::of(*loop.io), make_address("192.0.2.1"), ec), nullptr);
    EXPECT_TRUE(ec);
}

TEST(RtpPorts, believeOnlyASourceThatCanBeTheDevices)
{
    const struct {
        const char* source;
        const char* peer;
        bool believed;
    } cases[] = {
        {"192.0.2.7", "192.0.2.1", true},
        {"2001:db8::7", "2001:db8::1", true},
        {"", "192.0.2.1", false},
        {"camera.example", "192.0.2.1", false},
        {"0.0.0.0", "192.0.2.1", false},
        {"239.1.2.3", "192.0.2.1", false},
        {"255.255.255.255", "192.0.2.1", false},
        {"127.0.0.1", "192.0.2.1", false},
        {"127.0.0.2", "127.0.0.1", true},
        {"2001:db8::7", "192.0.2.1", false},
        {"192.0.2.7;", "192.0.2.1", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source);
        EXPECT_EQ(usableSource(c.source, make_address(c.peer)).has_value(), c.believed);
    }
}
}  // namespace
}  // namespace Tavro8::Utility

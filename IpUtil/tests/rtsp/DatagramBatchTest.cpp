#include <utility>

#include "rtsp/DatagramBatch.h"

#include "rtsp/NeighbourPorts.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <set>
#include <vector>

namespace Tavro8::Utility
{
namespace
{
using boost::asio::ip::udp;
using Bytes = std::vector<std::uint8_t>;

/// Both ways to read must do the same.
class DatagramBatchTest : public ::testing::TestWithParam<bool> {
protected:
    DatagramBatchTest() : receiver(open()), sender(open()) { receiver.non_blocking(true); }

    udp::socket open() { return udp::socket(io, udp::endpoint(boost::asio::ip::address_v4::loopback(), 0)); }

    void send(const Bytes& datagram) { sender.send_to(boost::asio::buffer(datagram), receiver.local_endpoint()); }

    std::size_t read()
    {
        error_code ec;
        const std::size_t count = GetParam() ? batch.read(receiver, ec) : batch.readOneByOne(receiver, ec);
        EXPECT_FALSE(ec) << ec.message();
        return count;
    }

    Bytes bytes(std::size_t index) const { return {batch.bytes(index).begin(), batch.bytes(index).end()}; }

    boost::asio::io_context io;
    udp::socket receiver;
    udp::socket sender;
    DatagramBatch batch;
};

TEST_P(DatagramBatchTest, readsWhatWaitsAndWhoSentIt)
{
    EXPECT_EQ(read(), 0U) << "nothing waits, which is no error";
    send(Bytes(1400, 1));
    send({});
    send(Bytes(12, 3));
    ASSERT_EQ(read(), 3U);
    EXPECT_EQ(bytes(0), Bytes(1400, 1));
    EXPECT_EQ(bytes(1), Bytes());
    EXPECT_EQ(bytes(2), Bytes(12, 3));
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(batch.sender(i), sender.local_endpoint());
        EXPECT_FALSE(batch.isTruncated(i));
    }
    EXPECT_EQ(read(), 0U);
}

TEST_P(DatagramBatchTest, readsNoMoreThanItsCapacityAtOnce)
{
    for (std::size_t i = 0; i < DatagramBatch::capacity + 5; ++i)
        send({static_cast<std::uint8_t>(i)});
    ASSERT_EQ(read(), DatagramBatch::capacity);
    EXPECT_EQ(bytes(DatagramBatch::capacity - 1), Bytes{DatagramBatch::capacity - 1});
    ASSERT_EQ(read(), 5U);
    EXPECT_EQ(bytes(4), Bytes{DatagramBatch::capacity + 4});
}

TEST_P(DatagramBatchTest, readsTheLongestDatagram)
{
    constexpr std::size_t longest = 65507;  // what IPv4 leaves of 65535
    sender.set_option(boost::asio::socket_base::send_buffer_size(256 * 1024));
    send(Bytes(longest, 7));
    send(Bytes(100, 8));
    ASSERT_EQ(read(), 2U);
    EXPECT_EQ(bytes(0), Bytes(longest, 7));
    EXPECT_EQ(bytes(1), Bytes(100, 8));
}

TEST_P(DatagramBatchTest, isNotDisturbedByDatagramsThatFoundNoTaker)
{
    const auto gone = open().local_endpoint();
    receiver.connect(gone);  // or the system would not tell
    receiver.send(boost::asio::buffer(Bytes{1}));
    EXPECT_EQ(read(), 0U);
}

TEST_P(DatagramBatchTest, tellsThatASocketIsNoneAnyMore)
{
    receiver.close();
    error_code ec;
    EXPECT_EQ(GetParam() ? batch.read(receiver, ec) : batch.readOneByOne(receiver, ec), 0U);
    EXPECT_TRUE(ec);
}

INSTANTIATE_TEST_SUITE_P(BothWays, DatagramBatchTest, ::testing::Bool(),
                         [](const auto& both) { return both.param ? "ManyACall" : "OneByOne"; });

// ---- pairs of ports -------------------------------------------------------------------------------------------

/// A system whose next free ports are known.
struct Ports {
    std::optional<int> open(std::uint16_t wanted)
    {
        const int port = wanted != 0 ? wanted : free.empty() ? 0 : free.front();
        if (wanted == 0 && !free.empty())
            free.erase(free.begin());
        if (port == 0 || !taken.insert(port).second)
            return std::nullopt;
        return port;
    }

    std::optional<std::pair<int, int>> openPair()
    {
        return openNeighbours([this](std::uint16_t wanted) { return open(wanted); },
                              [](int port) { return static_cast<std::uint16_t>(port); });
    }

    std::vector<int> free;
    std::set<int> taken;
};

TEST(NeighbourPorts, beginWithTheEvenOne)
{
    EXPECT_EQ((Ports{{5000}, {}}.openPair()), (std::pair{5000, 5001}));
    EXPECT_EQ((Ports{{5001}, {}}.openPair()), (std::pair{5000, 5001}));
}

TEST(NeighbourPorts, tryOthersWhileTheNeighbourIsTaken)
{
    EXPECT_EQ((Ports{{5000, 6001, 7000}, {5001, 6000}}.openPair()), (std::pair{7000, 7001}));
}

TEST(NeighbourPorts, areAnyTwoWhenNoNeighboursAreFree)
{
    Ports ports;
    for (int i = 0; i < 100; ++i) {
        ports.free.push_back(5000 + 2 * i);
        ports.taken.insert(5001 + 2 * i);
    }
    EXPECT_EQ(ports.openPair(), (std::pair{5000, 5002}));
}

TEST(NeighbourPorts, areNoneWhenTheSystemHasNone)
{
    EXPECT_FALSE((Ports{{}, {}}.openPair()));
    EXPECT_FALSE((Ports{{5000}, {5001}}.openPair()));
}
}  // namespace
}  // namespace Tavro8::Utility

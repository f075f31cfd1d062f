#include <utility>  // ahead of Asio, which forgets it

#include "FirstLine.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>

namespace simulator
{
namespace
{

using boost::asio::ip::tcp;

using namespace std::chrono_literals;

class FirstLineTest : public testing::Test {
protected:
    explicit FirstLineTest(FirstLine::Patience patience = {})
    {
        tcp::acceptor acceptor(context, {boost::asio::ip::address_v4::loopback(), 0});
        client.connect(acceptor.local_endpoint());
        const auto handle = [this](tcp::socket socket, const std::string& seen) {
            server.emplace(std::move(socket));
            line = seen;
        };
        FirstLine::await(acceptor.accept(), handle, patience);
    }

    void send(const std::string& bytes) { boost::asio::write(client, boost::asio::buffer(bytes)); }
    /// Lets everything happen until the handler has been called.
    void finish() { context.run_for(20s); }

    boost::asio::io_context context;
    tcp::socket client{context};
    std::optional<tcp::socket> server;
    std::string line = "not called";
};

struct ShortSilenceTest : FirstLineTest {
    ShortSilenceTest() : FirstLineTest({.silence = 1ms}) {}
};
struct ShortLineTest : FirstLineTest {
    ShortLineTest() : FirstLineTest({.line = 0ms}) {}
};

TEST_F(FirstLineTest, isWaitedForAndLeftInPlace)
{
    send("DESC");
    context.run_one();  // half a line has been seen
    EXPECT_FALSE(server);
    send("RIBE x RTSP/1.0\r\nCSeq: 1\r\n\r\n");
    finish();
    ASSERT_TRUE(server);
    EXPECT_EQ(line, "DESCRIBE x RTSP/1.0\r");
    std::string bytes(32, ' ');
    EXPECT_EQ(boost::asio::read(*server, boost::asio::buffer(bytes)), 32u);
    EXPECT_EQ(bytes, "DESCRIBE x RTSP/1.0\r\nCSeq: 1\r\n\r\n");
}

TEST_F(FirstLineTest, mayBeTooLong)
{
    send(std::string(5000, 'x'));
    finish();
    ASSERT_TRUE(server);
    EXPECT_TRUE(server->is_open());
    EXPECT_EQ(line.substr(0, 3), "xxx");
}

TEST_F(FirstLineTest, neverComesFromOneWhoLeaves)
{
    client.close();
    finish();
    ASSERT_TRUE(server);
    EXPECT_FALSE(server->is_open());
    EXPECT_EQ(line, "");
}

TEST_F(ShortSilenceTest, endsTheConnection)
{
    finish();
    ASSERT_TRUE(server);
    EXPECT_FALSE(server->is_open());
    EXPECT_EQ(line, "");
    boost::system::error_code ended;
    char byte = 0;
    boost::asio::read(client, boost::asio::buffer(&byte, 1), ended);
    EXPECT_EQ(ended, boost::asio::error::eof);
}

TEST_F(ShortLineTest, isPassedOnAsFarAsItHasCome)
{
    send("DESC");
    finish();
    ASSERT_TRUE(server);
    EXPECT_TRUE(server->is_open());
    EXPECT_EQ(line, "DESC");
}

}  // namespace
}  // namespace simulator

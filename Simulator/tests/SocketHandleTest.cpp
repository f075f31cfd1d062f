#include <utility>  // ahead of Asio, which forgets it

#include "SocketHandle.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using boost::asio::ip::tcp;
using boost::system::error_code;

class SocketHandleTest : public testing::Test {
protected:
    SocketHandleTest()
    {
        tcp::acceptor acceptor(first, {boost::asio::ip::address_v4::loopback(), 0});
        client.connect(acceptor.local_endpoint());
        handle.emplace(acceptor.accept());
    }

    /// How the client's next read ends; without an end it waits for ever.
    error_code read()
    {
        error_code ended;
        char byte = 0;
        boost::asio::read(client, boost::asio::buffer(&byte, 1), ended);
        return ended;
    }

    boost::asio::io_context first, second;
    tcp::socket client{first};
    std::optional<SocketHandle> handle;
};

TEST_F(SocketHandleTest, arrivesOnAnotherContext)
{
    auto socket = handle->moveTo(second);
    ASSERT_TRUE(socket);
    handle.reset();
    boost::asio::write(*socket, boost::asio::buffer("x", 1));
    EXPECT_FALSE(read());
}

TEST_F(SocketHandleTest, isClosedWhenNobodyTakesIt)
{
    SocketHandle carried(std::move(*handle));
    handle.emplace(std::move(carried));
    handle.reset();
    EXPECT_EQ(read(), boost::asio::error::eof);
}

TEST_F(SocketHandleTest, isClosedWhenTheContextCannotHaveIt)
{
    // A context takes a handle once.
    boost::asio::posix::stream_descriptor there(second, handle->get());
    EXPECT_FALSE(handle->moveTo(second));
    there.release();
    handle.reset();
    EXPECT_EQ(read(), boost::asio::error::eof);
}

TEST_F(SocketHandleTest, isNoneOfAClosedSocket)
{
    SocketHandle none{tcp::socket(first)};
    EXPECT_EQ(none.get(), -1);
    EXPECT_FALSE(none.moveTo(second));
}

}  // namespace
}  // namespace simulator

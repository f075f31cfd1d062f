#include <utility>  // ahead of Asio, which forgets it

#include "SocketHandle.h"

#include <boost/asio/io_context.hpp>

#if !defined(_WIN32)
#include <unistd.h>
#endif

namespace simulator
{

using boost::asio::ip::tcp;
using boost::system::error_code;

namespace
{

void closeNative(SocketHandle::Native handle)
{
#if defined(_WIN32)
    ::closesocket(handle);
#else
    ::close(handle);
#endif
}

}  // namespace

SocketHandle::SocketHandle(tcp::socket socket) : protocol(tcp::v4())
{
    error_code error;
    protocol = socket.local_endpoint(error).protocol();
    const Native released = socket.release(error);
    if (!error)
        handle = released;
}

SocketHandle::SocketHandle(SocketHandle&& other) noexcept
    : protocol(other.protocol), handle(std::exchange(other.handle, std::nullopt))
{}

SocketHandle::~SocketHandle()
{
    if (handle)
        closeNative(*handle);
}

std::optional<tcp::socket> SocketHandle::moveTo(boost::asio::io_context& context)
{
    error_code error;
    tcp::socket socket(context);
    socket.assign(protocol, get(), error);
    if (error)
        return std::nullopt;
    release();
    return socket;
}

}  // namespace simulator

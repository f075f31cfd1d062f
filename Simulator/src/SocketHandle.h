#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <optional>

namespace simulator
{

/// A connection on its way from the I/O context that accepted it to whoever serves it. One that does not arrive is
/// closed. One thread at a time.
class SocketHandle {
public:
    using Native = boost::asio::ip::tcp::socket::native_handle_type;

    /// Invalid when the socket cannot be taken from its context, as one that is closed.
    explicit SocketHandle(boost::asio::ip::tcp::socket socket);
    SocketHandle(SocketHandle&& other) noexcept;
    SocketHandle& operator=(SocketHandle&&) = delete;
    ~SocketHandle();

    /// -1 when it is invalid.
    Native get() const { return handle.value_or(static_cast<Native>(-1)); }
    /// Somebody else has it now.
    void release() { handle.reset(); }

    /// The connection on another context, which has it now; nothing when that cannot have it.
    std::optional<boost::asio::ip::tcp::socket> moveTo(boost::asio::io_context& context);

private:
    boost::asio::ip::tcp protocol;
    std::optional<Native> handle;
};

}  // namespace simulator

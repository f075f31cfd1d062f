#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <functional>
#include <memory>

namespace simulator
{

/// A listening TCP port that can be closed and opened again without losing its number to another program: a second
/// socket stays bound to it. Used on the I/O context only.
class Listener {
public:
    using Accepted = std::function<void(boost::asio::ip::tcp::socket)>;

    /// Binds and listens; throws boost::system::system_error with the address in its text. `accepted` gets each
    /// connection on the I/O context.
    Listener(boost::asio::io_context& context, const boost::asio::ip::tcp::endpoint& endpoint, Accepted accepted);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    std::uint16_t port() const;

    /// While closed, the port refuses connections.
    void close();
    void open();

private:
    struct State;
    static void acceptNext(const std::shared_ptr<State>& state);
    std::shared_ptr<State> state;
};

/// Closes a connection so that the peer sees a reset.
void reset(boost::asio::ip::tcp::socket& socket);

}  // namespace simulator

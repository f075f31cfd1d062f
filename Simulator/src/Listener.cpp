#include <utility>  // ahead of Asio, which forgets it

#include "Listener.h"

#include "Log.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <sstream>

namespace simulator
{

using boost::asio::ip::tcp;
using boost::system::error_code;

struct Listener::State {
    State(boost::asio::io_context& context, Accepted handler)
        : holder(context), acceptor(context), retry(context), accepted(std::move(handler))
    {}

    tcp::socket holder;  ///< bound, never listening: keeps the port number while the acceptor is closed
    tcp::acceptor acceptor;
    boost::asio::steady_timer retry;  ///< the pause after a failed accept
    Accepted accepted;
};

Listener::Listener(boost::asio::io_context& context, const tcp::endpoint& endpoint, Accepted accepted)
    : state(std::make_shared<State>(context, std::move(accepted)))
{
    try {
        state->holder.open(endpoint.protocol());
        state->holder.set_option(tcp::socket::reuse_address(true));
        state->holder.bind(endpoint);
        open();
    } catch (const boost::system::system_error& error) {
        std::ostringstream what;
        what << "cannot listen on " << endpoint;
        throw boost::system::system_error(error.code(), what.str());
    }
}

Listener::~Listener()
{
    close();
}

std::uint16_t Listener::port() const
{
    return state->holder.local_endpoint().port();
}

void Listener::close()
{
    error_code ignored;
    state->acceptor.close(ignored);
    state->retry.cancel();
}

void Listener::open()
{
    if (state->acceptor.is_open())
        return;
    const tcp::endpoint endpoint = state->holder.local_endpoint();
    state->acceptor.open(endpoint.protocol());
    state->acceptor.set_option(tcp::acceptor::reuse_address(true));
    state->acceptor.bind(endpoint);
    state->acceptor.listen();
    acceptNext(state);
}

void Listener::acceptNext(const std::shared_ptr<State>& state)
{
    state->acceptor.async_accept([weak = std::weak_ptr(state)](const error_code& error, tcp::socket socket) {
        const auto self = weak.lock();
        if (!self || error == boost::asio::error::operation_aborted || !self->acceptor.is_open())
            return;
        if (!error) {
            self->accepted(std::move(socket));
            // The handler may have closed the port.
            if (self->acceptor.is_open())
                acceptNext(self);
            return;
        }
        // Out of descriptors, most likely: trying again at once would only spin.
        logLine("cannot accept a connection: " + error.message());
        self->retry.expires_after(std::chrono::milliseconds(100));
        self->retry.async_wait([weak](const error_code& cancelled) {
            const auto later = weak.lock();
            if (!cancelled && later && later->acceptor.is_open())
                acceptNext(later);
        });
    });
}

void reset(tcp::socket& socket)
{
    error_code ignored;
    socket.set_option(tcp::socket::linger(true, 0), ignored);
    socket.close(ignored);
}

}  // namespace simulator

#include <utility>  // ahead of Asio, which forgets it

#include "FirstLine.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <chrono>

namespace simulator
{
namespace
{

using boost::asio::ip::tcp;
using boost::system::error_code;

constexpr auto patience = std::chrono::seconds(5);

/// Half a line keeps a connection readable, so it is looked at again after this.
constexpr auto pauseBetweenLooks = std::chrono::milliseconds(5);

}  // namespace

struct FirstLine::State {
    State(tcp::socket accepted, Handler handler)
        : socket(std::move(accepted)), again(socket.get_executor()), done(std::move(handler))
    {}

    tcp::socket socket;
    boost::asio::steady_timer again;
    Handler done;
    std::chrono::steady_clock::time_point since{};  ///< the first byte; the epoch until then
    std::array<char, 1024> bytes{};
};

FirstLine::FirstLine(std::unique_ptr<State> made) : state(std::move(made)) {}

FirstLine::~FirstLine() = default;

std::shared_ptr<FirstLine> FirstLine::await(tcp::socket socket, Handler handler)
{
    const std::shared_ptr<FirstLine> self(
        new FirstLine(std::make_unique<State>(std::move(socket), std::move(handler))));
    self->wait();
    return self;
}

void FirstLine::close()
{
    error_code ignored;
    state->socket.close(ignored);
    state->again.cancel();
}

void FirstLine::wait()
{
    state->socket.async_wait(tcp::socket::wait_read, [self = shared_from_this()](const error_code& error) {
        if (error)
            return self->finish({});
        self->look();
    });
}

void FirstLine::look()
{
    error_code error;
    const std::size_t size = state->socket.receive(boost::asio::buffer(state->bytes), tcp::socket::message_peek, error);
    if (error || size == 0) {
        close();
        return finish({});
    }
    const auto now = std::chrono::steady_clock::now();
    if (state->since == std::chrono::steady_clock::time_point{})
        state->since = now;
    const std::string seen(state->bytes.data(), size);
    const auto end = seen.find('\n');
    if (end != seen.npos || size == state->bytes.size() || now - state->since > patience)
        return finish(seen.substr(0, end));
    state->again.expires_after(pauseBetweenLooks);
    state->again.async_wait([self = shared_from_this()](const error_code& cancelled) {
        if (cancelled)
            return self->finish({});
        self->look();
    });
}

void FirstLine::finish(const std::string& line)
{
    const Handler done = std::exchange(state->done, nullptr);
    if (done)
        done(std::move(state->socket), line);
}

}  // namespace simulator

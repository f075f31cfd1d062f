#include <utility>  // ahead of Asio, which forgets it

#include "FirstLine.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <optional>

namespace simulator
{
namespace
{

using boost::asio::ip::tcp;
using boost::system::error_code;

/// Half a line keeps a connection readable, so it is looked at again after this.
constexpr auto pauseBetweenLooks = std::chrono::milliseconds(5);

}  // namespace

struct FirstLine::State {
    State(tcp::socket accepted, Handler handler, Patience limits)
        : socket(std::move(accepted)), timer(socket.get_executor()), done(std::move(handler)), patience(limits)
    {}

    tcp::socket socket;
    boost::asio::steady_timer timer;  ///< the end of silence, then the next look
    Handler done;
    const Patience patience;
    std::optional<std::chrono::steady_clock::time_point> since;  ///< the first byte
    std::array<char, 1024> bytes{};
};

FirstLine::FirstLine(std::unique_ptr<State> made) : state(std::move(made)) {}

FirstLine::~FirstLine() = default;

std::shared_ptr<FirstLine> FirstLine::await(tcp::socket socket, Handler handler, Patience patience)
{
    const std::shared_ptr<FirstLine> self(
        new FirstLine(std::make_unique<State>(std::move(socket), std::move(handler), patience)));
    self->wait();
    self->giveUpInSilence();
    return self;
}

void FirstLine::close()
{
    error_code ignored;
    state->socket.close(ignored);
    state->timer.cancel();
}

void FirstLine::wait()
{
    state->socket.async_wait(tcp::socket::wait_read, [self = shared_from_this()](const error_code& error) {
        if (error)
            return self->finish({});
        self->look();
    });
}

void FirstLine::giveUpInSilence()
{
    state->timer.expires_after(state->patience.silence);
    state->timer.async_wait([self = shared_from_this()](const error_code& cancelled) {
        // A byte may have come while this was under way.
        if (!cancelled && !self->state->since)
            self->close();
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
    if (!state->since)
        state->since = now;
    const std::string seen(state->bytes.data(), size);
    const auto end = seen.find('\n');
    if (end != seen.npos || size == state->bytes.size() || now - *state->since > state->patience.line)
        return finish(seen.substr(0, end));
    state->timer.expires_after(pauseBetweenLooks);
    state->timer.async_wait([self = shared_from_this()](const error_code& cancelled) {
        if (cancelled)
            return self->finish({});
        self->look();
    });
}

void FirstLine::finish(const std::string& line)
{
    state->timer.cancel();
    const Handler done = std::exchange(state->done, nullptr);
    if (done)
        done(std::move(state->socket), line);
}

}  // namespace simulator

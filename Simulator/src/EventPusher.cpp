#include <utility>  // ahead of Asio, which forgets it

#include "EventPusher.h"

#include "Log.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/tcp_stream.hpp>

#include <array>
#include <deque>
#include <list>
#include <string_view>

namespace simulator
{
namespace
{

using boost::asio::awaitable;
using boost::asio::redirect_error;
using boost::asio::use_awaitable;
using boost::asio::ip::tcp;
using boost::system::error_code;

constexpr auto connectPatience = std::chrono::seconds(5);
/// For one piece; a receiver that reads nothing for so long is given up.
constexpr auto writePatience = std::chrono::seconds(10);
constexpr int mostReadsAtOnce = 256;  // a receiver that answers without end must not hold up the device
constexpr std::size_t mostBytesWaiting = std::size_t{64} * 1024 * 1024;

/// Throws away what the receiver has answered; false when it has closed the connection, or when there is none.
bool stillOpen(tcp::socket& socket)
{
    if (!socket.is_open())
        return false;
    error_code error;
    std::array<char, 4096> answer;
    socket.non_blocking(true, error);
    for (int reads = 0; !error && reads < mostReadsAtOnce; ++reads)
        socket.read_some(boost::asio::buffer(answer), error);
    return !error || error == boost::asio::error::would_block;
}

/// One connection to one receiver, made when there is something to bring.
class Line {
public:
    Line(boost::asio::io_context& context, EventPusher::Receiver receiverToUse, bool keep)
        : receiver(std::move(receiverToUse)), kept(keep), stream(context), pause(context)
    {}

    awaitable<error_code> bring(const Transmission& transmission)
    {
        error_code error;
        const bool reused = stillOpen(stream.socket());
        if (!reused)
            error = co_await connect();
        std::size_t written = 0;
        if (!error)
            error = co_await write(transmission, written);
        // A receiver that closes its end just now has not seen a byte of this: it gets another chance.
        if (error && reused && written == 0 && !ended) {
            error = co_await connect();
            if (!error)
                error = co_await write(transmission, written);
        }
        if (error || transmission.closes || !kept)
            close();
        co_return error;
    }

    void end()
    {
        ended = true;
        waiting.clear();
        bytesWaiting = 0;
        pause.cancel();
        close();
    }

    const EventPusher::Receiver receiver;
    const bool kept;
    std::deque<EventPusher::Push> waiting;
    std::size_t bytesWaiting = 0;
    bool busy = false;
    bool ended = false;

private:
    awaitable<error_code> connect()
    {
        close();
        error_code error;
        const tcp::endpoint target(boost::asio::ip::make_address(receiver.address, error), receiver.port);
        if (!error)
            error = openFor(target);
        if (error)
            co_return error;
        stream.expires_after(connectPatience);
        co_await stream.async_connect(target, redirect_error(use_awaitable, error));
        if (!error)
            stream.socket().set_option(tcp::no_delay(true), error);  // each piece is a segment of its own
        co_return error;
    }

    error_code openFor(const tcp::endpoint& target)
    {
        error_code error;
        const auto own = boost::asio::ip::make_address(receiver.deviceAddress, error);
        if (error || own.is_v6() != target.address().is_v6())
            return {};  // connecting opens it
        stream.socket().open(target.protocol(), error);
        if (!error)
            stream.socket().bind({own, 0}, error);
        return error;
    }

    /// `written` grows with each piece that is on its way.
    awaitable<error_code> write(const Transmission& transmission, std::size_t& written)
    {
        error_code error;
        std::string_view rest = transmission.bytes;
        std::size_t length = transmission.firstPiece;
        while (!rest.empty()) {
            const std::string_view piece = rest.substr(0, length);
            stream.expires_after(writePatience);
            co_await boost::asio::async_write(stream, boost::asio::buffer(piece.data(), piece.size()),
                                              redirect_error(use_awaitable, error));
            if (error)
                co_return error;
            written += piece.size();
            rest.remove_prefix(piece.size());
            length = transmission.furtherPieces;
            if (rest.empty() && transmission.repeatFrom < transmission.bytes.size())
                rest = std::string_view(transmission.bytes).substr(transmission.repeatFrom);
            if (!rest.empty() && transmission.pause.count() > 0) {
                pause.expires_after(transmission.pause);
                co_await pause.async_wait(redirect_error(use_awaitable, error));
                if (!stillOpen(stream.socket()))
                    co_return boost::asio::error::connection_reset;
            }
        }
        co_return error;
    }

    void close()
    {
        error_code ignored;
        stillOpen(stream.socket());  // an answer left unread would make a reset of the end
        stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
        stream.socket().close(ignored);
    }

    boost::beast::tcp_stream stream;
    boost::asio::steady_timer pause;
};

}  // namespace

struct EventPusher::State : std::enable_shared_from_this<State> {
    State(boost::asio::io_context& contextToUse, Finished handler) : context(contextToUse), finished(std::move(handler))
    {}

    std::shared_ptr<Line> lineFor(const Receiver& receiver, bool fresh)
    {
        for (const auto& line : lines)
            if (!fresh && line->kept && line->receiver.subscription == receiver.subscription)
                return line;
        return lines.emplace_back(std::make_shared<Line>(context, receiver, !fresh));
    }

    void enqueue(const std::shared_ptr<Line>& line, Push push)
    {
        if (line->bytesWaiting + push.transmission.bytes.size() > mostBytesWaiting)
            return report(line->receiver, push, boost::asio::error::no_buffer_space);
        line->bytesWaiting += push.transmission.bytes.size();
        line->waiting.push_back(std::move(push));
        if (!std::exchange(line->busy, true))
            boost::asio::co_spawn(context, work(shared_from_this(), line), boost::asio::detached);
    }

    static awaitable<void> work(std::shared_ptr<State> self, std::shared_ptr<Line> line)
    {
        while (!line->waiting.empty()) {
            const Push push = std::move(line->waiting.front());
            line->waiting.pop_front();
            line->bytesWaiting -= push.transmission.bytes.size();
            const error_code error = co_await line->bring(push.transmission);
            self->report(line->receiver, push, error);
        }
        line->busy = false;
        if (!line->kept)
            self->lines.remove(line);
    }

    void report(const Receiver& receiver, const Push& push, const error_code& error) const
    {
        const std::string where = hostAndPort(receiver.address, receiver.port) + ", subscription " +
                                  std::to_string(receiver.subscription) + ": " + push.name;
        logLine(error ? "could not push to " + where + ": " + error.message() : "pushed to " + where);
        if (finished)
            finished(receiver.subscription, !error);
    }

    void forgetIf(const std::function<bool(const Line&)>& chosen)
    {
        lines.remove_if([&](const std::shared_ptr<Line>& line) {
            if (!chosen(*line))
                return false;
            line->end();
            return true;
        });
    }

    boost::asio::io_context& context;
    Finished finished;
    std::list<std::shared_ptr<Line>> lines;
};

EventPusher::EventPusher(boost::asio::io_context& context, Finished finished)
    : state(std::make_shared<State>(context, std::move(finished)))
{}

EventPusher::~EventPusher()
{
    state->finished = nullptr;
    forgetAll();
}

void EventPusher::push(const Receiver& receiver, Push push)
{
    const bool fresh = push.freshConnection;
    state->enqueue(state->lineFor(receiver, fresh), std::move(push));
}

void EventPusher::forget(unsigned subscription)
{
    state->forgetIf([subscription](const Line& line) { return line.receiver.subscription == subscription; });
}

void EventPusher::forgetAll()
{
    state->forgetIf([](const Line&) { return true; });
}

}  // namespace simulator

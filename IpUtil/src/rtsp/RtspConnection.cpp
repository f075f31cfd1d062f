#include "rtsp/RtspConnection.h"

#include "rtsp/SocketSupport.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <bit>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <cstring>
#include <exception>
#include <utility>

namespace Tavro8::Utility
{
namespace
{
// An unfinished unit up to this size may keep its memory between bursts.
constexpr std::size_t modestTailBytes = 2048;
}  // namespace

RtspConnection::RtspConnection(boost::asio::io_context& service, StreamContext& context, Events& events)
    : service(service), context(context), events(events)
{}

void RtspConnection::connect(const std::string& host, std::uint16_t port)
{
    open = true;
    error_code ec;
    const auto address = boost::asio::ip::make_address(host, ec);
    if (ec)
        return resolve(host, port);
    endpoints.assign(1, tcp::endpoint(address, port));
    connectNext();
}

void RtspConnection::resolve(const std::string& host, std::uint16_t port)
{
    resolver.emplace(service);
    resolver->async_resolve(
        host, std::to_string(port), Resolver::numeric_service,
        [this, alive = events.keepAlive()](const error_code& ec, const Resolver::results_type& results) {
            guard([&] { onResolved(ec, results); });
        });
}

void RtspConnection::onResolved(const error_code& ec, const Resolver::results_type& results)
{
    if (ec || results.empty())
        return breakWith(ResultCode::nameNotResolved, "the host name cannot be resolved");
    endpoints.assign(results.begin(), results.end());
    connectNext();
}

void RtspConnection::connectNext()
{
    socket.emplace(service);
    socket->async_connect(endpoints[nextEndpoint++],
                          [this, alive = events.keepAlive()](const error_code& ec) { guard([&] { onConnect(ec); }); });
}

void RtspConnection::onConnect(const error_code& ec)
{
    if (ec && nextEndpoint < endpoints.size())
        return connectNext();
    if (ec)
        return breakWith(hostError(ec), "cannot connect: " + ec.message());
    error_code failed = forgetWriting(*socket, endpoints[nextEndpoint - 1].protocol());
    if (!failed)
        socket->non_blocking(true, failed);
    if (failed)
        return breakWith(hostError(failed), failed.message());
    error_code ignored;
    socket->set_option(tcp::no_delay(true), ignored);
    ourAddress = socket->local_endpoint(ignored).address();
    theirAddress = socket->remote_endpoint(ignored).address();
    waitReadable();
    events.onConnected();
}

void RtspConnection::waitReadable()
{
    // A bare `this`: `alive` stays while a wait is pending. Holding the owner anew for each wait would cost two counted
    // references a frame, whose memory has left the caches.
    socket->async_wait(Socket::wait_read, [this](const error_code& ec) { onWaitEnded(ec); });
    if (alive == nullptr)
        alive = events.keepAlive();
}

/// Also when the wait was cancelled: the only way out of it but the end of the I/O context, for which see `release`.
void RtspConnection::onWaitEnded(const error_code& ec)
{
    guard([&] { onReadable(ec); });
    const std::shared_ptr<void> last = open ? nullptr : std::move(alive);  // with it, this connection may go
}

void RtspConnection::onReadable(const error_code& ec)
{
    if (ec)
        return breakWith(hostError(ec), ec.message());
    events.onReading();
    readTurn();
    if (open)
        waitReadable();
}

void RtspConnection::readTurn()
{
    const auto buffer = context.receiveBuffer();
    std::size_t held = tail.size();
    if (held != 0)
        std::memcpy(buffer.data(), tail.data(), held);
    for (unsigned reads = 0; reads < maxReadsPerTurn && readOnce(buffer, held); ++reads) {
    }
    if (!open)
        return;
    if (held > tail.capacity())
        tail.reserve(std::max(modestTailBytes, std::bit_ceil(held)));  // seldom, rather than for each longer packet
    tail.assign(buffer.data(), buffer.data() + held);
}

/// Reads behind the `held` bytes at the front of the buffer and parses; what is left is in front again. False when
/// there is nothing more to read at present.
bool RtspConnection::readOnce(std::span<std::uint8_t> buffer, std::size_t& held)
{
    const auto room = buffer.subspan(held);
    error_code ec;
    const std::size_t count = socket->read_some(boost::asio::buffer(room.data(), room.size()), ec);
    if (ec == boost::asio::error::would_block || ec == boost::asio::error::try_again ||
        ec == boost::asio::error::interrupted)
        return false;
    if (ec == boost::asio::error::eof)
        breakWith(ResultCode::connectionLost, "the device closed the connection");
    else if (ec)
        breakWith(hostError(ec), ec.message());
    if (ec)
        return false;

    readSinceTrim = true;
    wire::ByteView rest = buffer.first(held + count);
    parse(rest, {std::chrono::steady_clock::now(), std::chrono::system_clock::now()});
    if (!open)
        return false;
    if (rest.size() == buffer.size()) {
        breakWith(ResultCode::malformedResponse, "the device sends a message beyond the limit");
        return false;
    }
    held = rest.size();
    std::memmove(buffer.data(), rest.data(), held);
    return count == room.size();
}

void RtspConnection::parse(wire::ByteView& input, const media::ArrivalTime& arrival)
{
    while (open) {
        const auto unit = parser.next(input);
        if (const auto* frame = std::get_if<wire::InterleavedFrame>(&unit)) {
            mediaCame = true;
            events.onInterleaved(*frame, arrival);
        } else if (const auto* message = std::get_if<wire::ReceivedMessage>(&unit)) {
            events.onMessage(**message);
        } else if (const auto* malformed = std::get_if<wire::InterleavedParser::Malformed>(&unit)) {
            return breakWith(ResultCode::malformedResponse, describe(*malformed));
        } else {
            return;
        }
    }
}

/// The place helps with an answer. Among media it says nothing, and would make a new line for the log of what happens
/// again and again.
std::string RtspConnection::describe(const wire::InterleavedParser::Malformed& malformed) const
{
    if (mediaCame)
        return malformed.rule;
    return "byte " + std::to_string(malformed.offset) + " of the answer: " + malformed.rule;
}

void RtspConnection::send(std::vector<std::uint8_t> bytes, Written done)
{
    if (!open)
        return;
    queued += bytes.size();
    outgoing.push_back({std::move(bytes), std::move(done)});
    if (outgoing.size() == 1)
        writeNext();
}

void RtspConnection::writeNext()
{
    boost::asio::async_write(
        *socket, boost::asio::buffer(outgoing.front().bytes),
        [this, alive = events.keepAlive()](const error_code& ec, std::size_t) { guard([&] { onWritten(ec); }); });
}

void RtspConnection::onWritten(const error_code& ec)
{
    const Outgoing written = std::move(outgoing.front());
    outgoing.pop_front();
    queued -= written.bytes.size();
    if (ec)
        return breakWith(hostError(ec), "cannot send: " + ec.message());
    if (!outgoing.empty())
        writeNext();
    if (written.done)
        written.done({});
}

void RtspConnection::sendAtOnce(const std::string& bytes) noexcept
{
    if (!open || !outgoing.empty())
        return;
    error_code ignored;
    socket->write_some(boost::asio::buffer(bytes), ignored);
}

void RtspConnection::close() noexcept
{
    if (!open)
        return;
    open = false;
    if (resolver)
        resolver->cancel();
    if (socket) {
        error_code ignored;
        socket->shutdown(Socket::shutdown_both, ignored);
        socket->close(ignored);
    }
    // The bytes stay until their write has been called back.
    for (Outgoing& waiting : outgoing)
        waiting.done = nullptr;
    tail = {};
}

std::shared_ptr<void> RtspConnection::release() noexcept
{
    close();
    resolver.reset();
    socket.reset();
    return std::move(alive);
}

void RtspConnection::trim()
{
    if (!std::exchange(readSinceTrim, false) && tail.capacity() > modestTailBytes && tail.size() <= modestTailBytes)
        tail.shrink_to_fit();
}

/// For handlers: nothing happens once the connection is closed, and when memory has run out this stream ends and the
/// others go on.
template <typename Body>
void RtspConnection::guard(Body&& body)
try {
    if (open)
        std::forward<Body>(body)();
} catch (const std::exception& e) {
    breakWith(ResultCode::noResources, e.what());
}

void RtspConnection::breakWith(const error_code& ec, const std::string& reason)
{
    if (!open)
        return;
    close();
    events.onBroken(ec, reason);
}
}  // namespace Tavro8::Utility

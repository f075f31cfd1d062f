#include "http/HttpConnection.h"

#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

namespace Tavro8::http
{
namespace
{
using boost::asio::ip::tcp;
using TlsStream = boost::asio::ssl::stream<tcp::socket&>;

boost::asio::ssl::context& tlsContext()
{
    static boost::asio::ssl::context context = [] {
        boost::asio::ssl::context made(boost::asio::ssl::context::tls_client);
        made.set_verify_mode(boost::asio::ssl::verify_none);
        return made;
    }();
    return context;
}

class SocketConnection final : public HttpConnection, public std::enable_shared_from_this<SocketConnection> {
public:
    SocketConnection(boost::asio::io_context& context, bool secure)
        : context(context), resolver(context), socket(context), idleTimer(context)
    {
        if (secure)
            tls = std::make_unique<TlsStream>(socket, tlsContext());
    }

    void asyncOpen(const std::string& host, std::uint16_t port, OpenHandler handler) override;
    void asyncWrite(std::string_view bytes, TransferHandler handler) override;
    void asyncReadSome(std::span<char> buffer, TransferHandler handler) override;
    void watchIdle(std::chrono::milliseconds timeout, std::function<void()> onEnd) override;
    bool stopWatching() override;
    void close() noexcept override;

private:
    void connectToAny(const tcp::resolver::results_type& endpoints, OpenHandler handler);
    void onConnected(const error_code& ec, const OpenHandler& handler);
    void onIdleEvent(const error_code& ec, unsigned watch);
    bool hasNothingToRead();

    boost::asio::io_context& context;
    tcp::resolver resolver;
    tcp::socket socket;
    std::unique_ptr<TlsStream> tls;  // refers to `socket`
    boost::asio::steady_timer idleTimer;
    std::function<void()> onIdleEnd;
    unsigned currentWatch = 0;  // events of earlier watches may still be queued
    bool closed = false;
};

void SocketConnection::asyncOpen(const std::string& host, std::uint16_t port, OpenHandler handler)
{
    error_code notNumeric;
    const auto address = boost::asio::ip::make_address(host, notNumeric);
    if (!notNumeric) {
        socket.async_connect(tcp::endpoint(address, port),
                             [self = shared_from_this(), handler = std::move(handler)](const error_code& ec) {
                                 self->onConnected(ec, handler);
                             });
        return;
    }
    if (tls != nullptr)  // lets a device with several names choose its certificate (RFC 6066 section 3)
        SSL_set_tlsext_host_name(tls->native_handle(), host.c_str());
    resolver.async_resolve(host, std::to_string(port), tcp::resolver::numeric_service,
                           [self = shared_from_this(), handler = std::move(handler)](
                               const error_code& ec, const tcp::resolver::results_type& endpoints) {
                               if (ec || self->closed)
                                   return handler(ec ? ec : boost::asio::error::operation_aborted);
                               self->connectToAny(endpoints, handler);
                           });
}

void SocketConnection::connectToAny(const tcp::resolver::results_type& endpoints, OpenHandler handler)
{
    boost::asio::async_connect(socket, endpoints,
                               [self = shared_from_this(), handler = std::move(handler)](
                                   const error_code& ec, const tcp::endpoint&) { self->onConnected(ec, handler); });
}

void SocketConnection::onConnected(const error_code& ec, const OpenHandler& handler)
{
    if (ec || closed)
        return handler(ec ? ec : boost::asio::error::operation_aborted);
    error_code ignored;  // only costs speed
    socket.set_option(tcp::no_delay(true), ignored);
    if (tls == nullptr)
        return handler({});
    tls->async_handshake(TlsStream::client, [self = shared_from_this(), handler](const error_code& result) {
        // However it ended, the reason is that the two did not agree on TLS.
        const bool failed = result && result != boost::asio::error::operation_aborted;
        handler(failed ? make_error_code(ResultCode::secureChannelFailed) : result);
    });
}

void SocketConnection::asyncWrite(std::string_view bytes, TransferHandler handler)
{
    const auto data = boost::asio::buffer(bytes.data(), bytes.size());
    auto done = [self = shared_from_this(), handler = std::move(handler)](const error_code& ec, std::size_t written) {
        handler(ec, written);
    };
    if (tls != nullptr)
        boost::asio::async_write(*tls, data, std::move(done));
    else
        boost::asio::async_write(socket, data, std::move(done));
}

void SocketConnection::asyncReadSome(std::span<char> buffer, TransferHandler handler)
{
    const auto room = boost::asio::buffer(buffer.data(), buffer.size());
    auto done = [self = shared_from_this(), handler = std::move(handler)](const error_code& ec, std::size_t read) {
        // Many devices end TLS by closing the socket.
        const bool truncated = ec == boost::asio::ssl::error::stream_truncated;
        handler(truncated ? error_code(boost::asio::error::eof) : ec, read);
    };
    if (tls != nullptr)
        tls->async_read_some(room, std::move(done));
    else
        socket.async_read_some(room, std::move(done));
}

void SocketConnection::watchIdle(std::chrono::milliseconds timeout, std::function<void()> onEnd)
{
    onIdleEnd = std::move(onEnd);
    const unsigned watch = ++currentWatch;
    const auto onEvent = [weak = weak_from_this(), &work = context, watch](const error_code& ec) {
        work.get_executor().on_work_started();  // what completes now is taken off again
        if (const auto self = weak.lock())
            self->onIdleEvent(ec, watch);
    };
    idleTimer.expires_after(timeout);
    idleTimer.async_wait(onEvent);
    socket.async_wait(tcp::socket::wait_read, onEvent);
    // Both are no work: somebody who runs a context until his request has ended must not wait for them.
    context.get_executor().on_work_finished();
    context.get_executor().on_work_finished();
}

void SocketConnection::onIdleEvent(const error_code& ec, unsigned watch)
{
    if (watch != currentWatch || ec == boost::asio::error::operation_aborted)
        return;
    ++currentWatch;
    if (const auto onEnd = std::exchange(onIdleEnd, nullptr))
        onEnd();
}

bool SocketConnection::stopWatching()
{
    ++currentWatch;
    onIdleEnd = nullptr;
    const bool expired = idleTimer.expiry() <= std::chrono::steady_clock::now();
    idleTimer.cancel();
    error_code ignored;
    socket.cancel(ignored);
    return !closed && !expired && hasNothingToRead();
}

/// A device that has closed is seen as an end that can be read; the event of it may still be on its way.
bool SocketConnection::hasNothingToRead()
{
    error_code ec;
    socket.non_blocking(true, ec);
    char byte = 0;
    if (!ec)
        socket.receive(boost::asio::buffer(&byte, 1), tcp::socket::message_peek, ec);
    return ec == boost::asio::error::would_block || ec == boost::asio::error::try_again;
}

void SocketConnection::close() noexcept
{
    closed = true;
    ++currentWatch;
    onIdleEnd = nullptr;
    try {  // timer and resolver give up by exception what cannot fail
        idleTimer.cancel();
        resolver.cancel();
    } catch (...) {
    }
    error_code ignored;
    socket.close(ignored);
}
}  // namespace

std::shared_ptr<HttpConnection> HttpConnection::create(boost::asio::io_context& context, bool secure)
{
    return std::make_shared<SocketConnection>(context, secure);
}
}  // namespace Tavro8::http

#pragma once

#include <IpUtil/ErrorCode.h>
#include <boost/asio/ts/netfwd.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace Tavro8::http
{
/// One TCP or TLS connection. Used on the thread of its I/O context only. No handler runs inside the call that takes
/// it; handlers see the errors of the socket library as they are.
///
/// TLS checks no certificate: cameras carry self-signed ones. It keeps listeners out, not impostors.
class HttpConnection {
public:
    using OpenHandler = std::function<void(const error_code& ec)>;
    using TransferHandler = std::function<void(const error_code& ec, std::size_t bytes)>;

    static std::shared_ptr<HttpConnection> create(boost::asio::io_context& context, bool secure);
    virtual ~HttpConnection() = default;

    /// Resolves, connects and negotiates TLS. A name that is being resolved cannot be taken back: after `close` the
    /// handler still comes when the system's resolver gives up. Addresses never touch the resolver.
    virtual void asyncOpen(const std::string& host, std::uint16_t port, OpenHandler handler) = 0;
    /// Writes all of `bytes`, which must stay until then; the handler is told how many have left.
    virtual void asyncWrite(std::string_view bytes, TransferHandler handler) = 0;
    /// Reads at least one byte into `buffer`, which must stay until then. `boost::asio::error::eof` at the end.
    virtual void asyncReadSome(std::span<char> buffer, TransferHandler handler) = 0;

    /// Tells `onEnd` once when the peer closes or sends anything, or when `timeout` has passed. Until then
    /// nothing else is under way, and waiting does not keep `io_context::run` from returning.
    virtual void watchIdle(std::chrono::milliseconds timeout, std::function<void()> onEnd) = 0;
    /// Ends watching. Says whether the connection can be used: neither closed nor anything unread.
    virtual bool stopWatching() = 0;

    /// Everything under way ends with an error.
    virtual void close() noexcept = 0;
};
}  // namespace Tavro8::http

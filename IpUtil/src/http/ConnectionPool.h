#pragma once

#include "http/HttpConnection.h"
#include "http/HttpLimits.h"

#include <IpUtil/ConnectionInfo.h>
#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

namespace Tavro8::http
{
class PoolRegistry;

/// Who waits for its turn to use a connection.
class PoolClient {
public:
    virtual ~PoolClient() = default;
    /// The turn has come and lasts until `ConnectionPool::release`. `kept` is an open connection, or null when a new
    /// one is to be made. Must not throw.
    virtual void onTurn(std::shared_ptr<HttpConnection> kept) = 0;
};

/// The connections of one I/O context to one device: a few at once, first come first served, kept for a while when
/// nobody needs them. Used on the thread of its I/O context only; ends with that context.
class ConnectionPool : public std::enable_shared_from_this<ConnectionPool> {
public:
    /// The pool of this device in this context.
    static std::shared_ptr<ConnectionPool> of(boost::asio::io_context& context, const asio::ConnectionInfo& info);

    ConnectionPool(PoolRegistry& registry, const HttpLimits& limits) : registry(registry), limits(limits) {}

    /// Queues for a turn, which may come during the call.
    void acquire(std::shared_ptr<PoolClient> client);
    /// Leaves the queue.
    void leave(const PoolClient& client);
    /// Ends a turn. `connection` is kept for the next; null when there is none worth keeping.
    void release(std::shared_ptr<HttpConnection> connection);

    const HttpLimits& getLimits() const noexcept { return limits; }
    bool isUnused() const noexcept { return turns == 0 && waiting.empty() && idle.empty(); }
    /// The context ends: nobody gets a turn any more.
    void shutDown() noexcept;

private:
    void serve();
    std::shared_ptr<HttpConnection> takeIdle();
    void keep(std::shared_ptr<HttpConnection> connection);
    void drop(const HttpConnection& connection);

    PoolRegistry& registry;  // of the I/O context, outlives every turn
    const HttpLimits limits;
    std::deque<std::shared_ptr<PoolClient>> waiting;
    std::vector<std::shared_ptr<HttpConnection>> idle;  // the last is the one used last
    std::size_t turns = 0;                              // turns + idle never exceed the limit
    bool ended = false;
};

/// The limits of requests that the context makes to devices it has no pool for yet.
HttpLimits getHttpLimits(boost::asio::io_context& context);
void setHttpLimits(boost::asio::io_context& context, const HttpLimits& limits);
}  // namespace Tavro8::http

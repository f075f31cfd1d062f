#include "http/ConnectionPool.h"

#include <algorithm>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/io_context.hpp>
#include <map>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

namespace Tavro8::http
{
/// The pools of one I/O context. Being a service of the context, it is made with the first request and ends when
/// the context does, while everything that handlers and connections refer to still exists.
class PoolRegistry final : public boost::asio::execution_context::service {
public:
    using key_type = PoolRegistry;
    static boost::asio::execution_context::id id;

    explicit PoolRegistry(boost::asio::execution_context& context) : service(context) {}

    std::shared_ptr<ConnectionPool> find(const asio::ConnectionInfo& info);
    void forget(const ConnectionPool& pool) noexcept;

    HttpLimits getLimits() const
    {
        const std::lock_guard lock(mutex);
        return limits;
    }
    void setLimits(const HttpLimits& changed)
    {
        const std::lock_guard lock(mutex);
        limits = changed;
    }

private:
    using Key = std::tuple<std::string, std::uint16_t, bool>;

    void shutdown() noexcept override;

    mutable std::mutex mutex;  // guards `limits`, which any thread may ask for; all else is the I/O thread's
    HttpLimits limits;
    std::map<Key, std::shared_ptr<ConnectionPool>> pools;
};

boost::asio::execution_context::id PoolRegistry::id;

std::shared_ptr<ConnectionPool> PoolRegistry::find(const asio::ConnectionInfo& info)
{
    auto& pool = pools[{info.host, info.port, info.secure}];
    if (pool == nullptr)
        pool = std::make_shared<ConnectionPool>(*this, getLimits());
    return pool;
}

void PoolRegistry::forget(const ConnectionPool& pool) noexcept
{
    std::erase_if(pools, [&](const auto& entry) { return entry.second.get() == &pool; });
}

void PoolRegistry::shutdown() noexcept
{
    const auto ending = std::exchange(pools, {});
    for (const auto& [key, pool] : ending)
        pool->shutDown();
}

std::shared_ptr<ConnectionPool> ConnectionPool::of(boost::asio::io_context& context, const asio::ConnectionInfo& info)
{
    return boost::asio::use_service<PoolRegistry>(context).find(info);
}

void ConnectionPool::acquire(std::shared_ptr<PoolClient> client)
{
    waiting.push_back(std::move(client));
    serve();
}

void ConnectionPool::leave(const PoolClient& client)
{
    std::erase_if(waiting, [&](const auto& waiter) { return waiter.get() == &client; });
    if (isUnused())
        registry.forget(*this);
}

void ConnectionPool::release(std::shared_ptr<HttpConnection> connection)
{
    if (ended)
        return;
    --turns;
    if (connection != nullptr)
        keep(std::move(connection));
    serve();
    if (isUnused())
        registry.forget(*this);
}

void ConnectionPool::shutDown() noexcept
{
    ended = true;
    // Taken out first: what a destroyed completion handler held may come back here.
    const auto endingClients = std::exchange(waiting, {});
    const auto endingConnections = std::exchange(idle, {});
    for (const auto& connection : endingConnections)
        connection->close();
}

void ConnectionPool::serve()
{
    while (!ended && !waiting.empty() && turns < limits.connectionsPerDevice) {
        const std::shared_ptr<PoolClient> client = std::move(waiting.front());
        waiting.pop_front();
        ++turns;
        client->onTurn(takeIdle());
    }
}

std::shared_ptr<HttpConnection> ConnectionPool::takeIdle()
{
    while (!idle.empty()) {
        const std::shared_ptr<HttpConnection> connection = std::move(idle.back());
        idle.pop_back();
        if (connection->stopWatching())
            return connection;
        connection->close();
    }
    return nullptr;
}

void ConnectionPool::keep(std::shared_ptr<HttpConnection> connection)
{
    idle.push_back(connection);
    connection->watchIdle(limits.idleTimeout, [weak = weak_from_this(), raw = connection.get()] {
        if (const auto self = weak.lock())
            self->drop(*raw);
    });
}

void ConnectionPool::drop(const HttpConnection& connection)
{
    const auto self = shared_from_this();  // the registry may hold the last reference
    const auto at = std::find_if(idle.begin(), idle.end(), [&](const auto& kept) { return kept.get() == &connection; });
    if (at == idle.end())
        return;
    const std::shared_ptr<HttpConnection> dropped = std::move(*at);
    idle.erase(at);
    dropped->close();
    if (isUnused())
        registry.forget(*this);
}

HttpLimits getHttpLimits(boost::asio::io_context& context)
{
    return boost::asio::use_service<PoolRegistry>(context).getLimits();
}

void setHttpLimits(boost::asio::io_context& context, const HttpLimits& limits)
{
    boost::asio::use_service<PoolRegistry>(context).setLimits(limits);
}
}  // namespace Tavro8::http

#pragma once

#include "server/EventPort.h"

#include <IpUtil/Logger.h>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <span>
#include <string>

namespace Tavro8::server
{
/// Limits and waiting times that are nobody's setting.
struct EventServerLimits {
    std::chrono::milliseconds idle{30000};       ///< a connection on which nothing has come for so long is closed
    std::chrono::milliseconds firstRetry{1000};  ///< of a port that cannot be listened on, doubling
    std::chrono::milliseconds longestRetry{30000};
    std::chrono::milliseconds reminder{3600000};  ///< how often a port that stays taken is complained of
    std::chrono::milliseconds acceptPause{100};   ///< when the system has no more sockets
    std::chrono::milliseconds logPause{60000};    ///< between lines on what strangers can make happen
    std::size_t connectionsPerAddress = 16;
    std::size_t keptBytesPerAddress = std::size_t{8} * 1024 * 1024;  ///< of unfinished messages
    std::size_t keptBytesInAll = std::size_t{64} * 1024 * 1024;
    std::size_t modestKeptBytes = std::size_t{4} * 1024;  ///< granted to each connection, whatever the others keep
};

/// The ports, and what their connections share: the receive buffer, the timer of silent connections, the limits. One
/// per I/O context, made by `boost::asio::use_service`, or by `make_service` with other limits.
///
/// Host threads register and unregister under `mutex`, which is never held while a client, a logger or another lock is
/// asked for. Sockets and timers belong to the one thread that runs the context; handlers that capture `this` go with
/// the context, as does the server.
class EventServer final : public boost::asio::execution_context::service {
public:
    using Clock = std::chrono::steady_clock;
    using Released = std::vector<std::shared_ptr<Utility::GlobalService>>;

    static boost::asio::execution_context::id id;

    explicit EventServer(boost::asio::execution_context& owner, const EventServerLimits& limits = {});
    ~EventServer() override;

    // Any thread; see TcpServerEx. What the ended registrations kept running comes back, for the caller to release
    // when it has left the server.
    void start(std::uint16_t port, const ClientAddress& address, std::shared_ptr<Registration> registration);
    Released stop(std::uint16_t port, const ClientAddress& address);
    Released stopAllOf(const TcpServerEx::IClient* client);

    // Ports, on the server's thread unless said otherwise:
    std::mutex& getMutex() noexcept { return mutex; }                       ///< any thread
    boost::asio::io_context& getContext() noexcept { return context; }      ///< any thread
    const EventServerLimits& getLimits() const noexcept { return limits; }  ///< any thread
    std::span<char> receiveBuffer() noexcept;
    void addQuiet(EventConnection& connection);
    void touch(EventConnection& connection) noexcept;
    void removeQuiet(EventConnection& connection) noexcept;
    void addKeptBytes(std::ptrdiff_t change) noexcept { keptBytes += static_cast<std::size_t>(change); }
    std::size_t getKeptBytes() const noexcept { return keptBytes; }
    LoggerDetail::LogCollapserMaker& getCollapser() noexcept { return collapser; }
    double random();

private:
    void shutdown() override;
    void close(const std::vector<std::shared_ptr<Registration>>& ended);
    void forgetLater(const std::shared_ptr<EventPort>& port, const ClientAddress& address);
    void forget(EventPort& port, const ClientAddress& address);
    void armSweep();
    void sweep();

    boost::asio::io_context& context;
    const EventServerLimits limits;

    std::mutex mutex;
    std::map<std::uint16_t, std::shared_ptr<EventPort>> ports;  // guarded by `mutex`
    std::vector<std::shared_ptr<Registration>> ending;          // guarded by `mutex`; their gates are being closed

    // The server's thread:
    std::unique_ptr<char[]> buffer;
    std::list<EventConnection*> quiet;  // the longest silent one in front
    boost::asio::steady_timer sweepTimer;
    bool sweepArmed = false;
    std::size_t keptBytes = 0;
    LoggerDetail::LogCollapserMaker collapser;  // of what clients throw
    std::minstd_rand randomness;
};
}  // namespace Tavro8::server

#pragma once

#include "server/ClientAddress.h"
#include "server/EventConnection.h"
#include "server/LogPacer.h"

#include <IpUtil/ConnectionPolicy.h>
#include <IpUtil/GlobalService.h>
#include <IpUtil/LoggerHelper.h>
#include <array>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace Tavro8::server
{
class EventPort;
class EventServer;

/// One `startForClient`. The gate closes when it ends: until then client and logger may be called.
struct Registration {
    TcpServerEx::IClient* client = nullptr;
    ILogger* logger = nullptr;
    Utility::HandlerGate gate;
    /// Keeps the threads running. Taken away when the registration ends, since a delivery that passes at that moment
    /// must not be the one that stops them.
    std::shared_ptr<Utility::GlobalService> service;
};

/// One registered address of a port.
struct Sender {
    Sender(EventPort& port, const ClientAddress& address) noexcept : port(port), address(address) {}

    EventPort& port;
    const ClientAddress address;
    std::vector<std::shared_ptr<Registration>> stack;  ///< guarded by the server's mutex; the last one receives
    std::vector<std::shared_ptr<EventConnection>> connections;  ///< the server's thread
    std::size_t keptBytes = 0;                                  ///< of its connections; the server's thread
};

/// A port on which devices reach us: its listening socket, who is registered, and the connections.
///
/// What is marked "locked" is called under the server's mutex, on any thread; all else on the server's thread without
/// it. The listening socket is opened before any handler of it exists, and closed on the server's thread.
class EventPort final : public std::enable_shared_from_this<EventPort>, public ConnectionOwner {
public:
    /// What others may make happen a thousand times a second, so that it is counted rather than logged each time.
    enum class Nuisance : std::uint8_t { stranger, crowd, acceptFailure, loss };
    static constexpr std::size_t nuisanceCount = 4;

    EventPort(EventServer& server, std::uint16_t number);
    ~EventPort();

    // Locked:
    /// Whether the port can be listened on, and if not why.
    boost::system::error_code open();
    /// How many registrations of the address there are now.
    std::size_t push(const ClientAddress& address, std::shared_ptr<Registration> registration);
    /// Null when there is none. `left` is how many remain.
    std::shared_ptr<Registration> pop(const ClientAddress& address, std::size_t& left);
    /// Takes all registrations of the client out of their stacks; `emptied` are the addresses without any left.
    void popAllOf(const TcpServerEx::IClient* client, std::vector<std::shared_ptr<Registration>>& into,
                  std::vector<ClientAddress>& emptied);
    bool isWanted() const noexcept { return registrations != 0; }
    /// How often each nuisance has happened that has been counted and not been told.
    using Rests = std::array<std::uint64_t, nuisanceCount>;
    /// All that there are; they count as told.
    Rests takeRests() noexcept;
    /// Ends listening and retrying, and gives the port back to the system.
    void closeListener() noexcept;

    // The server's thread:
    void begin(const boost::system::error_code& opened);
    /// Closes the connections of an address and forgets it, unless it is registered again.
    void dropUnregistered(const ClientAddress& address);
    /// Closes all connections; nobody is told.
    void shutdown() noexcept;
    void closeSilent(EventConnection& connection);

    std::uint16_t getNumber() const noexcept { return number; }
    /// Any thread.
    void logRests(const LoggerHelper& log, const Rests& rests) const noexcept;

    std::span<char> receiveBuffer() noexcept override;
    void onActivity(EventConnection& connection) override;
    void onMessage(EventConnection& connection, std::string_view message) override;
    void onKeptBytesChanged(EventConnection& connection, std::ptrdiff_t change) override;
    void onEnd(EventConnection& connection, const char* reason) override;

private:
    using tcp = boost::asio::ip::tcp;
    using error_code = boost::system::error_code;

    template <typename Call>
    bool callClient(const Sender& sender, LogPlace operation, Call&& call) const noexcept;
    template <typename Tell>
    void tell(Tell&& tell) const noexcept;
    error_code openFor(const tcp& protocol);
    void waitAcceptable();
    void accept();
    bool acceptOne();
    void onAcceptFailure(const error_code& ec);
    void welcome(tcp::socket socket, const ClientAddress& address);
    void refuse(const ClientAddress& address);
    void retryLater();
    void retry();
    std::optional<std::uint64_t> count(Nuisance nuisance);
    void armRestTimer();
    void tellRests();
    void closeLongestSilent(Sender& sender);
    void end(EventConnection& connection);
    void remove(EventConnection& connection) noexcept;
    std::shared_ptr<Registration> receiverOf(const Sender& sender) const;

    EventServer& server;
    const std::uint16_t number;

    std::unordered_map<ClientAddress, std::unique_ptr<Sender>, ClientAddress::Hash> senders;  // guarded by the mutex
    std::size_t registrations = 0;                                                            // guarded by the mutex
    tcp::acceptor acceptor;
    boost::asio::steady_timer timer;  // the next attempt to open, or to accept
    Utility::Backoff backoff;
    error_code failure;                          // the last one that was logged
    EventConnection::Clock::time_point saidAt;   // when that was
    std::array<LogPacer, nuisanceCount> pacers;  // guarded by the mutex
    boost::asio::steady_timer restTimer;         // tells what they have counted
    bool restTimerArmed = false;
};
}  // namespace Tavro8::server

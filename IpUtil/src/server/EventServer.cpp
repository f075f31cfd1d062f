#include <utility>

#include "server/EventServer.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <iterator>

namespace Tavro8::server
{
namespace
{
constexpr std::size_t receiveBufferBytes = std::size_t{64} * 1024;
constexpr const char* sourcePath = "IpUtil/src/server/EventServer";
constexpr const char* startOperation = "Tavro8::TcpServerEx::startForClient";
constexpr const char* stopOperation = "Tavro8::TcpServerEx::stopForClient";
}  // namespace

boost::asio::execution_context::id EventServer::id;

EventServer::EventServer(boost::asio::execution_context& owner, const EventServerLimits& limits)
    : service(owner),
      context(static_cast<boost::asio::io_context&>(owner)),
      limits(limits),
      buffer(std::make_unique_for_overwrite<char[]>(receiveBufferBytes)),
      sweepTimer(context),
      randomness(std::random_device{}())
{}

EventServer::~EventServer() = default;

void EventServer::start(std::uint16_t port, const ClientAddress& address, std::shared_ptr<Registration> registration)
{
    const LoggerHelper log(registration->logger, sourcePath);
    boost::system::error_code failure;
    std::size_t depth = 0;
    bool isNew = false;
    {
        // Opened here rather than on the server's thread: the device may connect as soon as we return.
        const std::lock_guard lock(mutex);
        auto& known = ports[port];
        isNew = known == nullptr;
        if (isNew) {
            known = std::make_shared<EventPort>(*this, port);
            failure = known->open();
            boost::asio::post(context, [known = known, failure] { known->begin(failure); });
        }
        depth = known->push(address, std::move(registration));
    }
    if (failure)
        log.error(startOperation, "Cannot listen on port ", port, ": ", failure.message(), "; it is tried again");
    else if (isNew)
        log.info(startOperation, "Listening on port ", port);
    if (depth > 1)
        log.warning(startOperation, address.toText(), " is registered ", depth, " times on port ", port,
                    "; the newest registration receives");
}

EventServer::Released EventServer::stop(std::uint16_t port, const ClientAddress& address)
{
    std::shared_ptr<Registration> ended;
    std::shared_ptr<EventPort> known;
    std::size_t left = 0;
    bool isWanted = true;
    EventPort::Rests rests{};
    Released released;
    {
        const std::lock_guard lock(mutex);
        const auto found = ports.find(port);
        if (found == ports.end())
            return released;
        known = found->second;
        ended = known->pop(address, left);
        if (ended == nullptr)
            return released;
        isWanted = known->isWanted();
        if (!isWanted)
            rests = known->takeRests();  // later there is nobody to tell
        released.push_back(std::move(ended->service));
        ending.push_back(ended);
    }
    if (left == 0)
        forgetLater(known, address);
    // Through the gate, since the registration may be that of somebody else, who takes the logger along.
    ended->gate.call([&] {
        const LoggerHelper log(ended->logger, sourcePath);
        if (left != 0)
            log.warning(stopOperation, "The newest of ", left + 1, " registrations of ", address.toText(), " on port ",
                        port, " has ended; the one before it receives");
        known->logRests(log, rests);
        if (!isWanted)
            log.info(stopOperation, "Port ", port, " is closed: no device uses it any more");
    });
    close({ended});
    return released;
}

EventServer::Released EventServer::stopAllOf(const TcpServerEx::IClient* client)
{
    std::vector<std::shared_ptr<Registration>> ended;
    std::vector<std::pair<std::shared_ptr<EventPort>, ClientAddress>> emptied;
    Released released;
    std::size_t left = 0;
    {
        const std::lock_guard lock(mutex);
        std::vector<ClientAddress> addresses;
        for (const auto& [number, port] : ports) {
            addresses.clear();
            port->popAllOf(client, ended, addresses);
            for (const ClientAddress& address : addresses)
                emptied.emplace_back(port, address);
        }
        left = ended.size();
        for (const auto& registration : ended)
            released.push_back(std::move(registration->service));
        // Somebody else may be about to end one of this client's, and still wait for its delivery: so do we.
        std::ranges::copy_if(ending, std::back_inserter(ended),
                             [client](const auto& registration) { return registration->client == client; });
        ending.insert(ending.end(), ended.begin(), ended.begin() + static_cast<std::ptrdiff_t>(left));
    }
    for (const auto& [port, address] : emptied)
        forgetLater(port, address);
    if (left != 0)
        ended.front()->gate.call([&] {
            LoggerHelper(ended.front()->logger, sourcePath)
                .warning("Tavro8::TcpServerEx::stopAllOfClient", "A client goes with ", left,
                         " registration(s) left; ended");
        });
    close(ended);
    return released;
}

/// Waits until nobody is inside the client any more.
void EventServer::close(const std::vector<std::shared_ptr<Registration>>& ended)
{
    for (const auto& registration : ended)
        registration->gate.close();
    const std::lock_guard lock(mutex);
    for (const auto& registration : ended)
        std::erase(ending, registration);
}

void EventServer::forgetLater(const std::shared_ptr<EventPort>& port, const ClientAddress& address)
{
    boost::asio::post(context, [this, port, address] { forget(*port, address); });
}

void EventServer::forget(EventPort& port, const ClientAddress& address)
{
    port.dropUnregistered(address);
    const std::lock_guard lock(mutex);
    const auto found = ports.find(port.getNumber());
    if (found == ports.end() || found->second.get() != &port || port.isWanted())
        return;
    // Under the lock, so that whoever wants the port next finds it free.
    port.closeListener();
    ports.erase(found);
}

std::span<char> EventServer::receiveBuffer() noexcept
{
    return {buffer.get(), receiveBufferBytes};
}

void EventServer::addQuiet(EventConnection& connection)
{
    connection.lastActivity = Clock::now();
    connection.quietAt = quiet.insert(quiet.end(), &connection);
    armSweep();
}

void EventServer::touch(EventConnection& connection) noexcept
{
    connection.lastActivity = Clock::now();
    quiet.splice(quiet.end(), quiet, connection.quietAt);
}

void EventServer::removeQuiet(EventConnection& connection) noexcept
{
    quiet.erase(connection.quietAt);
}

void EventServer::armSweep()
{
    if (sweepArmed || quiet.empty())
        return;
    sweepTimer.expires_at(quiet.front()->lastActivity + limits.idle);
    sweepTimer.async_wait([this](const boost::system::error_code& ec) {
        sweepArmed = false;
        if (!ec)
            sweep();
    });
    sweepArmed = true;
}

void EventServer::sweep()
{
    const auto limit = Clock::now() - limits.idle;
    while (!quiet.empty() && quiet.front()->lastActivity <= limit) {
        EventConnection& connection = *quiet.front();
        // A client that kept this thread for long has silenced nobody: what has come meanwhile is read first.
        if (connection.hasUnreadBytes())
            touch(connection);
        else
            connection.sender.port.closeSilent(connection);
    }
    armSweep();
}

double EventServer::random()
{
    return std::uniform_real_distribution<double>(0, 1)(randomness);
}

/// The context goes: all sockets and timers have to be gone before it.
void EventServer::shutdown()
{
    const std::lock_guard lock(mutex);
    for (const auto& [number, port] : ports) {
        port->closeListener();
        port->shutdown();
    }
    ports.clear();
    sweepTimer.cancel();
}
}  // namespace Tavro8::server

#include <utility>

#include "server/EventPort.h"

#include "server/EventServer.h"

#include <algorithm>
#include <boost/asio/error.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/range/iterator_range_core.hpp>

namespace Tavro8::server
{
namespace
{
constexpr const char* sourcePath = "IpUtil/src/server/EventPort";
constexpr const char* listenOperation = "Tavro8::TcpServerEx::listen";
constexpr const char* acceptOperation = "Tavro8::TcpServerEx::accept";
constexpr const char* receiveOperation = "Tavro8::TcpServerEx::receive";
// A flood of connections lets those that have been accepted have their turn after so many.
constexpr unsigned maxAcceptsPerTurn = 64;

bool isTransient(const boost::system::error_code& ec)
{
    return ec == boost::asio::error::would_block || ec == boost::asio::error::try_again;
}
}  // namespace

EventPort::EventPort(EventServer& server, std::uint16_t number)
    : server(server),
      number(number),
      acceptor(server.getContext()),
      timer(server.getContext()),
      backoff(server.getLimits().firstRetry, server.getLimits().longestRetry),
      pacers{LogPacer(server.getLimits().logPause), LogPacer(server.getLimits().logPause),
             LogPacer(server.getLimits().logPause), LogPacer(server.getLimits().logPause)},
      restTimer(server.getContext())
{}

EventPort::~EventPort()
{
    shutdown();
}

boost::system::error_code EventPort::open()
{
    // One socket for both families. Where IPv6 is switched off IPv4 has to do; a port that is taken stays so.
    const error_code failed = openFor(tcp::v6());
    if (!failed || failed == boost::asio::error::address_in_use || failed == boost::asio::error::access_denied)
        return failed;
    return openFor(tcp::v4());
}

boost::system::error_code EventPort::openFor(const tcp& protocol)
{
    error_code ec;
    const auto close = [&] {
        error_code ignored;
        acceptor.close(ignored);
        return ec;
    };
    if (acceptor.open(protocol, ec), ec)
        return close();
    if (protocol == tcp::v6() && (acceptor.set_option(boost::asio::ip::v6_only(false), ec), ec))
        return close();
#if !defined(_WIN32)
    // Connections of an earlier run that linger do not keep the port. On Windows the option would let two programs
    // share it.
    if (acceptor.set_option(tcp::acceptor::reuse_address(true), ec), ec)
        return close();
#endif
    if (acceptor.bind(tcp::endpoint(protocol, number), ec), ec)
        return close();
    if (acceptor.listen(tcp::acceptor::max_listen_connections, ec), ec)
        return close();
    if (acceptor.non_blocking(true, ec), ec)
        return close();
    return ec;
}

std::size_t EventPort::push(const ClientAddress& address, std::shared_ptr<Registration> registration)
{
    auto& sender = senders[address];
    if (sender == nullptr)
        sender = std::make_unique<Sender>(*this, address);
    sender->stack.push_back(std::move(registration));
    ++registrations;
    return sender->stack.size();
}

std::shared_ptr<Registration> EventPort::pop(const ClientAddress& address, std::size_t& left)
{
    const auto found = senders.find(address);
    if (found == senders.end() || found->second->stack.empty())
        return nullptr;
    auto& stack = found->second->stack;
    std::shared_ptr<Registration> newest = std::move(stack.back());
    stack.pop_back();
    --registrations;
    left = stack.size();
    return newest;
}

void EventPort::popAllOf(const TcpServerEx::IClient* client, std::vector<std::shared_ptr<Registration>>& into,
                         std::vector<ClientAddress>& emptied)
{
    for (const auto& [address, sender] : senders) {
        auto& stack = sender->stack;
        const auto ofClient = std::stable_partition(
            stack.begin(), stack.end(), [client](const auto& registration) { return registration->client != client; });
        if (ofClient == stack.end())
            continue;
        registrations -= static_cast<std::size_t>(stack.end() - ofClient);
        into.insert(into.end(), ofClient, stack.end());
        stack.erase(ofClient, stack.end());
        if (stack.empty())
            emptied.push_back(address);
    }
}

void EventPort::closeListener() noexcept
{
    error_code ignored;
    acceptor.close(ignored);
    timer.cancel();
    restTimer.cancel();
}

void EventPort::begin(const error_code& opened)
{
    failure = opened;
    saidAt = EventConnection::Clock::now();
    if (failure)
        retryLater();
    else
        waitAcceptable();
}

void EventPort::retryLater()
{
    timer.expires_after(backoff.next(server.random()));
    timer.async_wait([self = shared_from_this()](const error_code& ec) {
        if (!ec)
            self->retry();
    });
}

void EventPort::retry()
{
    error_code ec;
    {
        const std::lock_guard lock(server.getMutex());
        if (!isWanted())
            return;
        ec = open();
    }
    const error_code before = std::exchange(failure, ec);
    if (!ec) {
        // A warning, so that whoever reads of the failure reads of its end, too.
        tell([&](const LoggerHelper& log) { log.warning(listenOperation, "Listening on port ", number, " at last"); });
        return waitAcceptable();
    }
    const auto now = EventConnection::Clock::now();
    if (ec != before || now - saidAt >= server.getLimits().reminder) {
        saidAt = now;
        tell([&](const LoggerHelper& log) {
            log.error(listenOperation, "Cannot listen on port ", number, ": ", ec.message(), "; it is tried again");
        });
    }
    retryLater();
}

void EventPort::waitAcceptable()
{
    acceptor.async_wait(tcp::acceptor::wait_read, [self = shared_from_this()](const error_code& ec) {
        if (!ec && self->acceptor.is_open())
            self->accept();
    });
}

void EventPort::accept()
{
    for (unsigned i = 0; i < maxAcceptsPerTurn; ++i) {
        if (!acceptOne())
            return;
    }
    waitAcceptable();
}

/// False when nothing more can be accepted now; then what comes next is seen to.
bool EventPort::acceptOne()
try {
    error_code ec;
    tcp::endpoint peer;
    tcp::socket socket = acceptor.accept(peer, ec);
    if (ec == boost::asio::error::connection_aborted || ec == boost::asio::error::interrupted)
        return true;
    if (isTransient(ec)) {
        waitAcceptable();
        return false;
    }
    if (ec) {
        onAcceptFailure(ec);
        return false;
    }
    welcome(std::move(socket), ClientAddress(peer.address()));
    return true;
} catch (const std::exception&) {  // no memory for this one
    onAcceptFailure(boost::asio::error::no_memory);
    return false;
}

/// The connection stays in the queue and would be found again at once: a pause lets others return what is missing.
void EventPort::onAcceptFailure(const error_code& ec)
{
    if (const auto times = count(Nuisance::acceptFailure)) {
        tell([&](const LoggerHelper& log) {
            log.error(acceptOperation, "Cannot accept connections on port ", number, ": ", ec.message(), " (", *times,
                      " times)");
        });
    }
    timer.expires_after(server.getLimits().acceptPause);
    timer.async_wait([self = shared_from_this()](const error_code& cancelled) {
        if (!cancelled && self->acceptor.is_open())
            self->accept();
    });
}

void EventPort::welcome(tcp::socket socket, const ClientAddress& address)
{
    Sender* sender = nullptr;
    {
        const std::lock_guard lock(server.getMutex());
        const auto found = senders.find(address);
        if (found != senders.end() && !found->second->stack.empty())
            sender = found->second.get();  // forgotten on this thread alone
    }
    if (sender == nullptr)
        return refuse(address);
    if (sender->connections.size() >= server.getLimits().connectionsPerAddress)
        closeLongestSilent(*sender);
    auto connection = std::make_shared<EventConnection>(std::move(socket), address.toText(), *this, *sender);
    sender->connections.push_back(connection);
    server.addQuiet(*connection);
    connection->start();
}

void EventPort::refuse(const ClientAddress& address)
{
    if (const auto times = count(Nuisance::stranger)) {
        tell([&](const LoggerHelper& log) {
            log.warning(acceptOperation, "Refused ", *times, " connection(s) to port ", number,
                        " from addresses of no device, the last one from ", address.toText());
        });
    }
}

/// How often it has happened, when that is to be told now. What is only counted is told later.
std::optional<std::uint64_t> EventPort::count(Nuisance nuisance)
{
    const auto now = EventConnection::Clock::now();
    const std::lock_guard lock(server.getMutex());
    const auto times = pacers[static_cast<std::size_t>(nuisance)].count(now);
    if (!times)
        armRestTimer();
    return times;
}

/// Under the server's mutex.
void EventPort::armRestTimer()
{
    std::optional<LogPacer::Clock::time_point> first;
    for (const LogPacer& pacer : pacers) {
        if (const auto due = pacer.restDue(); due && (!first || *due < *first))
            first = due;
    }
    if (!first || restTimerArmed)
        return;
    restTimer.expires_at(*first);
    restTimer.async_wait([self = shared_from_this()](const error_code& ec) {
        self->restTimerArmed = false;
        if (!ec)
            self->tellRests();
    });
    restTimerArmed = true;
}

void EventPort::tellRests()
{
    const auto now = EventConnection::Clock::now();
    Rests rests{};
    {
        const std::lock_guard lock(server.getMutex());
        for (std::size_t i = 0; i < nuisanceCount; ++i) {
            if (const auto due = pacers[i].restDue(); due && *due <= now)
                rests[i] = pacers[i].takeRest(now);
        }
        armRestTimer();
    }
    tell([&](const LoggerHelper& log) { logRests(log, rests); });
}

EventPort::Rests EventPort::takeRests() noexcept
{
    const auto now = EventConnection::Clock::now();
    Rests rests{};
    for (std::size_t i = 0; i < nuisanceCount; ++i) {
        if (pacers[i].restDue())
            rests[i] = pacers[i].takeRest(now);
    }
    return rests;
}

void EventPort::logRests(const LoggerHelper& log, const Rests& rests) const noexcept
{
    const auto timesOf = [&rests](Nuisance nuisance) { return rests[static_cast<std::size_t>(nuisance)]; };
    if (const auto times = timesOf(Nuisance::stranger))
        log.warning(acceptOperation, "Refused ", times, " more connection(s) to port ", number,
                    " from addresses of no device");
    if (const auto times = timesOf(Nuisance::crowd))
        log.warning(acceptOperation, "Closed ", times, " more connection(s) to port ", number,
                    " of addresses that had too many");
    if (const auto times = timesOf(Nuisance::acceptFailure))
        log.error(acceptOperation, "Could not accept connections on port ", number, ' ', times, " more times");
    if (const auto times = timesOf(Nuisance::loss))
        log.warning(receiveOperation, "Dropped ", times, " more connection(s) to port ", number);
}

void EventPort::closeLongestSilent(Sender& sender)
{
    const auto longest =
        std::min_element(sender.connections.begin(), sender.connections.end(),
                         [](const auto& left, const auto& right) { return left->lastActivity < right->lastActivity; });
    if (const auto times = count(Nuisance::crowd)) {
        tell([&](const LoggerHelper& log) {
            log.warning(acceptOperation, sender.address.toText(), " has too many connections to port ", number,
                        "; the longest silent one is closed (", *times, " times)");
        });
    }
    const std::shared_ptr<EventConnection> closed = *longest;
    end(*closed);
}

std::span<char> EventPort::receiveBuffer() noexcept
{
    return server.receiveBuffer();
}

void EventPort::onActivity(EventConnection& connection)
{
    server.touch(connection);
}

void EventPort::onMessage(EventConnection& connection, std::string_view message)
{
    callClient(connection.sender, "Tavro8::TcpServerEx::IClient::processData", [&](TcpServerEx::IClient& client) {
        client.processData({message.data(), message.data() + message.size()}, connection.getClientSession());
    });
}

/// Small remains are everybody's; beyond them an address, and all of them together, have a budget.
void EventPort::onKeptBytesChanged(EventConnection& connection, std::ptrdiff_t change)
{
    Sender& sender = connection.sender;
    sender.keptBytes += static_cast<std::size_t>(change);
    server.addKeptBytes(change);
    const EventServerLimits& limits = server.getLimits();
    if (change <= 0 || connection.getKeptBytes() <= limits.modestKeptBytes)
        return;
    if (sender.keptBytes > limits.keptBytesPerAddress)
        onEnd(connection, "the unfinished messages of this address are beyond the limit");
    else if (server.getKeptBytes() > limits.keptBytesInAll)
        onEnd(connection, "the unfinished messages of all devices are beyond the limit");
}

void EventPort::onEnd(EventConnection& connection, const char* reason)
{
    if (reason != nullptr) {
        if (const auto times = count(Nuisance::loss)) {
            tell([&](const LoggerHelper& log) {
                log.warning(receiveOperation, "A connection of ", connection.sender.address.toText(), " to port ",
                            number, " was dropped: ", reason, " (", *times, " on this port)");
            });
        }
    }
    end(connection);
}

void EventPort::closeSilent(EventConnection& connection)
{
    const auto kept = connection.shared_from_this();
    connection.finish();
    if (connection.isOpen())
        end(connection);
}

/// Closes the connection and tells its client.
void EventPort::end(EventConnection& connection)
{
    const auto kept = connection.shared_from_this();
    const Sender& sender = connection.sender;
    remove(connection);
    callClient(sender, "Tavro8::TcpServerEx::IClient::onConnectionClose",
               [&](TcpServerEx::IClient& client) { client.onConnectionClose(kept->getClientSession()); });
}

void EventPort::remove(EventConnection& connection) noexcept
{
    const auto kept = connection.shared_from_this();
    Sender& sender = connection.sender;
    const std::size_t keptBytes = connection.getKeptBytes();
    sender.keptBytes -= keptBytes;
    server.addKeptBytes(-static_cast<std::ptrdiff_t>(keptBytes));
    server.removeQuiet(connection);
    std::erase(sender.connections, kept);
    connection.close();
}

void EventPort::dropUnregistered(const ClientAddress& address)
{
    std::unique_ptr<Sender> dropped;
    {
        const std::lock_guard lock(server.getMutex());
        const auto found = senders.find(address);
        if (found == senders.end() || !found->second->stack.empty())
            return;
        dropped = std::move(found->second);
        senders.erase(found);
    }
    while (!dropped->connections.empty())
        remove(*dropped->connections.back());
}

void EventPort::shutdown() noexcept
{
    for (const auto& [address, sender] : senders) {
        while (!sender->connections.empty())
            remove(*sender->connections.back());
    }
    senders.clear();
    registrations = 0;
}

/// Calls the newest client of the address, with no lock held and nothing thrown; false when there is none.
template <typename Call>
bool EventPort::callClient(const Sender& sender, LogPlace operation, Call&& call) const noexcept
{
    const std::shared_ptr<Registration> receiver = receiverOf(sender);
    if (receiver == nullptr)
        return false;
    const auto logFailure = [&](const char* what) {
        const std::uint32_t times = server.getCollapser().collapse(what, LoggerDetail::CollapsingLogger::collapseCount);
        if (times != 0)
            LoggerHelper(receiver->logger, sourcePath)
                .error(operation, "The receiver of ", sender.address.toText(), " failed: ", what, " (", times,
                       " times)");
    };
    return receiver->gate.call([&] {
        try {
            call(*receiver->client);
        } catch (const std::exception& e) {
            logFailure(e.what());
        } catch (...) {  // Boost.Thread's interruption is no std::exception
            logFailure("unknown exception");
        }
    });
}

std::shared_ptr<Registration> EventPort::receiverOf(const Sender& sender) const
{
    const std::lock_guard lock(server.getMutex());
    return sender.stack.empty() ? nullptr : sender.stack.back();
}

/// Logs through one of those who use the port; when there is none, there is nobody to tell.
template <typename Tell>
void EventPort::tell(Tell&& tell) const noexcept
{
    std::shared_ptr<Registration> speaker;
    {
        const std::lock_guard lock(server.getMutex());
        for (const auto& [address, sender] : senders) {
            if (sender->stack.empty())
                continue;
            speaker = sender->stack.back();
            break;
        }
    }
    if (speaker != nullptr)
        speaker->gate.call([&] { tell(LoggerHelper(speaker->logger, sourcePath)); });
}
}  // namespace Tavro8::server

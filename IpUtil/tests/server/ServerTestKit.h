#pragma once

#include <utility>

#include "server/EventServer.h"

#include "RecordingLogger.h"

#include <IpUtil/TcpServerEx.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <boost/range/iterator_range_core.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace Tavro8::server::testing
{
using boost::asio::ip::tcp;
using kelvo::test::RecordingLogger;

inline constexpr auto patience = std::chrono::seconds(10);

/// A notification with a body of its own.
inline std::string notification(const std::string& body)
{
    return "POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\nHost: 192.0.2.1\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// Keeps what it is given, and does what the test wants in the middle of it.
class RecordingClient final : public TcpServerEx::IClient {
public:
    using Session = boost::shared_ptr<TcpServerEx::Session>;
    using OnData = std::function<void(const std::string& message, const Session& session)>;

    explicit RecordingClient(OnData onData = {}) : onData(std::move(onData)) {}

    void processData(const boost::iterator_range<const char*>& data, const Session& session) override
    {
        const std::string message(data.begin(), data.end());
        {
            const std::lock_guard lock(mutex);
            messages.push_back(message);
            changed.notify_all();
        }
        if (onData)
            onData(message, session);
    }
    void onConnectionClose(const Session&) override
    {
        const std::lock_guard lock(mutex);
        ++closed;
        changed.notify_all();
    }

    /// Waits for so many messages, and gives all there are.
    std::vector<std::string> waitFor(std::size_t count)
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, patience, [&] { return messages.size() >= count; }))
            << messages.size() << " of " << count << " messages";
        return messages;
    }
    bool waitForClosed(std::size_t count)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, patience, [&] { return closed >= count; });
    }
    std::size_t count()
    {
        const std::lock_guard lock(mutex);
        return messages.size();
    }

private:
    const OnData onData;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> messages;
    std::size_t closed = 0;
};

/// A port that was free a moment ago.
inline std::uint16_t freePort()
{
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, tcp::v6());
    acceptor.set_option(boost::asio::ip::v6_only(false));
    acceptor.bind(tcp::endpoint(tcp::v6(), 0));
    return acceptor.local_endpoint().port();
}

/// A device: connects from an address of its own. Everything blocks.
class Peer {
public:
    explicit Peer(std::uint16_t port, const std::string& from = "127.0.0.1", const std::string& to = "127.0.0.1")
        : socket(context)
    {
        const auto target = boost::asio::ip::make_address(to);
        const tcp::endpoint source(boost::asio::ip::make_address(from), 0);
        socket.open(source.protocol());
        socket.bind(source);
        socket.connect({target, port});
        socket.set_option(tcp::no_delay(true));
    }

    void send(const std::string& bytes) { boost::asio::write(socket, boost::asio::buffer(bytes)); }
    /// False when the server has closed the connection.
    bool trySend(const std::string& bytes)
    {
        boost::system::error_code ec;
        boost::asio::write(socket, boost::asio::buffer(bytes), ec);
        return !ec;
    }
    void endSending() { socket.shutdown(tcp::socket::shutdown_send); }
    void close() { socket.close(); }
    /// All that the server sends until it closes.
    std::string readToEnd()
    {
        std::string bytes;
        boost::system::error_code ec;
        boost::asio::read(socket, boost::asio::dynamic_buffer(bytes), ec);
        return bytes;
    }
    std::string read(std::size_t count)
    {
        std::string bytes(count, '\0');
        boost::asio::read(socket, boost::asio::buffer(bytes));
        return bytes;
    }

private:
    boost::asio::io_context context;
    tcp::socket socket;
};

/// The server with limits of the test, and a port of its own.
class ServerTest : public ::testing::Test {
protected:
    /// Before the first registration.
    void setLimits(const EventServerLimits& limits)
    {
        boost::asio::make_service<EventServer>(service->getServerContext(), limits);
    }

    /// Registers at a free port, which is `port` from now on.
    void start(TcpServerEx::IClient& client, const std::string& address = "127.0.0.1")
    {
        for (;;) {
            port = freePort();
            TcpServerEx::startForClient(port, &logger, address, &client);
            if (!logger.contains("Cannot listen on port " + std::to_string(port) + ":"))
                return;
            TcpServerEx::stopForClient(port, address);  // somebody was faster
        }
    }
    void add(TcpServerEx::IClient& client, const std::string& address)
    {
        TcpServerEx::startForClient(port, &logger, address, &client);
    }
    void stop(const std::string& address = "127.0.0.1") { TcpServerEx::stopForClient(port, address); }
    /// What the server's thread had to do is done.
    void settle() { service->barrier(); }

    RecordingLogger logger;
    std::shared_ptr<Utility::GlobalService> service = Utility::GlobalService::instance();
    std::uint16_t port = 0;
};
}  // namespace Tavro8::server::testing

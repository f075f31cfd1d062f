#pragma once

#include <utility>

#include "server/EventServer.h"

#include "PushPeer.h"
#include "RecordingLogger.h"

#include <IpUtil/TcpServerEx.h>
#include <boost/asio/ip/tcp.hpp>
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
using kelvo::test::freePort;
using kelvo::test::notification;
using Peer = kelvo::test::PushPeer;
using kelvo::test::RecordingLogger;

inline constexpr auto patience = std::chrono::seconds(10);

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

#pragma once

#include <atomic>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <thread>

namespace kelvo::bench
{
/// The management interface of any number of cameras, all those of 127/8 at one port: enough of it for the module to
/// connect and to subscribe. Has a thread of its own.
class PushDevices {
public:
    PushDevices();
    ~PushDevices();
    PushDevices(const PushDevices&) = delete;
    PushDevices& operator=(const PushDevices&) = delete;

    std::uint16_t getPort() const noexcept { return port; }
    std::size_t getSubscriptions() const noexcept { return subscriptions; }  ///< made so far

private:
    boost::asio::awaitable<void> acceptAll();
    boost::asio::awaitable<void> serve(boost::asio::ip::tcp::socket socket);

    boost::asio::io_context context{1};
    boost::asio::ip::tcp::acceptor acceptor;
    const std::uint16_t port;
    std::atomic<std::size_t> subscriptions{0};
    std::thread thread;
};
}  // namespace kelvo::bench

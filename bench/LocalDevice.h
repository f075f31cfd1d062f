#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

namespace kelvo::bench
{
/// The management interface of a device at every address of this machine and one free port. Connections stay open, one
/// request at a time on each, no authorization is asked for. Has a thread of its own.
class LocalDevice {
public:
    struct Request {
        std::string_view method;
        std::string_view path;
    };
    /// Gives the whole HTTP answer; called on the device's thread.
    using Answer = std::function<std::string(const Request&)>;

    /// Each answer is held back for `thinking`, as devices take their time.
    explicit LocalDevice(Answer answer, std::chrono::microseconds thinking = {});
    ~LocalDevice();
    LocalDevice(const LocalDevice&) = delete;
    LocalDevice& operator=(const LocalDevice&) = delete;

    std::uint16_t getPort() const noexcept { return port; }

private:
    boost::asio::awaitable<void> acceptAll();
    boost::asio::awaitable<void> serve(boost::asio::ip::tcp::socket socket);

    const Answer answer;
    const std::chrono::microseconds thinking;
    boost::asio::io_context context{1};
    boost::asio::ip::tcp::acceptor acceptor;
    const std::uint16_t port;
    std::thread thread;
};
}  // namespace kelvo::bench

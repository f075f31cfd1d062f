#include <utility>

#include "PushLoad.h"

#include "ProcessCost.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/write.hpp>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <thread>

namespace kelvo::bench
{
namespace
{
using boost::asio::ip::tcp;
using Clock = std::chrono::steady_clock;

constexpr std::size_t stampDigits = 20;
constexpr std::string_view stampBegin = "\"Stamp\": \"";

std::uint64_t nowNs()
{
    return static_cast<std::uint64_t>(Clock::now().time_since_epoch().count());
}

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// A connection from the device's own address.
tcp::socket connectFrom(boost::asio::io_context& context, std::size_t device, std::uint16_t port)
{
    tcp::socket socket(context, tcp::v4());
    socket.bind({boost::asio::ip::make_address(pushingAddress(device)), 0});
    socket.connect({boost::asio::ip::make_address("127.0.0.1"), port});
    socket.set_option(tcp::no_delay(true));
    return socket;
}
}  // namespace

std::string pushingAddress(std::size_t device)
{
    return "127.1." + std::to_string(device / 250) + '.' + std::to_string(device % 250 + 1);
}

std::uint16_t freePort()
{
    boost::asio::io_context context;
    tcp::acceptor free(context, tcp::v6());
    free.set_option(boost::asio::ip::v6_only(false));
    free.bind(tcp::endpoint(tcp::v6(), 0));
    return free.local_endpoint().port();
}

Notification::Notification()
{
    const std::string body = R"({"Reference": "192.0.2.10:80/LAPI/V1.0/System/Event/Subscription/Subscribers/178", )"
                             R"("AlarmInfo": {"AlarmType": "LineDetectorCrossed", "AlarmLevel": 0, )"
                             R"("TimeStamp": 1489040894, "AlarmSeq": 1000000000, "AlarmSrcID": 1, "AlarmSrcType": 8, )"
                             R"("AlarmSrcName": "Camera1", )" +
                             std::string(stampBegin) + std::string(stampDigits, '0') + "\"}}";
    text = "POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\nHost: 192.0.2.1:32000\r\n"
           "Content-Type: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string& Notification::stamped()
{
    char digits[stampDigits + 1];
    std::snprintf(digits, sizeof digits, "%020llu", static_cast<unsigned long long>(nowNs()));
    text.replace(text.find(stampBegin) + stampBegin.size(), stampDigits, digits, stampDigits);
    // A crossing that had been told already would not be told again. Always ten digits.
    constexpr std::string_view sequenceBegin = "\"AlarmSeq\": ";
    const std::string number = std::to_string(++sequence);
    text.replace(text.find(sequenceBegin) + sequenceBegin.size(), number.size(), number);
    return text;
}

std::uint64_t Notification::ageOf(std::string_view digits) noexcept
{
    const std::uint64_t now = nowNs();
    std::uint64_t stamp = now;
    std::from_chars(digits.data(), digits.data() + digits.size(), stamp);
    return now - stamp;
}

std::string_view Notification::digitsIn(std::string_view notification) noexcept
{
    const std::size_t at = notification.rfind(stampBegin);
    return at == std::string_view::npos ? std::string_view() : notification.substr(at + stampBegin.size(), stampDigits);
}

void Arrivals::note(std::uint64_t ageNs) noexcept
{
    latency.add(ageNs);
    const std::size_t count = received.load(std::memory_order_relaxed) + 1;
    if (count == 1)
        cpuAtFirst = threadSeconds();
    if (count == expected)
        cpuSeconds = threadSeconds() - cpuAtFirst;
    received.store(count, std::memory_order_release);
}

void Arrivals::waitFor(std::size_t count) const
{
    const auto begin = Clock::now();
    for (std::size_t turn = 1; received.load(std::memory_order_acquire) < count; ++turn) {
        std::this_thread::yield();
        if (turn % 1024 == 0 && Clock::now() - begin > std::chrono::seconds(10))
            throw std::runtime_error("notifications are missing");
    }
}

double push(const PushPlan& plan, std::uint16_t port, const Arrivals& arrivals)
{
    boost::asio::io_context context;
    Notification notification;
    std::vector<tcp::socket> devices;
    for (std::size_t i = 0; i < plan.connected && !plan.newConnections; ++i)
        devices.push_back(connectFrom(context, i * plan.registered / plan.connected, port));
    const auto begin = Clock::now();
    for (std::size_t sent = 0; sent < arrivals.getExpected(); ++sent) {
        if (sent >= plan.window)
            arrivals.waitFor(sent - plan.window + 1);
        if (plan.rate != 0)
            std::this_thread::sleep_until(begin + std::chrono::nanoseconds(sent * 1'000'000'000U / plan.rate));
        if (plan.newConnections) {
            tcp::socket device = connectFrom(context, sent % plan.registered, port);
            boost::asio::write(device, boost::asio::buffer(notification.stamped()));
        } else {
            boost::asio::write(devices[sent % plan.connected], boost::asio::buffer(notification.stamped()));
        }
    }
    arrivals.waitFor(arrivals.getExpected());
    return secondsSince(begin);
}

void printPushHeading()
{
    std::puts("| case | median | 99th percentile | a second | a second of the server's core | CPU of one |");
    std::puts("|---|---|---|---|---|---|");
}

void printPushRow(const std::string& name, const Arrivals& arrivals, double seconds)
{
    const double count = static_cast<double>(arrivals.getExpected());
    std::printf("| %s | %.1f µs | %.1f µs | %.0f | %.0f | %.1f µs |\n", name.c_str(),
                static_cast<double>(arrivals.getLatency().percentile(0.5)) * 1e-3,
                static_cast<double>(arrivals.getLatency().percentile(0.99)) * 1e-3, count / seconds,
                count / arrivals.getCpuSeconds(), arrivals.getCpuSeconds() / count * 1e6);
    std::fflush(stdout);
}

std::vector<PushCase> pushCases()
{
    constexpr std::size_t any = std::numeric_limits<std::size_t>::max();
    return {
        {"one device, one at a time", {.registered = 1}, 10},
        {"the same among 1,000 registered", {.registered = 1000}, 10},
        {"50 devices at once", {.registered = 50, .connected = 50, .window = 50}, 1},
        {"the same among 1,000 registered", {.registered = 1000, .connected = 50, .window = 50}, 1},
        {"1,000 devices, 50 at once", {.registered = 1000, .connected = 1000, .window = 50}, 1},
        {"50 devices, 20,000 a second together", {.registered = 50, .connected = 50, .window = any, .rate = 20000}, 1},
        {"1,000 devices, 20,000 a second together",
         {.registered = 1000, .connected = 1000, .window = any, .rate = 20000},
         1},
        {"50 devices, a connection each time",
         {.registered = 50, .connected = 50, .window = 8, .newConnections = true},
         10},
    };
}

std::size_t wantedPushes(int argc, char** argv)
{
    const std::size_t count = argc > 1 ? std::stoul(argv[1]) : 100000;
    if (count < 100)
        throw std::invalid_argument("at least 100 notifications");
    return count;
}
}  // namespace kelvo::bench

// What the event server makes of notifications that devices push: the time from a device's write to its receiver, and
// how many notifications one core takes, with few and with a thousand registered addresses.
//
//     event_server_bench [notifications of a case, 100000]
//
// The devices are sockets of this process with addresses of their own out of 127/8, so it runs on Linux alone.
#include <utility>

#include "LatencyHistogram.h"
#include "ProcessCost.h"

#include <IpUtil/GlobalService.h>
#include <IpUtil/TcpServerEx.h>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/write.hpp>
#include <boost/range/iterator_range_core.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
using boost::asio::ip::tcp;
using kelvo::bench::LatencyHistogram;
using Tavro8::TcpServerEx;

constexpr std::size_t stampDigits = 20;
constexpr std::size_t paddingBytes = 150;  // a notification has some 400 bytes then, as devices send it

std::uint64_t nowNs()
{
    return static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
}

double threadSeconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// A notification that ends with the time at which it is written.
class Notification {
public:
    Notification()
    {
        const std::string body = R"({"AlarmInfo": {"AlarmType": "MotionAlarmOn", "AlarmSrcID": 1, "Padding": ")" +
                                 std::string(paddingBytes, 'x') + R"("}} )" + std::string(stampDigits, '0');
        text = "POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\nHost: 192.0.2.1:32000\r\n"
               "Content-Type: application/json\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    const std::string& stamped()
    {
        char digits[stampDigits + 1];
        std::snprintf(digits, sizeof digits, "%020llu", static_cast<unsigned long long>(nowNs()));
        text.replace(text.size() - stampDigits, stampDigits, digits, stampDigits);
        return text;
    }

private:
    std::string text;
};

/// Counts, and takes the times. `received` is for the sender to wait on.
class Receiver final : public TcpServerEx::IClient {
public:
    explicit Receiver(std::size_t expected) : expected(expected) {}

    void processData(const boost::iterator_range<const char*>& data,
                     const boost::shared_ptr<TcpServerEx::Session>&) override
    {
        const std::uint64_t now = nowNs();
        std::uint64_t stamp = now;
        std::from_chars(data.end() - stampDigits, data.end(), stamp);
        latency.add(now - stamp);
        const std::size_t count = received.load(std::memory_order_relaxed) + 1;
        if (count == 1)
            cpuAtFirst = threadSeconds();
        if (count == expected)
            cpuSeconds = threadSeconds() - cpuAtFirst;
        received.store(count, std::memory_order_release);
    }

    void waitFor(std::size_t count) const
    {
        while (received.load(std::memory_order_acquire) < count)
            std::this_thread::yield();
    }

    const std::size_t expected;
    LatencyHistogram latency;
    std::atomic<std::size_t> received{0};
    double cpuAtFirst = 0;
    double cpuSeconds = 0;  ///< of the server's thread, from the first message to the last
};

std::string addressOf(std::size_t device)
{
    return "127.1." + std::to_string(device / 250) + '.' + std::to_string(device % 250 + 1);
}

/// So many registered devices at one port, which all have the same receiver.
class Registrations {
public:
    Registrations(std::size_t count, TcpServerEx::IClient& client) : count(count)
    {
        tcp::acceptor free(context, tcp::v6());
        free.set_option(boost::asio::ip::v6_only(false));
        free.bind(tcp::endpoint(tcp::v6(), 0));
        port = free.local_endpoint().port();
        free.close();
        for (std::size_t device = 0; device < count; ++device)
            TcpServerEx::startForClient(port, nullptr, addressOf(device), &client);
    }
    ~Registrations()
    {
        for (std::size_t device = 0; device < count; ++device)
            TcpServerEx::stopForClient(port, addressOf(device));
    }
    Registrations(const Registrations&) = delete;
    Registrations& operator=(const Registrations&) = delete;

    tcp::socket connect(std::size_t device)
    {
        tcp::socket socket(context, tcp::v4());
        socket.bind({boost::asio::ip::make_address(addressOf(device)), 0});
        socket.connect({boost::asio::ip::make_address("127.0.0.1"), port});
        socket.set_option(tcp::no_delay(true));
        return socket;
    }

private:
    const std::size_t count;
    boost::asio::io_context context;
    std::uint16_t port = 0;
};

void printRow(const std::string& name, const Receiver& receiver, double seconds)
{
    const double count = static_cast<double>(receiver.expected);
    std::printf("| %s | %.1f µs | %.1f µs | %.0f | %.0f | %.1f µs |\n", name.c_str(),
                static_cast<double>(receiver.latency.percentile(0.5)) * 1e-3,
                static_cast<double>(receiver.latency.percentile(0.99)) * 1e-3, count / seconds,
                count / receiver.cpuSeconds, receiver.cpuSeconds / count * 1e6);
    std::fflush(stdout);
}

/// `window` notifications are under way at once: 1 for the bare time of one, more for the throughput. With a rate, so
/// many are sent a second.
void measure(const std::string& name, std::size_t count, std::size_t registered, std::size_t connected,
             std::size_t window, std::uint64_t rate = 0)
{
    Receiver receiver(count);
    Registrations registrations(registered, receiver);
    Notification notification;
    std::vector<tcp::socket> devices;
    // Spread over all that are registered.
    for (std::size_t i = 0; i < connected; ++i)
        devices.push_back(registrations.connect(i * registered / connected));
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t sent = 0; sent < count; ++sent) {
        if (sent >= window)
            receiver.waitFor(sent - window + 1);
        if (rate != 0)
            std::this_thread::sleep_until(begin + std::chrono::nanoseconds(sent * 1'000'000'000U / rate));
        boost::asio::write(devices[sent % connected], boost::asio::buffer(notification.stamped()));
    }
    receiver.waitFor(count);
    printRow(name, receiver, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
}

/// A connection for each notification, as many devices do it.
void measureConnections(const std::string& name, std::size_t count, std::size_t registered)
{
    constexpr std::size_t window = 8;
    Receiver receiver(count);
    Registrations registrations(registered, receiver);
    Notification notification;
    const auto begin = std::chrono::steady_clock::now();
    for (std::size_t sent = 0; sent < count; ++sent) {
        if (sent >= window)
            receiver.waitFor(sent - window + 1);
        tcp::socket device = registrations.connect(sent % registered);
        boost::asio::write(device, boost::asio::buffer(notification.stamped()));
    }
    receiver.waitFor(count);
    printRow(name, receiver, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
}
}  // namespace

int main(int argc, char** argv)
try {
    const std::size_t count = argc > 1 ? std::stoul(argv[1]) : 100000;
    if (count < 100)
        throw std::invalid_argument("at least 100 notifications");
    kelvo::bench::raiseDescriptorLimit();
    const auto service = Tavro8::Utility::GlobalService::instance();
    std::puts("| case | median | 99th percentile | a second | a second of the server's core | CPU of one |");
    std::puts("|---|---|---|---|---|---|");
    measure("one device, one at a time", count / 10, 1, 1, 1);
    measure("the same among 1,000 registered", count / 10, 1000, 1, 1);
    measure("50 devices at once", count, 50, 50, 50);
    measure("the same among 1,000 registered", count, 1000, 50, 50);
    measure("1,000 devices, 50 at once", count, 1000, 1000, 50);
    measure("50 devices, 20,000 a second together", count, 50, 50, count, 20000);
    measure("1,000 devices, 20,000 a second together", count, 1000, 1000, count, 20000);
    measureConnections("50 devices, a connection each time", count / 10, 50);
    return 0;
} catch (const std::exception& e) {
    std::fprintf(stderr, "event_server_bench: %s\n", e.what());
    return 1;
}

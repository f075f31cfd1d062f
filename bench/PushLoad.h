#pragma once

#include "LatencyHistogram.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What devices push at a port, and what of it arrives. The devices are sockets of this process with addresses of
// their own out of 127/8, so this runs on Linux alone.
namespace kelvo::bench
{
/// The address of device number `device`: up to 62,500 of them.
std::string pushingAddress(std::size_t device);

/// The port of the notification server: one that is free now.
std::uint16_t freePort();

/// A notification of some 400 bytes, as devices send it, with the time at which it is written in the member "Stamp".
class Notification {
public:
    Notification();

    /// With the time of now and the next sequence number.
    const std::string& stamped();

    static constexpr const char* stampMember = "Stamp";

    /// The ns since a stamp was written; 0 when there is none.
    static std::uint64_t ageOf(std::string_view digits) noexcept;

    /// The stamp of a whole notification.
    static std::string_view digitsIn(std::string_view notification) noexcept;

private:
    std::string text;
    std::uint32_t sequence = 1'000'000'000;
};

/// What has arrived: counts, and takes the times. One thread notes, another waits.
class Arrivals {
public:
    explicit Arrivals(std::size_t expectedCount) : expected(expectedCount) {}

    void note(std::uint64_t ageNs) noexcept;

    /// Throws when nothing arrives for ten seconds.
    void waitFor(std::size_t count) const;

    std::size_t getExpected() const noexcept { return expected; }
    const LatencyHistogram& getLatency() const noexcept { return latency; }
    double getCpuSeconds() const noexcept { return cpuSeconds; }  ///< of the noting thread, first to last

private:
    const std::size_t expected;
    LatencyHistogram latency;
    std::atomic<std::size_t> received{0};
    double cpuAtFirst = 0;
    double cpuSeconds = 0;
};

/// A way to push.
struct PushPlan {
    std::size_t registered = 1;   ///< devices that the port knows
    std::size_t connected = 1;    ///< how many of them push, spread over all
    std::size_t window = 1;       ///< notifications under way at once: 1 for the bare time of one, more for throughput
    std::uint64_t rate = 0;       ///< so many a second; 0: as fast as the window allows
    bool newConnections = false;  ///< a connection for each notification, as many devices do it
};

/// Pushes as many notifications as `arrivals` expects and waits for all. Returns the seconds that it took.
double push(const PushPlan& plan, std::uint16_t port, const Arrivals& arrivals);

/// The heading of the rows below.
void printPushHeading();
void printPushRow(const std::string& name, const Arrivals& arrivals, double seconds);

/// The cases of the tables: name, plan, and the share of the wanted count that suffices.
struct PushCase {
    const char* name;
    PushPlan plan;
    std::size_t countDivisor;
};
std::vector<PushCase> pushCases();

/// The wanted count of notifications from the command line, 100000 without one. Throws when it is too small.
std::size_t wantedPushes(int argc, char** argv);
}  // namespace kelvo::bench

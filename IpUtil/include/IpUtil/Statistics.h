#pragma once

#include <IpUtil/Export.h>
#include <IpUtil/GlobalService.h>
#include <Tavro8/GDRV/IDeviceChannel.h>
#include <Tavro8/ILogger.h>
#include <boost/asio/ts/netfwd.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Tavro8::Utility
{
/// What has been received since a stream began. Plain numbers of one thread.
struct StreamCounters {
    std::uint64_t frames = 0;
    std::uint64_t keyFrames = 0;
    std::uint64_t bytes = 0;  ///< payload handed over
    std::uint64_t lostPackets = 0;
    std::uint64_t malformedPackets = 0;
    std::uint32_t jitterMs = 0;
};

/// Publishes the counters of a running source to the host's channel handler, once a second.
///
/// Made and destroyed on any thread; works on `service`. Its timer holds it weakly: once the destructor has begun
/// no new report is made.
class IPUTIL_API StatisticReporter {
public:
    /// `handler` may be null. `contract` is the source that the host is told about. Neither is owned. `service` must
    /// outlive the reporter.
    StatisticReporter(ILogger* logger, GDRV::IAsyncDeviceChannelHandler* handler, IContract* contract,
                      boost::asio::io_context& service, std::chrono::milliseconds interval = std::chrono::seconds(1));
    ~StatisticReporter();
    StatisticReporter(const StatisticReporter&) = delete;
    StatisticReporter& operator=(const StatisticReporter&) = delete;

    /// Begins the reports. `counters` says where the numbers stand; called on the I/O thread with each report, never
    /// after the destructor has returned, and must not destroy the reporter itself. `gate` (shared with the source)
    /// stands in front of the host's handler.
    void start(std::shared_ptr<HandlerGate> gate, std::function<StreamCounters()> counters);

    /// Keeps a further counter under its name and publishes everything at once, with the rates of the last whole
    /// interval. "connects" and "reconnects" also fill the members of that name. Any thread.
    void updateStatistic(const std::string& name, const std::string& value);

private:
    struct State;
    std::shared_ptr<State> state;
};

/// Counts the connections of a source. The two texts it passes on are a statistic's name and value: "connects" and
/// "reconnects" with decimal numbers.
class IPUTIL_API ConnectsStatistic {
public:
    using Callback = std::function<void(const std::string& name, const std::string& value)>;
    explicit ConnectsStatistic(Callback callback);

    /// Called each time the RTSP client begins a connection. One thread at a time.
    void onConnectionStart();
    std::uint32_t getConnects() const noexcept { return connects; }

private:
    Callback callback;
    std::uint32_t connects = 0;
};
}  // namespace Tavro8::Utility

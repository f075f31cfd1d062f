#include <utility>

#include <IpUtil/LoggerHelper.h>
#include <IpUtil/Numbers.h>
#include <IpUtil/Statistics.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <mutex>

namespace Tavro8::Utility
{
namespace
{
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t growth(std::uint64_t before, std::uint64_t now) noexcept
{
    return now >= before ? now - before : 0;  // a source may begin to count anew
}
}  // namespace

/// Everything but what `mutex` guards belongs to the I/O thread.
struct StatisticReporter::State : std::enable_shared_from_this<State> {
    State(ILogger* logger, GDRV::IAsyncDeviceChannelHandler* handler, IContract* contract,
          boost::asio::io_context& service, std::chrono::milliseconds interval)
        : logger(logger, "IpUtil/src/service/Statistics"),
          handler(handler),
          contract(contract),
          interval(interval),
          context(service),
          timer(service)
    {}

    /// Runs `body` on the I/O thread while the reporter lives.
    template <typename Body>
    void post(Body body)
    {
        boost::asio::post(context, [weak = weak_from_this(), body = std::move(body)]() mutable {
            if (const auto self = weak.lock())
                self->guard([&] { body(*self); });
        });
    }
    template <typename Body>
    void guard(Body&& body) noexcept
    {
        guardedVoid(logger, "Tavro8::Utility::StatisticReporter::updateStatistic", [&] {
            if (!isStopped())
                body();
        });
    }

    void begin(std::shared_ptr<HandlerGate> newGate, std::function<StreamCounters()> newCounters)
    {
        gate = std::move(newGate);
        counters = std::move(newCounters);
        measured = readCounters();
        measuredAt = Clock::now();
        arm();
    }

    void arm()
    {
        timer.expires_after(interval);
        timer.async_wait([weak = weak_from_this()](const boost::system::error_code& ec) {
            const auto self = weak.lock();
            if (self == nullptr || ec)
                return;
            self->guard([&] { self->measure(); });
            self->guard([&] { self->arm(); });
        });
    }

    void measure()
    {
        const StreamCounters now = readCounters();
        const Clock::time_point time = Clock::now();
        const double seconds = std::chrono::duration<double>(time - measuredAt).count();
        if (seconds > 0) {
            const auto bits = static_cast<double>(growth(measured.bytes, now.bytes)) * 8.0;
            report.bitsPerSecond = static_cast<std::uint64_t>(bits / seconds);
            report.framesPerSecond = static_cast<double>(growth(measured.frames, now.frames)) / seconds;
        }
        measured = now;
        measuredAt = time;
        publish(now);
    }

    void keep(const std::string& name, const std::string& value)
    {
        const auto known = std::find_if(report.named.begin(), report.named.end(),
                                        [&](const auto& counter) { return counter.first == name; });
        if (known != report.named.end())
            known->second = value;
        else
            report.named.emplace_back(name, value);
        if (name == "connects")
            report.connects = static_cast<std::uint32_t>(toInt(value));
        else if (name == "reconnects")
            report.reconnects = static_cast<std::uint32_t>(toInt(value));
    }

    bool isStopped()
    {
        const std::lock_guard lock(mutex);
        return stopped;
    }
    void stop()
    {
        const std::lock_guard lock(mutex);
        stopped = true;
    }

    /// Under the lock, so that the source may be gone once the destructor has returned.
    StreamCounters readCounters()
    {
        const std::lock_guard lock(mutex);
        return stopped ? measured : counters();
    }

    void publish(const StreamCounters& now)
    {
        report.frames = now.frames;
        report.keyFrames = now.keyFrames;
        report.bytes = now.bytes;
        report.lostPackets = now.lostPackets;
        report.malformedPackets = now.malformedPackets;
        report.jitterMs = now.jitterMs;
        if (handler == nullptr || gate == nullptr || isStopped())
            return;
        gate->call([this] { handler->StatisticsUpdated(contract, report); });
    }

    const LoggerHelper logger;
    GDRV::IAsyncDeviceChannelHandler* const handler;
    IContract* const contract;
    const std::chrono::milliseconds interval;
    boost::asio::io_context& context;
    boost::asio::steady_timer timer;
    std::mutex mutex;  // guards `stopped`
    bool stopped = false;
    std::shared_ptr<HandlerGate> gate;  // null until the reports begin
    std::function<StreamCounters()> counters;
    StreamCounters measured;
    Clock::time_point measuredAt;
    GDRV::StreamStatistics report;
};

StatisticReporter::StatisticReporter(ILogger* logger, GDRV::IAsyncDeviceChannelHandler* handler, IContract* contract,
                                     boost::asio::io_context& service, std::chrono::milliseconds interval)
    : state(std::make_shared<State>(logger, handler, contract, service, interval))
{}

StatisticReporter::~StatisticReporter()
{
    state->stop();  // the timer goes with the state: now, or when a report that is under way lets go of it
}

void StatisticReporter::start(std::shared_ptr<HandlerGate> gate, std::function<StreamCounters()> counters)
{
    state->post([gate = std::move(gate), counters = std::move(counters)](State& self) mutable {
        self.begin(std::move(gate), std::move(counters));
    });
}

void StatisticReporter::updateStatistic(const std::string& name, const std::string& value)
{
    state->post([name, value](State& self) {
        self.keep(name, value);
        if (self.gate != nullptr)
            self.publish(self.readCounters());
    });
}

ConnectsStatistic::ConnectsStatistic(Callback callback) : callback(std::move(callback)) {}

void ConnectsStatistic::onConnectionStart()
{
    ++connects;
    if (callback == nullptr)
        return;
    callback("connects", std::to_string(connects));
    if (connects > 1)
        callback("reconnects", std::to_string(connects - 1));
}
}  // namespace Tavro8::Utility

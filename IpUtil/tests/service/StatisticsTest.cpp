#include <utility>

#include "RecordingLogger.h"
#include <IpUtil/Statistics.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <future>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

using namespace Tavro8;
using kelvo::test::RecordingLogger;
using Utility::ConnectsStatistic;
using Utility::HandlerGate;
using Utility::StatisticReporter;
using Utility::StreamCounters;
using namespace std::chrono_literals;

namespace
{
class ChannelHandler final : public GDRV::IAsyncDeviceChannelHandler {
public:
    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<GDRV::IAsyncDeviceChannelHandler, IContract>(this, name);
    }
    void Started(IContract*) noexcept override {}
    void Stopped(IContract*) noexcept override {}
    void StatisticsUpdated(IContract* source, const GDRV::StreamStatistics& statistics) noexcept override
    {
        lastSource = source;
        reports.push_back(statistics);
        if (onReport)
            onReport();
    }
    void SettingsApplied(IContract*, const char*, std::int32_t) noexcept override {}

    std::vector<GDRV::StreamStatistics> reports;
    IContract* lastSource = nullptr;
    std::function<void()> onReport;
};

/// The test's thread runs the I/O context, one handler at a time, so that each step is known.
class Statistics : public testing::Test {
protected:
    std::unique_ptr<StatisticReporter> make(std::chrono::milliseconds interval)
    {
        return std::make_unique<StatisticReporter>(&logger, &handler, &handler, context, interval);
    }
    void start(StatisticReporter& reporter)
    {
        reporter.start(gate, [this] { return counters; });
        context.run_one();
    }

    boost::asio::io_context context;
    RecordingLogger logger;
    ChannelHandler handler;
    std::shared_ptr<HandlerGate> gate = std::make_shared<HandlerGate>();
    StreamCounters counters;
};
}  // namespace

TEST_F(Statistics, reportsCountersAndRatesOfEachInterval)
{
    counters.frames = 100;
    counters.bytes = 1000000;
    const auto reporter = make(1ms);
    start(*reporter);
    counters = {
        .frames = 125, .keyFrames = 2, .bytes = 1500000, .lostPackets = 3, .malformedPackets = 4, .jitterMs = 5};
    context.run_one();
    ASSERT_EQ(handler.reports.size(), 1U);
    const auto report = handler.reports[0];
    EXPECT_EQ(handler.lastSource, &handler);
    EXPECT_EQ(report.frames, 125U);
    EXPECT_EQ(report.keyFrames, 2U);
    EXPECT_EQ(report.bytes, 1500000U);
    EXPECT_EQ(report.lostPackets, 3U);
    EXPECT_EQ(report.malformedPackets, 4U);
    EXPECT_EQ(report.jitterMs, 5U);
    // 25 frames of 20000 bytes: the measured time is not known here, but both rates share it.
    ASSERT_GT(report.framesPerSecond, 0);
    EXPECT_LE(report.framesPerSecond, 25 / 0.001);
    EXPECT_NEAR(static_cast<double>(report.bitsPerSecond) / report.framesPerSecond, 160000, 1);

    context.run_one();  // nothing was added since
    ASSERT_EQ(handler.reports.size(), 2U);
    EXPECT_EQ(handler.reports[1].framesPerSecond, 0);
    EXPECT_EQ(handler.reports[1].bitsPerSecond, 0U);
    EXPECT_EQ(handler.reports[1].frames, 125U);
}

TEST_F(Statistics, survivesCountersThatBeginAnew)
{
    counters.frames = 100;
    const auto reporter = make(1ms);
    start(*reporter);
    counters.frames = 1;
    context.run_one();
    EXPECT_EQ(handler.reports.at(0).framesPerSecond, 0);
}

TEST_F(Statistics, publishesNamedCountersAtOnce)
{
    const auto reporter = make(1h);
    start(*reporter);
    counters.frames = 7;
    reporter->updateStatistic("connects", "2");
    reporter->updateStatistic("reconnects", "1");
    reporter->updateStatistic("transport", "tcp");
    reporter->updateStatistic("transport", "udp");
    EXPECT_TRUE(handler.reports.empty());  // on the I/O thread, never inside the call
    context.poll();
    ASSERT_EQ(handler.reports.size(), 4U);
    const auto& last = handler.reports.back();
    EXPECT_EQ(last.connects, 2U);
    EXPECT_EQ(last.reconnects, 1U);
    EXPECT_EQ(last.frames, 7U);
    EXPECT_EQ(last.named, (std::vector<std::pair<std::string, std::string>>{
                              {"connects", "2"}, {"reconnects", "1"}, {"transport", "udp"}}));
}

TEST_F(Statistics, keepsNamedCountersThatComeBeforeTheStart)
{
    const auto reporter = make(1ms);
    reporter->updateStatistic("connects", "1");
    context.poll();
    EXPECT_TRUE(handler.reports.empty());
    context.restart();  // it had run out of work
    start(*reporter);
    context.run_one();
    EXPECT_EQ(handler.reports.at(0).connects, 1U);
}

TEST_F(Statistics, endWithTheReporter)
{
    auto reporter = make(1ms);
    start(*reporter);
    context.run_one();
    reporter->updateStatistic("connects", "1");
    reporter.reset();
    context.run();  // returns, since no timer is left
    EXPECT_EQ(handler.reports.size(), 1U);
}

TEST_F(Statistics, endWhenTheReporterGoesInsideAReport)
{
    auto reporter = make(1ms);
    handler.onReport = [&] { reporter.reset(); };
    start(*reporter);
    context.run();
    EXPECT_EQ(handler.reports.size(), 1U);
}

TEST_F(Statistics, doNotPassAClosedGate)
{
    const auto reporter = make(1ms);
    start(*reporter);
    gate->close();
    context.run_one();
    EXPECT_TRUE(handler.reports.empty());
}

TEST_F(Statistics, goOnAfterCountersHaveThrown)
{
    const auto reporter = make(1ms);
    bool fail = false;
    reporter->start(gate, [&] { return fail ? throw std::runtime_error("no numbers") : counters; });
    context.run_one();
    fail = true;
    context.run_one();
    fail = false;
    context.run_one();
    EXPECT_EQ(logger.count("no numbers"), 1U);
    EXPECT_EQ(handler.reports.size(), 1U);
}

TEST_F(Statistics, needNoHandlerAndNoLogger)
{
    StatisticReporter reporter(nullptr, nullptr, nullptr, context, 1ms);
    start(reporter);
    reporter.updateStatistic("connects", "no number");
    context.run_one();
    context.run_one();
}

TEST_F(Statistics, areStoppedWhileAnotherThreadReports)
{
    const auto guard = boost::asio::make_work_guard(context);
    std::thread io([this] { context.run(); });
    for (int round = 0; round < 50; ++round) {
        auto source = std::make_unique<StreamCounters>();
        std::promise<void> reported;
        bool first = true;
        handler.onReport = [&] {
            if (std::exchange(first, false))
                reported.set_value();
        };
        auto ownGate = std::make_shared<HandlerGate>();
        auto reporter = make(0ms);
        reporter->start(ownGate, [numbers = source.get()] { return *numbers; });
        reporter->updateStatistic("connects", "1");
        reported.get_future().wait();
        reporter.reset();
        source.reset();  // not read any more
        ownGate->close();
        handler.reports.clear();
    }
    context.stop();
    io.join();
}

TEST(ConnectsStatistic, countsConnectionsAndFromTheSecondOnReconnections)
{
    std::vector<std::pair<std::string, std::string>> told;
    ConnectsStatistic statistic(
        [&](const std::string& name, const std::string& value) { told.emplace_back(name, value); });
    EXPECT_EQ(statistic.getConnects(), 0U);
    statistic.onConnectionStart();
    statistic.onConnectionStart();
    statistic.onConnectionStart();
    EXPECT_EQ(statistic.getConnects(), 3U);
    EXPECT_EQ(told,
              (std::vector<std::pair<std::string, std::string>>{
                  {"connects", "1"}, {"connects", "2"}, {"reconnects", "1"}, {"connects", "3"}, {"reconnects", "2"}}));
    ConnectsStatistic(nullptr).onConnectionStart();
}

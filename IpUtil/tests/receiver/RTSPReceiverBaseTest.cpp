#include <IpUtil/RTSPReceiverBase.h>

#include "HostFakes.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>
#include <vector>

namespace
{
using namespace Tavro8;
using namespace Tavro8::Utility;
using namespace kelvo::test;

/// Records what receivers ask of their stream; the test says when an unregistration has completed.
class FakeStream final : public RTSPStream {
public:
    FakeStream(boost::asio::io_context& context, ILogger* logger) : RTSPStream(context, logger, {}) {}

    void regReceiver(const std::shared_ptr<RTSPReceiver>& receiver) override
    {
        const std::lock_guard lock(mutex);
        registered.push_back(receiver);
    }
    void unregReceiver(const std::shared_ptr<RTSPReceiver>& receiver, std::function<void()> completion) override
    {
        const std::lock_guard lock(mutex);
        const auto found = std::find(registered.begin(), registered.end(), receiver);
        ASSERT_NE(found, registered.end()) << "unregistered without having been registered";
        registered.erase(found);
        if (completion)
            completions.push_back(std::move(completion));
    }
    void restart() override { ++restarts; }
    StreamCounters counters(const RTSPReceiver&) const override { return {}; }
    RtspTransport getTransport() const override { return transport; }

    /// Every unregistration so far has completed.
    void complete()
    {
        std::vector<std::function<void()>> due;
        {
            const std::lock_guard lock(mutex);
            due.swap(completions);
        }
        for (const auto& completion : due)
            completion();
    }
    std::size_t registrations() const
    {
        const std::lock_guard lock(mutex);
        return registered.size();
    }

    mutable std::mutex mutex;  // guards both lists
    std::vector<std::shared_ptr<RTSPReceiver>> registered;
    std::vector<std::function<void()>> completions;
    int restarts = 0;
    RtspTransport transport = RtspTransport::tcp;
};

struct FakeDevice {
    static constexpr const char* logName = "class Fake::Device";

    std::shared_ptr<ILogger> getLogger() const { return {std::shared_ptr<ILogger>(), &logger}; }
    std::shared_ptr<void> getLifetimeToken() const { return std::make_shared<int>(); }
    RTSPSource& getSource() const { throw std::logic_error("the receivers of this test bring their own stream"); }

    mutable RecordingLogger logger;
};

class VideoReceiver final : public RTSPReceiverBase<GDRV::IVideoSource, FakeDevice> {
public:
    using RTSPReceiverBase::RTSPReceiverBase;
    std::int32_t ApplySettings(const ParameterMap&) noexcept override { return 8; }

    std::shared_ptr<RTSPStream> offered;
    bool refuse = false;

protected:
    std::shared_ptr<RTSPStream> getStream() override
    {
        return refuse ? throw std::runtime_error("no stream today") : offered;
    }
};

class RTSPReceiverBaseTest : public ::testing::Test {
protected:
    RTSPReceiverBaseTest()
    {
        LiveSourceContext live;
        live.frames = &channel;
        live.objectName = "vs 0.0";
        source = std::make_shared<VideoReceiver>(&device, &channel, nullptr, live);
        source->adopt();
        source->offered = stream;
    }
    ~RTSPReceiverBaseTest() override
    {
        if (source != nullptr)
            source->Destroy();
    }

    boost::asio::io_context context;
    FakeDevice device;
    ChannelHandler channel;
    std::shared_ptr<FakeStream> stream = std::make_shared<FakeStream>(context, &device.logger);
    std::shared_ptr<VideoReceiver> source;
};

TEST_F(RTSPReceiverBaseTest, startRegistersAndTellsTheHost)
{
    source->Start();
    EXPECT_EQ(stream->registrations(), 1U);
    EXPECT_EQ(channel.started(), 1U);
    EXPECT_TRUE(device.logger.contains("vs 0.0: Starting..."));
    EXPECT_TRUE(device.logger.contains("vs 0.0: Started"));
}

TEST_F(RTSPReceiverBaseTest, secondStartIsSkippedAndLeavesOneRegistration)
{
    source->Start();
    source->Start();
    EXPECT_TRUE(device.logger.contains("Skip Start as already started"));
    EXPECT_EQ(stream->registrations(), 1U);
    EXPECT_EQ(channel.started(), 1U);
}

TEST_F(RTSPReceiverBaseTest, stopBeforeAnyStartIsSkippedAndReportsNothing)
{
    source->Stop();
    stream->complete();
    EXPECT_TRUE(device.logger.contains("Skip Stop as already stopped"));
    EXPECT_EQ(channel.stopped(), 0U);
}

TEST_F(RTSPReceiverBaseTest, theHostLearnsOfTheStopWhenTheUnregistrationHasCompleted)
{
    source->Start();
    source->Stop();
    EXPECT_EQ(stream->registrations(), 0U);
    EXPECT_EQ(channel.stopped(), 0U);
    stream->complete();
    EXPECT_EQ(channel.stopped(), 1U);
    EXPECT_TRUE(device.logger.contains("vs 0.0: Stopped."));
}

TEST_F(RTSPReceiverBaseTest, secondStopIsSkipped)
{
    source->Start();
    source->Stop();
    source->Stop();
    stream->complete();
    EXPECT_EQ(device.logger.count("Skip Stop as already stopped"), 1U);
    EXPECT_EQ(channel.stopped(), 1U);
}

TEST_F(RTSPReceiverBaseTest, stopWithoutAStreamReportsNothing)
{
    source->offered = nullptr;
    source->Start();
    source->Stop();
    stream->complete();
    EXPECT_TRUE(device.logger.contains("Stopping not started"));
    EXPECT_EQ(channel.stopped(), 0U);
}

TEST_F(RTSPReceiverBaseTest, startBeforeTheStopWasReportedIsNotLost)
{
    source->Start();
    source->Stop();
    source->Start();
    EXPECT_EQ(stream->registrations(), 1U);
    EXPECT_EQ(channel.started(), 2U);
    stream->complete();
    EXPECT_EQ(channel.stopped(), 1U);
    EXPECT_EQ(stream->registrations(), 1U);
}

TEST_F(RTSPReceiverBaseTest, framesReachTheHostUntilDestroy)
{
    source->Start();
    const std::shared_ptr<RTSPReceiver> receiver = source;
    receiver->onFrame({});
    EXPECT_EQ(channel.frameTotal(), 1U);
    source->Destroy();
    receiver->onFrame({});
    EXPECT_EQ(channel.frameTotal(), 1U);
    source = nullptr;
}

TEST_F(RTSPReceiverBaseTest, destroyWhileStartedUnregistersAndReportsNothing)
{
    source->Start();
    source->Destroy();
    EXPECT_EQ(stream->registrations(), 0U);
    stream->complete();
    EXPECT_EQ(channel.stopped(), 0U);
    EXPECT_TRUE(device.logger.contains("vs 0.0: Destroy"));
    source = nullptr;
}

TEST_F(RTSPReceiverBaseTest, destroyBeforeTheStopWasReportedSilencesTheReport)
{
    source->Start();
    source->Stop();
    source->Destroy();
    stream->complete();
    EXPECT_EQ(channel.stopped(), 0U);
    source = nullptr;
}

TEST_F(RTSPReceiverBaseTest, mayBeDestroyedFromInsideItsCallbacks)
{
    channel.onStarted = [this](IContract*) {
        auto* const raw = source.get();
        source = nullptr;
        raw->Destroy();
    };
    const std::weak_ptr<VideoReceiver> weak = source;
    auto* const raw = source.get();
    raw->Start();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(stream->registrations(), 0U);
}

TEST_F(RTSPReceiverBaseTest, mayBeDestroyedFromInsideAFrame)
{
    source->Start();
    const std::shared_ptr<RTSPReceiver> receiver = source;
    channel.onFrame = [this](IContract*) {
        source->Destroy();
        source = nullptr;
    };
    receiver->onFrame({});
    receiver->onFrame({});
    EXPECT_EQ(channel.frameTotal(), 1U);
}

TEST_F(RTSPReceiverBaseTest, startAndStopFromManyThreadsLeaveTheRegistrationInStepWithTheFlag)
{
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([this, index] {
            for (int round = 0; round < 200; ++round)
                (round + index) % 2 == 0 ? source->Start() : source->Stop();
        });
    }
    for (auto& thread : threads)
        thread.join();
    source->Stop();
    stream->complete();
    EXPECT_EQ(stream->registrations(), 0U);
    EXPECT_EQ(channel.started(), channel.stopped());
    source->Start();
    EXPECT_EQ(stream->registrations(), 1U);
}

TEST_F(RTSPReceiverBaseTest, stoppingWhileStatisticsAreReadDoesNotLockUp)
{
    // The stream's thread reads the counters while host threads start and stop; a lock taken in both orders would hang.
    auto work = boost::asio::make_work_guard(context);
    std::thread io([this] { context.run(); });
    std::vector<std::thread> hosts;
    for (int index = 0; index < 3; ++index) {
        hosts.emplace_back([this] {
            for (int round = 0; round < 300; ++round) {
                source->Start();
                boost::asio::post(context, [receiver = std::static_pointer_cast<RTSPReceiver>(source)] {
                    receiver->onConnectionStart();  // publishes at once
                });
                source->Stop();
            }
        });
    }
    for (auto& host : hosts)
        host.join();
    work.reset();
    context.stop();
    io.join();
    stream->complete();
    EXPECT_EQ(stream->registrations(), 0U);
}

TEST_F(RTSPReceiverBaseTest, theHostHearsWhichWayTheMediaCome)
{
    using Named = std::vector<std::pair<std::string, std::string>>;
    source->Start();
    source->onStreamState(make_error_code(ResultCode::streamRefused));
    context.poll();
    EXPECT_TRUE(channel.statistics().named.empty());
    for (const RtspTransport transport : {RtspTransport::udp, RtspTransport::tcp}) {
        stream->transport = transport;
        source->onStreamState({});
        context.poll();
        EXPECT_EQ(channel.statistics().named, (Named{{"transport", transport == RtspTransport::udp ? "udp" : "tcp"}}));
    }
}

TEST_F(RTSPReceiverBaseTest, aStartThatFailsMayBeRepeated)
{
    source->refuse = true;
    source->Start();
    EXPECT_EQ(channel.started(), 0U);
    EXPECT_TRUE(device.logger.contains("no stream today"));
    source->refuse = false;
    source->Start();
    EXPECT_EQ(channel.started(), 1U);
    EXPECT_EQ(stream->registrations(), 1U);
}

TEST_F(RTSPReceiverBaseTest, theHostHearsHowTheStreamStands)
{
    source->Start();
    const std::shared_ptr<RTSPReceiver> receiver = source;
    receiver->onStreamState(make_error_code(ResultCode::noSuchStream));
    receiver->onStreamState({});
    EXPECT_TRUE(channel.waitState(toResult(ResultCode::noSuchStream)));
    EXPECT_TRUE(channel.waitState(0));
}

TEST_F(RTSPReceiverBaseTest, everyStepIsLoggedAsInformation)
{
    source->Start();
    source->Stop();
    stream->complete();
    for (const char* const text : {"vs 0.0: Starting...", "vs 0.0: Started", "vs 0.0: Stopping...", "vs 0.0: Stopped."})
        EXPECT_EQ(device.logger.find(text).severity, LogSeverity::info) << text;
}

TEST_F(RTSPReceiverBaseTest, changesOfTheStreamMoveTheRegistration)
{
    const auto second = std::make_shared<FakeStream>(context, &device.logger);
    source->Start();
    source->Stop();
    source->offered = second;
    source->Start();
    EXPECT_EQ(stream->registrations(), 0U);
    EXPECT_EQ(second->registrations(), 1U);
}

TEST_F(RTSPReceiverBaseTest, createNamesHandlerAndParent)
{
    EXPECT_TRUE(device.logger.contains("vs 0.0: Createhandler=0x"));
    const auto line = device.logger.find("Createhandler");
    EXPECT_EQ(line.file, "IpUtil/include/RTSPReceiverBase");
}

/// A source whose new parameters may need a new connection.
class AdjustableReceiver final : public RTSPReceiverVideoSource<FakeDevice> {
public:
    using RTSPReceiverVideoSource::RTSPReceiverVideoSource;
    std::int32_t ApplySettings(const ParameterMap& changed) noexcept override
    {
        adjust(changed);
        if (deviceTakes)
            adjustWritten(changed);
        return 0;
    }
    bool deviceTakes = true;
    std::shared_ptr<RTSPStream> offered;

protected:
    std::shared_ptr<RTSPStream> getStream() override { return offered; }
};

TEST_F(RTSPReceiverBaseTest, onlyChangedValuesThatTheConnectionDependsOnRestartTheStream)
{
    LiveSourceContext live;
    live.parameters = {{"codec", std::string("H.264")}};
    const auto adjustable = std::make_shared<AdjustableReceiver>(&device, &channel, nullptr, live);
    adjustable->adopt();
    adjustable->offered = stream;
    adjustable->Start();

    adjustable->ApplySettings({{"brightness", 50}});
    EXPECT_EQ(stream->restarts, 0);
    adjustable->ApplySettings({{"codec", std::string("H.264")}});
    EXPECT_EQ(stream->restarts, 0);
    adjustable->ApplySettings({{"codec", std::string("H.265")}});
    EXPECT_EQ(stream->restarts, 1);
    adjustable->ApplySettings({{"codec", std::string("H.265")}, {"resolution", std::string("640x360")}});
    EXPECT_EQ(stream->restarts, 2);
    adjustable->ApplySettings({{"codec", 5}, {"transport", 1}});
    EXPECT_EQ(stream->restarts, 2) << "values of another type are none to follow";
    adjustable->Destroy();
}

TEST_F(RTSPReceiverBaseTest, theTransportThatIsUsedAnywayNeedsNoRestart)
{
    const auto adjustable = std::make_shared<AdjustableReceiver>(&device, &channel, nullptr, LiveSourceContext{});
    adjustable->adopt();
    adjustable->offered = stream;
    adjustable->Start();
    adjustable->ApplySettings({{"transport", std::string("tcp")}});
    EXPECT_EQ(stream->restarts, 0) << "which it is by default";
    adjustable->ApplySettings({{"transport", std::string("udp")}});
    EXPECT_EQ(stream->restarts, 1);
    adjustable->ApplySettings({{"transport", std::string(" UDP")}});
    EXPECT_EQ(stream->restarts, 1);
    adjustable->Destroy();
}

TEST_F(RTSPReceiverBaseTest, aTransportThatIsNoneLeavesTheStreamAndTheOldOneAlone)
{
    LiveSourceContext live;
    live.parameters = {{"transport", std::string("udp")}};
    const auto adjustable = std::make_shared<AdjustableReceiver>(&device, &channel, nullptr, live);
    adjustable->adopt();
    adjustable->offered = stream;
    adjustable->Start();
    adjustable->ApplySettings({{"transport", std::string("pigeon")}});
    EXPECT_EQ(stream->restarts, 0);
    adjustable->ApplySettings({{"transport", std::string("udp")}});
    EXPECT_EQ(stream->restarts, 0) << "it still is";
    adjustable->ApplySettings({{"transport", std::string("tcp")}});
    EXPECT_EQ(stream->restarts, 1);
    adjustable->Destroy();
}

TEST_F(RTSPReceiverBaseTest, whatTheStreamShowsNeedsNoRestart)
{
    const struct {
        GDRV::MediaCodec codec;
        const char* name;
    } cases[] = {
        {GDRV::MediaCodec::h264, "H.264"}, {GDRV::MediaCodec::h265, "H.265"}, {GDRV::MediaCodec::mjpeg, "MJPEG"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int before = stream->restarts;
        const auto adjustable = std::make_shared<AdjustableReceiver>(&device, &channel, nullptr, LiveSourceContext{});
        adjustable->adopt();
        adjustable->offered = stream;
        adjustable->Start();
        GDRV::MediaFrame frame;
        frame.codec = c.codec;
        frame.keyFrame = true;
        frame.width = 1920;
        frame.height = 1080;
        adjustable->onFrame(frame);

        const ParameterMap same{{"codec", std::string(c.name)}, {"resolution", std::string("1920x1080")}};
        adjustable->ApplySettings(same);
        EXPECT_EQ(stream->restarts, before);
        adjustable->ApplySettings({{"codec", std::string("other")}});
        EXPECT_EQ(stream->restarts, before + 1);
        adjustable->ApplySettings({{"resolution", std::string("1280x720")}});
        EXPECT_EQ(stream->restarts, before + 2);
        adjustable->ApplySettings({{"codec", std::string("other")}, {"resolution", std::string("1280x720")}});
        EXPECT_EQ(stream->restarts, before + 2) << "what was written counts until the stream shows otherwise";
        adjustable->onFrame(frame);
        adjustable->ApplySettings({{"resolution", std::string("1280x720")}});
        EXPECT_EQ(stream->restarts, before + 3) << "somebody else has changed the device";
        adjustable->Destroy();
    }
}

TEST_F(RTSPReceiverBaseTest, aFormatThatTheDeviceDidNotTakeRestartsTheStreamAgain)
{
    const auto adjustable = std::make_shared<AdjustableReceiver>(&device, &channel, nullptr, LiveSourceContext{});
    adjustable->adopt();
    adjustable->offered = stream;
    adjustable->Start();
    adjustable->deviceTakes = false;
    const ParameterMap wanted{{"codec", std::string("H.265")}, {"transport", std::string("udp")}};
    adjustable->ApplySettings(wanted);
    EXPECT_EQ(stream->restarts, 1);
    adjustable->ApplySettings({{"transport", std::string("udp")}});
    EXPECT_EQ(stream->restarts, 1) << "which is ours and holds at once";
    adjustable->deviceTakes = true;
    adjustable->ApplySettings(wanted);
    EXPECT_EQ(stream->restarts, 2);
    adjustable->ApplySettings(wanted);
    EXPECT_EQ(stream->restarts, 2);
    adjustable->Destroy();
}

TEST_F(RTSPReceiverBaseTest, theFirstValueRestartsAStreamThatHasShownNothing)
{
    for (const char* const key : {"codec", "resolution"}) {
        const int before = stream->restarts;
        const auto adjustable = std::make_shared<AdjustableReceiver>(&device, &channel, nullptr, LiveSourceContext{});
        adjustable->adopt();
        adjustable->offered = stream;
        adjustable->Start();
        GDRV::MediaFrame unknown;
        unknown.keyFrame = true;  // of a size and codec that nobody knows
        adjustable->onFrame(unknown);
        adjustable->ApplySettings({{key, std::string("H.264")}});
        EXPECT_EQ(stream->restarts, before + 1) << key;
        adjustable->Destroy();
    }
}
}  // namespace

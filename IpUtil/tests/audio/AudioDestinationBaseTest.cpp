#include <IpUtil/AudioDestinationBase.h>

#include "CallHandler.h"

#include <IpUtil/GlobalService.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{
using namespace Tavro8;
using namespace Tavro8::Utility;
using namespace kelvo::test;

/// Counts its children through the token, as the module does.
struct FakeDevice {
    static constexpr const char* logName = "class Fake::Device";

    std::shared_ptr<ILogger> getLogger() const { return {std::shared_ptr<ILogger>(), &logger}; }
    std::shared_ptr<void> getLifetimeToken() { return gate.enter(); }

    mutable RecordingLogger logger;
    LifetimeGate gate;
};

/// A line of which the test says how it goes.
class FakeDestination final : public AudioDestinationBase<FakeDevice> {
public:
    using AudioDestinationBase::AudioDestinationBase;

    /// On the worker, and waited for.
    void onWorker(const std::function<void()>& body)
    {
        std::promise<void> done;
        ASSERT_TRUE(worker.post([&] {
            body();
            done.set_value();
        }));
        done.get_future().wait();
    }
    /// Returns when everything that was posted before has been done.
    void settle()
    {
        onWorker([] {});
    }
    void stand()
    {
        onWorker([this] { lineStands(); });
    }
    void fail(ResultCode result)
    {
        onWorker([this, result] { lineEnded(toResult(result)); });
    }
    void completeClose()
    {
        onWorker([this] { std::exchange(closing, nullptr)(); });
    }

    // Only on the worker or after `settle`.
    int opened = 0;
    int closed = 0;
    std::vector<std::int16_t> sent;
    std::function<void()> closing;
    bool throwsOnOpen = false;
    bool closesLater = false;

private:
    void openLine() override
    {
        ++opened;
        if (throwsOnOpen)
            throw std::runtime_error("no line today");
    }
    void closeLine(std::function<void()> done) override
    {
        ++closed;
        if (closesLater)
            closing = std::move(done);
        else
            done();
    }
    void sendSound(std::span<const std::int16_t> samples) override
    {
        sent.insert(sent.end(), samples.begin(), samples.end());
    }
};

class AudioDestination : public ::testing::Test {
protected:
    ~AudioDestination() override
    {
        destroy();
        device.gate.waitUntilEmpty();
        service->barrier();
    }

    void make(TalkBackLimits limits = {}, const std::filesystem::path& dumpDirectory = {})
    {
        TalkBackContext context;
        context.objectName = "ad 4";
        context.channel = 4;
        context.dumpDirectory = dumpDirectory;
        context.limits = limits;
        const auto made = std::make_shared<FakeDestination>(&device, &handler, std::move(context));
        made->adopt();
        destination = made.get();
        watch = made;
    }
    void destroy()
    {
        if (destination != nullptr)
            std::exchange(destination, nullptr)->Destroy();
    }
    /// A call whose line stands.
    void talk()
    {
        destination->Call();
        destination->stand();
        ASSERT_TRUE(handler.waitStarted());
    }
    void push(const std::vector<std::int16_t>& samples) { destination->PushAudioFrame({samples}); }

    std::shared_ptr<GlobalService> service = GlobalService::instance();
    FakeDevice device;
    CallHandler handler;
    FakeDestination* destination = nullptr;
    std::weak_ptr<FakeDestination> watch;
};

constexpr std::int16_t some = 1;

TEST_F(AudioDestination, sendsWhatIsPushedOnALineThatStands)
{
    make();
    talk();
    push({1, 2, 3});
    push({4});
    destination->HangUp();
    ASSERT_TRUE(handler.waitEnded());
    destination->settle();
    EXPECT_EQ(destination->sent, (std::vector<std::int16_t>{1, 2, 3, 4}));
    EXPECT_EQ(handler.ends(), std::vector<std::int32_t>{0});
    EXPECT_EQ(handler.others(), 0U);
    const LogLine hangUp = device.logger.find("HangUp, sent: 2");
    EXPECT_EQ(hangUp.message, "ad 4: HangUp, sent: 2");
    EXPECT_EQ(hangUp.function, "Tavro8::Utility::AudioDestinationBase<class Fake::Device>::processHangUp");
    EXPECT_EQ(hangUp.file, "IpUtil/include/AudioDestinationBase");
    EXPECT_TRUE(device.logger.contains("ad 4: sending frame 1"));
    EXPECT_TRUE(device.logger.contains("ad 4: sending frame 2"));
}

TEST_F(AudioDestination, offersItsContracts)
{
    make();
    EXPECT_EQ(queryContract<GDRV::IAudioDestination>(destination), destination);
    EXPECT_EQ(queryContract<GDRV::IDeviceChannel>(destination), destination);
    EXPECT_EQ(queryContract<GDRV::IAudioSource>(destination), nullptr);
    EXPECT_EQ(destination->GetChannelIndex(), 4U);
}

TEST_F(AudioDestination, keepsTheNewestSoundUntilTheLineStands)
{
    make({.beforeTheLineStands = std::chrono::milliseconds(2)});  // 16 samples
    destination->Call();
    push(std::vector<std::int16_t>(10, 1));
    push(std::vector<std::int16_t>(10, 2));
    push(std::vector<std::int16_t>(6, 3));
    destination->stand();
    std::vector<std::int16_t> expected(10, 2);
    expected.insert(expected.end(), 6, 3);
    EXPECT_EQ(destination->sent, expected);
    EXPECT_EQ(device.logger.count("some is left out"), 1U);
    destination->HangUp();
    ASSERT_TRUE(handler.waitEnded());
    EXPECT_TRUE(device.logger.contains("HangUp, sent: 2"));
    EXPECT_TRUE(device.logger.contains("left out of the call: 1 ms of sound"));
}

TEST_F(AudioDestination, boundsWhatTheWorkerHasNotTakenUp)
{
    make({.queued = std::chrono::milliseconds(10)});  // 80 samples
    talk();
    std::promise<void> release;
    std::promise<void> busy;
    std::thread blocker([&] {
        destination->onWorker([&] {
            busy.set_value();
            release.get_future().wait();
        });
    });
    busy.get_future().wait();
    push(std::vector<std::int16_t>(50, 1));
    push(std::vector<std::int16_t>(50, 2));  // 30 of them have room
    for (int i = 0; i < 1000; ++i)
        push(std::vector<std::int16_t>(1000, 3));
    release.set_value();
    blocker.join();
    destination->settle();
    std::vector<std::int16_t> expected(50, 1);
    expected.insert(expected.end(), 30, 2);
    EXPECT_EQ(destination->sent, expected);
    EXPECT_EQ(device.logger.count("some is left out"), 1U) << "said once in a call";
    push({9});
    destination->settle();
    EXPECT_EQ(destination->sent.back(), 9) << "there is room again";
}

TEST_F(AudioDestination, isNeverFarAheadOfTheTimeThatTheSoundTakes)
{
    make({.queued = std::chrono::hours(1), .ahead = std::chrono::minutes(1)});
    talk();
    constexpr std::size_t minute = 8000U * 60;
    push(std::vector<std::int16_t>(2 * minute, some));
    push(std::vector<std::int16_t>(minute, some));
    destination->settle();
    EXPECT_GE(destination->sent.size(), minute);
    EXPECT_LT(destination->sent.size(), minute + minute / 2) << "unless this test took half a minute";
}

TEST_F(AudioDestination, soundWithoutACallIsDropped)
{
    make();
    push({1, 2, 3});
    destination->HangUp();
    talk();
    destination->HangUp();
    ASSERT_TRUE(handler.waitEnded());
    push({4});
    destination->HangUp();
    destination->settle();
    EXPECT_TRUE(destination->sent.empty());
    EXPECT_EQ(device.logger.count("HangUp, sent: 0"), 3U);
    EXPECT_EQ(handler.ends().size(), 1U);
}

TEST_F(AudioDestination, aSecondCallBesideTheFirstIsSkipped)
{
    make();
    destination->Call();
    destination->Call();
    destination->stand();
    destination->Call();
    destination->settle();
    EXPECT_EQ(destination->opened, 1);
    EXPECT_EQ(device.logger.count("Skip Call as already called"), 2U);
    EXPECT_EQ(handler.started(), 1U);
    destination->HangUp();
    ASSERT_TRUE(handler.waitEnded());
    EXPECT_EQ(handler.ends().size(), 1U);
}

TEST_F(AudioDestination, hangingUpBeforeTheLineStandsEndsTheCall)
{
    make();
    destination->Call();
    push({1});
    destination->HangUp();
    ASSERT_TRUE(handler.waitEnded());
    destination->stand();  // comes too late
    EXPECT_EQ(handler.started(), 0U);
    EXPECT_EQ(handler.ends(), std::vector<std::int32_t>{0});
    EXPECT_TRUE(destination->sent.empty());
}

TEST_F(AudioDestination, aLineThatBreaksEndsTheCallOnce)
{
    make();
    talk();
    destination->fail(ResultCode::connectionLost);
    destination->fail(ResultCode::timedOut);
    push({1});
    destination->HangUp();
    destination->settle();
    EXPECT_EQ(handler.ends(), std::vector<std::int32_t>{toResult(ResultCode::connectionLost)});
    EXPECT_TRUE(destination->sent.empty());
    EXPECT_EQ(destination->closed, 1);
}

TEST_F(AudioDestination, aLineThatCannotBeOpenedEndsTheCall)
{
    make();
    destination->throwsOnOpen = true;
    destination->Call();
    ASSERT_TRUE(handler.waitEnded());
    EXPECT_EQ(handler.ends(), std::vector<std::int32_t>{toResult(ResultCode::unexpected)});
    EXPECT_TRUE(device.logger.contains("no line today"));
}

TEST_F(AudioDestination, aCallWhileTheLastOneIsBeingClosedBeginsAfterIt)
{
    make();
    destination->closesLater = true;
    talk();
    push({1});
    destination->HangUp();
    push({2});  // belongs to no call
    destination->Call();
    push({3, 4});
    destination->Call();  // skipped
    push({5});
    destination->settle();
    EXPECT_EQ(destination->opened, 1);
    EXPECT_TRUE(handler.ends().empty()) << "the line is not closed yet";
    destination->completeClose();
    EXPECT_EQ(destination->opened, 2);
    EXPECT_EQ(handler.ends().size(), 1U);
    EXPECT_EQ(destination->sent, std::vector<std::int16_t>{1});
    destination->stand();
    EXPECT_EQ(destination->sent, (std::vector<std::int16_t>{1, 3, 4, 5})) << "sound may follow a call at once";
    destination->HangUp();
    destination->settle();
    destination->completeClose();
    EXPECT_EQ(handler.ends(), (std::vector<std::int32_t>{0, 0}));
    EXPECT_TRUE(device.logger.contains("HangUp, sent: 2")) << "each call counts for itself";
}

TEST_F(AudioDestination, soundForACallThatWaitsIsBoundedAndCountedForThatCall)
{
    make({.beforeTheLineStands = std::chrono::milliseconds(2)});  // 16 samples
    destination->closesLater = true;
    talk();
    destination->HangUp();
    destination->Call();
    push(std::vector<std::int16_t>(16, 1));
    push(std::vector<std::int16_t>(16, 2));
    destination->settle();
    destination->completeClose();
    EXPECT_FALSE(device.logger.contains("left out of the call")) << "nothing of the first is missing";
    destination->stand();
    EXPECT_EQ(destination->sent, std::vector<std::int16_t>(16, 2));
    destination->HangUp();
    destination->settle();
    EXPECT_EQ(device.logger.count("left out of the call: 2 ms of sound"), 1U);
    destination->completeClose();
}

TEST_F(AudioDestination, aCallThatWaitsMayBeHungUpToo)
{
    make();
    destination->closesLater = true;
    talk();
    destination->HangUp();
    destination->Call();
    push({1});
    destination->HangUp();
    destination->settle();
    destination->completeClose();
    EXPECT_EQ(destination->opened, 1);
    EXPECT_EQ(handler.ends(), (std::vector<std::int32_t>{0, 0})) << "once for each call";
    destination->Call();
    destination->stand();
    EXPECT_TRUE(destination->sent.empty()) << "that sound belonged to the call that was given up";
    destination->onWorker([this] { destination->closesLater = false; });
}

TEST_F(AudioDestination, mayBeDestroyedBeforeAnyCall)
{
    make();
    destroy();
    EXPECT_TRUE(watch.expired());
}

TEST_F(AudioDestination, tellsNothingAfterItWasDestroyed)
{
    enum class When { calling, talking, ended };
    for (const When when : {When::calling, When::talking, When::ended}) {
        const std::size_t before = handler.ends().size();
        make();
        destination->Call();
        if (when != When::calling)
            destination->stand();
        if (when == When::ended) {
            destination->HangUp();
            ASSERT_TRUE(handler.waitEnded(before + 1));
        }
        destroy();
        device.gate.waitUntilEmpty();
        EXPECT_TRUE(watch.expired());
        EXPECT_EQ(handler.ends().size(), before + (when == When::ended ? 1 : 0));
    }
    EXPECT_EQ(device.logger.errorCount(), 0U) << device.logger.text();
}

TEST_F(AudioDestination, waitsForItsLineToCloseAfterItWasDestroyed)
{
    make();
    destination->closesLater = true;
    talk();
    FakeDestination* const raw = destination;
    destroy();
    raw->settle();
    ASSERT_FALSE(watch.expired()) << "the line is not closed yet";
    EXPECT_EQ(raw->closed, 1);
    raw->completeClose();
    device.gate.waitUntilEmpty();
    EXPECT_TRUE(watch.expired());
    EXPECT_TRUE(handler.ends().empty());
}

TEST_F(AudioDestination, mayBeDestroyedInsideItsOwnCallbacks)
{
    make();
    handler.onStarted = [this](IContract*) { destroy(); };
    destination->Call();
    watch.lock()->stand();
    device.gate.waitUntilEmpty();
    EXPECT_TRUE(watch.expired());
    EXPECT_TRUE(handler.ends().empty());

    handler.onStarted = nullptr;
    handler.onEnded = [this](IContract*) { destroy(); };
    make();
    destination->Call();
    destination->HangUp();
    device.gate.waitUntilEmpty();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(handler.ends().size(), 1U);
    EXPECT_EQ(device.logger.errorCount(), 0U) << device.logger.text();
}

TEST_F(AudioDestination, mayCallAgainInsideTheEndOfACall)
{
    make();
    int left = 3;
    handler.onEnded = [&](IContract*) {
        if (left-- > 0) {
            destination->Call();
            destination->HangUp();
        }
    };
    destination->Call();
    destination->HangUp();
    ASSERT_TRUE(handler.waitEnded(4));
    destination->settle();
    EXPECT_EQ(destination->opened, 4);
}

TEST_F(AudioDestination, aJoinOnTheWorkerItselfIsRefusedAndLogged)
{
    make();
    talk();
    destination->onWorker([&] { destination->joinThread(); });
    const LogLine line = device.logger.find("std::exception:");
    EXPECT_EQ(line.message.find("ad 4: std::exception:boost thread: trying joining itself"), 0U) << line.message;
    EXPECT_EQ(line.function, "Tavro8::Utility::AudioDestinationBase<class Fake::Device>::joinThread");
    EXPECT_EQ(line.severity, LogSeverity::error);
}

TEST_F(AudioDestination, joinsItsThreadWithoutAWord)
{
    make();
    talk();
    destination->joinThread();
    destination->joinThread();
    EXPECT_EQ(device.logger.errorCount(), 0U);
}

TEST_F(AudioDestination, keepsTheSoundOfEachCallInAFileWhenItIsAskedTo)
{
    const auto directory = std::filesystem::temp_directory_path() / "kelvo-dump-of-calls";
    std::filesystem::remove_all(directory);
    std::filesystem::create_directories(directory);
    make({}, directory);
    for (std::size_t i = 1; i <= 2; ++i) {
        destination->Call();
        push({1, 2, 3});
        destination->HangUp();
        ASSERT_TRUE(handler.waitEnded(i));
    }
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        EXPECT_EQ(entry.file_size(), 6U);
        ++files;
    }
    EXPECT_EQ(files, 2U);
    std::filesystem::remove_all(directory);
}

TEST_F(AudioDestination, goesOnWithoutADumpFileThatCannotBeOpened)
{
    make({}, std::filesystem::temp_directory_path() / "kelvo-no-such-directory");
    talk();
    push({1});
    destination->settle();
    EXPECT_EQ(destination->sent.size(), 1U);
    const LogLine line = device.logger.find("Failed to open an output debug file!");
    EXPECT_EQ(line.severity, LogSeverity::error);
    EXPECT_EQ(line.function, "Tavro8::Utility::AudioDestinationBase<class Fake::Device>::Call");
}

TEST_F(AudioDestination, isPushedFromManyThreadsWhileItComesAndGoes)
{
    make();
    std::atomic<bool> ending{false};
    std::vector<std::thread> pushers;
    for (int i = 0; i < 3; ++i) {
        pushers.emplace_back([&] {
            while (!ending)
                push(std::vector<std::int16_t>(160, some));
        });
    }
    for (std::size_t i = 1; i <= 20; ++i) {
        destination->Call();
        destination->stand();
        destination->HangUp();
        ASSERT_TRUE(handler.waitEnded(i));
    }
    ending = true;
    for (auto& pusher : pushers)
        pusher.join();
}
}  // namespace

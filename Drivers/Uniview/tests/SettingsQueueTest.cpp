#include "SettingsQueue.h"

#include "HostFakes.h"

#include <Tavro8/ResultCode.h>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace
{
using namespace Uniview;
using Tavro8::ResultCode;
using Tavro8::toResult;

class SettingsQueueTest : public ::testing::Test {
protected:
    /// A request that notes its name when it begins and keeps its turn.
    SettingsQueue::Request request(const void* owner, const std::string& name)
    {
        return {owner, &helper, "place", [this, name](SettingsQueue::Turn given) {
                    begun += name;
                    turn = std::move(given);
                }};
    }
    std::int32_t take(const void* owner, const std::string& name) { return queue->take(request(owner, name)); }
    void run()
    {
        context.restart();
        context.run();
    }
    void finish()
    {
        turn.reset();
        run();
    }

    boost::asio::io_context context;
    kelvo::test::RecordingLogger logger;
    const Tavro8::LoggerHelper helper{&logger, "source"};
    bool connected = true;
    std::shared_ptr<SettingsQueue> queue = std::make_shared<SettingsQueue>(context, [this] { return connected; });
    std::string begun;
    SettingsQueue::Turn turn;
    const int one = 0;
    const int two = 0;
};

TEST_F(SettingsQueueTest, requestsBeginOneAfterTheOther)
{
    EXPECT_EQ(take(&one, "a"), 0);
    EXPECT_EQ(take(&two, "b"), 0);
    EXPECT_EQ(take(&one, "c"), 0);
    EXPECT_EQ(begun, "") << "not inside the call";
    run();
    EXPECT_EQ(begun, "a");
    turn.reset();
    EXPECT_EQ(begun, "a") << "not inside the end of the last one";
    run();
    EXPECT_EQ(begun, "ab");
    finish();
    EXPECT_EQ(begun, "abc");
    finish();
    EXPECT_EQ(take(&one, "d"), 0);
    run();
    EXPECT_EQ(begun, "abcd");
}

TEST_F(SettingsQueueTest, droppedRequestsDoNotBegin)
{
    take(&one, "a");
    run();
    for (const char* const name : {"b", "c"}) {
        take(&one, name);
        take(&two, std::string(1, static_cast<char>(*name - 'a' + 'A')));
    }
    queue->drop(&one);
    finish();
    finish();
    finish();
    EXPECT_EQ(begun, "aBC");
}

TEST_F(SettingsQueueTest, droppedRequestsAreForgotten)
{
    const auto held = std::make_shared<int>();
    SettingsQueue::Request waiting = request(&one, "b");
    waiting.begin = [held](const SettingsQueue::Turn&) {};
    EXPECT_EQ(queue->take(std::move(waiting)), 0);
    EXPECT_EQ(held.use_count(), 2);
    queue->drop(&one);
    EXPECT_EQ(held.use_count(), 1);
    run();
    EXPECT_EQ(begun, "");
}

TEST_F(SettingsQueueTest, endGivesUpWhatWaitsAndTakesNothingMore)
{
    take(&one, "a");
    run();
    take(&one, "b");
    queue->end();
    finish();
    EXPECT_EQ(begun, "a");
    EXPECT_EQ(take(&one, "c"), toResult(ResultCode::invalidState));
    run();
    EXPECT_EQ(begun, "a");
}

TEST_F(SettingsQueueTest, turnMayOutliveTheQueuesOwner)
{
    take(&one, "a");
    run();
    queue->end();
    queue.reset();
    finish();
    EXPECT_EQ(begun, "a");
}

TEST_F(SettingsQueueTest, tooManyRequestsAreRefused)
{
    for (std::size_t i = 0; i < SettingsQueue::maxTaken; ++i) {
        ASSERT_EQ(take(&one, "a"), 0);
        run();  // the first is under way, the others wait
    }
    EXPECT_EQ(take(&two, "b"), toResult(ResultCode::deviceBusy));
    EXPECT_TRUE(logger.contains("Too many settings wait for the device"));
    EXPECT_EQ(logger.find("Too many").function, "place");
    finish();
    EXPECT_EQ(take(&two, "b"), 0);
}

TEST_F(SettingsQueueTest, requestsThatDoNotCountAreAlwaysTaken)
{
    for (std::size_t i = 0; i < SettingsQueue::maxTaken + 2; ++i) {
        SettingsQueue::Request other = request(&two, "a");
        other.counts = false;
        ASSERT_EQ(queue->take(std::move(other)), 0);
        run();
    }
    for (std::size_t i = 0; i < SettingsQueue::maxTaken; ++i)
        ASSERT_EQ(take(&one, "b"), 0);
    EXPECT_EQ(take(&one, "b"), toResult(ResultCode::deviceBusy));
    finish();
    EXPECT_EQ(take(&one, "b"), toResult(ResultCode::deviceBusy)) << "one that does not count has made no room";
    queue->drop(&two);
    EXPECT_EQ(take(&one, "b"), toResult(ResultCode::deviceBusy)) << "nor have those that were given up";
    finish();
    EXPECT_EQ(begun, "aab");
    finish();
    EXPECT_EQ(take(&one, "b"), 0);
}

TEST_F(SettingsQueueTest, requestsThatAreGivenUpMakeRoom)
{
    for (std::size_t i = 0; i < SettingsQueue::maxTaken; ++i)
        ASSERT_EQ(take(i == 0 ? &two : &one, "a"), 0);
    run();
    queue->drop(&one);
    for (std::size_t i = 1; i < SettingsQueue::maxTaken; ++i)
        ASSERT_EQ(take(&one, "a"), 0);
    EXPECT_EQ(take(&one, "a"), toResult(ResultCode::deviceBusy));
}

TEST_F(SettingsQueueTest, deviceThatIsConcernedHasToBeConnected)
{
    connected = false;
    EXPECT_EQ(take(&one, "a"), toResult(ResultCode::invalidState));
    EXPECT_TRUE(logger.contains("Settings can be applied once the device has connected"));
    SettingsQueue::Request other = request(&one, "b");
    other.concernsDevice = false;
    EXPECT_EQ(queue->take(std::move(other)), 0);
    run();
    EXPECT_EQ(begun, "b");
}

TEST_F(SettingsQueueTest, requestThatThrowsLetsTheNextOneGoOn)
{
    SettingsQueue::Request broken = request(&one, "a");
    broken.begin = [](const SettingsQueue::Turn&) { throw std::runtime_error("broken"); };
    EXPECT_EQ(queue->take(std::move(broken)), 0);
    take(&one, "b");
    run();
    EXPECT_EQ(begun, "b");
    EXPECT_TRUE(logger.contains("broken"));
}
}  // namespace

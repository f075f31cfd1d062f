#include <utility>

#include <IpUtil/GlobalService.h>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <future>
#include <gtest/gtest.h>
#include <latch>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Tavro8::Utility;
using Lane = GlobalService::Lane;

namespace
{
/// Says when the last holder has let go of it.
std::pair<std::shared_ptr<void>, std::future<void>> makeToken()
{
    auto gone = std::make_shared<std::promise<void>>();
    auto future = gone->get_future();
    return {std::shared_ptr<void>(gone.get(), [gone](void*) { gone->set_value(); }), std::move(future)};
}

/// Blocks what runs until it is opened.
class Door {
public:
    void open() { promise.set_value(); }
    void pass() const { future.wait(); }

private:
    std::promise<void> promise;
    std::shared_future<void> future{promise.get_future()};
};
}  // namespace

TEST(GlobalService, isOneForAllHoldersAndMadeAgainAfterTheLast)
{
    std::weak_ptr<GlobalService> first;
    {
        const auto service = GlobalService::instance();
        EXPECT_EQ(service, GlobalService::instance());
        first = service;
    }
    EXPECT_TRUE(first.expired());
    EXPECT_NE(GlobalService::instance(), nullptr);
}

TEST(GlobalService, fillsOneContextBeforeTheNextHasItsTurn)
{
    const auto service = GlobalService::instance();
    if (service->getContextCount() < 2)
        GTEST_SKIP() << "this machine has one core";
    auto* const first = &service->assignContext();
    for (std::uint32_t stream = 1; stream < GlobalService::streamsPerTurn; ++stream)
        ASSERT_EQ(&service->assignContext(), first) << stream;
    auto* const second = &service->assignContext(GlobalService::streamsPerTurn / 2);
    EXPECT_NE(second, first);
    EXPECT_EQ(&service->assignContext(GlobalService::streamsPerTurn / 2), second);
    EXPECT_NE(&service->assignContext(), second);
}

TEST(GlobalService, givesThePlacesOfGoneDevicesToOthers)
{
    const auto service = GlobalService::instance();
    auto* const first = &service->assignContext();
    for (std::uint32_t i = 0; i < 3 * GlobalService::streamsPerTurn; ++i) {
        auto& context = service->assignContext();
        ASSERT_EQ(&context, first) << "devices come and go, and there are never more than two; " << i;
        service->releaseContext(context);
    }
    for (int i = 0; i < 3; ++i) {
        auto& none = service->assignContext(0);
        ASSERT_EQ(&none, first);
        service->releaseContext(none, 0);
    }
}

TEST(GlobalService, givesTheContextWithTheFewestStreamsWhenAllAreFull)
{
    const auto service = GlobalService::instance();
    std::vector<boost::asio::io_context*> contexts;
    for (std::size_t i = 0; i < service->getContextCount(); ++i)
        contexts.push_back(&service->assignContext(2 * GlobalService::streamsPerTurn));
    EXPECT_EQ(std::set(contexts.begin(), contexts.end()).size(), contexts.size());
    auto* const last = contexts.back();
    service->releaseContext(*last, GlobalService::streamsPerTurn / 2);
    EXPECT_EQ(&service->assignContext(), last) << "it has a turn and a half, the others have two";
}

TEST(GlobalService, aDeviceWithoutStreamsCountsAsOneWithOne)
{
    const auto service = GlobalService::instance();
    std::set<boost::asio::io_context*> contexts;
    for (std::size_t i = 0; i < service->getContextCount() * GlobalService::streamsPerTurn; ++i)
        contexts.insert(&service->assignContext(0));
    EXPECT_EQ(contexts.size(), service->getContextCount());
}

TEST(GlobalService, runsEachContextOnOneThread)
{
    const auto service = GlobalService::instance();
    std::set<boost::asio::io_context*> contexts;
    for (std::size_t i = 0; i < service->getContextCount(); ++i)
        contexts.insert(&service->assignContext(GlobalService::streamsPerTurn));
    EXPECT_EQ(contexts.size(), service->getContextCount());
    for (boost::asio::io_context* context : contexts) {
        std::promise<std::thread::id> ids[2];
        for (auto& id : ids)
            boost::asio::post(*context, [&id] { id.set_value(std::this_thread::get_id()); });
        EXPECT_EQ(ids[0].get_future().get(), ids[1].get_future().get());
    }
}

TEST(GlobalService, goesOnAfterAHandlerHasThrown)
{
    const auto service = GlobalService::instance();
    auto& context = service->assignContext();
    boost::asio::post(context, [] { throw std::runtime_error("handler"); });
    std::promise<void> reached;
    boost::asio::post(context, [&] { reached.set_value(); });
    reached.get_future().wait();
}

TEST(GlobalService, runsEightBlockingWorksAtOnceAndNoMore)
{
    const auto service = GlobalService::instance();
    std::latch eight(8);
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    for (int i = 0; i < 40; ++i) {
        service->runBlocking(Lane::prompt, [&, i] {
            const int now = ++running;
            for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
            }
            if (i < 8)
                eight.arrive_and_wait();  // would not end with fewer threads
            --running;
        });
    }
    service->barrier();
    EXPECT_EQ(most, 8);
}

TEST(GlobalService, keepsTheLanesApart)
{
    Door door;  // outlives the service, whose threads pass it
    const auto service = GlobalService::instance();
    for (int i = 0; i < 10; ++i)
        service->runBlocking(Lane::failing, [&] { door.pass(); });
    std::promise<void> reached;
    service->runBlocking(Lane::prompt, [&] { reached.set_value(); });
    reached.get_future().wait();
    door.open();
}

TEST(GlobalService, keepsAThreadWhoseWorkHasThrown)
{
    const auto service = GlobalService::instance();
    std::atomic<int> ran{0};
    for (int i = 0; i < 20; ++i) {
        service->runBlocking(Lane::prompt, [&] {
            ++ran;
            throw std::runtime_error("work");
        });
    }
    service->barrier();
    EXPECT_EQ(ran, 20);
}

TEST(GlobalService, barrierWaitsForWhatRunsAndWhatIsDue)
{
    const auto service = GlobalService::instance();
    auto& context = service->assignContext();
    Door door;
    std::promise<void> inside;
    int ended = 0;  // no atomic: the barrier orders it
    boost::asio::post(context, [&] {
        inside.set_value();
        door.pass();
        boost::asio::post(context, [] {});
        ++ended;
    });
    boost::asio::post(context, [&] { ++ended; });
    boost::asio::steady_timer due(context, std::chrono::seconds(0));
    due.async_wait([&](const boost::system::error_code&) { ++ended; });
    int blocked = 0;
    service->runBlocking(Lane::failing, [&] {
        door.pass();
        ++blocked;
    });
    inside.get_future().wait();
    std::thread opener([&] { door.open(); });
    service->barrier();
    EXPECT_EQ(ended, 3);
    EXPECT_EQ(blocked, 1);
    opener.join();
}

TEST(GlobalService, barrierWaitsUntilWorkIsDestroyed)
{
    const auto service = GlobalService::instance();
    for (int i = 0; i < 50; ++i) {
        auto token = std::make_shared<int>(0);
        const std::weak_ptr<int> weak = token;
        service->runBlocking(Lane::prompt, [token = std::move(token)] {});
        service->barrier();
        ASSERT_TRUE(weak.expired());
    }
}

TEST(GlobalService, destroysWhatIsQueuedWithoutRunningIt)
{
    auto service = GlobalService::instance();
    Door door;
    std::latch inside(4);
    for (int i = 0; i < 4; ++i) {
        service->runBlocking(Lane::failing, [&] {
            inside.count_down();
            door.pass();
        });
    }
    inside.wait();
    std::atomic<bool> ran{false};
    auto [token, gone] = makeToken();
    service->runBlocking(Lane::failing, [&ran, token = std::move(token)] { ran = true; });

    auto [timerToken, timerGone] = makeToken();
    auto timer = std::make_shared<boost::asio::steady_timer>(service->assignContext(), std::chrono::hours(1));
    timer->async_wait([timer, token = std::move(timerToken)](const boost::system::error_code&) {});
    timer.reset();

    std::thread releaser([&service] { service.reset(); });
    gone.wait();
    door.open();
    releaser.join();
    EXPECT_FALSE(ran);
    EXPECT_EQ(timerGone.wait_for(std::chrono::seconds(0)), std::future_status::ready);
}

/// The thread of `context` lets go of the service last.
void releaseOn(boost::asio::io_context& context, std::shared_ptr<GlobalService> service)
{
    auto [token, gone] = makeToken();
    auto timer = std::make_shared<boost::asio::steady_timer>(context, std::chrono::hours(1));
    timer->async_wait([timer, token = std::move(token)](const boost::system::error_code&) {});
    timer.reset();
    Door door;  // opened when this thread has left the context
    boost::asio::post(context, [&door, last = std::move(service)]() mutable {
        door.pass();
        last.reset();
    });
    door.open();
    gone.wait();  // the contexts are destroyed
}

TEST(GlobalService, isReleasedOnItsOwnIoThread)
{
    auto service = GlobalService::instance();
    auto& context = service->assignContext();
    releaseOn(context, std::move(service));
}

TEST(GlobalService, isReleasedOnItsOwnBlockingThread)
{
    auto service = GlobalService::instance();
    auto [token, gone] = makeToken();
    boost::asio::io_context& context = service->assignContext();
    auto timer = std::make_shared<boost::asio::steady_timer>(context, std::chrono::hours(1));
    timer->async_wait([timer, token = std::move(token)](const boost::system::error_code&) {});
    timer.reset();
    GlobalService* const raw = service.get();
    const auto holder = std::make_shared<std::shared_ptr<GlobalService>>(service);
    Door door;
    raw->runBlocking(Lane::prompt, [&door, holder] {
        door.pass();
        holder->reset();
    });
    service.reset();
    door.open();
    gone.wait();
}

TEST(GlobalService, isMadeAndReleasedBySeveralThreads)
{
    std::vector<std::thread> users;
    for (int i = 0; i < 3; ++i) {
        users.emplace_back([] {
            for (int round = 0; round < 20; ++round) {
                const auto service = GlobalService::instance();
                std::promise<void> ran;
                boost::asio::post(service->assignContext(), [&] { ran.set_value(); });
                service->runBlocking(Lane::prompt, [] {});
                ran.get_future().wait();
                service->barrier();
            }
        });
    }
    for (std::thread& user : users)
        user.join();
}

TEST(GlobalService, hasAThreadOfItsOwnForServers)
{
    const auto service = GlobalService::instance();
    auto& server = service->getServerContext();
    EXPECT_EQ(&server, &service->getServerContext());
    std::set<std::thread::id> threads;
    std::promise<std::thread::id> ids[2];
    boost::asio::post(server, [&] { ids[0].set_value(std::this_thread::get_id()); });
    boost::asio::post(service->assignContext(), [&] { ids[1].set_value(std::this_thread::get_id()); });
    for (auto& id : ids)
        threads.insert(id.get_future().get());
    EXPECT_EQ(threads.size(), 2U);
}

TEST(GlobalService, barrierWaitsForServersAndForWhatTheyPassOn)
{
    const auto service = GlobalService::instance();
    auto& context = service->assignContext();
    Door door;
    std::promise<void> inside;
    int ended = 0;  // no atomic: the barrier orders it
    boost::asio::post(service->getServerContext(), [&] {
        inside.set_value();
        door.pass();
        boost::asio::post(context, [&] { ++ended; });
    });
    inside.get_future().wait();
    std::thread opener([&] { door.open(); });
    service->barrier();
    EXPECT_EQ(ended, 1);
    opener.join();
}

TEST(GlobalService, isReleasedOnItsServerThread)
{
    auto service = GlobalService::instance();
    auto& context = service->getServerContext();
    releaseOn(context, std::move(service));
}

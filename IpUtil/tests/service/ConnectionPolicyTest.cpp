#include <utility>

#include "RecordingLogger.h"
#include "http/Cancellation.h"
#include <IpUtil/ConnectionPolicy.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <future>
#include <gtest/gtest.h>
#include <latch>
#include <mutex>
#include <random>
#include <stdexcept>
#include <thread>

using namespace Tavro8;
using kelvo::test::RecordingLogger;
using Utility::AsyncConnectionPolicyBase;
using Utility::Backoff;
using Utility::GlobalService;
using Lane = GlobalService::Lane;
using Events = std::vector<std::string>;
using namespace std::chrono_literals;

namespace
{
const error_code success;
const error_code unreachable = make_error_code(ResultCode::deviceUnreachable);
const error_code broken = make_error_code(boost::system::errc::connection_reset);

/// Keeps what it was told, and checks that it is told one thing at a time.
class DeviceHandler final : public GDRV::IDeviceHandler {
public:
    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<GDRV::IDeviceHandler, IContract>(this, name);
    }
    void Connected(GDRV::IDevice* device) noexcept override { add(device, "Connected"); }
    void ConnectFailed(GDRV::IDevice* device, std::int32_t result) noexcept override
    {
        add(device, "ConnectFailed " + std::to_string(result));
    }
    void ConnectionLost(GDRV::IDevice* device, std::int32_t result) noexcept override
    {
        add(device, "ConnectionLost " + std::to_string(result));
    }
    void Closed(GDRV::IDevice* device) noexcept override { add(device, "Closed"); }

    Events all() const
    {
        const std::lock_guard lock(mutex);
        return events;
    }
    /// The first `count` events, once they have come.
    Events wait(std::size_t count) const
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, 20s, [&] { return events.size() >= count; }));
        return {events.begin(), events.begin() + static_cast<std::ptrdiff_t>(std::min(count, events.size()))};
    }
    void waitFor(const std::string& event, std::ptrdiff_t times = 1) const
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, 20s, [&] {
            return std::count(events.begin(), events.end(), event) >= times;
        })) << event;
    }

    std::function<void(const std::string& event)> onEvent;
    std::atomic<int> overlaps{0};
    GDRV::IDevice* lastDevice = nullptr;

private:
    void add(GDRV::IDevice* device, const std::string& event)
    {
        if (++inside != 1)
            ++overlaps;
        {
            const std::lock_guard lock(mutex);
            events.push_back(event);
            lastDevice = device;
            changed.notify_all();
        }
        if (onEvent)
            onEvent(event);
        --inside;
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    Events events;
    std::atomic<int> inside{0};
};

class Policy final : public AsyncConnectionPolicyBase, public std::enable_shared_from_this<Policy> {
public:
    using Attempt = std::function<void(Policy&, const std::string& address)>;

    Policy(DeviceHandler* handler, ILogger* logger, GlobalService& service, const Backoff& backoff, Attempt attempt)
        : AsyncConnectionPolicyBase(handler, logger, service, backoff), attempt(std::move(attempt))
    {}
    ~Policy() override { shutDown(); }

    using AsyncConnectionPolicyBase::cancellation;
    using AsyncConnectionPolicyBase::closeConnection;
    using AsyncConnectionPolicyBase::handleConnected;
    using AsyncConnectionPolicyBase::openConnection;
    using AsyncConnectionPolicyBase::shutDown;

    GDRV::IDevice* hostDevice() noexcept override
    {
        return reinterpret_cast<GDRV::IDevice*>(this);  // compared only
    }

    std::atomic<int> attempts{0};
    std::function<void()> whenConnected;
    std::function<void()> whenLost;

private:
    void tryConnect(const std::string& address) override
    {
        ++attempts;
        attempt(*this, address);
    }
    void onConnected() override
    {
        if (whenConnected)
            whenConnected();
    }
    void onConnectionLost() override
    {
        if (whenLost)
            whenLost();
    }
    std::shared_ptr<void> keepAlive() override { return shared_from_this(); }

    Attempt attempt;
};

void succeed(Policy& policy, const std::string& /*address*/)
{
    policy.handleConnected(success);
}

/// Blocks like a request that is bound to `source` and never answered.
void waitUntilCancelled(const http::CancellationSource& source)
{
    struct UnansweredRequest final : http::ICancellation {
        void cancel() noexcept override { cancelled.set_value(); }
        std::promise<void> cancelled;
    };
    const auto request = std::make_shared<UnansweredRequest>();
    source.getState()->bind(request);
    request->cancelled.get_future().wait();
}

void blockUntilCancelled(Policy& policy, const std::string& /*address*/)
{
    waitUntilCancelled(policy.cancellation());
    policy.handleConnected(unreachable);
}

class ConnectionPolicy : public testing::Test {
protected:
    ~ConnectionPolicy() override
    {
        const std::weak_ptr<Policy> weak = policy;
        if (policy != nullptr)
            policy->shutDown();
        policy.reset();
        service->barrier();
        EXPECT_TRUE(weak.expired());
        EXPECT_EQ(handler.overlaps, 0);
    }
    void make(Policy::Attempt attempt, Backoff backoff = Backoff(1ms, 4ms))
    {
        policy = std::make_shared<Policy>(&handler, &logger, *service, backoff, std::move(attempt));
    }
    /// Runs what the device's I/O thread has been asked to do.
    void settle() { service->barrier(); }

    std::shared_ptr<GlobalService> service = GlobalService::instance();
    RecordingLogger logger;
    DeviceHandler handler;
    std::shared_ptr<Policy> policy;
};

/// Occupies all threads of a lane until it goes.
class BusyLane {
public:
    BusyLane(GlobalService& service, Lane lane, std::ptrdiff_t threads)
    {
        auto inside = std::make_shared<std::latch>(threads);
        for (std::ptrdiff_t i = 0; i < threads; ++i) {
            service.runBlocking(lane, [inside, done = done] {
                inside->count_down();
                done.wait();
            });
        }
        inside->wait();
    }
    ~BusyLane() { mayEnd.set_value(); }

private:
    std::promise<void> mayEnd;
    std::shared_future<void> done{mayEnd.get_future()};
};
}  // namespace

TEST_F(ConnectionPolicy, tellsTheHostWhenTheAttemptSucceeded)
{
    std::string seen;
    Events order;
    make([&](Policy& self, const std::string& address) {
        seen = address;
        EXPECT_FALSE(self.isConnected());
        self.handleConnected(success);
    });
    policy->whenConnected = [&] {
        EXPECT_TRUE(policy->isConnected());
        EXPECT_TRUE(handler.all().empty());
        order.push_back("onConnected");
    };
    policy->openConnection("http://192.0.2.10");
    EXPECT_EQ(handler.wait(1), Events{"Connected"});
    settle();
    EXPECT_TRUE(policy->isConnected());
    EXPECT_EQ(handler.lastDevice, policy->hostDevice());
    EXPECT_EQ(seen, "http://192.0.2.10");
    EXPECT_EQ(order, Events{"onConnected"});
    EXPECT_EQ(policy->attempts, 1);
}

TEST_F(ConnectionPolicy, neverTriesOnAnIoThread)
{
    std::promise<std::thread::id> tried;
    make([&](Policy& self, const std::string&) {
        tried.set_value(std::this_thread::get_id());
        self.handleConnected(success);
    });
    policy->openConnection("a");
    std::promise<std::thread::id> io;
    boost::asio::post(policy->service(), [&] { io.set_value(std::this_thread::get_id()); });
    EXPECT_NE(tried.get_future().get(), io.get_future().get());
    handler.wait(1);
}

TEST_F(ConnectionPolicy, triesAgainAfterAFailure)
{
    make([](Policy& self, const std::string&) { self.handleConnected(self.attempts < 3 ? unreachable : success); });
    policy->openConnection("a");
    EXPECT_EQ(handler.wait(3), (Events{"ConnectFailed 256", "ConnectFailed 256", "Connected"}));
}

TEST_F(ConnectionPolicy, triesFirstAndAfterALossBesideFailingDevices)
{
    const BusyLane failing(*service, Lane::failing, 4);
    make(succeed);
    policy->openConnection("a");
    handler.wait(1);
    policy->reportStreamLost();
    EXPECT_EQ(handler.wait(3), (Events{"Connected", "ConnectionLost 257", "Connected"}));
}

TEST_F(ConnectionPolicy, triesAgainBesideFirstAttempts)
{
    std::promise<void> occupied;
    const auto ready = occupied.get_future().share();
    make([&](Policy& self, const std::string&) {
        if (self.attempts == 1)
            ready.wait();
        self.handleConnected(self.attempts == 1 ? unreachable : success);
    });
    policy->openConnection("a");
    while (policy->attempts == 0)
        std::this_thread::yield();
    const BusyLane rest(*service, Lane::prompt, 7);  // the eighth thread makes the first attempt
    std::promise<void> mayEnd;
    std::promise<void> lastTaken;
    const auto done = mayEnd.get_future().share();
    service->runBlocking(Lane::prompt, [&, done] {
        lastTaken.set_value();
        done.wait();
    });
    occupied.set_value();
    EXPECT_EQ(handler.wait(2), (Events{"ConnectFailed 256", "Connected"}));
    lastTaken.get_future().wait();
    mayEnd.set_value();
}

TEST_F(ConnectionPolicy, countsAnAttemptThatThrowsAsFailed)
{
    make([](Policy& self, const std::string&) {
        if (self.attempts == 1)
            throw std::runtime_error("broken attempt");
        if (self.attempts == 2)
            throw 2;  // no std::exception
        self.handleConnected(success);
    });
    policy->openConnection("a");
    EXPECT_EQ(handler.wait(3), (Events{"ConnectFailed 4", "ConnectFailed 4", "Connected"}));
    EXPECT_EQ(logger.count("broken attempt"), 1U);
}

TEST_F(ConnectionPolicy, countsAnAttemptWithoutOutcomeAsFailed)
{
    make([](Policy& self, const std::string&) {
        if (self.attempts > 1)
            self.handleConnected(success);
    });
    policy->openConnection("a");
    EXPECT_EQ(handler.wait(2), (Events{"ConnectFailed 4", "Connected"}));
    EXPECT_EQ(logger.count("The attempt ended without an outcome"), 1U);
}

TEST_F(ConnectionPolicy, ignoresASecondOutcomeAndSaysSo)
{
    make([](Policy& self, const std::string&) {
        self.handleConnected(success);
        self.handleConnected(unreachable);
    });
    policy->openConnection("a");
    handler.wait(1);
    settle();
    policy->handleConnected(unreachable);  // no attempt at all
    EXPECT_EQ(handler.all(), Events{"Connected"});
    EXPECT_EQ(logger.count("Outcome ignored"), 2U);
    EXPECT_TRUE(policy->isConnected());
}

TEST_F(ConnectionPolicy, takesTheOutcomeFromAnotherThread)
{
    make([](Policy& self, const std::string&) { std::thread([&] { self.handleConnected(success); }).join(); });
    policy->openConnection("a");
    EXPECT_EQ(handler.wait(1), Events{"Connected"});
}

TEST_F(ConnectionPolicy, closesWhenConnected)
{
    make(succeed);
    policy->openConnection("a");
    handler.wait(1);
    policy->closeConnection();
    EXPECT_EQ(handler.wait(2), (Events{"Connected", "Closed"}));
    EXPECT_FALSE(policy->isConnected());
    policy->closeConnection();
    settle();
    EXPECT_EQ(handler.all().size(), 2U);
}

TEST_F(ConnectionPolicy, hasNothingToCloseBeforeItIsOpened)
{
    make(succeed);
    policy->closeConnection();
    settle();
    EXPECT_TRUE(handler.all().empty());
    policy->openConnection("a");  // the cancellation of before does not last
    EXPECT_EQ(handler.wait(1), Events{"Connected"});
}

TEST_F(ConnectionPolicy, cancelsTheAttemptUnderWayAndTellsClosedAfterIt)
{
    std::promise<void> inside;
    std::atomic<bool> ended{false};
    make([&](Policy& self, const std::string& address) {
        inside.set_value();
        blockUntilCancelled(self, address);
        ended = true;
    });
    handler.onEvent = [&](const std::string&) { EXPECT_TRUE(ended); };
    policy->openConnection("a");
    inside.get_future().wait();
    policy->closeConnection();
    EXPECT_EQ(handler.wait(1), Events{"Closed"});
    settle();
    EXPECT_EQ(handler.all(), Events{"Closed"});
}

TEST_F(ConnectionPolicy, tellsNothingOfASuccessThatCameAfterTheClose)
{
    std::promise<void> inside;
    make([&](Policy& self, const std::string&) {
        inside.set_value();
        waitUntilCancelled(self.cancellation());
        self.handleConnected(success);
    });
    policy->openConnection("a");
    inside.get_future().wait();
    policy->closeConnection();
    EXPECT_EQ(handler.wait(1), Events{"Closed"});
    EXPECT_FALSE(policy->isConnected());
}

TEST_F(ConnectionPolicy, closesAtOnceWhileTheAttemptStillQueues)
{
    const BusyLane prompt(*service, Lane::prompt, 8);
    make(succeed);
    policy->openConnection("a");
    policy->closeConnection();
    EXPECT_EQ(handler.wait(1), Events{"Closed"});
    EXPECT_EQ(policy->attempts, 0);
}

TEST_F(ConnectionPolicy, letsGoOfItsOwnerWhileTheAttemptStillQueues)
{
    const BusyLane prompt(*service, Lane::prompt, 8);
    make(succeed);
    policy->openConnection("a");
    std::promise<void> queued;
    boost::asio::post(policy->service(), [&] { queued.set_value(); });
    queued.get_future().wait();
    const std::weak_ptr<Policy> weak = policy;
    policy->shutDown();
    policy.reset();
    EXPECT_TRUE(weak.expired());
}

TEST_F(ConnectionPolicy, closesWhileItWaitsForTheNextAttempt)
{
    make([](Policy& self, const std::string&) { self.handleConnected(unreachable); }, Backoff(1h, 1h));
    policy->openConnection("a");
    handler.wait(1);
    settle();
    policy->closeConnection();
    EXPECT_EQ(handler.wait(2), (Events{"ConnectFailed 256", "Closed"}));
    settle();
    EXPECT_EQ(policy->attempts, 1);
}

TEST_F(ConnectionPolicy, closesFirstWhenOpenedAgain)
{
    Events addresses;
    make([&](Policy& self, const std::string& address) {
        addresses.push_back(address);
        if (address == "second")
            blockUntilCancelled(self, address);
        else
            self.handleConnected(success);
    });
    policy->openConnection("first");
    handler.wait(1);
    settle();
    policy->openConnection("second");
    policy->openConnection("third");
    EXPECT_EQ(handler.wait(4), (Events{"Connected", "Closed", "Closed", "Connected"}));
    settle();
    EXPECT_EQ(addresses.back(), "third");
}

TEST_F(ConnectionPolicy, opensAgainFromInsideClosed)
{
    make(succeed);
    std::atomic<bool> again{true};
    handler.onEvent = [&](const std::string& event) {
        if (event == "Closed" && again.exchange(false))
            policy->openConnection("a");
    };
    policy->openConnection("a");
    handler.wait(1);
    policy->closeConnection();
    EXPECT_EQ(handler.wait(3), (Events{"Connected", "Closed", "Connected"}));
}

TEST_F(ConnectionPolicy, isLostAfterTwoTransportFailuresInARow)
{
    make(succeed);
    Events order;
    policy->whenLost = [&] {
        EXPECT_FALSE(policy->isConnected());
        order.push_back("onConnectionLost");
        EXPECT_EQ(handler.all().size(), 1U);
    };
    policy->openConnection("a");
    handler.wait(1);
    settle();
    policy->reportExchange(broken);
    policy->reportExchange(success);
    policy->reportExchange(broken);
    settle();
    EXPECT_EQ(handler.all(), Events{"Connected"});
    policy->reportExchange(make_error_code(ResultCode::timedOut));
    EXPECT_EQ(handler.wait(3), (Events{"Connected", "ConnectionLost 258", "Connected"}));
    EXPECT_EQ(order, Events{"onConnectionLost"});
    settle();
    policy->reportExchange(broken);  // the count began anew with the new connection
    settle();
    EXPECT_EQ(handler.all().size(), 3U);
}

TEST_F(ConnectionPolicy, remembersALostConnectionUntilTheHostClosesOrOpensAnother)
{
    make([](Policy& self, const std::string&) { self.handleConnected(self.attempts < 3 ? success : unreachable); });
    EXPECT_FALSE(policy->hasBeenConnected());
    policy->openConnection("a");
    handler.wait(1);
    settle();
    EXPECT_TRUE(policy->hasBeenConnected());
    policy->openConnection("b");
    EXPECT_EQ(handler.wait(3), (Events{"Connected", "Closed", "Connected"}));
    settle();
    policy->reportStreamLost();
    handler.wait(5);  // the loss, and an attempt that fails
    EXPECT_FALSE(policy->isConnected());
    EXPECT_TRUE(policy->hasBeenConnected());
    policy->closeConnection();
    EXPECT_FALSE(policy->hasBeenConnected());
}

TEST_F(ConnectionPolicy, isNotLostByExchangesThatWereTakenBack)
{
    make(succeed);
    policy->openConnection("a");
    handler.wait(1);
    settle();
    for (int i = 0; i < 3; ++i)
        policy->reportExchange(make_error_code(ResultCode::cancelled));
    settle();
    EXPECT_EQ(handler.all().size(), 1U);
}

TEST_F(ConnectionPolicy, ignoresReportsWhileItIsNotConnected)
{
    make([](Policy& self, const std::string&) { self.handleConnected(unreachable); }, Backoff(1h, 1h));
    policy->reportStreamLost();
    policy->openConnection("a");
    handler.wait(1);
    settle();
    policy->reportStreamLost();
    policy->reportExchange(broken);
    policy->reportExchange(broken);
    settle();
    EXPECT_EQ(handler.all(), Events{"ConnectFailed 256"});
}

TEST_F(ConnectionPolicy, tellsConnectedBeforeALossThatIsReportedMeanwhile)
{
    make(succeed);
    std::atomic<bool> lose{true};
    policy->whenConnected = [&] {
        if (lose.exchange(false)) {
            policy->reportStreamLost();
            policy->reportStreamLost();  // of the same connection
        }
    };
    policy->openConnection("a");
    EXPECT_EQ(handler.wait(3), (Events{"Connected", "ConnectionLost 257", "Connected"}));
    settle();
    EXPECT_EQ(handler.all().size(), 3U);
}

TEST_F(ConnectionPolicy, pacesLossesThatFollowUponEachOther)
{
    make(succeed, Backoff(1h, 1h));
    policy->openConnection("a");
    handler.wait(1);
    settle();
    policy->reportStreamLost();
    handler.wait(3);  // the first is answered at once
    settle();
    policy->reportStreamLost();
    EXPECT_EQ(handler.wait(4).back(), "ConnectionLost 257");
    settle();
    EXPECT_EQ(policy->attempts, 2);
    policy->closeConnection();
    EXPECT_EQ(handler.wait(5).back(), "Closed");
}

TEST_F(ConnectionPolicy, isDestroyedWhileItsAttemptBlocks)
{
    std::promise<void> inside;
    make([&](Policy& self, const std::string& address) {
        inside.set_value();
        blockUntilCancelled(self, address);
    });
    policy->openConnection("a");
    inside.get_future().wait();
    const std::weak_ptr<Policy> weak = policy;
    policy->shutDown();
    policy.reset();
    settle();
    EXPECT_TRUE(weak.expired());
    EXPECT_TRUE(handler.all().empty());
}

TEST_F(ConnectionPolicy, isDestroyedFromInsideEachOfItsCalls)
{
    for (const std::string at : {"Connected", "ConnectFailed 256", "ConnectionLost 257", "Closed"}) {
        SCOPED_TRACE(at);
        DeviceHandler ownHandler;
        auto own = std::make_shared<Policy>(&ownHandler, &logger, *service, Backoff(1ms, 4ms),
                                            [&](Policy& self, const std::string&) {
                                                self.handleConnected(at == "ConnectFailed 256" ? unreachable : success);
                                            });
        const std::weak_ptr<Policy> weak = own;
        std::promise<void> destroyed;
        ownHandler.onEvent = [&](const std::string& event) {
            if (event != at)
                return;
            own->shutDown();
            own.reset();
            destroyed.set_value();
        };
        own->openConnection("a");
        if (at == "ConnectionLost 257" || at == "Closed") {
            ownHandler.wait(1);
            settle();
            own->reportStreamLost();
            if (at == "Closed")
                own->closeConnection();
        }
        destroyed.get_future().wait();
        settle();
        EXPECT_TRUE(weak.expired());
        EXPECT_EQ(ownHandler.all().back(), at);
    }
}

TEST_F(ConnectionPolicy, isDestroyedFromInsideAnotherDevicesCallWhileItsAttemptBlocks)
{
    std::promise<void> inside;
    make([&](Policy& self, const std::string& address) {
        inside.set_value();
        blockUntilCancelled(self, address);
    });
    policy->openConnection("a");
    inside.get_future().wait();

    DeviceHandler otherHandler;
    const std::weak_ptr<Policy> weak = policy;
    otherHandler.onEvent = [&](const std::string&) {
        policy->shutDown();
        policy.reset();
    };
    const auto other = std::make_shared<Policy>(&otherHandler, &logger, *service, Backoff(), succeed);
    other->openConnection("a");
    otherHandler.wait(1);
    other->shutDown();
    settle();
    EXPECT_TRUE(weak.expired());
    EXPECT_TRUE(handler.all().empty());
}

TEST_F(ConnectionPolicy, waitsInShutDownForACallThatIsUnderWay)
{
    std::promise<void> inside;
    std::promise<void> mayLeave;
    bool left = false;  // no atomic: shutDown orders it
    make(succeed);
    handler.onEvent = [&](const std::string&) {
        inside.set_value();
        mayLeave.get_future().wait();
        left = true;
    };
    policy->openConnection("a");
    inside.get_future().wait();
    std::thread releaser([&] {
        waitUntilCancelled(policy->cancellation());  // shutDown has begun
        mayLeave.set_value();
    });
    policy->shutDown();
    EXPECT_TRUE(left);
    EXPECT_FALSE(policy->isConnected());
    releaser.join();
}

TEST_F(ConnectionPolicy, staysShutDown)
{
    make(succeed);
    policy->shutDown();
    policy->openConnection("a");
    policy->closeConnection();
    policy->reportStreamLost();
    settle();
    EXPECT_EQ(policy->attempts, 0);
    EXPECT_TRUE(handler.all().empty());
}

TEST_F(ConnectionPolicy, needsNoHandlerAndNoLogger)
{
    std::promise<void> connected;
    const auto bare = std::make_shared<Policy>(nullptr, nullptr, *service, Backoff(), succeed);
    bare->whenConnected = [&] { connected.set_value(); };
    bare->openConnection("a");
    connected.get_future().wait();
    bare->shutDown();
}

TEST_F(ConnectionPolicy, survivesAStormFromSeveralThreads)
{
    make([](Policy& self, const std::string& address) {
        switch (self.attempts % 4) {
        case 0:
            return self.handleConnected(unreachable);
        case 1:
            return self.handleConnected(success);
        case 2:
            return blockUntilCancelled(self, address);
        default:
            throw std::runtime_error("storm");
        }
    });
    std::vector<std::thread> threads;
    for (unsigned seed = 0; seed < 4; ++seed) {
        threads.emplace_back([&, seed] {
            std::minstd_rand random(seed + 1);
            for (int i = 0; i < 300; ++i) {
                switch (random() % 6) {
                case 0:
                case 1:
                    policy->openConnection("a");
                    break;
                case 2:
                case 3:
                    policy->closeConnection();
                    break;
                case 4:
                    policy->reportStreamLost();
                    break;
                default:
                    policy->reportExchange(broken);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    policy->openConnection("last");
    policy->closeConnection();
    settle();  // the attempt has ended
    settle();  // and Closed was told
    settle();
    const Events events = handler.all();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), "Closed");
    EXPECT_FALSE(policy->isConnected());

    bool connected = false;
    for (const std::string& event : events) {
        EXPECT_TRUE(event == "Closed" || connected == event.starts_with("ConnectionLost")) << event;
        connected = event == "Connected";
    }
}

TEST_F(ConnectionPolicy, leavesItsPlaceOnTheThreadToTheNextDevice)
{
    const auto fail = [](Policy& self, const std::string&) { self.handleConnected(unreachable); };
    make(fail);
    auto* const context = &policy->service();
    for (std::uint32_t i = 0; i < 2 * GlobalService::streamsPerTurn; ++i) {
        const auto other = std::make_shared<Policy>(&handler, &logger, *service, Backoff(1ms, 4ms), fail);
        ASSERT_EQ(&other->service(), context) << i;
    }
}

TEST_F(ConnectionPolicy, isDestroyedInEveryPhase)
{
    for (unsigned seed = 1; seed <= 150; ++seed) {
        DeviceHandler ownHandler;
        auto own = std::make_shared<Policy>(&ownHandler, &logger, *service, Backoff(0ms, 1ms),
                                            [seed](Policy& self, const std::string& address) {
                                                if (seed % 3 == 0)
                                                    return blockUntilCancelled(self, address);
                                                self.handleConnected(seed % 3 == 1 ? unreachable : success);
                                            });
        own->openConnection("a");
        if (seed % 2 == 0)
            own->closeConnection();
        for (unsigned i = 0; i < seed; ++i)
            std::this_thread::yield();
        own->shutDown();
        const auto told = ownHandler.all().size();
        std::weak_ptr<Policy> weak = own;
        own.reset();
        settle();
        EXPECT_TRUE(weak.expired());
        EXPECT_EQ(ownHandler.all().size(), told);
    }
}

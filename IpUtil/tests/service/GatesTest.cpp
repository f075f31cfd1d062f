#include <IpUtil/GlobalService.h>
#include <future>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

using namespace Tavro8::Utility;

TEST(LifetimeGate, isEmptyAtFirst)
{
    LifetimeGate gate;
    gate.waitUntilEmpty();
}

TEST(LifetimeGate, waitsForTheLastCopyOfEachToken)
{
    LifetimeGate gate;
    auto first = gate.enter();
    const auto second = std::make_shared<std::shared_ptr<void>>(gate.enter());
    bool released = false;  // no atomic: the gate orders it
    std::thread user([&, copy = first]() mutable {
        second->reset();
        released = true;
        copy.reset();
    });
    first.reset();
    gate.waitUntilEmpty();
    EXPECT_TRUE(released);
    user.join();
}

TEST(LifetimeGate, mayGoBeforeItsTokens)
{
    std::shared_ptr<void> token;
    {
        LifetimeGate gate;
        token = gate.enter();
    }
    token.reset();
}

TEST(HandlerGate, runsCallsUntilItIsClosed)
{
    HandlerGate gate;
    int calls = 0;
    EXPECT_TRUE(gate.call([&] { ++calls; }));
    EXPECT_FALSE(gate.isClosed());
    gate.close();
    EXPECT_TRUE(gate.isClosed());
    EXPECT_FALSE(gate.call([&] { ++calls; }));
    gate.close();
    EXPECT_EQ(calls, 1);
}

TEST(HandlerGate, letsGoWhenTheBodyThrows)
{
    HandlerGate gate;
    EXPECT_THROW(gate.call([] { throw 1; }), int);
    gate.close();
}

TEST(HandlerGate, waitsForACallOfAnotherThread)
{
    HandlerGate gate;
    std::promise<void> inside;
    std::promise<void> mayLeave;
    bool left = false;  // no atomic: the gate orders it
    std::thread caller([&] {
        gate.call([&] {
            inside.set_value();
            mayLeave.get_future().wait();
            left = true;
        });
    });
    inside.get_future().wait();
    std::thread releaser([&] {
        while (!gate.isClosed())
            std::this_thread::yield();
        EXPECT_FALSE(gate.call([] {}));
        mayLeave.set_value();
    });
    gate.close();
    EXPECT_TRUE(left);
    caller.join();
    releaser.join();
}

TEST(HandlerGate, isClosedFromInsideItsOwnCalls)
{
    HandlerGate gate;
    HandlerGate other;
    bool reached = false;
    gate.call([&] {
        other.call([&] {
            gate.call([&] {
                gate.close();
                EXPECT_FALSE(gate.call([] {}));
                other.close();
                reached = true;
            });
        });
    });
    EXPECT_TRUE(reached);
    gate.close();
}

TEST(HandlerGate, isDestroyedInsideItsOwnCall)
{
    auto gate = std::make_unique<HandlerGate>();
    gate->call([&] { gate->call([&] { gate.reset(); }); });
    EXPECT_EQ(gate, nullptr);
}

TEST(HandlerGate, stillWaitsForACallThatClosedItItself)
{
    HandlerGate gate;
    std::promise<void> closed;
    bool left = false;  // no atomic: the gate orders it
    std::thread caller([&] {
        gate.call([&] {
            gate.close();
            closed.set_value();
            std::this_thread::yield();
            left = true;
        });
    });
    closed.get_future().wait();
    gate.close();
    EXPECT_TRUE(left);
    caller.join();
}

TEST(HandlerGate, isClosedFromInsideTwoCallsAtOnce)
{
    for (int i = 0; i < 50; ++i) {
        HandlerGate gate;
        std::promise<void> firstInside;
        std::promise<void> secondInside;
        std::thread first([&] {
            gate.call([&] {
                firstInside.set_value();
                secondInside.get_future().wait();
                gate.close();
            });
        });
        gate.call([&] {
            firstInside.get_future().wait();
            secondInside.set_value();
            gate.close();
        });
        first.join();
    }
}

TEST(HandlerGate, letsNoCallRunAfterCloseHasReturned)
{
    for (int round = 0; round < 100; ++round) {
        auto gate = std::make_unique<HandlerGate>();
        HandlerGate* const shared = gate.get();
        std::promise<void> running;
        int used = 0;  // no atomic: only one thread calls, and the gate orders it against the owner
        std::thread caller([&] {
            shared->call([&] { ++used; });
            running.set_value();
            while (shared->call([&] { ++used; })) {
            }
        });
        running.get_future().wait();
        gate->close();
        const int before = used;
        used = -1000000;
        caller.join();
        EXPECT_EQ(used, -1000000);
        EXPECT_GE(before, 1);
    }
}

TEST(HandlerGate, isUsedByManyThreadsWhileItCloses)
{
    for (int round = 0; round < 50; ++round) {
        HandlerGate gate;
        std::atomic<int> under{0};
        std::atomic<int> ready{0};
        std::vector<std::thread> callers;
        for (int i = 0; i < 4; ++i) {
            callers.emplace_back([&] {
                ++ready;
                while (gate.call([&] {
                    ++under;
                    --under;
                })) {
                }
            });
        }
        while (ready != 4)
            std::this_thread::yield();
        gate.close();
        EXPECT_EQ(under, 0);
        for (std::thread& caller : callers)
            caller.join();
    }
}

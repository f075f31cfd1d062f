#include "EventFixture.h"

#include "ModuleSettings.h"

#include <Tavro8/IAsyncActionHandler.h>
#include <Tavro8/ResultCode.h>
#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using namespace kelvo::test;
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Strings = std::vector<std::string>;

class ActionHandler final : public Tavro8::IAsyncActionHandler {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::IAsyncActionHandler, Tavro8::IContract>(this, name);
    }
    void Completed(std::int32_t result) noexcept override { results.set_value(result); }
    std::int32_t wait() { return results.get_future().get(); }

private:
    std::promise<std::int32_t> results;
};

class DeviceEvents : public EventFixture {};

TEST_F(DeviceEvents, subscribersWaitUntilTheDeviceHasConnected)
{
    makeUnconnected();
    RecordingSubscriber gone;
    device->addSubscriber(&gone);
    device->addSubscriber(&subscriber);
    device->removeSubscriber(&gone);
    settle();
    EXPECT_TRUE(peer.requests().empty());
    connect();
    ASSERT_TRUE(waitRenewed());
    PushPeer(port).send(notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
    EXPECT_TRUE(gone.seen().empty());
}

TEST_F(DeviceEvents, subscribersWaitWhileTheDeviceRefusesToConnect)
{
    makeUnconnected();
    device->addSubscriber(&subscriber);
    peer.answer(portPath, 500, "");
    failToConnect();
    device->addSubscriber(&second);
    EXPECT_TRUE(exchanges().empty());
    peer.answer(portPath, 200, "{}");
    ASSERT_TRUE(handler.waitConnected());
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
}

TEST_F(DeviceEvents, closingEndsAndOpeningResumes)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    device->Close();
    EXPECT_TRUE(logger.contains("Port " + std::to_string(port) + " is closed"));
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    ASSERT_TRUE(handler.waitClosed());
    RecordingSubscriber meanwhile;
    device->addSubscriber(&meanwhile);
    device->removeSubscriber(&meanwhile);
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5")}));

    open();
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
    PushPeer(port).send(notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
}

TEST_F(DeviceEvents, followADeviceThatHasMoved)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    ScriptedHttpPeer elsewhere("127.0.0.2");
    elsewhere.answer(portPath, 200, "{}");
    elsewhere.answer(infoPath, 200, deviceInfo(0));
    accept(elsewhere);
    ASSERT_EQ(device->Open(elsewhere.address().c_str()), 0);
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_TRUE(peer.waitForRequest(cancel("5")));  // the old place
    EXPECT_EQ(device->getAddress(), "127.0.0.2");
    EXPECT_TRUE(logger.contains("client IP='127.0.0.2'"));
    PushPeer(port, "127.0.0.2").send(notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
}

TEST_F(DeviceEvents, aReconnectionRenewsAtOnce)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    device->reportStreamLost();
    ASSERT_TRUE(handler.waitConnected(2));
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), put("5")}));
    EXPECT_EQ(logger.count("Listening on port"), 1U);
}

TEST_F(DeviceEvents, aDeviceThatForgotUsIsSubscribedToAfterItsReconnection)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    peer.answerOnce(put("5"), 404, "");
    device->reportStreamLost();
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_TRUE(peer.waitForRequest(post(), 2));
}

TEST_F(DeviceEvents, transportFailuresOfTheSubscriptionLoseTheDevice)
{
    makeReady();
    peer.answerRaw(post(), "nonsense\r\n");
    peer.answerRaw(put("0"), "nonsense\r\n");
    device->addSubscriber(&subscriber);
    EXPECT_TRUE(handler.waitLost());
}

TEST_F(DeviceEvents, destroyLeavesNothingRegistered)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    device->Destroy();
    device = nullptr;
    EXPECT_TRUE(logger.contains("Port " + std::to_string(port) + " is closed"));
    EXPECT_TRUE(peer.waitForRequest(cancel("5")));
}

TEST_F(DeviceEvents, aSilentDeviceHoldsUpNeitherDestroyNorTheEndOfTheModule)
{
    makeReady();
    peer.staySilent(cancel("5"));
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    device->Destroy();
    device = nullptr;
    // Long before the time-out of a request, which would not let this test end in time.
    auto ended = std::async(std::launch::async, [] { ModuleSettings::lifetimeGate().waitUntilEmpty(); });
    EXPECT_EQ(ended.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(peer.waitForRequest(cancel("5")));
}

TEST_F(DeviceEvents, aSubscriptionUnderWayHoldsUpNeitherDestroyNorTheEndOfTheModule)
{
    makeReady();
    peer.staySilent(post());
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(post()));
    device->Destroy();
    device = nullptr;
    auto ended = std::async(std::launch::async, [] { ModuleSettings::lifetimeGate().waitUntilEmpty(); });
    EXPECT_EQ(ended.wait_for(std::chrono::seconds(10)), std::future_status::ready);
}

TEST_F(DeviceEvents, aSubscriptionThatComesAboutAfterDestroyIsCancelled)
{
    makeReady();
    peer.staySilent(post());
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(post()));
    device->Destroy();
    device = nullptr;
    release(post(), 200, replyWithData("{\"ID\":\"5\"}"));
    EXPECT_TRUE(peer.waitForRequest(cancel("5")));
}

TEST_F(DeviceEvents, destroyFromInsideADeliveryReturns)
{
    makeReady();
    std::promise<void> destroyed;
    RecordingSubscriber last(true, [&](const std::string&) {
        device->removeSubscriber(&last);
        device->Destroy();
        destroyed.set_value();
    });
    device->addSubscriber(&last);
    ASSERT_TRUE(waitRenewed());
    PushPeer(port).send(notification(alarm("EnterArea")));
    ASSERT_EQ(destroyed.get_future().wait_for(patience), std::future_status::ready);
    settle();
    device = nullptr;
}

TEST_F(DeviceEvents, destroyWhileTheDeviceConnectsMakesNoListener)
{
    makeUnconnected();
    peer.staySilent(portPath);
    device->addSubscriber(&subscriber);
    open();
    ASSERT_TRUE(peer.waitForRequests(1));
    device->Destroy();
    device = nullptr;
    settle();
    EXPECT_FALSE(logger.contains("Listening on port"));
}

// Settings.

TEST_F(DeviceEvents, anotherPortIsFollowedAndRemembered)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    const auto other = freePort();
    ActionHandler action;
    ASSERT_EQ(device->ApplySettings({{"localServerPort", std::to_string(other)}}, &action), 0);
    EXPECT_EQ(action.wait(), 0);
    ASSERT_TRUE(waitRenewed(2));
    PushPeer(other).send(notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
    EXPECT_EQ(device->getParameters().get<int>("localServerPort").value(), int{other});

    device->removeSubscriber(&subscriber);
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed(3));
    PushPeer(other).send(notification(alarm("LeaveArea")));
    EXPECT_TRUE(subscriber.waitFor(2));
}

TEST_F(DeviceEvents, anotherAddressIsFollowedAndRemembered)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    ActionHandler action;
    ASSERT_EQ(device->ApplySettings({{"localServerIP", std::string("192.0.2.9")}}, &action), 0);
    EXPECT_EQ(action.wait(), 0);
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(device->getParameters().get<std::string>("localServerIP").value(), "192.0.2.9");
    const auto whole = peer.wholeRequests();
    EXPECT_EQ(
        std::ranges::count_if(
            whole, [](const auto& text) { return text.find("\"IPAddress\" : \"192.0.2.9\"") != std::string::npos; }),
        1);
}

TEST_F(DeviceEvents, settingsAreRememberedBeforeTheDeviceHasConnected)
{
    makeUnconnected();
    const auto other = freePort();
    ASSERT_EQ(
        device->ApplySettings({{"localServerPort", int{other}}, {"localServerIP", std::string("192.0.2.9")}}, nullptr),
        0);
    device->addSubscriber(&subscriber);
    connect();
    ASSERT_TRUE(waitRenewed());
    EXPECT_TRUE(logger.contains("server IP='192.0.2.9', server port=" + std::to_string(other)));
}

TEST_F(DeviceEvents, wrongSettingsChangeNothing)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    const struct {
        ParameterMap changed;
        const char* line;
    } cases[] = {
        {{{"localServerPort", std::string("http")}}, "The value of localServerPort is no port"},
        {{{"localServerPort", 65536}}, "The value of localServerPort is no port"},
        {{{"localServerPort", 1.5}}, "The value of localServerPort is no port"},
        {{{"localServerIP", std::string("camera")}}, "The value of localServerIP is no IP address"},
        {{{"localServerIP", 7}}, "The value of localServerIP is no IP address"},
        {{{"localServerPort", int{freePort()}}, {"localServerIP", std::string("x")}},
         "The value of localServerIP is no IP address"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const std::size_t before = logger.count(c.line);
        EXPECT_EQ(device->ApplySettings(c.changed, nullptr), toResult(ResultCode::invalidArgument));
        EXPECT_EQ(logger.count(c.line), before + 1);
    }
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
    EXPECT_EQ(device->getParameters().get<int>("localServerPort").value(), int{port});
    EXPECT_FALSE(device->getParameters().get<std::string>("localServerIP"));
}

TEST_F(DeviceEvents, emptySettingsHoldFromTheNextStartOn)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    ActionHandler action;
    ASSERT_EQ(device->ApplySettings({{"localServerPort", std::string()}, {"localServerIP", std::string()}}, &action),
              0);
    EXPECT_EQ(action.wait(), 0);
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
    EXPECT_FALSE(device->getParameters().get<int>("localServerPort"));
}

TEST_F(DeviceEvents, otherSettingsAreNotSupported)
{
    makeReady();
    EXPECT_EQ(device->ApplySettings({{"other", 1}}, nullptr), toResult(ResultCode::notSupported));
}

TEST_F(DeviceEvents, otherSettingsAreNotSupportedBesideThoseOfTheLocalServerEither)
{
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(
        device->ApplySettings(
            {{"localServerIP", std::string("192.0.2.9")}, {"localServerPort", int{freePort()}}, {"other", 1}}, nullptr),
        toResult(ResultCode::notSupported));
    EXPECT_TRUE(logger.contains("The setting other beside those of the local server is refused"));
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
    EXPECT_EQ(device->getParameters().get<int>("localServerPort").value(), int{port});
    EXPECT_FALSE(device->getParameters().get<std::string>("localServerIP"));
}

// Several at once.

TEST_F(DeviceEvents, ofOneDeviceArriveWhileAnotherSendsRubbish)
{
    makeReady();
    ScriptedHttpPeer noisy("127.0.0.2");
    noisy.answer(portPath, 200, "{}");
    noisy.answer(infoPath, 200, deviceInfo(0));
    accept(noisy);
    DeviceHandler connects;
    const auto description = std::make_shared<DeviceTraits>();
    description->properties = {{"localServerPort", int{port}}};
    const auto flooding = Device::create(&connects, &logger, description, *service);
    ASSERT_EQ(flooding->Open(noisy.address().c_str()), 0);
    ASSERT_TRUE(connects.waitConnected());
    RecordingSubscriber flooded;
    device->addSubscriber(&subscriber);
    flooding->addSubscriber(&flooded);
    ASSERT_TRUE(waitRenewed(2));

    std::atomic<bool> enough{false};
    std::promise<void> begun;
    std::thread flood([&] {
        std::string rubbish = notification("{\"AlarmInfo\":{{{") + "POST /x HTTP/1.1\r\nContent-Length: 0\r\n\r\n" +
                              notification("{}") + std::string(3000, '\xff') + "\r\n\r\n";
        bool first = true;
        while (!enough) {
            PushPeer camera(port, "127.0.0.2");
            for (int i = 0; i < 20 && camera.trySend(rubbish); ++i) {
            }
            if (std::exchange(first, false))
                begun.set_value();
        }
    });
    begun.get_future().wait();
    PushPeer camera(port);
    constexpr std::size_t count = 100;
    for (std::size_t i = 0; i < count; ++i)
        camera.send(notification(alarm(std::to_string(i))));
    EXPECT_TRUE(subscriber.waitFor(count));
    enough = true;
    flood.join();
    EXPECT_EQ(subscriber.seen().size(), count);
    EXPECT_EQ(subscriber.seen().back(), std::to_string(count - 1));
    EXPECT_TRUE(flooded.seen().empty());
    flooding->Destroy();
}

TEST_F(DeviceEvents, arriveWhileHostThreadsAddAndRemoveSubscribers)
{
    logger.level = Tavro8::LogSeverity::error;
    makeReady();
    device->addSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(put("5")));

    std::atomic<bool> enough{false};
    std::vector<std::thread> hosts;
    for (int i = 0; i < 3; ++i) {
        hosts.emplace_back([&] {
            while (!enough) {
                RecordingSubscriber passing(false);  // gone after each round: nobody may call it any more
                device->addSubscriber(&passing);
                device->removeSubscriber(&passing);
            }
        });
    }
    std::thread settings([&] {
        for (int i = 0; !enough; ++i) {
            ActionHandler applied;
            device->ApplySettings({{"localServerIP", "192.0.2." + std::to_string(i % 200 + 1)}}, &applied);
            EXPECT_EQ(applied.wait(), 0);
        }
    });
    // Another address means another registration: the connections of the one before end, and so may the port.
    const auto deadline = std::chrono::steady_clock::now() + patience;
    constexpr std::size_t wanted = 200;
    while (subscriber.seen().size() < wanted && std::chrono::steady_clock::now() < deadline) {
        try {
            PushPeer camera(port);
            while (subscriber.seen().size() < wanted && camera.trySend(notification(alarm("EnterArea")))) {
            }
        } catch (const std::exception&) {  // refused at this moment
        }
    }
    EXPECT_GE(subscriber.seen().size(), wanted);
    enough = true;
    for (auto& host : hosts)
        host.join();
    settings.join();
}
}  // namespace

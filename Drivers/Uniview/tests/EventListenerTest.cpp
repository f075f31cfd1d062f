#include "EventListenerFixture.h"

#include <IpUtil/GlobalService.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <thread>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using namespace std::chrono_literals;
using kelvo::test::freePort;
using kelvo::test::patience;
using kelvo::test::PushPeer;
using Tavro8::LogSeverity;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr auto never = std::chrono::hours(1);

class EventListenerTest : public EventListenerFixture {};

TEST(EventListenerTiming, isThatOfTheDevices)
{
    const EventListenerTiming timing;
    EXPECT_EQ(timing.renewPeriod, 50s);
    EXPECT_EQ(timing.retryDelay, 10s);
    EXPECT_EQ(timing.firstPause, 100ms);
    EXPECT_EQ(timing.longestPause, 10s);
    EXPECT_EQ(timing.addressDetection, 1s);
    EXPECT_EQ(timing.cancellation, 1s);
    EXPECT_EQ(subscription::durationSeconds, 60);
}

TEST_F(EventListenerTest, doesNothingWithoutASubscriber)
{
    listen();
    settle();
    EXPECT_TRUE(exchanges().empty());
    EXPECT_FALSE(logger.contains("Listening on port"));
}

TEST_F(EventListenerTest, subscribesForTheFirstSubscriberWithTheExactBytes)
{
    subscribe();
    const std::string body =
        "{\"AddressType\": 0,\"IPAddress\" : \"127.0.0.1\",\"Port\" : " + std::to_string(port) + ",\"Duration\" : 60}";
    EXPECT_EQ(bytesOf(post()), "POST /LAPI/V1.0/System/Event/Subscription HTTP/1.1\r\nHost: " + peer.address() +
                                   "\r\nConnection: close\r\nContent-Type: application/json\r\nContent-Length: " +
                                   std::to_string(body.size()) + "\r\n\r\n" + body);
    EXPECT_TRUE(isLineOf("Event subscription completed successfully", LogSeverity::debug));
    EXPECT_TRUE(logger.contains("Listening on port " + std::to_string(port)));
}

TEST_F(EventListenerTest, renewsAtOnceWithTheExactBytes)
{
    subscribe();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
    EXPECT_EQ(bytesOf(put("5")), "PUT /LAPI/V1.0/System/Event/Subscription/5 HTTP/1.1\r\nHost: " + peer.address() +
                                     "\r\nContent-Type: application/json\r\nContent-Length: 17\r\n\r\n"
                                     "{\"Duration\" : 60}");
    EXPECT_TRUE(isLineOf("Renew subscription completed successfully. Duration is 60", LogSeverity::debug));
}

TEST_F(EventListenerTest, cancelsWithTheExactBytes)
{
    subscribe();
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    EXPECT_EQ(bytesOf(cancel("5")),
              "DELETE /LAPI/V1.0/System/Event/Subscription/5 HTTP/1.1\r\nHost: " + peer.address() + "\r\n\r\n");
    EXPECT_TRUE(isLineOf("Event unsubscription completed successfully", LogSeverity::debug));
}

TEST_F(EventListenerTest, renewsAgainFiftySecondsLater)
{
    const auto before = Clock::now();
    subscribe();
    ASSERT_TRUE(isPending(&EventListener::isRenewTimerPending));
    const auto due = onService([&] { return listener->getRenewTime(); });
    EXPECT_GE(due, before + 50s);
    EXPECT_LE(due, Clock::now() + 50s);
}

TEST_F(EventListenerTest, goesOnRenewingWhileRenewalsSucceed)
{
    EventListenerTiming timing;
    timing.renewPeriod = 1ms;
    subscribe(timing);
    ASSERT_TRUE(waitRenewed(4));
    const auto all = exchanges();
    ASSERT_GE(all.size(), 5U);
    EXPECT_EQ(all[0], post());
    EXPECT_EQ(std::count(all.begin(), all.end(), put("5")), static_cast<std::ptrdiff_t>(all.size()) - 1);
}

TEST_F(EventListenerTest, furtherSubscribersSendNothing)
{
    subscribe();
    RecordingSubscriber third;
    listener->addSubscriber(&second);
    listener->addSubscriber(&third);
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
    EXPECT_EQ(logger.count("Listening on port"), 1U);
}

TEST_F(EventListenerTest, removingOneOfTwoCancelsAtTheDeviceAndKeepsThePort)
{
    subscribe();
    listener->addSubscriber(&second);
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5")}));
    EXPECT_FALSE(isPending(&EventListener::isRenewTimerPending));

    PushPeer(port).send(kelvo::test::notification(alarm("EnterArea")));
    EXPECT_TRUE(second.waitFor(1));
    EXPECT_TRUE(subscriber.seen().empty());
    EXPECT_FALSE(logger.contains("is closed: no device uses it any more"));
}

TEST_F(EventListenerTest, theLastSubscriberTakesTheRegistrationAlong)
{
    subscribe();
    listener->removeSubscriber(&subscriber);
    EXPECT_TRUE(logger.contains("Port " + std::to_string(port) + " is closed: no device uses it any more"));
    settle();
    EXPECT_THROW(PushPeer{port}, std::exception);
}

TEST_F(EventListenerTest, theNextFirstSubscriberSubscribesAnew)
{
    subscribe();
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(cancel("5")));
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
}

TEST_F(EventListenerTest, removingSomebodyUnknownCancelsAllTheSame)
{
    listen();
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(cancel("0")));
    EXPECT_TRUE(logger.waitFor("Event unsubscription completed with error:  HTTP response has error code: 404"));
}

TEST_F(EventListenerTest, oneThatRegistersTwiceIsAskedTwiceAndLeavesAtOnce)
{
    subscribe();
    RecordingSubscriber indifferent(false);
    listener->addSubscriber(&indifferent);
    listener->addSubscriber(&indifferent);
    listener->removeSubscriber(&subscriber);
    process(alarm("LeaveArea"));
    EXPECT_EQ(indifferent.seen().size(), 2U);
    listener->removeSubscriber(&indifferent);
    process(alarm("LeaveArea"));
    EXPECT_EQ(indifferent.seen().size(), 2U);
    EXPECT_TRUE(logger.contains("is closed: no device uses it any more"));
}

// Failures of the subscription.

TEST_F(EventListenerTest, tellsWhatItHasChosen)
{
    subscribe();
    EXPECT_TRUE(isLineOf("Selected parameters for local server: server IP='127.0.0.1', server port=" +
                             std::to_string(port) + ", client IP='127.0.0.1'",
                         LogSeverity::info));
}

TEST_F(EventListenerTest, namesTheAddressThatIsSet)
{
    port = freePort();
    make(1, {{"localServerPort", std::to_string(port)}, {"localServerIP", std::string("192.0.2.7")}});
    accept(peer);
    connect();
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_NE(bytesOf(post()).find("\"IPAddress\" : \"192.0.2.7\",\"Port\" : " + std::to_string(port) + ","),
              std::string::npos);
}

TEST_F(EventListenerTest, detectsItsAddressWhenTheOneThatIsSetIsNone)
{
    port = freePort();
    make(1, {{"localServerPort", int{port}}, {"localServerIP", std::string("1.2.3.4\",\"x\":\"")}});
    accept(peer);
    connect();
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_NE(bytesOf(post()).find("\"IPAddress\" : \"127.0.0.1\",\"Port\" : "), std::string::npos);
}

TEST_F(EventListenerTest, withoutAnAddressOfItsOwnItSubscribesWithAnEmptyOne)
{
    EventListenerTiming timing;
    timing.addressDetection = 0ms;
    subscribe(timing);
    EXPECT_NE(bytesOf(post()).find("{\"AddressType\": 0,\"IPAddress\" : \"\",\"Port\" : "), std::string::npos);
    EXPECT_TRUE(isLineOf("Can't connect to detect local host IP", LogSeverity::error));
}

TEST_F(EventListenerTest, withPortZeroItChoosesNothingAndSubscribesAllTheSame)
{
    make(1, {{"localServerPort", 0}});
    accept(peer);
    connect();
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_TRUE(isLineOf("Server local port is not defined", LogSeverity::error));
    EXPECT_TRUE(bytesOf(post()).ends_with("{\"AddressType\": 0,\"IPAddress\" : \"\",\"Port\" : 0,\"Duration\" : 60}"));
    EXPECT_FALSE(logger.contains("Selected parameters"));
}

// Another port or address while it runs.

TEST_F(EventListenerTest, aLocalServerThatIsThePresentOneChangesNothing)
{
    subscribe();
    listener->setLocalServer(0, "");
    listener->setLocalServer(port, "");
    listener->setLocalServer(port, "127.0.0.1");
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
}

TEST_F(EventListenerTest, anotherAddressAtTheSamePortSubscribesAnew)
{
    subscribe();
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
    const auto whole = peer.wholeRequests();
    EXPECT_EQ(
        std::ranges::count_if(whole, [](const auto& text) { return text.find("\"192.0.2.9\"") != std::string::npos; }),
        1);
    PushPeer(port).send(kelvo::test::notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
}

TEST_F(EventListenerTest, anotherPortIsListenedOnInsteadOfTheOld)
{
    subscribe();
    const auto other = freePort();
    listener->setLocalServer(other, "");
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_TRUE(logger.contains("Port " + std::to_string(port) + " is closed"));
    PushPeer(other).send(kelvo::test::notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
}

TEST_F(EventListenerTest, aLocalServerSetWhileNobodyListensSendsNothing)
{
    listen();
    listener->setLocalServer(freePort(), "192.0.2.9");
    settle();
    EXPECT_TRUE(exchanges().empty());
    EXPECT_FALSE(logger.contains("Listening on port"));
}

TEST_F(EventListenerTest, aLapsedSubscriptionIsRevivedByAnotherLocalServer)
{
    makeReady();
    peer.answerOnce(put("5"), 200, "nonsense");
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Can't parse subscription duration."));
    listener->setLocalServer(port, "192.0.2.9");
    EXPECT_TRUE(waitRenewed());
}

// What the device pushes.

TEST_F(EventListenerTest, logsWhatItReceives)
{
    subscribe();
    process(alarm("EnterArea"));
    EXPECT_TRUE(isLineOf("Recv data:\n" + alarm("EnterArea"), LogSeverity::debug));
}

TEST_F(EventListenerTest, aChunkOfHeadersOnlyThrowsAndIsLoggedAsReceived)
{
    subscribe();
    try {
        process("POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\nContent-Length: 20\r\n\r\n");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "string_view::substr");
    }
    EXPECT_TRUE(logger.contains("Recv data:\nPOST"));
}

TEST_F(EventListenerTest, isOfferedInTheOrderOfRegistrationUntilOneClaims)
{
    listen();
    Strings order;
    RecordingSubscriber indifferent(false, [&](const std::string&) { order.push_back("indifferent"); });
    RecordingSubscriber first(true, [&](const std::string&) { order.push_back("first"); });
    RecordingSubscriber next(true, [&](const std::string&) { order.push_back("next"); });
    for (RecordingSubscriber* const each : {&indifferent, &first, &next})
        listener->addSubscriber(each);
    process(alarm("EnterArea"));
    EXPECT_EQ(order, (Strings{"indifferent", "first"}));
}

TEST_F(EventListenerTest, theServerGoesOnAfterWhatCannotBeRead)
{
    subscribe();
    PushPeer camera(port);
    camera.send("POST /Alarm HTTP/1.1\r\nContent-Length: 0\r\n\r\n");
    camera.send(kelvo::test::notification("{\"AlarmInfo\":" + std::string(50000, '[')));
    camera.send(kelvo::test::notification("{\"AlarmInfo\":{\"AlarmType\":"));
    camera.send(kelvo::test::notification("{\"Other\":{}}"));
    camera.send(kelvo::test::notification(alarm("EnterArea")));
    ASSERT_TRUE(subscriber.waitFor(1));
    EXPECT_EQ(subscriber.seen(), Strings{"EnterArea"});
    EXPECT_EQ(logger.count("string_view::substr"), 1U);
    EXPECT_EQ(logger.count("Can't parse data: "), 2U);
    EXPECT_EQ(logger.count("AlarmInfo is not found in notification."), 1U);
}

TEST_F(EventListenerTest, notificationsThatCannotBeReadAreFolded)
{
    listen();
    listener->addSubscriber(&subscriber);
    for (int i = 0; i < 500; ++i) {
        process("{{");
        process("{}");
        process(kelvo::test::notification("{\"StructureInfo\":{}}"));
    }
    EXPECT_TRUE(isLineOf("Can't parse data: ", LogSeverity::error));
    EXPECT_TRUE(isLineOf("AlarmInfo is not found in notification.", LogSeverity::error));
    EXPECT_TRUE(logger.contains("[collapsed 50]Metadata: AlarmInfo is not found in notification."));
    EXPECT_LE(logger.count("Can't parse data: "), 1U + 500U / 50U);
    EXPECT_LE(logger.count("AlarmInfo is not found in notification."), 1U + 1000U / 50U);
}

TEST_F(EventListenerTest, writesNothingBack)
{
    subscribe();
    PushPeer camera(port);
    camera.send(kelvo::test::notification(alarm("EnterArea")));
    ASSERT_TRUE(subscriber.waitFor(1));
    listener->removeSubscriber(&subscriber);  // closes the connection
    EXPECT_EQ(camera.readToEnd(), "");
}

TEST_F(EventListenerTest, aPortThatIsTakenIsReportedAndHadLater)
{
    makeReady();
    boost::asio::io_context context;
    using boost::asio::ip::tcp;
    tcp::acceptor squatter(context, tcp::endpoint(tcp::v6(), port));
    makeListener();
    listener->addSubscriber(&subscriber);
    EXPECT_TRUE(logger.contains("Cannot listen on port " + std::to_string(port) + ": Address already in use"));
    squatter.close();
    ASSERT_TRUE(logger.waitFor("Listening on port " + std::to_string(port) + " at last"));
    PushPeer(port).send(kelvo::test::notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
}

// Ends.

TEST_F(EventListenerTest, removalWaitsForADeliveryThatIsUnderWay)
{
    listen();
    std::promise<void> inside;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    RecordingSubscriber slow(true, [&](const std::string&) {
        inside.set_value();
        leave.get_future().wait();
        left = true;
    });
    RecordingSubscriber other;
    listener->addSubscriber(&slow);
    listener->addSubscriber(&other);
    std::thread delivery([&] { process(alarm("EnterArea")); });
    inside.get_future().wait();
    listener->removeSubscriber(&other);  // which is not inside

    std::vector<std::thread> removers;
    std::promise<void> removing[2];
    for (auto& begun : removing) {
        removers.emplace_back([&] {
            begun.set_value();
            listener->removeSubscriber(&slow);
            EXPECT_TRUE(left);
        });
    }
    for (auto& begun : removing)
        begun.get_future().wait();
    leave.set_value();
    for (auto& remover : removers)
        remover.join();
    delivery.join();
}

TEST_F(EventListenerTest, removalFromWithinTheDeliveryReturnsAtOnce)
{
    subscribe();
    RecordingSubscriber leaving(true, [&](const std::string&) { listener->removeSubscriber(&leaving); });
    listener->removeSubscriber(&subscriber);
    listener->addSubscriber(&leaving);
    PushPeer camera(port);
    camera.send(kelvo::test::notification(alarm("EnterArea")));
    ASSERT_TRUE(leaving.waitFor(1));
    camera.readToEnd();  // the last one has closed the port
    process(alarm("EnterArea"));
    EXPECT_EQ(leaving.seen().size(), 1U);
}

TEST_F(EventListenerTest, whoRemovesWhileTheDeliveryRemovesItselfWaitsToo)
{
    listen();
    std::promise<void> removed;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    RecordingSubscriber leaving(true, [&](const std::string&) {
        listener->removeSubscriber(&leaving);
        removed.set_value();
        leave.get_future().wait();
        left = true;
    });
    listener->addSubscriber(&leaving);
    std::thread delivery([&] { process(alarm("EnterArea")); });
    removed.get_future().wait();
    std::promise<void> begun;
    std::thread remover([&] {
        begun.set_value();
        listener->removeSubscriber(&leaving);
        EXPECT_TRUE(left);
    });
    begun.get_future().wait();
    leave.set_value();
    remover.join();
    delivery.join();
}

TEST_F(EventListenerTest, closingCancelsAndLeavesNothingRegistered)
{
    subscribe();
    listener->close();
    EXPECT_TRUE(logger.contains("Port " + std::to_string(port) + " is closed"));
    listener.reset();
    EXPECT_TRUE(peer.waitForRequest(cancel("5")));
}

TEST_F(EventListenerTest, aClosedListenerBeginsNothing)
{
    subscribe();
    listener->close();
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    RecordingSubscriber late;
    listener->addSubscriber(&late);
    listener->resume([] { return true; });
    listener->setLocalServer(freePort(), "192.0.2.9");
    listener->removeSubscriber(&late);
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5")}));
    EXPECT_EQ(logger.count("Listening on port"), 1U);
}

TEST_F(EventListenerTest, repliesThatComeAfterTheEndAreHarmless)
{
    ASSERT_TRUE(subscribeWithoutAnswer());
    listener.reset();  // without a word: its destructor ends the registration
    EXPECT_TRUE(logger.waitFor("A client goes with 1 registration(s) left"));
    settle();
}

TEST_F(EventListenerTest, anExchangeUnderWayIsGivenUpWhenTheListenerIsPaused)
{
    EventListenerTiming timing;
    timing.cancellation = 1ms;
    ASSERT_TRUE(subscribeWithoutAnswer(timing));
    listener->pause();
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed"));
    accept(peer);
    listener->resume([] { return true; });
    ASSERT_TRUE(waitRenewed());
    EXPECT_FALSE(logger.contains("Event subscription completed with error"));
    EXPECT_EQ(exchanges(), (Strings{post(), cancel("0"), post(), put("5")}));
}

TEST_F(EventListenerTest, aSubscriptionThatComesAboutAfterTheLastHasLeftIsCancelled)
{
    ASSERT_TRUE(subscribeWithoutAnswer());
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed with error"));  // that of "0"
    release(post(), 200, replyWithData("{\"ID\":\"5\"}"));
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), cancel("0"), cancel("5")}));
    EXPECT_FALSE(logger.contains("Event subscription completed"));
}

TEST_F(EventListenerTest, theNextSubscriptionWaitsForTheOneThatWasGivenUp)
{
    EventListenerTiming timing;
    timing.cancellation = never;
    ASSERT_TRUE(subscribeWithoutAnswer(timing));
    peer.answer(cancel("4"), 200, replyWithData("{}"));
    listener->removeSubscriber(&subscriber);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(isPending(&EventListener::isSubscriptionWaiting));
    peer.answerOnce(post(), 200, replyWithData("{\"ID\":\"5\"}"));
    release(post(), 200, replyWithData("{\"ID\":\"4\"}"));
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), cancel("0"), cancel("4"), post(), put("5")}));
}

TEST_F(EventListenerTest, aSubscriptionThatWasReplacedIsCancelledWhenItComesAbout)
{
    EventListenerTiming timing;
    timing.cancellation = 1ms;
    ASSERT_TRUE(subscribeWithoutAnswer(timing));
    accept(peer);
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(waitRenewed());
    release(post(), 200, replyWithData("{\"ID\":\"4\"}"));
    EXPECT_TRUE(peer.waitForRequest(cancel("4")));
}

// A device may have one subscription for each receiver.
TEST_F(EventListenerTest, aSubscriptionThatWasReplacedIsKeptWhenItIsThePresentOne)
{
    EventListenerTiming timing;
    timing.cancellation = 1ms;
    ASSERT_TRUE(subscribeWithoutAnswer(timing));
    accept(peer);
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(waitRenewed());
    release(post(), 200, replyWithData("{\"ID\":\"5\"}"));
    ASSERT_TRUE(logger.waitFor("A subscription that was given up has come about, ID=5"));
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    const auto all = exchanges();
    EXPECT_EQ(std::ranges::count(all, cancel("5")), 1);
}

TEST_F(EventListenerTest, followsADeviceThatHasAnotherAddressAfterAReconnection)
{
    subscribe();
    kelvo::test::ScriptedHttpPeer elsewhere("127.0.0.2");
    elsewhere.answer(portPath, 200, "{}");
    elsewhere.answer(infoPath, 200, deviceInfo(0));
    accept(elsewhere);
    ASSERT_EQ(device->Open(elsewhere.address().c_str()), 0);  // this listener is not the device's own
    ASSERT_TRUE(handler.waitConnected(2));
    listener->resume([] { return true; });
    ASSERT_TRUE(elsewhere.waitForRequest(put("5")));
    EXPECT_TRUE(elsewhere.waitForRequest(cancel("5")));
    PushPeer(port, "127.0.0.2").send(kelvo::test::notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
    listener->close();  // its farewell goes there too
    EXPECT_TRUE(elsewhere.waitForRequest(cancel("5"), 2));
}

TEST_F(EventListenerTest, tellsTheDeviceWhenItsOwnAddressHasChangedAtAReconnection)
{
    subscribe();
    listener->setLocalServer(port, "192.0.2.9");  // an address that it does not have any more
    ASSERT_TRUE(waitRenewed(2));
    listener->resume([] { return true; });
    ASSERT_TRUE(waitRenewed(3));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5"), cancel("5"), post(), put("5")}));
    EXPECT_NE(peer.bodies()[peer.bodies().size() - 2].find("\"IPAddress\" : \"127.0.0.1\""), std::string::npos);
    EXPECT_EQ(logger.count("Selected parameters for local server: server IP='127.0.0.1'"), 2U);
    PushPeer(port).send(kelvo::test::notification(alarm("EnterArea")));
    EXPECT_TRUE(subscriber.waitFor(1));
}

TEST_F(EventListenerTest, keepsTheAddressThatIsSetAtAReconnection)
{
    port = freePort();
    make(1, {{"localServerPort", int{port}}, {"localServerIP", std::string("192.0.2.7")}});
    accept(peer);
    connect();
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    listener->resume([] { return true; });
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), put("5")}));
}

TEST_F(EventListenerTest, keepsItsAddressWhenNoneIsDetectedAtAReconnection)
{
    EventListenerTiming timing;
    timing.addressDetection = 0ms;
    subscribe(timing);
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(waitRenewed(2));
    listener->resume([] { return true; });
    ASSERT_TRUE(waitRenewed(3));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5"), put("5")}));
}

TEST_F(EventListenerTest, resumesOnlyWhenPermitted)
{
    listen();
    listener->pause();
    listener->addSubscriber(&subscriber);
    listener->resume([] { return false; });
    settle();
    EXPECT_TRUE(exchanges().empty());
    listener->resume([] { return true; });
    EXPECT_TRUE(waitRenewed());
}
}  // namespace

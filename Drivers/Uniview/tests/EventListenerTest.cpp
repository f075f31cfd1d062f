#include "EventFixture.h"

#include "EventListener.h"

#include <IpUtil/GlobalService.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/range/iterator_range_core.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
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

class EventListenerTest : public EventFixture {
protected:
    ~EventListenerTest() override
    {
        if (listener != nullptr)
            listener->close();
    }

    /// A listener of a connected device.
    void listen(const EventListenerTiming& timing = {})
    {
        makeReady();
        makeListener(timing);
    }
    void makeListener(const EventListenerTiming& timing = {})
    {
        listener = std::make_shared<EventListener>(device.get(), timing);
    }
    /// With a first subscription that the camera has and does not answer. False when it did not come.
    bool subscribeWithoutAnswer(const EventListenerTiming& timing = {})
    {
        makeReady();
        peer.staySilent(post());
        makeListener(timing);
        listener->addSubscriber(&subscriber);
        return peer.waitForRequest(post());
    }
    /// With a healthy subscription.
    void subscribe(const EventListenerTiming& timing = {})
    {
        listen(timing);
        listener->addSubscriber(&subscriber);
        ASSERT_TRUE(waitRenewed());
    }
    void process(const std::string& chunk) { listener->processData({chunk.data(), chunk.data() + chunk.size()}, {}); }
    bool isPending(bool (EventListener::*timer)() const noexcept)
    {
        return onService([&] { return (listener.get()->*timer)(); });
    }

    std::shared_ptr<EventListener> listener;
};

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

TEST_F(EventListenerTest, aSubscriptionThatFailsLeadsToTheRenewalOfTheOldOne)
{
    listen();
    peer.answer(post(), 503, "");
    peer.answer(put("0"), 200, replyWithData("{}"));
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), put("0")}));
    EXPECT_TRUE(isLineOf("Event subscription completed with error:  HTTP response has error code: 503, reason: "
                         "Scripted, request: " +
                             subscriptionPath,
                         LogSeverity::error))
        << logger.text();
}

TEST_F(EventListenerTest, aSubscriptionRepliedWithNothingHasFailed)
{
    listen();
    peer.answer(post(), 200, "");
    peer.answer(put("0"), 200, replyWithData("{}"));
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_TRUE(
        isLineOf("Event subscription completed with error:  HTTP responce is empty, request: " + subscriptionPath,
                 LogSeverity::error));
}

TEST_F(EventListenerTest, aSubscriptionThatFailsInTransportHasFailed)
{
    listen();
    peer.answerRaw(post(), "SSH-2.0-OpenSSH_9.2\r\n");
    peer.answer(put("0"), 200, replyWithData("{}"));
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_TRUE(isLineOf("Event subscription completed with error:  HTTP request is finished with error: 261, "
                         "message: the answer does not follow the protocol, request: " +
                             subscriptionPath,
                         LogSeverity::error))
        << logger.text();
}

TEST_F(EventListenerTest, theRedirectOfASubscriptionIsAccepted)
{
    listen();
    peer.answer(post(), 302, replyWithData("{\"ID\":\"5\"}"));
    listener->addSubscriber(&subscriber);
    EXPECT_TRUE(waitRenewed());
}

TEST_F(EventListenerTest, repliesToTheSubscriptionThatCannotBeUsedAreRetriedTenSecondsLater)
{
    const struct {
        std::string reply;
        bool isJson;
    } cases[] = {
        {replyWithData("{\"ID\":5}"), true},
        {replyWithData("{}"), true},
        {replyWithData("[]"), true},
        {"{\"Response\":[]}", true},
        {"[1]", true},
        {"17", true},
        {"<html>", false},
        {"{\"Response\":", false},
        {std::string(100000, '['), false},
    };
    makeReady();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply.substr(0, 40));
        const std::size_t unparsed = logger.count("Can't parse subscription.");
        const std::size_t withoutId = logger.count("Can't get subscription id.");
        peer.answer(post(), 200, c.reply);
        makeListener();
        const auto before = Clock::now();
        listener->addSubscriber(&subscriber);
        if (c.isJson) {
            ASSERT_TRUE(logger.waitFor("Can't get subscription id.", withoutId + 1));
        } else {
            ASSERT_TRUE(logger.waitFor("Can't parse subscription.", unparsed + 1));
        }
        ASSERT_TRUE(isPending(&EventListener::isRetryTimerPending));
        const auto due = onService([&] { return listener->getRetryTime(); });
        EXPECT_GE(due, before + 10s);
        EXPECT_LE(due, Clock::now() + 10s);
        EXPECT_FALSE(isPending(&EventListener::isRenewTimerPending));
        listener->close();
    }
    EXPECT_TRUE(isLineOf("Can't get subscription id.", LogSeverity::error));
    EXPECT_TRUE(isLineOf("Can't parse subscription.", LogSeverity::error));
    EXPECT_TRUE(isLineOf("Can't parse data: ", LogSeverity::error));
    EXPECT_EQ(logger.count("Can't parse data: "), 3U);
}

TEST_F(EventListenerTest, theRetrySubscribesAgain)
{
    EventListenerTiming timing;
    timing.retryDelay = 1ms;
    makeReady();
    peer.answerOnce(post(), 200, replyWithData("{\"ID\":5}"));
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), post(), put("5")}));
}

TEST_F(EventListenerTest, aRetryStaysDueWhenNobodyIsLeft)
{
    EventListenerTiming timing;
    timing.retryDelay = never;
    makeReady();
    peer.answer(post(), 200, replyWithData("{}"));
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Can't get subscription id."));
    listener->removeSubscriber(&subscriber);
    EXPECT_TRUE(isPending(&EventListener::isRetryTimerPending));
}

TEST_F(EventListenerTest, retriesGoOnAlsoWhenNobodyIsLeft)
{
    EventListenerTiming timing;
    timing.retryDelay = 10ms;
    makeReady();
    peer.answer(post(), 200, replyWithData("{}"));
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    const auto removeWhileRetryIsDue = [&] {
        if (!listener->isRetryTimerPending() || listener->getRetryTime() <= Clock::now())
            return false;
        listener->removeSubscriber(&subscriber);  // not while the subscription is under way, for that is given up
        return true;
    };
    while (!onService(removeWhileRetryIsDue)) {
    }
    const auto all = exchanges();
    const auto before = static_cast<std::size_t>(std::count(all.begin(), all.end(), post()));
    EXPECT_TRUE(peer.waitForRequest(post(), before + 3));
}

TEST_F(EventListenerTest, theNextFirstSubscriberTakesThePlaceOfARetryThatIsDue)
{
    EventListenerTiming timing;
    timing.retryDelay = never;
    makeReady();
    peer.answerOnce(post(), 200, replyWithData("{}"));
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Can't get subscription id."));
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(isPending(&EventListener::isRetryTimerPending));
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_FALSE(isPending(&EventListener::isRetryTimerPending));
    EXPECT_TRUE(isPending(&EventListener::isRenewTimerPending));
}

TEST_F(EventListenerTest, aNewSubscriptionTakesThePlaceOfARenewalThatIsDue)
{
    subscribe();
    peer.staySilent(post());
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(peer.waitForRequest(post(), 2));
    EXPECT_FALSE(isPending(&EventListener::isRenewTimerPending));
}

TEST_F(EventListenerTest, aPausedListenerHasNothingDue)
{
    EventListenerTiming timing;
    timing.retryDelay = never;
    makeReady();
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    ASSERT_TRUE(isPending(&EventListener::isRenewTimerPending));
    listener->pause();
    EXPECT_FALSE(isPending(&EventListener::isRenewTimerPending));

    peer.answer(post(), 200, replyWithData("{}"));
    listener->resume([] { return true; });
    ASSERT_TRUE(logger.waitFor("Can't get subscription id."));
    ASSERT_TRUE(isPending(&EventListener::isRetryTimerPending));
    listener->pause();
    EXPECT_FALSE(isPending(&EventListener::isRetryTimerPending));
}

// Failures of renewals.

TEST_F(EventListenerTest, aRenewalThatFailsCancelsAndSubscribesAnew)
{
    makeReady();
    peer.answerOnce(put("5"), 404, "");
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
    EXPECT_TRUE(isLineOf("Renew subscription completed with error:  HTTP response has error code: 404, reason: "
                         "Scripted, request: " +
                             subscriptionPath + "/5",
                         LogSeverity::error));
}

// A device that counts its IDs from one after a restart gives the new subscription the number of the old.
TEST_F(EventListenerTest, aNewSubscriptionWaitsUntilTheOldOneIsCancelled)
{
    EventListenerTiming timing;
    timing.cancellation = never;
    makeReady();
    peer.answerOnce(put("5"), 404, "");
    peer.staySilent(cancel("5"));
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(cancel("5")));
    EXPECT_TRUE(isPending(&EventListener::isSubscriptionWaiting));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5")}));
    release(cancel("5"), 200, replyWithData("{}"));
    ASSERT_TRUE(waitRenewed());
    EXPECT_FALSE(isPending(&EventListener::isSubscriptionWaiting));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
}

TEST_F(EventListenerTest, aCancellationThatFailsLetsTheNewSubscriptionGo)
{
    EventListenerTiming timing;
    timing.cancellation = never;
    makeReady();
    peer.answerOnce(put("5"), 404, "");
    peer.answer(cancel("5"), 404, "");
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
}

TEST_F(EventListenerTest, aCancellationThatIsNotAnsweredHoldsUpTheNewSubscriptionForAWhile)
{
    EventListenerTiming timing;
    timing.cancellation = 1ms;
    makeReady();
    peer.answerOnce(put("5"), 404, "");
    peer.staySilent(cancel("5"));
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    EXPECT_TRUE(waitRenewed());
}

TEST_F(EventListenerTest, anotherLocalServerWaitsForTheCancellationToo)
{
    EventListenerTiming timing;
    timing.cancellation = never;
    subscribe(timing);
    peer.staySilent(cancel("5"));
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(peer.waitForRequest(cancel("5")));
    EXPECT_TRUE(isPending(&EventListener::isSubscriptionWaiting));
    release(cancel("5"), 200, replyWithData("{}"));
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
}

TEST_F(EventListenerTest, aSubscriptionThatWaitsIsDroppedWhenTheLastSubscriberLeaves)
{
    EventListenerTiming timing;
    timing.cancellation = never;
    subscribe(timing);
    peer.staySilent(cancel("5"));
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(isPending(&EventListener::isSubscriptionWaiting));
    listener->removeSubscriber(&subscriber);
    EXPECT_FALSE(isPending(&EventListener::isSubscriptionWaiting));
}

TEST_F(EventListenerTest, aRenewalThatIsNoJsonLetsTheSubscriptionLapse)
{
    makeReady();
    peer.answer(put("5"), 200, "{\"Response\"");
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Can't parse subscription duration."));
    EXPECT_TRUE(isLineOf("Can't parse subscription duration.", LogSeverity::error));
    EXPECT_FALSE(isPending(&EventListener::isRenewTimerPending));
    EXPECT_FALSE(isPending(&EventListener::isRetryTimerPending));
    EXPECT_FALSE(isPending(&EventListener::isRepeatPending));
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
}

TEST_F(EventListenerTest, aRenewalRepliedWithNothingCancelsAndSubscribesAnew)
{
    makeReady();
    peer.answerOnce(put("5"), 200, "");
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
    EXPECT_TRUE(isLineOf(
        "Renew subscription completed with error:  HTTP responce is empty, request: " + subscriptionPath + "/5",
        LogSeverity::error));
    EXPECT_FALSE(logger.contains("Can't parse subscription duration."));
}

TEST_F(EventListenerTest, aRenewalThatFailsInTransportCancelsAndSubscribesAnew)
{
    EventListenerTiming timing;
    timing.cancellation = never;
    makeReady();
    peer.answerRaw(put("5"), "SSH-2.0-OpenSSH_9.2\r\n");
    peer.staySilent(cancel("5"));
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(cancel("5")));
    accept(peer);
    release(cancel("5"), 200, replyWithData("{}"));
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5"), post(), put("5")}));
    EXPECT_TRUE(isLineOf("Renew subscription completed with error:  HTTP request is finished with error: 261, message: "
                         "the answer does not follow the protocol, request: " +
                             subscriptionPath + "/5",
                         LogSeverity::error))
        << logger.text();
}

// Only the data of these two replies count.
TEST_F(EventListenerTest, aFailureReportedBesideUsableDataIsNone)
{
    const auto refusal = [](const std::string& data) {
        return "{\"Response\":{\"ResponseCode\":3,\"StatusString\":\"Failed\",\"Data\":" + data + "}}";
    };
    makeReady();
    peer.answer(post(), 200, refusal("{\"ID\":\"5\"}"));
    peer.answer(put("5"), 200, refusal("{}"));
    makeListener();
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_EQ(exchanges(), (Strings{post(), put("5")}));
    EXPECT_TRUE(isPending(&EventListener::isRenewTimerPending));
    EXPECT_EQ(logger.errorCount(), 0U) << logger.text();
}

TEST_F(EventListenerTest, aRenewalWithoutDataCancelsAndSubscribesAnew)
{
    for (const std::string& reply : {replyWithData("null"), replyWithData("[]"), replyWithData("\"60\""),
                                     std::string("[]"), std::string("{\"Response\":7}")}) {
        SCOPED_TRACE(reply);
        const std::size_t renewed = logger.count("Renew subscription completed successfully");
        const std::size_t cancelled = logger.count("Event unsubscription completed successfully");
        if (device == nullptr)
            makeReady();
        peer.answerOnce(put("5"), 200, reply);
        makeListener();
        listener->addSubscriber(&subscriber);
        ASSERT_TRUE(waitRenewed(renewed + 1));
        ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully", cancelled + 1));
        listener->close();
        ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully", cancelled + 2));
    }
    EXPECT_TRUE(isLineOf("Subscription could not be prolonged, initializing a new subscription", LogSeverity::error));
    EXPECT_EQ(logger.count("Subscription could not be prolonged"), 5U);
}

TEST_F(EventListenerTest, aCancellationThatFailsIsOnlyLogged)
{
    subscribe();
    peer.answer(cancel("5"), 500, "");
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed with error: "));
    EXPECT_TRUE(isLineOf("Event unsubscription completed with error:  HTTP response has error code: 500, reason: "
                         "Scripted, request: " +
                             subscriptionPath + "/5",
                         LogSeverity::error));
    settle();
    EXPECT_EQ(exchanges(), (Strings{post(), put("5"), cancel("5")}));
}

TEST_F(EventListenerTest, aCancellationOfWhatIsCancelledIsNoError)
{
    subscribe();
    listener->addSubscriber(&second);
    peer.answerOnce(cancel("5"), 200, replyWithData("{}"));
    peer.answer(cancel("5"), 599, "");
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    listener->removeSubscriber(&second);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed with error: "));
    listener->removeSubscriber(&second);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed with error: ", 2));
    EXPECT_EQ(logger.errorCount(), 0U) << logger.text();
    EXPECT_TRUE(isLineOf("Event unsubscription completed with error:  HTTP response has error code: 599, reason: "
                         "Scripted, request: " +
                             subscriptionPath + "/5",
                         LogSeverity::debug));
}

TEST_F(EventListenerTest, ofTwoCancellationsAtOnceOnlyTheFirstMayBeAnError)
{
    subscribe();
    listener->addSubscriber(&second);
    peer.staySilent(cancel("5"));
    listener->removeSubscriber(&subscriber);
    listener->removeSubscriber(&second);
    ASSERT_TRUE(peer.waitForRequest(cancel("5"), 2));
    release(cancel("5"), 599, "");
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed with error: ", 2));
    EXPECT_EQ(logger.errorCount(), 1U) << logger.text();
}

TEST_F(EventListenerTest, aCancellationOfTheSameNumberGivenOutAgainMayBeAnError)
{
    subscribe();
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed successfully"));
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed(2));
    peer.answer(cancel("5"), 599, "");
    listener->removeSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed with error: "));
    EXPECT_EQ(logger.errorCount(), 1U);
}

TEST_F(EventListenerTest, aDeviceThatRefusesEverythingIsAskedAgainAtOnceAndThenLater)
{
    EventListenerTiming timing;
    timing.firstPause = never;
    timing.longestPause = never;
    makeReady();
    peer.answer(post(), 503, "");
    peer.answerOnce(put("0"), 503, "");
    peer.answer(put("0"), 500, "");  // another line, since the same would be folded
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Renew subscription completed with error: ", 2));
    EXPECT_TRUE(isPending(&EventListener::isRepeatPending));
    ASSERT_TRUE(logger.waitFor("Event unsubscription completed with error: "));
    EXPECT_EQ(exchanges(), (Strings{post(), put("0"), cancel("0"), post(), put("0")}));

    listener->removeSubscriber(&subscriber);
    EXPECT_FALSE(isPending(&EventListener::isRepeatPending));  // for whom?
}

TEST_F(EventListenerTest, aDeviceThatAcceptsSubscriptionsAndRefusesRenewalsIsPacedToo)
{
    EventListenerTiming timing;
    timing.firstPause = never;
    timing.longestPause = never;
    makeReady();
    peer.answerOnce(put("5"), 503, "");
    peer.answer(put("5"), 500, "");
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(logger.waitFor("Renew subscription completed with error: ", 2));
    EXPECT_TRUE(isPending(&EventListener::isRepeatPending));
}

TEST_F(EventListenerTest, aDeviceThatComesToItsSensesIsSubscribedTo)
{
    EventListenerTiming timing;
    timing.firstPause = 1ms;
    timing.longestPause = 2ms;
    makeReady();
    for (int i = 0; i < 4; ++i)
        peer.answerOnce(post(), 500, "");
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed());
    EXPECT_TRUE(peer.waitForRequest(post(), 5));
}

TEST_F(EventListenerTest, failuresThatRepeatAreFolded)
{
    EventListenerTiming timing;
    timing.firstPause = 0ms;
    timing.longestPause = 0ms;
    makeReady();
    peer.answer(post(), 503, "");
    peer.answer(put("0"), 503, "");
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(post(), 110));
    listener->pause();
    for (const std::string line :
         {"Event subscription completed with error: ", "Renew subscription completed with error: ",
          "Event unsubscription completed with error: "}) {
        EXPECT_TRUE(logger.contains("Metadata: " + line));
        EXPECT_TRUE(logger.contains("[collapsed 50]Metadata: " + line)) << logger.text();
        EXPECT_LE(logger.count(line), 4U);
    }
}

TEST_F(EventListenerTest, unusableRepliesThatRepeatAreFolded)
{
    EventListenerTiming timing;
    timing.retryDelay = 0ms;
    makeReady();
    peer.answer(post(), 200, "nonsense");
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(peer.waitForRequest(post(), 45));
    listener->pause();
    EXPECT_EQ(logger.count("Can't parse subscription."), 1U);
    EXPECT_EQ(logger.count("Can't parse data: "), 1U);
}

TEST_F(EventListenerTest, aFailureAfterASuccessIsToldAgain)
{
    EventListenerTiming timing;
    timing.renewPeriod = 1ms;
    makeReady();
    peer.answerOnce(put("5"), 503, "");
    peer.answerOnce(put("5"), 200, replyWithData("{}"));
    peer.answerOnce(put("5"), 503, "");
    makeListener(timing);
    listener->addSubscriber(&subscriber);
    ASSERT_TRUE(waitRenewed(2));
    EXPECT_EQ(logger.count("Renew subscription completed with error: "), 2U);
}

// Choosing the address.

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

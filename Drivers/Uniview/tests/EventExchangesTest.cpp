#include "EventListenerFixture.h"

#include <gtest/gtest.h>
#include <string>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using namespace std::chrono_literals;
using Tavro8::LogSeverity;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr auto never = std::chrono::hours(1);

class EventExchangesTest : public EventListenerFixture {};

TEST_F(EventExchangesTest, aSubscriptionThatFailsLeadsToTheRenewalOfTheOldOne)
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

TEST_F(EventExchangesTest, aSubscriptionRepliedWithNothingHasFailed)
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

TEST_F(EventExchangesTest, aSubscriptionThatFailsInTransportHasFailed)
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

TEST_F(EventExchangesTest, theRedirectOfASubscriptionIsAccepted)
{
    listen();
    peer.answer(post(), 302, replyWithData("{\"ID\":\"5\"}"));
    listener->addSubscriber(&subscriber);
    EXPECT_TRUE(waitRenewed());
}

TEST_F(EventExchangesTest, repliesToTheSubscriptionThatCannotBeUsedAreRetriedTenSecondsLater)
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

TEST_F(EventExchangesTest, theRetrySubscribesAgain)
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

TEST_F(EventExchangesTest, aRetryStaysDueWhenNobodyIsLeft)
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

TEST_F(EventExchangesTest, retriesGoOnAlsoWhenNobodyIsLeft)
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

TEST_F(EventExchangesTest, theNextFirstSubscriberTakesThePlaceOfARetryThatIsDue)
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

TEST_F(EventExchangesTest, aNewSubscriptionTakesThePlaceOfARenewalThatIsDue)
{
    subscribe();
    peer.staySilent(post());
    listener->setLocalServer(port, "192.0.2.9");
    ASSERT_TRUE(peer.waitForRequest(post(), 2));
    EXPECT_FALSE(isPending(&EventListener::isRenewTimerPending));
}

TEST_F(EventExchangesTest, aPausedListenerHasNothingDue)
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

TEST_F(EventExchangesTest, aRenewalThatFailsCancelsAndSubscribesAnew)
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
TEST_F(EventExchangesTest, aNewSubscriptionWaitsUntilTheOldOneIsCancelled)
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

TEST_F(EventExchangesTest, aCancellationThatFailsLetsTheNewSubscriptionGo)
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

TEST_F(EventExchangesTest, aCancellationThatIsNotAnsweredHoldsUpTheNewSubscriptionForAWhile)
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

TEST_F(EventExchangesTest, anotherLocalServerWaitsForTheCancellationToo)
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

TEST_F(EventExchangesTest, aSubscriptionThatWaitsIsDroppedWhenTheLastSubscriberLeaves)
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

TEST_F(EventExchangesTest, aRenewalThatIsNoJsonLetsTheSubscriptionLapse)
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

TEST_F(EventExchangesTest, aRenewalRepliedWithNothingCancelsAndSubscribesAnew)
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

TEST_F(EventExchangesTest, aRenewalThatFailsInTransportCancelsAndSubscribesAnew)
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
TEST_F(EventExchangesTest, aFailureReportedBesideUsableDataIsNone)
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

TEST_F(EventExchangesTest, aRenewalWithoutDataCancelsAndSubscribesAnew)
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

TEST_F(EventExchangesTest, aCancellationThatFailsIsOnlyLogged)
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

TEST_F(EventExchangesTest, aCancellationOfWhatIsCancelledIsNoError)
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

TEST_F(EventExchangesTest, ofTwoCancellationsAtOnceOnlyTheFirstMayBeAnError)
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

TEST_F(EventExchangesTest, aCancellationOfTheSameNumberGivenOutAgainMayBeAnError)
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

TEST_F(EventExchangesTest, aDeviceThatRefusesEverythingIsAskedAgainAtOnceAndThenLater)
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

TEST_F(EventExchangesTest, aDeviceThatAcceptsSubscriptionsAndRefusesRenewalsIsPacedToo)
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

TEST_F(EventExchangesTest, aDeviceThatComesToItsSensesIsSubscribedTo)
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

TEST_F(EventExchangesTest, failuresThatRepeatAreFolded)
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

TEST_F(EventExchangesTest, unusableRepliesThatRepeatAreFolded)
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

TEST_F(EventExchangesTest, aFailureAfterASuccessIsToldAgain)
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
}  // namespace

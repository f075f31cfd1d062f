#include <utility>

#include "EventListener.h"

#include "Device.h"
#include "Lapi.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <json/value.h>

namespace Uniview
{
namespace
{
using boost::system::error_code;
using Tavro8::http::ConnectionInfoPtr;

constexpr const char* makingNew = "Uniview::EventListener::sendSubscriptionRequest";
constexpr const char* renewing = "Uniview::EventListener::sendRenewSubscriptionRequest";
constexpr const char* cancelling = "Uniview::EventListener::sendUnsubscriptionRequest";

/// What a reply that is not accepted is called in the log; empty for one that is.
std::string judge(const error_code& ec, const std::vector<char>& body, const Tavro8::http::HttpResponse& response,
                  const std::string& path, lapi::Expect expect)
{
    const lapi::Reply reply = lapi::judge(ec, response, body, expect);
    return reply ? std::string() : lapi::describe(reply, path, lapi::Wording::subscription);
}
}  // namespace

/// The completion of a subscription or renewal. Device and listener exist when `onReply` is called. A subscription has
/// been sent to `subscribedAt`, which is null for a renewal.
Tavro8::http::CompletionHandler EventListener::inChain(std::uint64_t request, std::string path, OnReply onReply,
                                                       ConnectionInfoPtr subscribedAt)
{
    return [weak = weak_from_this(), owner = owner, token = lifetime, request, path = std::move(path), onReply,
            subscribedAt = std::move(subscribedAt), itsChain = chain](
               const error_code& ec, const std::vector<char>& body, const Tavro8::http::HttpResponse& response) {
        const auto kept = owner.lock();
        const auto self = weak.lock();
        if (self == nullptr)
            return;
        guardedVoid(*self, "Uniview::EventListener", [&] {
            self->subscribing.erase(request);
            self->prolonging.erase(request);
            const std::string failure = judge(ec, body, response, path, lapi::Expect::body);
            if (kept != nullptr && itsChain == self->chain) {
                kept->reportExchange(ec);  // of one given up the device may be somewhere else by now
                ((*self).*onReply)(failure, body);
            } else if (subscribedAt != nullptr && failure.empty()) {
                self->onSubscribedInVain(subscribedAt, body);
            }
            self->onExchanged(kept != nullptr);
        });
    };
}

/// Without somebody to cancel it the subscription would double each event, or send them to a closed port. One with the
/// number of the present subscription is that one, for all we know.
void EventListener::onSubscribedInVain(const ConnectionInfoPtr& subscribedAt, const std::vector<char>& body)
{
    Json::Value reply;
    const auto id = parse(body, reply, makingNew) ? subscription::idOf(reply) : std::nullopt;
    if (!id)
        return;
    debug(makingNew, "A subscription that was given up has come about, ID=", *id);
    if (*id != subscriptionId || cancelledId == id)
        sendUnsubscriptionRequest(subscribedAt, *id);
}

/// Whether a new subscription, or the end, has something to wait for.
bool EventListener::isBusy() const noexcept
{
    return !subscribing.empty() || !unsubscribing.empty();
}

void EventListener::onExchanged(bool deviceExists)
{
    if (isBusy())
        return;
    farewellTimer.cancel();
    if (deviceExists)
        sendWaitingSubscription();
}

/// Not while a cancellation is under way: it travels on a connection of its own, and a device that has been restarted
/// counts its subscriptions from one again. Overtaken by the new subscription it would end that one. A subscription
/// that has been given up and is still under way is going to be cancelled.
void EventListener::sendSubscriptionRequest()
{
    cancelRenewTimer();
    cancelRetryTimer();
    cancelRepeat();
    ++chain;
    if (!isBusy())
        return postSubscription();
    subscriptionWaiting = true;
    waitingTimer.expires_after(timing.cancellation);
    waitingTimer.async_wait(whileAlive([](EventListener& self, const error_code& ec) {
        if (!ec)
            self.sendWaitingSubscription();
    }));
}

void EventListener::sendWaitingSubscription()
{
    if (!subscriptionWaiting)
        return;
    cancelWaitingSubscription();
    postSubscription();
}

void EventListener::postSubscription()
{
    const LocalServer server = getServer();
    Tavro8::http::HttpHeaders headers;
    headers.set(Tavro8::http::HTTP_HEADER_CONNECTION, "close");
    const std::uint64_t request = ++lastRequest;
    const auto connection = device->getHttpConnectionInfo();
    subscribing[request] = Tavro8::http::asyncPostEx(
        connection, subscription::path, subscription::subscribeBody(server.ip, server.port), context, headers,
        inChain(request, subscription::path, &EventListener::onSubscribed, connection));
}

void EventListener::onSubscribed(const std::string& failure, const std::vector<char>& body)
{
    if (!failure.empty()) {
        exchangeLog.error(makingNew, "Event subscription completed with error: ", failure);
        return sendRenewSubscriptionRequest({});  // revives the subscription before, or fails and makes a new one
    }
    debug(makingNew, "Event subscription completed successfully");
    Json::Value reply;
    if (!parse(body, reply, makingNew)) {
        exchangeLog.error(makingNew, "Can't parse subscription.");
        return armRetryTimer();
    }
    auto id = subscription::idOf(reply);
    if (!id) {
        exchangeLog.error(makingNew, "Can't get subscription id.");
        return armRetryTimer();
    }
    subscriptionId = std::move(*id);
    cancelledId.reset();
    sendRenewSubscriptionRequest({});
}

void EventListener::sendRenewSubscriptionRequest(const error_code& ec)
{
    if (ec)
        return;
    const std::string path = subscription::pathOf(subscriptionId);
    const std::uint64_t request = ++lastRequest;
    prolonging[request] = Tavro8::http::asyncPutEx(device->getHttpConnectionInfo(), path, subscription::renewBody(),
                                                   context, inChain(request, path, &EventListener::onRenewed, nullptr));
}

void EventListener::onRenewed(const std::string& failure, const std::vector<char>& body)
{
    if (!failure.empty()) {
        exchangeLog.error(renewing, "Renew subscription completed with error: ", failure);
        return repeatSubscription();
    }
    Json::Value reply;
    if (!parse(body, reply, renewing)) {
        exchangeLog.error(renewing, "Can't parse subscription duration.");
        return;  // on purpose without a timer: the subscription lapses
    }
    if (!subscription::dataOf(reply).isObject()) {
        exchangeLog.error(renewing, "Subscription could not be prolonged, initializing a new subscription");
        return repeatSubscription();
    }
    debug(renewing, "Renew subscription completed successfully. Duration is ", subscription::durationSeconds);
    pace.reset();
    exchangeCollapser.forget();
    cancelledId.reset();
    armRenewTimer();
}

void EventListener::sendUnsubscriptionRequest(const ConnectionInfoPtr& connection)
{
    sendUnsubscriptionRequest(connection, subscriptionId);
}

void EventListener::sendUnsubscriptionRequest(const ConnectionInfoPtr& connection, const std::string& id)
{
    const std::string path = subscription::pathOf(id);
    const std::uint64_t request = ++lastRequest;
    Unsubscription sent{id, isCancelled(id), nullptr};
    sent.request = Tavro8::http::asyncDeleteEx(
        connection, path, context,
        [self = shared_from_this(), owner = owner, token = lifetime, request,
         path](const error_code& ec, const std::vector<char>& body, const Tavro8::http::HttpResponse& response) {
            guardedVoid(*self, cancelling, [&] {
                const auto kept = owner.lock();
                if (kept != nullptr)
                    kept->reportExchange(ec);
                self->onUnsubscribed(request, judge(ec, body, response, path, lapi::Expect::status));
                self->onExchanged(kept != nullptr);
            });
        });
    unsubscribing.emplace(request, std::move(sent));
}

/// Every removal cancels, so that all but the first must fail; these are no errors.
void EventListener::onUnsubscribed(std::uint64_t request, const std::string& failure)
{
    const Unsubscription ended = std::move(unsubscribing[request]);
    unsubscribing.erase(request);
    if (failure.empty()) {
        debug(cancelling, "Event unsubscription completed successfully");
        cancelledId = ended.id;
    } else if (ended.isRepeat || cancelledId == ended.id) {
        debug(cancelling, "Event unsubscription completed with error: ", failure);
    } else {
        exchangeLog.error(cancelling, "Event unsubscription completed with error: ", failure);
    }
}

/// Or about to be.
bool EventListener::isCancelled(const std::string& id) const
{
    return cancelledId == id ||
           std::ranges::any_of(unsubscribing, [&id](const auto& each) { return each.second.id == id; });
}

bool EventListener::parse(const std::vector<char>& body, Json::Value& document, const char* operation) const
{
    std::string reason;
    if (lapi::parseJson({body.data(), body.size()}, document, reason))
        return true;
    exchangeLog.error(operation, "Can't parse data: ", reason);
    return false;
}

void EventListener::armRenewTimer()
{
    renewTimer.expires_after(renewPeriod);
    renewTimerPending = true;
    renewTimer.async_wait(whileAlive([](EventListener& self, const error_code& ec) {
        // One that was cancelled too late to notice has lost its flag.
        if (!ec && std::exchange(self.renewTimerPending, false))
            self.sendRenewSubscriptionRequest(ec);
    }));
}

void EventListener::armRetryTimer()
{
    retryTimer.expires_after(timing.retryDelay);
    retryTimerPending = true;
    retryTimer.async_wait(whileAlive([](EventListener& self, const error_code& ec) { self.onRetryTimer(ec); }));
}

void EventListener::onRetryTimer(const error_code& ec)
{
    if (!ec && std::exchange(retryTimerPending, false))
        sendSubscriptionRequest();
}

/// After a renewal that failed, at the pace that repeats of failures have.
void EventListener::repeatSubscription()
{
    const auto pause = pace.next();
    if (pause == std::chrono::milliseconds::zero())
        return cancelAndSubscribe();
    repeatTimer.expires_after(pause);
    repeatPending = true;
    repeatTimer.async_wait(whileAlive([](EventListener& self, const error_code& ec) {
        if (!ec && std::exchange(self.repeatPending, false))
            self.cancelAndSubscribe();
    }));
}

void EventListener::cancelAndSubscribe()
{
    sendUnsubscriptionRequest(device->getHttpConnectionInfo());
    sendSubscriptionRequest();
}

/// The device is back: whether it still knows us is asked now rather than when the timers say so.
void EventListener::catchUp(bool hasMoved)
{
    pace.reset();
    if (hasMoved || repeatPending) {
        cancelAndSubscribe();
    } else if (renewTimerPending) {
        cancelRenewTimer();
        sendRenewSubscriptionRequest({});
    }
}

void EventListener::cancelRenewTimer()
{
    renewTimerPending = false;
    renewTimer.cancel();
}

void EventListener::cancelRetryTimer()
{
    retryTimerPending = false;
    retryTimer.cancel();
}

void EventListener::cancelRepeat()
{
    repeatPending = false;
    repeatTimer.cancel();
}

void EventListener::cancelWaitingSubscription()
{
    subscriptionWaiting = false;
    waitingTimer.cancel();
}

/// What is under way of the present subscription has no consequences any more.
void EventListener::giveUpChain()
{
    ++chain;
    cancelRepeat();
    cancelWaitingSubscription();
    for (const auto& [request, cancellation] : prolonging)
        cancellation->cancel();
}

void EventListener::giveUpAll()
{
    giveUpChain();
    cancelRenewTimer();
    cancelRetryTimer();
    pace.reset();
}

/// The last thing that is done. The device may be gone from the host's view; only the network is still there.
void EventListener::sayFarewell(const ConnectionInfoPtr& subscribedAt)
{
    giveUpAll();
    if (subscribedAt != nullptr)
        sendUnsubscriptionRequest(subscribedAt);
    if (!isBusy())
        return;
    farewellTimer.expires_after(timing.farewell);
    farewellTimer.async_wait([self = shared_from_this(), token = lifetime](const error_code& ec) {
        if (ec)
            return;
        for (const auto& [number, unsubscription] : self->unsubscribing)
            unsubscription.request->cancel();
        for (const auto& [number, cancellation] : self->subscribing)
            cancellation->cancel();
    });
}
}  // namespace Uniview

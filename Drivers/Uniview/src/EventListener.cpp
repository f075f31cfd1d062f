#include <utility>

#include "EventListener.h"

#include "Device.h"
#include "Lapi.h"
#include "LocalAddress.h"
#include "LocalServerSettings.h"
#include "Notification.h"

#include <IpUtil/GlobalService.h>
#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/range/iterator_range_core.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <json/value.h>
#include <string_view>

namespace Uniview
{
namespace
{
using boost::system::error_code;
using Tavro8::TcpServerEx;
using Tavro8::http::ConnectionInfoPtr;

constexpr const char* listenerSource = "Drivers/Uniview/src/EventSubscriber";
constexpr const char* choosing = "Uniview::EventListener::getCurrentIpAndPort";
constexpr const char* makingNew = "Uniview::EventListener::sendSubscriptionRequest";
constexpr const char* renewing = "Uniview::EventListener::sendRenewSubscriptionRequest";
constexpr const char* cancelling = "Uniview::EventListener::sendUnsubscriptionRequest";
constexpr const char* receiving = "Uniview::EventListener::processData";

/// What a reply that is not accepted is called in the log; empty for one that is.
std::string judge(const error_code& ec, const std::vector<char>& body, const Tavro8::http::HttpResponse& response,
                  const std::string& path, lapi::Expect expect)
{
    const lapi::Reply reply = lapi::judge(ec, response, body, expect);
    return reply ? std::string() : lapi::describe(reply, path, lapi::Wording::subscription);
}
}  // namespace

/// One registration of a subscriber, with a gate in front of it. Any thread.
class EventListener::Seat {
public:
    explicit Seat(IEventSubscriber* subscriber) : subscriber(subscriber) {}

    bool isOf(const IEventSubscriber* other) const noexcept { return subscriber == other; }

    bool handleTriggerInfo(const Json::Value& alarmInfo)
    {
        const Visit visit(visitors);
        bool claimed = false;
        gate.call([&] { claimed = subscriber->handleTriggerInfo(alarmInfo); });
        return claimed;
    }

    /// Returns when no other thread is inside the subscriber, and nobody will be.
    void close() noexcept { gate.close(); }
    /// True when that holds for all threads.
    bool isDeserted() const noexcept { return gate.isClosed() && visitors == 0; }

private:
    struct Visit {
        explicit Visit(std::atomic<int>& visitors) noexcept : visitors(visitors) { ++visitors; }
        ~Visit() { --visitors; }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;
        std::atomic<int>& visitors;
    };

    IEventSubscriber* const subscriber;
    Tavro8::Utility::HandlerGate gate;
    std::atomic<int> visitors{0};
};

EventListener::EventListener(Device* device, const EventListenerTiming& timing)
    : LoggerHelper(device->getLogger().get(), listenerSource, "Metadata"),
      device(device),
      subscribers(std::make_shared<const Seats>()),
      renewTimer(device->service()),
      retryTimer(device->service()),
      renewPeriod(timing.renewPeriod),
      timing(timing),
      owner(device->weak_from_this()),
      context(device->service()),
      deviceLogger(device->getLogger()),
      receivedCollapser(deviceLogger.get()),
      exchangeCollapser(deviceLogger.get()),
      receivedLog(&receivedCollapser, listenerSource, getObjectName()),
      exchangeLog(&exchangeCollapser, listenerSource, getObjectName()),
      lifetime(device->getLifetimeToken()),
      repeatTimer(device->service()),
      pace(timing.firstPause, timing.longestPause),
      waitingTimer(device->service()),
      farewellTimer(device->service())
{}

EventListener::~EventListener()
{
    if (!closed)
        TcpServerEx::stopAllOfClient(this);
}

/// A handler that does nothing once the listener or its device is gone, and lets nothing escape.
template <typename Body>
auto EventListener::whileAlive(Body body)
{
    return
        [weak = weak_from_this(), owner = owner, token = lifetime, body = std::move(body)](const auto&... arguments) {
            const auto kept = owner.lock();
            const auto self = weak.lock();
            if (kept != nullptr && self != nullptr)
                guardedVoid(*self, "Uniview::EventListener", [&] { body(*self, arguments...); });
        };
}

/// Always queued, so that what several threads ask for is done in the order in which they had `mutex`.
template <typename Body>
void EventListener::onService(Body body)
{
    boost::asio::post(context, whileAlive(std::move(body)));
}

void EventListener::addSubscriber(IEventSubscriber* subscriber)
{
    auto seat = std::make_shared<Seat>(subscriber);
    const std::lock_guard lock(mutex);
    const Seats before = *subscribers;
    Seats after = before;
    after.push_back(std::move(seat));
    setSubscribers(std::move(after));
    if (!isWanted())
        return;
    try {
        start();
    } catch (...) {
        setSubscribers(before);
        throw;
    }
}

void EventListener::removeSubscriber(IEventSubscriber* subscriber)
{
    cancelLater();
    Seats taken;
    std::optional<Registration> ended;
    {
        const std::lock_guard lock(mutex);
        taken = takeSeats(subscriber);
        if (subscribers->empty())
            ended = end();
        onService([isLast = ended.has_value()](EventListener& self) {
            self.cancelRenewTimer();
            if (isLast)
                self.giveUpChain();
        });
    }
    stop(ended);
    release(taken);
}

void EventListener::setLocalServer(std::uint16_t port, const std::string& ip)
{
    std::optional<Registration> ended;
    {
        const std::lock_guard lock(mutex);
        LocalServer wanted{ip.empty() ? serverIp : ip, port == 0 ? serverPort : port};
        if (wanted == LocalServer{serverIp, serverPort})
            return;
        ended = end();
        if (ended)
            onService([info = device->getHttpConnectionInfo()](EventListener& self) {
                self.sendUnsubscriptionRequest(info);
            });
        setServer(std::move(wanted));
    }
    if (!ended)
        return;
    stop(ended);
    const std::lock_guard lock(mutex);
    if (isWanted())
        begin();
}

void EventListener::pause()
{
    std::optional<Registration> ended;
    {
        const std::lock_guard lock(mutex);
        if (std::exchange(paused, true))
            return;
        ended = end();
        // Read now: before this is done the device may already be somewhere else.
        onService([info = ended ? device->getHttpConnectionInfo() : nullptr](EventListener& self) {
            if (info != nullptr)
                self.sendUnsubscriptionRequest(info);
            self.giveUpAll();
        });
    }
    stop(ended);
}

void EventListener::resume(const std::function<bool()>& permitted)
{
    std::optional<Registration> ended;
    {
        const std::lock_guard lock(mutex);
        if (closed || !permitted())
            return;
        paused = false;
        if (running && device->getAddress() == clientIp)
            return onService([hasMoved = detectMove()](EventListener& self) { self.catchUp(hasMoved); });
        ended = end();
        if (ended)
            onService([info = device->getHttpConnectionInfo()](EventListener& self) {
                self.sendUnsubscriptionRequest(info);
            });
    }
    stop(ended);
    const std::lock_guard lock(mutex);
    if (isWanted())
        start();
}

void EventListener::close() noexcept
try {
    std::optional<Registration> ended;
    ConnectionInfoPtr subscribedAt;
    {
        const std::lock_guard lock(mutex);
        if (std::exchange(closed, true))
            return;
        ended = end();
        if (ended)
            subscribedAt = device->getHttpConnectionInfo();
    }
    stop(ended);
    TcpServerEx::stopAllOfClient(this);
    boost::asio::post(context, [self = shared_from_this(), subscribedAt] {
        guardedVoid(*self, "Uniview::EventListener::close", [&] { self->sayFarewell(subscribedAt); });
    });
} catch (...) {  // no memory for the farewell: the subscription ends by itself when it is not renewed
}

void EventListener::processData(const boost::iterator_range<const char*>& data,
                                const boost::shared_ptr<TcpServerEx::Session>&)
{
    const std::string_view chunk(data.begin(), data.size());
    debug(receiving, "Recv data:\n", chunk);
    notification::deliver(chunk, *getSubscribers(), receivedLog);
}

bool EventListener::isWanted() const
{
    return !closed && !paused && !running && !subscribers->empty();
}

void EventListener::start()
{
    getCurrentIpAndPort();
    begin();
}

void EventListener::begin()
{
    running = true;
    TcpServerEx::startForClient(serverPort, device->getModuleLogger(), clientIp, this);
    onService([](EventListener& self) { self.sendSubscriptionRequest(); });
}

/// What `stop` is to be called with when `mutex` has been left; nothing when nothing was registered.
std::optional<EventListener::Registration> EventListener::end()
{
    if (!std::exchange(running, false))
        return {};
    return Registration{serverPort, clientIp};
}

void EventListener::stop(const std::optional<Registration>& registration) noexcept
{
    if (registration)
        TcpServerEx::stopForClient(registration->port, registration->clientIp);
}

void EventListener::getCurrentIpAndPort()
{
    const std::uint16_t port = localServerPortOf(device->getParameters());
    setServer({serverIp, port});
    if (port == 0) {
        error(choosing, "Server local port is not defined");
        return;
    }
    clientIp = device->getAddress();
    setServer({chooseServerIp(device->getHttpConnectionInfo()), port});
    tellServer();
}

/// Whether the device is to be told another address of ours, which is chosen then. One that is set stays, and so does
/// the present one when no other can be detected.
bool EventListener::detectMove()
{
    std::string ip = serverPort == 0 ? std::string() : chooseServerIp(device->getHttpConnectionInfo());
    if (ip.empty() || ip == serverIp)
        return false;
    setServer({std::move(ip), serverPort});
    tellServer();
    return true;
}

void EventListener::tellServer() const
{
    info(choosing, "Selected parameters for local server: server IP='", serverIp, "', server port=", serverPort,
         ", client IP='", clientIp, "'");
}

std::string EventListener::chooseServerIp(const ConnectionInfoPtr& connection) const
{
    const auto& parameters = device->getParameters();
    if (!Tavro8::Utility::isStringParameterEmpty(parameters, localServerIpKey))
        return *parameters.get<std::string>(localServerIpKey);
    const auto detected = detectLocalAddress(clientIp, connection->port, timing.addressDetection);
    if (!detected)
        error(choosing, "Can't connect to detect local host IP");
    return detected.value_or(std::string());
}

void EventListener::setServer(LocalServer server)
{
    const std::lock_guard lock(readMutex);
    serverIp = std::move(server.ip);
    serverPort = server.port;
}

EventListener::LocalServer EventListener::getServer() const
{
    const std::lock_guard lock(readMutex);
    return {serverIp, serverPort};
}

void EventListener::setSubscribers(Seats changed)
{
    auto list = std::make_shared<const Seats>(std::move(changed));
    const std::lock_guard lock(readMutex);
    subscribers.swap(list);
}

std::shared_ptr<const EventListener::Seats> EventListener::getSubscribers() const
{
    const std::lock_guard lock(readMutex);
    return subscribers;
}

/// Takes all seats of `subscriber` out of the list. Those that another thread is just emptying come along, since
/// whoever removes a subscriber may destroy it next.
EventListener::Seats EventListener::takeSeats(const IEventSubscriber* subscriber)
{
    const auto isIts = [subscriber](const auto& seat) { return seat->isOf(subscriber); };
    Seats staying;
    std::ranges::copy_if(*subscribers, std::back_inserter(staying), std::not_fn(isIts));
    std::ranges::copy_if(*subscribers, std::back_inserter(leaving), isIts);
    if (staying.size() != subscribers->size())
        setSubscribers(std::move(staying));
    Seats taken;
    std::ranges::copy_if(leaving, std::back_inserter(taken), isIts);
    return taken;
}

void EventListener::release(const Seats& taken)
{
    for (const auto& seat : taken)
        seat->close();
    // Called from within a delivery, that delivery is still to be waited for by others.
    const std::lock_guard lock(mutex);
    std::erase_if(leaving, [](const auto& seat) { return seat->isDeserted(); });
}

/// A device that is closed has no subscription any more.
void EventListener::cancelLater()
{
    const std::lock_guard lock(mutex);
    if (!paused && !closed)
        onService(
            [info = device->getHttpConnectionInfo()](EventListener& self) { self.sendUnsubscriptionRequest(info); });
}

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

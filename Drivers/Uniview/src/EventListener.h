#pragma once

#include <utility>

#include "EventSubscriber.h"
#include "Subscription.h"

#include <IpUtil/Http.h>
#include <IpUtil/Logger.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/TcpServerEx.h>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Uniview
{
class Device;

/// Waiting times that are nobody's setting.
struct EventListenerTiming {
    std::chrono::milliseconds renewPeriod{50000};   ///< between renewals: ten seconds before the device would forget us
    std::chrono::milliseconds retryDelay{10000};    ///< after a reply to the subscription that cannot be used
    std::chrono::milliseconds firstPause{100};      ///< of a subscription that fails again and again, doubling
    std::chrono::milliseconds longestPause{10000};  ///< up to here
    std::chrono::milliseconds addressDetection{1000};  ///< for the connection that shows our own address
    std::chrono::milliseconds farewell{1000};  ///< for what is under way at the end, which keeps `finiModule` waiting
    std::chrono::milliseconds cancellation{1000};  ///< that a new subscription waits for the one before to be cancelled
};

/// Makes one device push its notifications to a port of ours, and hands each to the subscribers. It registers with the
/// TCP server and subscribes at the device when the first subscriber comes, and ends both when the last one leaves.
///
/// Threads. Host threads, the device's I/O thread and the threads that connect the device call the operations; `mutex`
/// makes one wait for the other. Requests, their replies and the timers belong to the I/O thread: other threads post
/// to it, and none of this takes `mutex`. `processData` runs on the TCP server's thread and takes no `mutex` either: it
/// walks an immutable list of the subscribers. Nothing that may wait for a delivery is called while `mutex` is held,
/// since a subscriber may come back here from within a delivery.
///
/// Shared by the device and by handlers in flight. These hold it weakly, and the device with it; only the cancellation
/// of a subscription, which has to reach the device also when everybody has left, keeps the listener and knows no
/// device. A subscription that nobody wants any more is not taken back, since it may have come about already: it is
/// cancelled when the device tells its ID.
class EventListener final : public Tavro8::LoggerHelper,
                            public Tavro8::TcpServerEx::IClient,
                            public std::enable_shared_from_this<EventListener> {
public:
    /// `device` is not owned; it owns the listener and has been told its address.
    explicit EventListener(Device* device, const EventListenerTiming& timing = {});
    ~EventListener();
    EventListener(const EventListener&) = delete;
    EventListener& operator=(const EventListener&) = delete;

    /// The first subscriber makes the listener work; may block for `EventListenerTiming::addressDetection` then. Raises
    /// `boost::bad_any_cast` when the setting `localServerPort` is no int, and has not registered then. Any thread.
    void addSubscriber(IEventSubscriber* subscriber);

    /// Ends all registrations of `subscriber`; afterwards it is not called any more, see `Device::removeSubscriber`.
    ///
    /// Cancels the subscription at the device also when other subscribers remain. These receive nothing then until
    /// something subscribes anew: the next first subscriber, `setLocalServer`, or a retry that is already due. Any
    /// thread.
    void removeSubscriber(IEventSubscriber* subscriber);

    /// Moves to another port or names another address to the device. Port 0 and an empty address mean the present one;
    /// without any difference nothing happens. Any thread.
    void setLocalServer(std::uint16_t port, const std::string& ip);

    /// The device is closed: ends subscription and registration, keeps the subscribers. Any thread.
    void pause();
    /// The device is connected: goes on for the subscribers that are there, and follows a device whose address has
    /// changed; so has perhaps our own, unless it is set, and then the device is told the new one. A subscription that
    /// was due for renewal later, or for a repeat, is seen to at once. Does nothing when `permitted`, asked under
    /// `mutex`, says no: the device may have been closed meanwhile. May block as `addSubscriber`. Any thread.
    void resume(const std::function<bool()>& permitted);
    /// The device goes: as `pause`, and nothing begins any more. The last cancellation has a moment to reach the
    /// device. Any thread.
    void close() noexcept;

    /// Slot 0 of the TCP server's client: one message of the device. Raises `std::out_of_range` when it holds no '{',
    /// and whatever a subscriber raises.
    void processData(const boost::iterator_range<const char*>& data,
                     const boost::shared_ptr<Tavro8::TcpServerEx::Session>& session) override;

    // For whoever wants to see what comes next; on the device's I/O thread.
    bool isRenewTimerPending() const noexcept { return renewTimerPending; }
    bool isRetryTimerPending() const noexcept { return retryTimerPending; }
    bool isRepeatPending() const noexcept { return repeatPending; }
    bool isSubscriptionWaiting() const noexcept { return subscriptionWaiting; }
    std::chrono::steady_clock::time_point getRenewTime() const { return renewTimer.expiry(); }
    std::chrono::steady_clock::time_point getRetryTime() const { return retryTimer.expiry(); }

private:
    class Seat;
    using Seats = std::vector<std::shared_ptr<Seat>>;
    using OnReply = void (EventListener::*)(const std::string& failure, const std::vector<char>& body);
    /// What is registered with the TCP server.
    struct Registration {
        std::uint16_t port = 0;
        std::string clientIp;
    };
    struct Unsubscription {
        std::string id;
        bool isRepeat = false;  // another of this ID was under way or has succeeded
        Tavro8::http::CancellationPtr request;
    };
    /// What the device is told to send to.
    struct LocalServer {
        std::string ip;
        std::uint16_t port = 0;

        bool operator==(const LocalServer&) const = default;
    };

    // Under `mutex`:
    bool isWanted() const;
    void start();
    void begin();
    std::optional<Registration> end();
    void getCurrentIpAndPort();
    bool detectMove();
    void tellServer() const;
    std::string chooseServerIp(const Tavro8::http::ConnectionInfoPtr& info) const;
    void setServer(LocalServer server);
    void setSubscribers(Seats changed);
    Seats takeSeats(const IEventSubscriber* subscriber);

    // On any thread, without `mutex`:
    static void stop(const std::optional<Registration>& registration) noexcept;
    void release(const Seats& taken);
    LocalServer getServer() const;
    std::shared_ptr<const Seats> getSubscribers() const;

    // On any thread:
    template <typename Body>
    auto whileAlive(Body body);
    template <typename Body>
    void onService(Body body);
    void cancelLater();

    // On the I/O thread. A failure is the text for the log, empty when there is none.
    void sendSubscriptionRequest();
    void sendWaitingSubscription();
    void postSubscription();
    void sendRenewSubscriptionRequest(const boost::system::error_code& ec);
    void sendUnsubscriptionRequest(const Tavro8::http::ConnectionInfoPtr& info);
    void sendUnsubscriptionRequest(const Tavro8::http::ConnectionInfoPtr& info, const std::string& id);
    Tavro8::http::CompletionHandler inChain(std::uint64_t request, std::string path, OnReply onReply,
                                            Tavro8::http::ConnectionInfoPtr subscribedAt);
    void onSubscribedInVain(const Tavro8::http::ConnectionInfoPtr& subscribedAt, const std::vector<char>& body);
    bool isBusy() const noexcept;
    void onExchanged(bool deviceExists);
    void onSubscribed(const std::string& failure, const std::vector<char>& body);
    void onRenewed(const std::string& failure, const std::vector<char>& body);
    void onUnsubscribed(std::uint64_t request, const std::string& failure);
    bool isCancelled(const std::string& id) const;
    bool parse(const std::vector<char>& body, Json::Value& document, const char* operation) const;
    void armRenewTimer();
    void armRetryTimer();
    void onRetryTimer(const boost::system::error_code& ec);
    void repeatSubscription();
    void cancelAndSubscribe();
    void catchUp(bool hasMoved);
    void cancelRenewTimer();
    void cancelRetryTimer();
    void cancelRepeat();
    void cancelWaitingSubscription();
    void giveUpChain();
    void giveUpAll();
    void sayFarewell(const Tavro8::http::ConnectionInfoPtr& subscribedAt);

    Device* const device;
    std::shared_ptr<const Seats> subscribers;  // in the order of registration; replaced whole
    mutable std::mutex mutex;  // guards `subscribers`, `running`, `serverIp`, `serverPort`, `clientIp`; see `readMutex`
    bool running = false;      // somebody has subscribed, and we are registered with the TCP server
    std::string subscriptionId = "0";  // the I/O thread's
    std::string serverIp;
    std::uint16_t serverPort = 0;
    std::string clientIp;                  // the device's, under which we are registered
    boost::asio::steady_timer renewTimer;  // this and the next three are the I/O thread's
    bool renewTimerPending = false;
    boost::asio::steady_timer retryTimer;
    bool retryTimerPending = false;
    const std::chrono::milliseconds renewPeriod;

    const EventListenerTiming timing;
    const std::weak_ptr<Device> owner;  // of whoever does not know whether it is still there
    boost::asio::io_context& context;
    const std::shared_ptr<Tavro8::ILogger> deviceLogger;  // what the base logs through
    /// Two logs that fold what repeats: of what the device sends, and of our requests until a renewal succeeds.
    Tavro8::LoggerDetail::CollapsingLogger receivedCollapser;
    Tavro8::LoggerDetail::CollapsingLogger exchangeCollapser;
    const Tavro8::LoggerHelper receivedLog;
    const Tavro8::LoggerHelper exchangeLog;
    const std::shared_ptr<void> lifetime;  // in every handler, so that `finiModule` waits for it
    /// For those who may not take `mutex`: `subscribers`, `serverIp` and `serverPort` are changed under both and read
    /// under either. Nothing else is locked while it is held.
    mutable std::mutex readMutex;
    bool paused = false;  // this and the next two are guarded by `mutex`
    bool closed = false;
    Seats leaving;  // removed, and perhaps still inside a delivery

    // The I/O thread's:
    std::uint64_t chain = 0;        // the subscription that replies belong to; those to an earlier one change nothing
    std::uint64_t lastRequest = 0;  // numbers those under way
    std::map<std::uint64_t, Tavro8::http::CancellationPtr> subscribing;  // under way: subscriptions
    std::map<std::uint64_t, Tavro8::http::CancellationPtr> prolonging;   // under way: renewals
    std::map<std::uint64_t, Unsubscription> unsubscribing;               // under way: cancellations
    std::optional<std::string> cancelledId;  // the last that the device has confirmed; until it is given out again
    boost::asio::steady_timer repeatTimer;
    bool repeatPending = false;
    subscription::RepeatPace pace;
    boost::asio::steady_timer waitingTimer;
    bool subscriptionWaiting = false;  // for what is under way, or for this timer
    boost::asio::steady_timer farewellTimer;
};

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
}  // namespace Uniview

#include <utility>

#include "EventListener.h"

#include "Device.h"
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
#include <string_view>

namespace Uniview
{
namespace
{
using Tavro8::TcpServerEx;
using Tavro8::http::ConnectionInfoPtr;

constexpr const char* listenerSource = "Drivers/Uniview/src/EventSubscriber";
constexpr const char* choosing = "Uniview::EventListener::getCurrentIpAndPort";
constexpr const char* receiving = "Uniview::EventListener::processData";
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
}  // namespace Uniview

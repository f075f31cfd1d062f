#pragma once

#include "EventCommand.h"
#include "EventScript.h"
#include "IoState.h"
#include "Subscriptions.h"

#include <boost/asio/ts/netfwd.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace simulator
{

/// The device's event push: who has subscribed, what they are told, and the inputs and relays that go with it. Used on
/// the I/O context only.
class DeviceEvents {
public:
    /// Without a script nothing happens by itself. `io` is not owned and outlives this.
    DeviceEvents(boost::asio::io_context& context, IoState& io, std::optional<EventScript> script);
    ~DeviceEvents();
    DeviceEvents(const DeviceEvents&) = delete;
    DeviceEvents& operator=(const DeviceEvents&) = delete;

    /// The port that "Reference" names, known once the device listens.
    void setHttpPort(unsigned port);

    /// As in `Subscriptions`. The script begins with the first subscription and ends with the last.
    std::optional<Subscription> subscribe(const SubscriptionRequest& request, const std::string& deviceAddress);
    bool renew(std::string_view id, std::chrono::seconds duration);
    bool cancel(std::string_view id);
    /// Without a word to the subscribers, as a restart does.
    void forgetSubscriptions();

    /// The device's name for a subscription.
    std::string reference(const Subscription& subscription) const;

    /// Sends the event on its way to every subscriber; returns how many there are.
    std::size_t push(const EventCommand& command);
    /// Sets an input and reports it, also when it was so already: a receiver may not know yet.
    std::size_t changeInput(unsigned index, bool state);

    /// For the administration.
    Json::Value state() const;
    void clearCounters();

    /// Ends timers, script and connections.
    void stop();

private:
    struct Shared;
    std::shared_ptr<Shared> shared;  ///< shared with the timer's handler
};

}  // namespace simulator

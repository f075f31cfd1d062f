#include <utility>  // ahead of Asio, which forgets it

#include "DeviceEvents.h"

#include "EventPusher.h"
#include "Log.h"
#include "Notification.h"
#include "ScriptPlayer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace simulator
{

struct DeviceEvents::Shared : std::enable_shared_from_this<Shared> {
    using Clock = Subscriptions::Clock;

    Shared(boost::asio::io_context& context, IoState& ioState)
        : io(ioState),
          pusher(context, [this](unsigned id, bool delivered) { subscriptions.countPush(id, delivered); }),
          expiry(context)
    {}

    /// Called after every change of the subscriptions.
    void follow()
    {
        for (const unsigned id : subscriptions.expire(Clock::now())) {
            logLine("subscription " + std::to_string(id) + " expired");
            pusher.forget(id);
        }
        if (script)
            subscriptions.empty() ? script->stop() : script->start();
        expiry.cancel();
        const auto next = subscriptions.nextEnd();
        if (!next)
            return;
        expiry.expires_at(*next);
        expiry.async_wait([weak = weak_from_this()](const boost::system::error_code& cancelled) {
            if (const auto self = weak.lock(); self && !cancelled)
                self->follow();
        });
    }

    std::string reference(const Subscription& subscription) const
    {
        return hostAndPort(subscription.deviceAddress, httpPort) + "/Subscription/Subscribers/" +
               std::to_string(subscription.id);
    }

    std::size_t push(const EventCommand& command)
    {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now).count();
        const auto receivers = subscriptions.list();
        for (const Subscription& to : receivers)
            pusher.push(
                {to.id, to.address, to.port, to.deviceAddress},
                {makeTransmission(command, {hostAndPort(to.address, to.port), reference(to)}, sequence, seconds),
                 command.freshConnection, command.name()});
        sequence += command.count;
        return receivers.size();
    }

    std::size_t changeInput(unsigned index, bool on)
    {
        logLine("input " + std::to_string(index) + (on ? " on" : " off"));
        io.setInput(index, on);
        return push(inputEvent(index, on));
    }

    void perform(const EventScript::Step& step)
    {
        if (const auto* const change = std::get_if<EventScript::InputChange>(&step.what))
            changeInput(change->index, change->state);
        else
            push(std::get<EventCommand>(step.what));
    }

    IoState& io;
    Subscriptions subscriptions;
    EventPusher pusher;
    boost::asio::steady_timer expiry;
    std::optional<ScriptPlayer> script;
    unsigned httpPort = 0;
    std::uint32_t sequence = 1;  ///< "AlarmSeq" of the next notification
};

DeviceEvents::DeviceEvents(boost::asio::io_context& context, IoState& io, std::optional<EventScript> script)
    : shared(std::make_shared<Shared>(context, io))
{
    if (script)
        shared->script.emplace(context, std::move(*script),
                               [self = shared.get()](const EventScript::Step& step) { self->perform(step); });
}

DeviceEvents::~DeviceEvents()
{
    stop();
}

void DeviceEvents::setHttpPort(unsigned port)
{
    shared->httpPort = port;
}

std::optional<Subscription> DeviceEvents::subscribe(const SubscriptionRequest& request,
                                                    const std::string& deviceAddress)
{
    shared->follow();  // those that have expired make room
    auto added = shared->subscriptions.add(request, deviceAddress, Shared::Clock::now());
    if (added)
        logLine("subscription " + std::to_string(added->id) + " for " + hostAndPort(added->address, added->port));
    shared->follow();
    return added;
}

bool DeviceEvents::renew(std::string_view id, std::chrono::seconds duration)
{
    const bool renewed = shared->subscriptions.renew(id, duration, Shared::Clock::now());
    shared->follow();
    return renewed;
}

bool DeviceEvents::cancel(std::string_view id)
{
    const auto cancelled = shared->subscriptions.cancel(id, Shared::Clock::now());
    if (cancelled) {
        logLine("subscription " + std::to_string(*cancelled) + " cancelled");
        shared->pusher.forget(*cancelled);
    }
    shared->follow();
    return cancelled.has_value();
}

void DeviceEvents::forgetSubscriptions()
{
    shared->subscriptions.forgetAll();
    shared->pusher.forgetAll();
    shared->follow();
}

std::string DeviceEvents::reference(const Subscription& subscription) const
{
    return shared->reference(subscription);
}

std::size_t DeviceEvents::push(const EventCommand& command)
{
    return shared->push(command);
}

std::size_t DeviceEvents::changeInput(unsigned index, bool state)
{
    return shared->changeInput(index, state);
}

Json::Value DeviceEvents::state() const
{
    Json::Value out(Json::objectValue);
    out["subscriptions"] = shared->subscriptions.listing(Shared::Clock::now());
    out["counters"] = shared->subscriptions.counters();
    out["inputs"] = shared->io.inputStates();
    out["relays"] = shared->io.relayStates();
    return out;
}

void DeviceEvents::clearCounters()
{
    shared->subscriptions.clearCounters();
}

void DeviceEvents::stop()
{
    if (shared->script)
        shared->script->stop();
    shared->expiry.cancel();
    shared->pusher.forgetAll();
}

}  // namespace simulator

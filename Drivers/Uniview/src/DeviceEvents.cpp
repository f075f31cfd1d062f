#include <utility>

#include "Device.h"

#include "EventListener.h"
#include "LocalServerSettings.h"

#include <Tavro8/IAsyncActionHandler.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

// How a device keeps its event listener: made by the first attempt to connect that has understood its address, at work
// while the device is open, kept across reconnections.
namespace Uniview
{
namespace
{
using Tavro8::ResultCode;

constexpr const char* applying = "Uniview::Device::ApplySettings";
}  // namespace

std::shared_ptr<EventListener> Device::getListener() const
{
    const std::lock_guard lock(listenerMutex);
    return listener;
}

void Device::makeListener()
{
    const std::lock_guard lock(listenerMutex);
    if (listener != nullptr || eventsEnded)
        return;
    const auto made = std::make_shared<EventListener>(this);
    made->pause();  // until the attempt has succeeded
    for (IEventSubscriber* const subscriber : waitingSubscribers)
        made->addSubscriber(subscriber);
    waitingSubscribers.clear();
    listener = made;
}

void Device::onConnected()
{
    Base::onConnected();
    const auto kept = getListener();
    if (kept != nullptr)
        kept->resume([this] { return closings == attemptClosings; });
}

void Device::addSubscriber(IEventSubscriber* subscriber)
{
    guardedVoid(logger, "Uniview::Device::addSubscriber", [&] {
        std::unique_lock lock(listenerMutex);
        if (listener == nullptr)
            return waitingSubscribers.push_back(subscriber);
        const auto kept = listener;
        lock.unlock();
        kept->addSubscriber(subscriber);
    });
}

void Device::removeSubscriber(IEventSubscriber* subscriber)
{
    guardedVoid(logger, "Uniview::Device::removeSubscriber", [&] {
        std::unique_lock lock(listenerMutex);
        std::erase(waitingSubscribers, subscriber);
        const auto kept = listener;
        lock.unlock();
        if (kept != nullptr)
            kept->removeSubscriber(subscriber);
    });
}

/// Counted first: an attempt that is just succeeding either sees the count or is undone by what follows.
void Device::pauseEvents()
{
    ++closings;
    if (const auto kept = getListener())
        kept->pause();
}

void Device::endEvents()
{
    ++closings;
    std::unique_lock lock(listenerMutex);
    eventsEnded = true;
    const auto kept = listener;
    lock.unlock();
    if (kept != nullptr)
        kept->close();
}

void Device::Destroy() noexcept
{
    guardedVoid(logger, "Uniview::Device::Destroy", [this] {
        endEvents();
        endSettings();
    });
    actionGate.close();
    Base::Destroy();  // perhaps the end of this object
}

std::int32_t Device::Open(const char* target) noexcept
{
    if (target != nullptr)
        guardedVoid(logger, "Uniview::Device::Open", [this] {
            pauseEvents();
            runClosingActions();
        });
    return Base::Open(target);
}

void Device::Close() noexcept
{
    guardedVoid(logger, "Uniview::Device::Close", [this] {
        pauseEvents();
        runClosingActions();
    });
    Base::Close();
}

void Device::whenClosing(std::weak_ptr<void> holder, std::function<void()> action)
{
    const std::lock_guard lock(mutex);
    std::erase_if(closingActions, [](const auto& known) { return known.first.expired(); });
    closingActions.emplace_back(std::move(holder), std::move(action));
}

void Device::runClosingActions()
{
    std::unique_lock lock(mutex);
    const auto actions = closingActions;
    lock.unlock();
    for (const auto& [holder, action] : actions) {
        if (const auto held = holder.lock())
            action();
    }
}

/// What is not the listener's.
std::int32_t Device::adjust(const Tavro8::ParameterMap& changed) const
{
    return adjuster.isEmpty() ? toResult(ResultCode::notSupported) : adjuster.apply(changed);
}

std::int32_t Device::applyLocalServer(const Tavro8::ParameterMap& changed, Tavro8::IAsyncActionHandler* actionHandler)
{
    const auto newPort = changed.find(localServerPortKey);
    const auto newIp = changed.find(localServerIpKey);
    std::uint16_t port = 0;  // what the listener takes for "the present one", as an empty address
    std::string ip;
    if (newPort != changed.end() && !isUnset(newPort->second)) {
        const auto given = portOf(newPort->second);
        if (!given) {
            logger.error(applying, "The value of localServerPort is no port; nothing is changed");
            return toResult(ResultCode::invalidArgument);
        }
        port = *given;
    }
    if (newIp != changed.end() && !isUnset(newIp->second)) {
        const auto given = addressOf(newIp->second);
        if (!given) {
            logger.error(applying, "The value of localServerIP is no IP address; nothing is changed");
            return toResult(ResultCode::invalidArgument);
        }
        ip = *given;
    }

    Tavro8::ParameterMap others = changed;
    others.erase(localServerPortKey);
    others.erase(localServerIpKey);
    if (!others.empty()) {
        const std::int32_t result = adjust(others);
        if (result != toResult(ResultCode::success)) {
            logger.error(applying, "The setting ", others.begin()->first,
                         " beside those of the local server is refused; these are not changed");
            return result;
        }
    }

    if (newPort != changed.end())
        parameters.setPersistentParam(localServerPortKey, port == 0 ? boost::any() : boost::any(int{port}));
    if (newIp != changed.end())
        parameters.setPersistentParam(localServerIpKey, ip.empty() ? boost::any() : boost::any(ip));
    // Not here: to leave a port may mean to wait for a delivery, and the host's operations return at once.
    boost::asio::post(service(), [self = shared_from_this(), port, ip, actionHandler] {
        const std::int32_t result = guarded(self->logger, applying, toResult(ResultCode::unexpected), [&] {
            if (const auto kept = self->getListener())
                kept->setLocalServer(port, ip);
            return toResult(ResultCode::success);
        });
        if (actionHandler != nullptr)
            self->actionGate.call([&] { actionHandler->Completed(result); });
    });
    return toResult(ResultCode::success);
}
}  // namespace Uniview

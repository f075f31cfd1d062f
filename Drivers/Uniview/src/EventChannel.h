#pragma once

#include <IpUtil/GlobalService.h>
#include <IpUtil/Logger.h>
#include <IpUtil/LoggerHelper.h>
#include <Tavro8/GDRV/IDeviceChannel.h>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace Uniview
{
class Device;
class IEventSubscriber;

/// What the objects that take part in a device's notifications have in common: start, stop and release towards the
/// host, registration with the device, and the gate before the host's handler. A member of such an object.
///
/// Threads: host threads call `start`, `stop` and `destroy`, which post the work to the device's I/O context; there
/// alone the object is registered and its registration ended. `tell` and the loggers: any thread.
class EventChannel {
public:
    /// What the channel serves; nothing of it is owned.
    struct Parts {
        Device* device;                                     ///< outlives the object, see `destroy`
        IEventSubscriber* subscriber;                       ///< the object as its device knows it
        Tavro8::IContract* contract;                        ///< the object as the host knows it
        Tavro8::GDRV::IAsyncDeviceChannelHandler* handler;  ///< told of start and stop; may be null
        const char* sourcePath;                             ///< of the object, for its log lines
        const char* startName;                              ///< qualified names of its operations, for the same
        const char* stopName;
        const char* destroyName;
    };

    /// `forget` runs before each registration, when no notification is being delivered to the object.
    EventChannel(const Parts& parts, const std::string& objectName, std::function<void()> forget = {});

    /// Gives the host's ownership of the object that this is a member of to itself; `destroy` drops it. Once, right
    /// after construction.
    void adopt(std::shared_ptr<void> object) { self = std::move(object); }

    // `object` is the object that this is a member of. A start of what is started and a stop of what is stopped write
    // their log lines and change nothing.
    void start(const std::shared_ptr<void>& object) noexcept;
    void stop(const std::shared_ptr<void>& object) noexcept;

    /// After it has returned nothing reaches the handler (called from inside a callback: after that callback). The
    /// registration ends shortly afterwards; object and device live until then.
    void destroy() noexcept;
    bool isDestroyed() const noexcept { return gate.isClosed(); }

    /// Calls the host's handler unless the object has been destroyed.
    template <typename Body>
    void tell(Body&& body)
    {
        gate.call(std::forward<Body>(body));
    }

    /// For what the host does.
    const Tavro8::LoggerHelper& log() const noexcept { return logger; }
    /// For what the device sends: warnings and errors that repeat are folded.
    const Tavro8::LoggerHelper& eventLog() const noexcept { return folding; }

private:
    void beginListening();
    void endListening();

    const Parts parts;
    const std::function<void()> forget;
    const std::shared_ptr<void> lifetime;
    const std::shared_ptr<Tavro8::ILogger> deviceLogger;
    Tavro8::LoggerDetail::CollapsingLogger collapser;
    const Tavro8::LoggerHelper logger;
    const Tavro8::LoggerHelper folding;
    Tavro8::Utility::HandlerGate gate;
    bool listening = false;      // only on the I/O context
    std::shared_ptr<void> self;  // the host's reference
};
}  // namespace Uniview

#pragma once

#include <IpUtil/ErrorCode.h>
#include <IpUtil/Export.h>
#include <IpUtil/GlobalService.h>
#include <IpUtil/Http.h>
#include <Tavro8/GDRV/IDevice.h>
#include <Tavro8/ILogger.h>
#include <chrono>
#include <memory>
#include <string>

namespace Tavro8::Utility
{
/// When the next connection attempt is made: 1 s after the first failure, doubling to 30 s, each shortened or
/// lengthened by up to a fifth at random so that devices which failed together do not return together.
class IPUTIL_API Backoff {
public:
    explicit Backoff(std::chrono::milliseconds first = std::chrono::seconds(1),
                     std::chrono::milliseconds limit = std::chrono::seconds(30)) noexcept
        : first(first), limit(limit)
    {}
    /// The delay before the next attempt. `random` is from 0 to 1.
    std::chrono::milliseconds next(double random) noexcept;
    void reset() noexcept { failures = 0; }
    unsigned getFailures() const noexcept { return failures; }

private:
    std::chrono::milliseconds first;
    std::chrono::milliseconds limit;
    unsigned failures = 0;
};

/// Owns the connection cycle of a device: Disconnected, Connecting while `tryConnect` runs, Connected, and on a
/// failure or loss Disconnected again with the next attempt scheduled.
///
/// `tryConnect` runs on a blocking lane of the global service. Host handler calls are made through the gate,
/// never under a lock: `Connected` and `ConnectFailed` on the thread of the attempt, `ConnectionLost` and `Closed`
/// on the device's I/O thread.
class IPUTIL_API AsyncConnectionPolicyBase {
public:
    AsyncConnectionPolicyBase(const AsyncConnectionPolicyBase&) = delete;
    AsyncConnectionPolicyBase& operator=(const AsyncConnectionPolicyBase&) = delete;

    /// Where everything asynchronous of this device runs. Any thread.
    boost::asio::io_context& service() const noexcept;

    bool isConnected() const noexcept;

    /// Whether the device has been connected since it was opened last. A loss does not change that, a close does. Any
    /// thread.
    bool hasBeenConnected() const noexcept;

    /// Told the transport outcome of each management exchange: two failures in a row lose the device. Any thread.
    void reportExchange(const error_code& transportError);

    /// Told when the live stream could not be re-established at the first try: the device is lost. Any thread.
    void reportStreamLost();

protected:
    /// `handler` and `logger` may be null and are not owned. `service` must outlive the object. `backoff` paces the
    /// attempts after a failure, and after a loss that follows soon upon the one before. `streams` tells how many
    /// streams the device may have, see `GlobalService::assignContext`.
    AsyncConnectionPolicyBase(GDRV::IDeviceHandler* handler, ILogger* logger, GlobalService& service,
                              const Backoff& backoff = Backoff(), std::uint32_t streams = 1);
    virtual ~AsyncConnectionPolicyBase();

    /// One attempt; must end with exactly one call of `handleConnected`, on any thread. May block; must be quick
    /// once `cancellation()` is cancelled. Called again and again.
    virtual void tryConnect(const std::string& address) = 0;

    /// How the attempt that is under way ended; `ec` is in the host category. Accepted once an attempt; another call
    /// is logged and ignored. An attempt that throws or returns without it failed with `ResultCode::unexpected`.
    void handleConnected(const error_code& ec);

    /// Called after the state has changed and before the host is told, on the thread of the change. A close is no
    /// loss.
    virtual void onConnected() {}
    virtual void onConnectionLost() {}

    /// What handlers in flight hold so that the object stays alive; usually `shared_from_this()`. Asked for in
    /// `openConnection`.
    virtual std::shared_ptr<void> keepAlive() = 0;
    /// The object as the host knows it.
    virtual GDRV::IDevice* hostDevice() noexcept = 0;

    /// Begins to connect to `address`; a second call while open closes first, and tells so. Any thread.
    void openConnection(const std::string& address);
    /// Ends the cycle: cancels the attempt under way and the next one, tells `Closed` when none is running any
    /// more. An attempt that was given up is not told. Does nothing when the connection is not open. Any thread.
    void closeConnection();
    /// Ends the cycle; after it has returned nothing reaches the handler (when called from inside a handler call:
    /// after that call), `Closed` included. Nothing can be opened any more. Any thread.
    void shutDown() noexcept;

    /// Bound to the requests of `tryConnect`.
    const http::CancellationSource& cancellation() const noexcept;

private:
    struct State;
    std::shared_ptr<State> state;
};
}  // namespace Tavro8::Utility

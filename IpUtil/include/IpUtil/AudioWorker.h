#pragma once

#include <IpUtil/Export.h>
#include <boost/asio/ts/netfwd.hpp>
#include <functional>
#include <memory>
#include <string>

namespace Tavro8::Utility
{
/// One thread with an I/O context of its own, for work that is done in order. Everything here is done by this library's
/// copy of Asio, which alone knows the sockets that are made on the context (see `http::runUntil`).
class IPUTIL_API AudioWorker {
public:
    /// Starts no thread yet: most devices are never spoken to.
    AudioWorker();
    /// Stops the thread and joins it. On the thread itself it is let go instead and ends by itself; then nobody knows
    /// when, so whoever unloads code uses `finish`.
    ~AudioWorker();
    AudioWorker(const AudioWorker&) = delete;
    AudioWorker& operator=(const AudioWorker&) = delete;

    boost::asio::io_context& service() noexcept;

    /// Runs `work`, which must not throw, on the thread, after everything that was posted before. The first call starts
    /// the thread. False when that is not possible, or when the worker has been stopped. Any thread.
    bool post(std::function<void()> work) noexcept;
    /// Whether a thread has been started. Any thread.
    bool isRunning() const noexcept;

    /// Ends the thread once the work under way has returned; what else was posted is not done. Any thread.
    void stop() noexcept;
    /// Waits until the thread has ended; after `stop`. Empty, or why it cannot be joined: on the thread itself that is
    /// refused.
    std::string join() noexcept;

    /// Runs `last`, which stops and joins the worker, on a thread that may wait, one of the global service. False when
    /// there is none.
    static bool runElsewhere(std::function<void()> last) noexcept;

private:
    struct State;
    std::shared_ptr<State> state;  // the thread holds it too
};
}  // namespace Tavro8::Utility

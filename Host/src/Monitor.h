#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <utility>

namespace Host
{
/// One lock and one condition for all that the handlers of a command report, so that the command's thread can
/// wait for any of it at once. Handlers change state under it and never call the module meanwhile.
class Monitor {
public:
    using Clock = std::chrono::steady_clock;

    /// Runs `change` under the lock and wakes the waiting thread.
    template <typename Change>
    void change(Change&& body)
    {
        {
            const std::lock_guard lock(mutex);
            std::forward<Change>(body)();
        }
        condition.notify_all();
    }

    /// The value of `body`, run under the lock.
    template <typename Body>
    auto read(Body&& body) const
    {
        const std::lock_guard lock(mutex);
        return std::forward<Body>(body)();
    }

    /// Waits until `condition`, evaluated under the lock, holds. False when the deadline passed or the user
    /// interrupted before.
    template <typename Predicate>
    bool wait(const std::stop_token& interrupted, Clock::time_point deadline, Predicate&& predicate)
    {
        std::unique_lock lock(mutex);
        return condition.wait_until(lock, interrupted, deadline, std::forward<Predicate>(predicate));
    }

private:
    mutable std::mutex mutex;
    std::condition_variable_any condition;
};
}  // namespace Host

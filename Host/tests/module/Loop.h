#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace Sample
{
/// The thread of one device, on which its handlers are called: runs what is posted, each at its time.
class Loop {
public:
    using Clock = std::chrono::steady_clock;
    using Task = std::function<void()>;

    Loop() : thread([this] { run(); }) {}

    /// Waits for the thread; not to be called on it.
    ~Loop();

    /// Runs `task` at `when`, or as soon as possible after. Any thread.
    void post(const void* owner, Task task, Clock::time_point when = Clock::now());

    /// Drops the waiting tasks of `owner` and waits until a running one has returned, so that nothing of the
    /// owner runs afterwards. On the loop's own thread the running task is the caller and is not waited for.
    void forget(const void* owner);

    bool isCurrentThread() const noexcept { return std::this_thread::get_id() == thread.get_id(); }

private:
    struct Entry {
        const void* owner;
        Task task;
    };

    void run();

    std::mutex mutex;  // guards everything but the thread
    std::condition_variable changed;
    std::multimap<Clock::time_point, Entry> waiting;
    const void* running = nullptr;  ///< owner of the running task
    bool ending = false;
    std::thread thread;
};

/// Ends `loop`. On its own thread, which cannot wait for itself, the loop is put aside for `endRetiredLoops`.
void retire(std::unique_ptr<Loop> loop);

/// Waits for the loops that were put aside. After `finiModule` no thread may run code of the module.
void endRetiredLoops();
}  // namespace Sample

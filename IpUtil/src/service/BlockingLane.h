#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace Tavro8::Utility
{
/// A bounded pool of threads for work that blocks. Threads are started when work finds none idle.
///
/// The queue needs no limit of its own: a connection policy waits with one attempt at a time, and those that it gave
/// up let go of everything and are skipped. Any thread; `mutex` guards everything.
class BlockingLane {
public:
    using Work = std::function<void()>;

    /// `onThreadStart` is called on each new thread. `name` must outlive the lane.
    BlockingLane(const char* name, std::size_t maxThreads, Work onThreadStart);
    ~BlockingLane();  ///< as `stop`
    BlockingLane(const BlockingLane&) = delete;
    BlockingLane& operator=(const BlockingLane&) = delete;

    /// Queues `work`; after `stop` destroys it. Raises `std::system_error` when no thread at all can be started.
    void run(Work work);
    /// Returns when everything has ended and been destroyed that was queued or running at the time of the call.
    void waitForPresentWork();
    /// Destroys what is queued and joins the threads. Not on a thread of the lane.
    void stop() noexcept;

private:
    struct Entry {
        std::uint64_t ticket;
        Work work;
    };
    void threadMain() noexcept;
    void startThreadIfNeeded();

    const char* const name;
    const std::size_t maxThreads;
    const Work onThreadStart;

    std::mutex mutex;
    std::condition_variable workArrived;
    std::condition_variable workEnded;
    std::deque<Entry> queue;
    std::set<std::uint64_t> unfinished;  // tickets of what is queued or running
    std::uint64_t lastTicket = 0;
    std::size_t idle = 0;
    bool stopped = false;
    std::vector<std::thread> threads;
};
}  // namespace Tavro8::Utility

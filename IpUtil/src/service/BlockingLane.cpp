#include "service/BlockingLane.h"
#include "service/ThreadName.h"
#include <utility>

namespace Tavro8::Utility
{
BlockingLane::BlockingLane(const char* name, std::size_t maxThreads, Work onThreadStart)
    : name(name), maxThreads(maxThreads), onThreadStart(std::move(onThreadStart))
{}

BlockingLane::~BlockingLane()
{
    stop();
}

void BlockingLane::run(Work work)
{
    const std::lock_guard lock(mutex);
    if (stopped)
        return;  // `work` is destroyed by the caller, after the lock
    startThreadIfNeeded();
    queue.push_back({lastTicket + 1, std::move(work)});
    unfinished.insert(++lastTicket);
    workArrived.notify_one();
}

void BlockingLane::startThreadIfNeeded()
{
    if (idle > queue.size() || threads.size() == maxThreads)
        return;
    try {
        threads.emplace_back([this] { threadMain(); });
    } catch (...) {
        if (threads.empty())
            throw;  // otherwise the work waits for one of the others
    }
}

void BlockingLane::threadMain() noexcept
{
    nameThisThread(name);
    onThreadStart();
    std::unique_lock lock(mutex);
    for (;;) {
        ++idle;
        workArrived.wait(lock, [this] { return stopped || !queue.empty(); });
        --idle;
        if (stopped)
            return;
        Entry entry = std::move(queue.front());
        queue.pop_front();
        lock.unlock();
        try {
            entry.work();
        } catch (...) {  // work must not throw; a thread of the host's process does not end for it
        }
        entry.work = nullptr;  // what it held goes before it counts as ended
        lock.lock();
        unfinished.erase(entry.ticket);
        workEnded.notify_all();
    }
}

void BlockingLane::waitForPresentWork()
{
    std::unique_lock lock(mutex);
    workEnded.wait(lock, [this, last = lastTicket] { return unfinished.empty() || *unfinished.begin() > last; });
}

void BlockingLane::stop() noexcept
{
    std::deque<Entry> dropped;  // destroyed without the lock, since what they hold may call back
    std::vector<std::thread> ended;
    {
        const std::lock_guard lock(mutex);
        stopped = true;
        dropped.swap(queue);
        ended.swap(threads);
        for (const Entry& entry : dropped)
            unfinished.erase(entry.ticket);
        workArrived.notify_all();
        workEnded.notify_all();
    }
    dropped.clear();
    for (std::thread& thread : ended)
        thread.join();
}
}  // namespace Tavro8::Utility

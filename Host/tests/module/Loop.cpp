#include "Loop.h"

#include <utility>
#include <vector>

namespace Sample
{
namespace
{
std::mutex retiredMutex;
std::vector<std::unique_ptr<Loop>> retired;  // guarded by retiredMutex
}  // namespace

Loop::~Loop()
{
    {
        const std::lock_guard lock(mutex);
        ending = true;
    }
    changed.notify_all();
    thread.join();
}

void Loop::post(const void* owner, Task task, Clock::time_point when)
{
    {
        const std::lock_guard lock(mutex);
        waiting.emplace(when, Entry{owner, std::move(task)});
    }
    changed.notify_all();
}

void Loop::forget(const void* owner)
{
    std::vector<Task> dropped;  // destroyed without the lock: a task may hold the last reference to something
    std::unique_lock lock(mutex);
    for (auto it = waiting.begin(); it != waiting.end();) {
        if (it->second.owner == owner) {
            dropped.push_back(std::move(it->second.task));
            it = waiting.erase(it);
        } else {
            ++it;
        }
    }
    if (!isCurrentThread())
        changed.wait(lock, [&] { return running != owner; });
    lock.unlock();
}

void Loop::run()
{
    std::unique_lock lock(mutex);
    while (!ending) {
        if (waiting.empty()) {
            changed.wait(lock);
            continue;
        }
        if (const auto next = waiting.begin()->first; next > Clock::now()) {
            changed.wait_until(lock, next);
            continue;
        }
        Entry entry = std::move(waiting.extract(waiting.begin()).mapped());
        running = entry.owner;
        lock.unlock();
        entry.task();
        entry.task = nullptr;
        lock.lock();
        running = nullptr;
        changed.notify_all();
    }
}

void retire(std::unique_ptr<Loop> loop)
{
    if (!loop->isCurrentThread())
        return;  // the destructor waits
    const std::lock_guard lock(retiredMutex);
    retired.push_back(std::move(loop));
}

void endRetiredLoops()
{
    std::vector<std::unique_ptr<Loop>> ending;
    {
        const std::lock_guard lock(retiredMutex);
        ending.swap(retired);
    }
}
}  // namespace Sample

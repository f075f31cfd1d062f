#include "service/ThreadName.h"

#include <IpUtil/AudioWorker.h>
#include <IpUtil/GlobalService.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/thread/thread.hpp>
#include <mutex>
#include <utility>

namespace Tavro8::Utility
{
struct AudioWorker::State {
    boost::asio::io_context service{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard{service.get_executor()};
    mutable std::mutex mutex;  // guards all below
    boost::thread thread;
    boost::thread::id worker;  // once it has been started
    bool stopped = false;
};

AudioWorker::AudioWorker() : state(std::make_shared<State>()) {}

AudioWorker::~AudioWorker()
{
    stop();
    if (join().empty())
        return;
    const std::lock_guard lock(state->mutex);
    if (state->thread.joinable())
        state->thread.detach();
}

boost::asio::io_context& AudioWorker::service() noexcept
{
    return state->service;
}

bool AudioWorker::post(std::function<void()> work) noexcept
try {
    const std::lock_guard lock(state->mutex);
    if (state->stopped)
        return false;
    if (state->worker == boost::thread::id{}) {
        state->thread = boost::thread([held = state] {
            nameThisThread("kelvo-talk");
            held->service.run();
        });
        state->worker = state->thread.get_id();
    }
    boost::asio::post(state->service, std::move(work));
    return true;
} catch (...) {  // no thread, no memory
    return false;
}

bool AudioWorker::isRunning() const noexcept
{
    const std::lock_guard lock(state->mutex);
    return state->worker != boost::thread::id{} && !state->stopped;
}

void AudioWorker::stop() noexcept
{
    const std::lock_guard lock(state->mutex);
    state->stopped = true;
    state->service.stop();
}

std::string AudioWorker::join() noexcept
try {
    std::unique_lock lock(state->mutex);
    if (!state->thread.joinable())
        return {};
    if (state->worker == boost::this_thread::get_id())
        state->thread.join();  // is refused
    boost::thread ending = std::move(state->thread);
    lock.unlock();
    ending.join();
    return {};
} catch (const std::exception& e) {
    return e.what();
}

bool AudioWorker::runElsewhere(std::function<void()> last) noexcept
try {
    GlobalService::instance()->runBlocking(GlobalService::Lane::prompt, std::move(last));
    return true;
} catch (...) {  // no thread, no memory
    return false;
}
}  // namespace Tavro8::Utility

#include <utility>

#include "service/BlockingLane.h"
#include "service/ThreadName.h"
#include <IpUtil/GlobalService.h>
#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <cassert>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Tavro8::Utility
{
namespace
{
constexpr std::size_t promptThreads = 8;
constexpr std::size_t failingThreads = 4;

// The service whose thread this is; compared only, never followed.
thread_local const void* serviceOfThisThread = nullptr;

/// One I/O context with the thread that runs it. The hint says that no other thread does, which spares locks.
class Worker {
public:
    Worker() : context(1), guard(context.get_executor()) {}

    void start(const void* service, std::string name)
    {
        thread = std::thread([this, service, name = std::move(name)] {
            nameThisThread(name.c_str());
            serviceOfThisThread = service;
            run();
        });
    }
    void stop() noexcept
    {
        context.stop();
        if (thread.joinable())
            thread.join();
    }

    boost::asio::io_context context;
    std::uint64_t streams = 0;  // assigned; guarded by the service's `assignment`

private:
    void run() noexcept
    {
        for (;;) {
            try {
                context.run();
                return;
            } catch (...) {  // a handler's exception costs that handler and not the other devices of the thread
            }
        }
    }

    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard;
    std::thread thread;
};

/// Returns when `context` has run what was due. The second round lets those handlers run that became ready with
/// the first, such as timers that had expired.
void drain(boost::asio::io_context& context)
{
    for (int round = 0; round < 2; ++round) {
        auto passed = std::make_shared<std::promise<void>>();
        boost::asio::post(context, [passed] { passed->set_value(); });
        passed->get_future().wait();
    }
}
}  // namespace

struct GlobalService::State {
    State()
        : prompt("ipu-connect", promptThreads, [this] { serviceOfThisThread = this; }),
          failing("ipu-retry", failingThreads, [this] { serviceOfThisThread = this; })
    {
        const std::size_t count = std::max(1U, std::thread::hardware_concurrency());
        for (std::size_t i = 0; i < count; ++i)
            workers.push_back(std::make_unique<Worker>());
    }

    ~State()
    {
        // Blocked work may wait for the I/O threads, so these end last.
        prompt.stop();
        failing.stop();
        if (server != nullptr)
            server->stop();
        for (const auto& worker : workers)
            worker->stop();
    }

    void start()
    {
        for (std::size_t i = 0; i < workers.size(); ++i)
            workers[i]->start(this, "ipu-io-" + std::to_string(i));
    }

    Worker& startedServer()
    {
        const std::lock_guard lock(serverMutex);
        if (server == nullptr) {
            auto made = std::make_unique<Worker>();
            made->start(this, "ipu-server");
            server = std::move(made);
        }
        return *server;
    }
    Worker* getServer()
    {
        const std::lock_guard lock(serverMutex);
        return server.get();
    }

    BlockingLane prompt;
    BlockingLane failing;
    std::vector<std::unique_ptr<Worker>> workers;
    std::mutex assignment;  // guards the counts of the workers
    std::mutex serverMutex;  // guards the pointer below, which once set stays
    std::unique_ptr<Worker> server;
};

std::shared_ptr<GlobalService> GlobalService::instance()
{
    static std::mutex mutex;
    static std::weak_ptr<GlobalService> current;
    const std::lock_guard lock(mutex);
    std::shared_ptr<GlobalService> service = current.lock();
    if (service == nullptr) {
        service.reset(new GlobalService());  // the constructor is private
        current = service;
    }
    return service;
}

GlobalService::GlobalService() : state(std::make_unique<State>())
{
    state->start();
}

GlobalService::~GlobalService()
{
    if (serviceOfThisThread != state.get())
        return;
    // A thread cannot wait for its own end: another one does, and destroys what this one still runs on.
    State* const left = state.release();
    try {
        std::thread([left] { const std::unique_ptr<State> ended(left); }).detach();
    } catch (...) {  // the system gives no thread: leaving the idle ones behind is better than a deadlock
    }
}

boost::asio::io_context& GlobalService::assignContext(std::uint32_t streams) noexcept
{
    const auto& workers = state->workers;
    const std::lock_guard lock(state->assignment);
    auto chosen = std::ranges::find_if(workers, [](const auto& worker) { return worker->streams < streamsPerTurn; });
    if (chosen == workers.end())
        chosen = std::ranges::min_element(workers, {}, [](const auto& worker) { return worker->streams; });
    (*chosen)->streams += std::max(1U, streams);
    return (*chosen)->context;
}

void GlobalService::releaseContext(const boost::asio::io_context& context, std::uint32_t streams) noexcept
{
    const std::lock_guard lock(state->assignment);
    const auto found =
        std::ranges::find(state->workers, &context, [](const auto& worker) { return &std::as_const(worker->context); });
    assert(found != state->workers.end() && (*found)->streams >= std::max(1U, streams));
    if (found != state->workers.end())
        (*found)->streams -= std::min<std::uint64_t>((*found)->streams, std::max(1U, streams));
}

boost::asio::io_context& GlobalService::getServerContext()
{
    return state->startedServer().context;
}

std::size_t GlobalService::getContextCount() const noexcept
{
    return state->workers.size();
}

void GlobalService::runBlocking(Lane lane, std::function<void()> work)
{
    (lane == Lane::prompt ? state->prompt : state->failing).run(std::move(work));
}

void GlobalService::barrier()
{
    assert(serviceOfThisThread != state.get());
    // The lanes and the server first: what ends there is reported to the I/O contexts.
    state->prompt.waitForPresentWork();
    state->failing.waitForPresentWork();
    if (Worker* const server = state->getServer())
        drain(server->context);
    for (const auto& worker : state->workers)
        drain(worker->context);
}
}  // namespace Tavro8::Utility

#pragma once

#include <IpUtil/Export.h>
#include <boost/asio/ts/netfwd.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace Tavro8::Utility
{
/// The worker threads that all modules of a process share: a fixed pool of I/O contexts with one thread each, one more
/// for servers, and two bounded pools for work that blocks. They live as long as somebody holds the shared reference.
class IPUTIL_API GlobalService {
public:
    /// The service of the process, made when nobody holds one. Any thread.
    static std::shared_ptr<GlobalService> instance();

    /// Stops and joins the threads; what was queued is destroyed without having run. When the last reference goes on
    /// a thread of the service, another thread does so, shortly afterwards.
    ~GlobalService();
    GlobalService(const GlobalService&) = delete;
    GlobalService& operator=(const GlobalService&) = delete;

    /// How many streams one I/O context is given before the next one has its turn.
    static constexpr std::uint32_t streamsPerTurn = 256;

    /// An I/O context for a new device of at most so many streams (0 counts as 1). It lives as long as the service.
    /// Devices share a context until it has `streamsPerTurn`: one thread that finds several packets when it wakes costs
    /// less than two that wake for each, and its caches stay warm. When all have as many, the one with the fewest is
    /// given. Any thread.
    boost::asio::io_context& assignContext(std::uint32_t streams = 1) noexcept;
    /// The device that `assignContext` gave `context` for so many streams is gone: others may have its place. Any
    /// thread.
    void releaseContext(const boost::asio::io_context& context, std::uint32_t streams = 1) noexcept;
    std::size_t getContextCount() const noexcept;

    /// The I/O context of servers, on which devices call us. Apart from the others, so that neither waits for the
    /// other; its one thread starts with the first call. Raises `std::system_error` when the system gives none.
    boost::asio::io_context& getServerContext();

    /// Where blocking work runs. Devices that keep failing have threads of their own, so that first attempts and
    /// fresh losses never queue behind their time-outs.
    enum class Lane { prompt, failing };

    /// Runs `work` on a thread of the lane when one is free. `work` must not throw. Raises `std::system_error` when
    /// the system gives no thread at all.
    void runBlocking(Lane lane, std::function<void()> work);

    /// Returns when everything that was running or due on every thread at the time of the call has ended. Must not
    /// be called on a thread of the service.
    void barrier();

private:
    GlobalService();
    struct State;
    std::unique_ptr<State> state;
};

/// Counts the objects of a module that are still in use, by handlers in flight or by the host. A module waits for
/// it when it ends, since its code may be unloaded right afterwards.
class IPUTIL_API LifetimeGate {
public:
    LifetimeGate();
    ~LifetimeGate();
    LifetimeGate(const LifetimeGate&) = delete;
    LifetimeGate& operator=(const LifetimeGate&) = delete;

    /// The gate counts the token and its copies as one object until the last is gone. Any thread.
    std::shared_ptr<void> enter();
    /// Blocks until no token is left.
    void waitUntilEmpty();

private:
    struct State;
    std::shared_ptr<State> state;
};

/// Stands between an object and the handlers that the host gave it: after `close` has returned no call is under way
/// and none begins. Thread-safe; costs two atomic operations a call.
class IPUTIL_API HandlerGate {
public:
    HandlerGate();
    ~HandlerGate();
    HandlerGate(const HandlerGate&) = delete;
    HandlerGate& operator=(const HandlerGate&) = delete;

    /// Runs `body` unless the gate is closed; says whether it ran.
    template <typename Body>
    bool call(Body&& body)
    {
        const Passage passage(*this);
        if (!passage.isOpen())
            return false;
        std::forward<Body>(body)();
        return true;
    }

    /// Refuses calls from now on and waits for those of other threads; a call that this thread is inside of is
    /// not waited for, so that an object may be destroyed from its own callback.
    void close() noexcept;
    bool isClosed() const noexcept;

private:
    struct State;
    /// One call that is under way. Lies on the stack, so that those of a thread end in reverse order.
    class IPUTIL_API Passage {
    public:
        explicit Passage(HandlerGate& gate) noexcept;
        ~Passage();
        Passage(const Passage&) = delete;
        Passage& operator=(const Passage&) = delete;
        bool isOpen() const noexcept { return open; }

    private:
        friend class HandlerGate;
        State* state;
        Passage* outer;                    // the passage that this thread entered before
        std::shared_ptr<State> keepState;  // set when this thread closes the gate: it may be destroyed then
        bool open = false;
    };
    std::shared_ptr<State> state;
};
}  // namespace Tavro8::Utility

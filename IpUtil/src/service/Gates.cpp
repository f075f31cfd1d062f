#include <IpUtil/GlobalService.h>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Tavro8::Utility
{
struct LifetimeGate::State {
    std::mutex mutex;
    std::condition_variable emptied;
    std::size_t inside = 0;
};

LifetimeGate::LifetimeGate() : state(std::make_shared<State>()) {}

LifetimeGate::~LifetimeGate() = default;

std::shared_ptr<void> LifetimeGate::enter()
{
    {
        const std::lock_guard lock(state->mutex);
        ++state->inside;
    }
    // Counted first: should no memory be left for the token, its deleter runs all the same.
    return {static_cast<void*>(state.get()), [state = state](void*) {
                const std::lock_guard lock(state->mutex);
                if (--state->inside == 0)
                    state->emptied.notify_all();
            }};
}

void LifetimeGate::waitUntilEmpty()
{
    std::unique_lock lock(state->mutex);
    state->emptied.wait(lock, [this] { return state->inside == 0; });
}

/// `word` holds the number of open passages and the closed flag. While the gate is open, passages come and go with one
/// compare-and-swap each. Once it is closed, they leave under `mutex`, since who closes may free the state as soon as
/// it has seen the last one go.
struct HandlerGate::State {
    static constexpr std::uint32_t closedFlag = 0x8000'0000U;

    std::atomic<std::uint32_t> word{0};
    std::mutex mutex;
    std::condition_variable left;
    /// Passages of threads that are in `close` at this moment; guarded by `mutex`. They are not waited for, since
    /// two threads that close from inside their calls would otherwise wait for each other.
    std::uint32_t insideClosers = 0;
};

namespace
{
// The innermost passage of this thread, whatever its gate.
thread_local void* innermostPassage = nullptr;
}  // namespace

HandlerGate::HandlerGate() : state(std::make_shared<State>()) {}

HandlerGate::~HandlerGate()
{
    close();
}

HandlerGate::Passage::Passage(HandlerGate& gate) noexcept
    : state(gate.state.get()), outer(static_cast<Passage*>(innermostPassage)), open(false)
{
    std::uint32_t word = state->word.load(std::memory_order_relaxed);
    while ((word & State::closedFlag) == 0 && !open)
        open = state->word.compare_exchange_weak(word, word + 1, std::memory_order_acquire, std::memory_order_relaxed);
    if (open)
        innermostPassage = this;
}

HandlerGate::Passage::~Passage()
{
    if (!open)
        return;
    innermostPassage = outer;
    std::uint32_t word = state->word.load(std::memory_order_relaxed);
    while ((word & State::closedFlag) == 0) {
        if (state->word.compare_exchange_weak(word, word - 1, std::memory_order_release, std::memory_order_relaxed))
            return;
    }
    const std::lock_guard lock(state->mutex);
    state->word.fetch_sub(1, std::memory_order_release);
    state->left.notify_all();
}

void HandlerGate::close() noexcept
{
    const auto kept = state;
    std::unique_lock lock(kept->mutex);
    kept->word.fetch_or(State::closedFlag, std::memory_order_acquire);
    std::uint32_t own = 0;
    for (auto* passage = static_cast<Passage*>(innermostPassage); passage != nullptr; passage = passage->outer) {
        if (passage->state == kept.get()) {
            passage->keepState = kept;
            ++own;
        }
    }
    kept->insideClosers += own;
    kept->left.notify_all();  // another closer no longer waits for this thread's passages
    kept->left.wait(
        lock, [&] { return (kept->word.load(std::memory_order_acquire) & ~State::closedFlag) == kept->insideClosers; });
    kept->insideClosers -= own;
}

bool HandlerGate::isClosed() const noexcept
{
    return (state->word.load(std::memory_order_acquire) & State::closedFlag) != 0;
}
}  // namespace Tavro8::Utility

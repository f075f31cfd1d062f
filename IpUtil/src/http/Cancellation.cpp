#include "http/Cancellation.h"

namespace Tavro8::http
{
void CancellationSource::State::bind(const CancellationPtr& request)
{
    {
        const std::lock_guard lock(mutex);
        if (!cancelled) {
            requests.push_back(request);
            return;
        }
    }
    request->cancel();
}

void CancellationSource::State::unbind(const CancellationPtr& request) noexcept
{
    const std::lock_guard lock(mutex);
    std::erase_if(requests, [&](const auto& bound) { return bound.expired() || bound.lock() == request; });
}

void CancellationSource::State::cancel() noexcept
{
    std::vector<std::weak_ptr<ICancellation>> bound;
    {
        const std::lock_guard lock(mutex);
        cancelled = true;
        bound.swap(requests);
    }
    for (const auto& weak : bound) {
        if (const auto request = weak.lock())
            request->cancel();
    }
}

CancellationSource::CancellationSource() : state(std::make_shared<State>()) {}

void CancellationSource::cancel() noexcept
{
    state->cancel();
}

bool CancellationSource::isCancelled() const noexcept
{
    const std::lock_guard lock(state->mutex);
    return state->cancelled;
}

void CancellationSource::reset() noexcept
{
    const std::lock_guard lock(state->mutex);
    state->cancelled = false;
}
}  // namespace Tavro8::http

#include "CancellationDouble.h"
#include <IpUtil/ErrorCode.h>
#include <condition_variable>
#include <mutex>

namespace Tavro8
{
namespace http
{
struct CancellationSource::State {
    std::mutex mutex;
    std::condition_variable changed;
    bool cancelled = false;
};

CancellationSource::CancellationSource() : state(std::make_shared<State>()) {}

void CancellationSource::cancel() noexcept
{
    const std::lock_guard lock(state->mutex);
    state->cancelled = true;
    state->changed.notify_all();
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
}  // namespace http

std::int32_t Utility::translateSystemError(const error_code& ec) noexcept
{
    if (!ec || ec.category() == get_tavro8_category())
        return ec.value();
    if (ec == boost::system::errc::operation_canceled)
        return toResult(ResultCode::cancelled);
    return toResult(ResultCode::connectionLost);
}
}  // namespace Tavro8

void waitUntilCancelled(const Tavro8::http::CancellationSource& source)
{
    auto& state = *source.getState();
    std::unique_lock lock(state.mutex);
    state.changed.wait(lock, [&] { return state.cancelled; });
}

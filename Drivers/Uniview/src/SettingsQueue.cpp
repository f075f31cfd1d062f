#include <utility>

#include "SettingsQueue.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <iterator>

namespace Uniview
{
using Tavro8::ResultCode;
using Tavro8::toResult;

SettingsQueue::SettingsQueue(boost::asio::io_context& context, std::function<bool()> hasBeenConnected)
    : context(context), hasBeenConnected(std::move(hasBeenConnected))
{}

std::int32_t SettingsQueue::take(Request request)
{
    const Tavro8::LoggerHelper& logger = *request.logger;
    const char* const place = request.place;
    if (request.concernsDevice && !hasBeenConnected()) {
        logger.error(place, "Settings can be applied once the device has connected");
        return toResult(ResultCode::invalidState);
    }
    {
        const std::lock_guard lock(mutex);
        if (ended)
            return toResult(ResultCode::invalidState);  // the host uses a source behind its device's end
        const bool counts = request.counts;
        if (!counts || taken < maxTaken) {
            waiting.push_back(std::move(request));
            taken += counts ? 1 : 0;
            if (!underWay)
                postNext();
            return toResult(ResultCode::success);
        }
    }
    logger.error(place, "Too many settings wait for the device");
    return toResult(ResultCode::deviceBusy);
}

void SettingsQueue::drop(const void* owner) noexcept
{
    std::deque<Request> dropped;  // goes after the lock: it may hold the last references to sources and devices
    const std::lock_guard lock(mutex);
    const auto first = std::stable_partition(waiting.begin(), waiting.end(),
                                             [owner](const Request& request) { return request.owner != owner; });
    dropped.assign(std::make_move_iterator(first), std::make_move_iterator(waiting.end()));
    waiting.erase(first, waiting.end());
    taken -= static_cast<std::size_t>(std::ranges::count(dropped, true, &Request::counts));
}

void SettingsQueue::end() noexcept
{
    std::deque<Request> dropped;  // as above
    const std::lock_guard lock(mutex);
    ended = true;
    dropped.swap(waiting);
}

void SettingsQueue::releaseTurn(bool counts) noexcept
try {
    const std::lock_guard lock(mutex);
    underWay = false;
    taken -= counts ? 1 : 0;
    if (!waiting.empty())
        postNext();
} catch (...) {  // no memory: the next request that is taken carries on
}

/// Not at once: whoever lets go of a turn has still to say how his request ended.
void SettingsQueue::postNext()
{
    boost::asio::post(context, [self = shared_from_this()] { self->beginNext(); });
}

void SettingsQueue::beginNext()
{
    std::unique_lock lock(mutex);
    if (underWay || waiting.empty())
        return;
    const Request request = std::move(waiting.front());
    waiting.pop_front();
    underWay = true;
    lock.unlock();
    Tavro8::guardedVoid(*request.logger, request.place, [&] {
        request.begin(
            Turn(this, [self = shared_from_this(), counts = request.counts](void*) { self->releaseTurn(counts); }));
    });
}
}  // namespace Uniview

#include <utility>

#include "server/EventSession.h"

#include "server/EventConnection.h"

namespace Tavro8::server
{
EventSession::EventSession(std::string remoteAddress, EventConnection& connection)
    : remoteAddress(std::move(remoteAddress)), connection(&connection)
{}

bool EventSession::send(std::string_view bytes)
{
    const std::lock_guard lock(mutex);
    if (connection == nullptr || closing)
        return false;
    const bool fits = bytes.size() <= maxWaitingBytes - waiting.size();
    if (fits) {
        waiting.append(bytes);
    } else {
        waiting.clear();
        closing = true;
    }
    askToFlush();
    return fits;
}

void EventSession::close() noexcept
try {
    const std::lock_guard lock(mutex);
    if (connection == nullptr || std::exchange(closing, true))
        return;
    askToFlush();
} catch (...) {  // no memory to ask for it: nothing more is delivered, and the idle limit ends the connection
}

void EventSession::detach() noexcept
{
    const std::lock_guard lock(mutex);
    connection = nullptr;
}

bool EventSession::takeWaiting(std::string& into)
{
    const std::lock_guard lock(mutex);
    flushAsked = false;
    into.clear();
    into.swap(waiting);
    return closing;
}

bool EventSession::isClosing() const noexcept
{
    const std::lock_guard lock(mutex);
    return closing;
}

/// Under the lock.
void EventSession::askToFlush()
{
    if (flushAsked)
        return;
    connection->flushLater();
    flushAsked = true;
}
}  // namespace Tavro8::server

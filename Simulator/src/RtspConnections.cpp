#include "RtspConnections.h"

namespace simulator
{

RtspConnections::Id RtspConnections::add(GSocket* socket)
{
    const std::lock_guard lock(mutex);
    ++count;
    open.emplace(++last, Connection{share(socket)});
    return last;
}

void RtspConnections::remove(Id connection)
{
    const std::lock_guard lock(mutex);
    open.erase(connection);
}

void RtspConnections::noteWish(Id connection, const std::string& path)
{
    const std::lock_guard lock(mutex);
    if (const auto found = open.find(connection); found != open.end())
        found->second.paths.insert(path);
}

void RtspConnections::shutDown(const Connection& connection)
{
    g_socket_shutdown(connection.socket.get(), TRUE, TRUE, nullptr);
}

void RtspConnections::close(Id connection)
{
    const std::lock_guard lock(mutex);
    if (const auto found = open.find(connection); found != open.end())
        shutDown(found->second);
}

void RtspConnections::closeThoseThatAskedFor(const std::string& path)
{
    const std::lock_guard lock(mutex);
    for (const auto& [id, connection] : open)
        if (connection.paths.contains(path))
            shutDown(connection);
}

void RtspConnections::closeAll()
{
    const std::lock_guard lock(mutex);
    for (const auto& [id, connection] : open)
        shutDown(connection);
}

std::size_t RtspConnections::openCount() const
{
    const std::lock_guard lock(mutex);
    return open.size();
}

unsigned RtspConnections::total() const
{
    const std::lock_guard lock(mutex);
    return count;
}

void RtspConnections::forgetTotal()
{
    const std::lock_guard lock(mutex);
    count = 0;
}

}  // namespace simulator

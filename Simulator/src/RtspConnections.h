#pragma once

#include "Glib.h"

#include <gio/gio.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace simulator
{

/// The RTSP connections that are open, and which streams each has asked for. Any thread.
class RtspConnections {
public:
    using Id = std::uint64_t;

    /// Shares the socket.
    Id add(GSocket* socket);
    /// The connection is over.
    void remove(Id connection);
    /// From its first question about a stream on, a client relies on the stream's format.
    void noteWish(Id connection, const std::string& path);

    /// Each shuts connections down. The thread that reads them sees the end and cleans up.
    void close(Id connection);
    void closeThoseThatAskedFor(const std::string& path);
    void closeAll();

    std::size_t openCount() const;
    unsigned total() const;  ///< since `forgetTotal`
    void forgetTotal();

private:
    struct Connection {
        GlibPointer<GSocket> socket;
        std::set<std::string> paths{};
    };
    static void shutDown(const Connection& connection);

    mutable std::mutex mutex;  ///< guards what follows
    std::map<Id, Connection> open;
    Id last = 0;
    unsigned count = 0;
};

}  // namespace simulator

#pragma once

#include "Archive.h"
#include "Authentication.h"
#include "Fault.h"
#include "Options.h"

#include <json/value.h>

#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <memory>

namespace simulator
{

/// Recorded media over RTSP, on connections that others have accepted. A server of its own beside the one of the live
/// streams, whose sender reports cannot name another time than that of sending, and which does not say goodbye at the
/// end. The operations are called on the I/O context; clients are handled on a thread of their own, and GStreamer
/// encodes on further ones.
class ReplayServer {
public:
    /// Nothing but `credentials` is owned; everything outlives the server. GStreamer has been initialised.
    ReplayServer(const Options& options, const Authenticator::Settings& credentials, const Archive& archive,
                 const FaultTable& faults);
    ~ReplayServer();
    ReplayServer(const ReplayServer&) = delete;
    ReplayServer& operator=(const ReplayServer&) = delete;

    using ConnectionId = std::uint64_t;
    /// Serves a connection, of which nothing has been read, until either side closes it.
    ConnectionId serve(boost::asio::ip::tcp::socket socket);
    /// Closes a connection, if it still is there.
    void close(ConnectionId connection);
    void closeAll();

    /// As ReplayBoard has them.
    Json::Value replays() const;
    Json::Value counters() const;
    void clearCounters();

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace simulator

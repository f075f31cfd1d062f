#pragma once

#include "Fault.h"
#include "Listener.h"

#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <memory>

namespace simulator
{

class MediaServer;
class ReplayServer;

/// Accepts RTSP connections, lets the faults that strike a connection do their work, and hands what is left to the
/// server of live media or, by what is asked for first, of recorded media. One who asks for nothing is not kept. Used
/// on the I/O context only.
class RtspPort {
public:
    /// Nothing is owned; everything outlives the port. `replays` is null when nothing is recorded. Throws when the port
    /// cannot be had.
    RtspPort(boost::asio::io_context& context, const boost::asio::ip::tcp::endpoint& endpoint, const FaultTable& faults,
             MediaServer& media, ReplayServer* replays);
    ~RtspPort();

    std::uint16_t port() const;
    void open();
    /// Closes the port and every connection.
    void close();
    /// Closes every connection.
    void dropConnections();

private:
    struct State;
    std::shared_ptr<State> state;
    Listener listener;
};

}  // namespace simulator

#pragma once

#include "ScriptedPeer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace Tavro8::Utility::testkit
{
/// A device's two UDP ports of one track, chosen by the system. Never waits, so that the test may play the device's
/// part between two turns of the client. `accept` may be called by the peer's thread.
class UdpEnd {
public:
    explicit UdpEnd(const std::string& address = "127.0.0.1");

    /// Takes the client's ports from its Transport header; the device's answer, which names its own.
    std::string accept(const std::string& asked);
    /// The same without naming them.
    std::string acceptSilently(const std::string& asked);
    bool isAccepted() const;

    void sendRtp(const Bytes& packet);
    void sendRtp(const std::vector<Bytes>& packets);
    void sendRtcp(const Bytes& packet);

    /// What has come from the client since the last call.
    std::vector<Bytes> takeRtp() { return take(rtp); }
    std::vector<Bytes> takeRtcp() { return take(rtcp); }

    std::uint16_t clientRtpPort() const;

private:
    using udp = boost::asio::ip::udp;

    void send(udp::socket& socket, const Bytes& packet, std::uint16_t port);
    std::vector<Bytes> take(udp::socket& socket);

    boost::asio::io_context io;
    udp::socket rtp;
    udp::socket rtcp;
    mutable std::mutex mutex;  // guards the client's ports
    std::uint16_t clientRtp = 0;
    std::uint16_t clientRtcp = 0;
};
}  // namespace Tavro8::Utility::testkit

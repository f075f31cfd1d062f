#pragma once

#include "Descriptor.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>

namespace kelvo::bench
{
using Address = sockaddr_in;

std::uint16_t portOf(int socket);  ///< the local one

/// Listens on a free port of the loopback interface.
Descriptor listener();

/// Sockets of the loopback interface: an even port and the one above it (RFC 3550 section 11).
struct UdpPair {
    Descriptor rtp;
    Descriptor rtcp;
};

/// Binds free ports; throws `std::runtime_error` when there are none.
UdpPair bindUdpPair();

/// Datagrams on their way to `sendmmsg`, copied: the recording changes with each stream.
class Outbox {
public:
    explicit Outbox(int udpSocket);  ///< the socket is not owned

    void add(std::span<const std::uint8_t> packet, const Address& target);
    void flush();

private:
    static constexpr std::size_t capacity = 128;
    int socket;
    std::size_t used = 0;
    std::array<std::array<std::uint8_t, 1500>, capacity> bytes{};
    std::array<iovec, capacity> vectors{};
    std::array<Address, capacity> targets{};
    std::array<mmsghdr, capacity> messages{};
};

}  // namespace kelvo::bench

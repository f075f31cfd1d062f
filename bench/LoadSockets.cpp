#include "LoadSockets.h"

#include <arpa/inet.h>
#include <cstring>
#include <stdexcept>

namespace kelvo::bench
{
namespace
{
Address loopback(std::uint16_t port)
{
    Address address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

Descriptor bound(int type, std::uint16_t port)
{
    Descriptor socket(checked(::socket(AF_INET, type | SOCK_CLOEXEC, 0), "socket"));
    const Address address = loopback(port);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return {};
    return socket;
}
}  // namespace

std::uint16_t portOf(int socket)
{
    Address address{};
    socklen_t length = sizeof address;
    checked(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    return ntohs(address.sin_port);
}

Descriptor listener()
{
    Descriptor socket = bound(SOCK_STREAM | SOCK_NONBLOCK, 0);
    checked(::listen(socket.get(), SOMAXCONN), "listen");
    return socket;
}

UdpPair bindUdpPair()
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        Descriptor rtp = bound(SOCK_DGRAM, 0);
        const std::uint16_t port = portOf(rtp.get());
        if (port % 2 != 0)
            continue;
        if (Descriptor rtcp = bound(SOCK_DGRAM | SOCK_NONBLOCK, static_cast<std::uint16_t>(port + 1)); rtcp.get() >= 0)
            return {std::move(rtp), std::move(rtcp)};
    }
    throw std::runtime_error("no pair of UDP ports is free");
}

Outbox::Outbox(int udpSocket) : socket(udpSocket)
{
    for (std::size_t i = 0; i < capacity; ++i) {
        vectors[i].iov_base = bytes[i].data();
        messages[i].msg_hdr.msg_iov = &vectors[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_name = &targets[i];
        messages[i].msg_hdr.msg_namelen = sizeof(Address);
    }
}

void Outbox::add(std::span<const std::uint8_t> packet, const Address& target)
{
    if (used == capacity)
        flush();
    std::memcpy(bytes[used].data(), packet.data(), packet.size());
    vectors[used].iov_len = packet.size();
    targets[used++] = target;
}

void Outbox::flush()
{
    for (unsigned sent = 0; sent < used;) {
        const int count = ::sendmmsg(socket, &messages[sent], static_cast<unsigned>(used) - sent, 0);
        sent += count > 0 ? static_cast<unsigned>(count) : 1U;  // a receiver that has gone refuses the datagram
    }
    used = 0;
}
}  // namespace kelvo::bench

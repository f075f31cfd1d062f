#include <utility>

#include "UdpEnd.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/address.hpp>
#include <cstdlib>
#include <stdexcept>

namespace Tavro8::Utility::testkit
{
namespace
{
using boost::asio::ip::udp;
using boost::system::error_code;
}  // namespace

UdpEnd::UdpEnd(const std::string& address)
    : rtp(io, udp::endpoint(boost::asio::ip::make_address(address), 0)),
      rtcp(io, udp::endpoint(boost::asio::ip::make_address(address), 0))
{
    rtp.non_blocking(true);
    rtcp.non_blocking(true);
}

std::string UdpEnd::acceptSilently(const std::string& asked)
{
    const std::string name = "client_port=";
    const std::size_t at = asked.find(name);
    if (at == std::string::npos)
        throw std::runtime_error("no ports in " + asked);
    const std::string numbers = asked.substr(at + name.size());
    const std::lock_guard lock(mutex);
    clientRtp = static_cast<std::uint16_t>(std::atoi(numbers.c_str()));
    clientRtcp = static_cast<std::uint16_t>(std::atoi(numbers.c_str() + numbers.find('-') + 1));
    return "RTP/AVP;unicast;client_port=" + std::to_string(clientRtp) + '-' + std::to_string(clientRtcp);
}

std::string UdpEnd::accept(const std::string& asked)
{
    return acceptSilently(asked) + ";server_port=" + std::to_string(rtp.local_endpoint().port()) + '-' +
           std::to_string(rtcp.local_endpoint().port());
}

bool UdpEnd::isAccepted() const
{
    const std::lock_guard lock(mutex);
    return clientRtp != 0;
}

std::uint16_t UdpEnd::clientRtpPort() const
{
    const std::lock_guard lock(mutex);
    return clientRtp;
}

void UdpEnd::sendRtp(const Bytes& packet)
{
    send(rtp, packet, clientRtpPort());
}

void UdpEnd::sendRtp(const std::vector<Bytes>& packets)
{
    for (const Bytes& packet : packets)
        sendRtp(packet);
}

void UdpEnd::sendRtcp(const Bytes& packet)
{
    const std::uint16_t port = [this] {
        const std::lock_guard lock(mutex);
        return clientRtcp;
    }();
    send(rtcp, packet, port);
}

void UdpEnd::send(udp::socket& socket, const Bytes& packet, std::uint16_t port)
{
    error_code ignored;
    socket.send_to(boost::asio::buffer(packet), udp::endpoint(boost::asio::ip::address_v4::loopback(), port), 0,
                   ignored);
}

std::vector<Bytes> UdpEnd::take(udp::socket& socket)
{
    std::vector<Bytes> packets;
    for (;;) {
        std::array<std::uint8_t, 2048> room{};
        udp::endpoint sender;
        error_code ec;
        const std::size_t size = socket.receive_from(boost::asio::buffer(room), sender, 0, ec);
        if (ec == boost::asio::error::connection_refused)
            continue;  // one of ours came when the client had left
        if (ec)
            return packets;
        packets.emplace_back(room.begin(), room.begin() + static_cast<std::ptrdiff_t>(size));
    }
}
}  // namespace Tavro8::Utility::testkit

#include <utility>

#include "rtsp/RtpPorts.h"

#include "rtsp/DatagramBatch.h"
#include "rtsp/NeighbourPorts.h"
#include "rtsp/SocketSupport.h"

#include <Tavro8/ResultCode.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/socket_base.hpp>
#include <chrono>
#include <exception>

namespace Tavro8::Utility
{
namespace
{
using boost::asio::ip::address;
using boost::asio::ip::udp;

// An RTP packet of nothing: version 2 and zeros.
constexpr std::array<std::uint8_t, 12> emptyPacket{0x80};

std::optional<udp::socket> openSocket(boost::asio::io_context& service, const udp::endpoint& local, error_code& ec)
{
    std::optional<udp::socket> socket(std::in_place, service);
    error_code failed;
    socket->open(local.protocol(), failed);
    if (!failed)
        socket->bind(local, failed);
    if (!failed)
        socket->non_blocking(true, failed);
    if (!failed)
        return socket;
    ec = failed;
    return std::nullopt;
}

std::uint16_t portOf(const udp::socket& socket)
{
    error_code ignored;
    return socket.local_endpoint(ignored).port();
}
}  // namespace

std::optional<address> usableSource(const std::string& source, const address& peer) noexcept
{
    error_code ec;
    const address named = boost::asio::ip::make_address(source, ec);
    if (ec || named.is_v4() != peer.is_v4() || named.is_unspecified() || named.is_multicast() ||
        named.is_loopback() != peer.is_loopback() || named == boost::asio::ip::address_v4::broadcast())
        return std::nullopt;
    return named;
}

std::shared_ptr<RtpPorts> RtpPorts::open(boost::asio::io_context& service, StreamContext& context, const address& local,
                                         error_code& ec)
{
    auto pair =
        openNeighbours([&](std::uint16_t port) { return openSocket(service, udp::endpoint(local, port), ec); }, portOf);
    if (!pair)
        return nullptr;
    ec.clear();  // of neighbours that were taken
    error_code ignored;
    pair->first.set_option(boost::asio::socket_base::receive_buffer_size(context.datagramBufferBytes), ignored);
    return std::make_shared<RtpPorts>(context, std::move(pair->first), std::move(pair->second));
}

RtpPorts::RtpPorts(StreamContext& context, udp::socket rtpSocket, udp::socket rtcpSocket)
    : context(context), portNumbers{portOf(rtpSocket), portOf(rtcpSocket)}
{
    sockets[rtp].emplace(std::move(rtpSocket));
    sockets[rtcp].emplace(std::move(rtcpSocket));
}

int RtpPorts::receiveBufferBytes() const noexcept
{
    boost::asio::socket_base::receive_buffer_size size;
    error_code ec;
    if (sockets[rtp])
        sockets[rtp]->get_option(size, ec);
    return size.value();  // without what the system adds for its own records
}

void RtpPorts::start(Events& receiver, std::size_t track, const Device& device)
{
    started = true;
    events = &receiver;
    trackNumber = track;
    deviceAddresses.assign(1, device.address);
    const auto source = usableSource(device.source, device.address);
    if (source && *source != device.address)
        deviceAddresses.push_back(*source);
    if (device.ports)
        devicePorts = {device.ports->rtp, device.ports->rtcp};
    waitReadable(rtp);
    waitReadable(rtcp);
}

void RtpPorts::waitReadable(Side side)
{
    sockets[side]->async_wait(udp::socket::wait_read,
                              [self = shared_from_this(), side](const error_code& ec) { self->onReadable(side, ec); });
}

void RtpPorts::onReadable(Side side, const error_code& ec)
{
    if (events == nullptr)
        return;
    const auto alive = events->keepAlive();
    if (ec)
        return breakWith(hostError(ec), ec.message());
    try {
        readTurn(side);
        if (events != nullptr)
            waitReadable(side);
    } catch (const std::exception& e) {
        breakWith(ResultCode::noResources, e.what());
    }
}

void RtpPorts::readTurn(Side side)
{
    DatagramBatch& batch = context.datagramBatch();
    for (unsigned reads = 0; reads < maxReadsPerTurn && events != nullptr; ++reads) {
        error_code ec;
        const std::size_t count = batch.read(*sockets[side], ec);
        if (ec)
            return breakWith(hostError(ec), ec.message());
        if (count == 0)
            return;
        const media::ArrivalTime arrival{std::chrono::steady_clock::now(), std::chrono::system_clock::now()};
        for (std::size_t i = 0; i < count && events != nullptr; ++i)
            hand(side, i, arrival);
        if (count < DatagramBatch::capacity)
            return;
    }
}

void RtpPorts::hand(Side side, std::size_t index, const media::ArrivalTime& arrival)
{
    const DatagramBatch& batch = context.datagramBatch();
    const udp::endpoint& sender = batch.sender(index);
    if (!isFromDevice(sender)) {
        ++strays;
        return;
    }
    if (batch.isTruncated(index))
        return events->onTruncatedDatagram(trackNumber);
    if (side == rtp) {
        ++received;
        return events->onRtpDatagram(trackNumber, batch.bytes(index), arrival);
    }
    if (devicePorts[rtcp] == 0)
        devicePorts[rtcp] = sender.port();  // the device did not name it
    events->onRtcpDatagram(trackNumber, batch.bytes(index), arrival);
}

bool RtpPorts::isFromDevice(const udp::endpoint& sender) noexcept
{
    const address from = sender.address();
    for (std::size_t i = 0; i < deviceAddresses.size(); ++i) {
        if (deviceAddresses[i] == from) {
            sendingAddress = i;
            return true;
        }
    }
    return false;
}

void RtpPorts::openWay(wire::ByteView report) noexcept
{
    const address& target = deviceAddresses.front();
    if (devicePorts[rtp] != 0)
        send(rtp, udp::endpoint(target, devicePorts[rtp]), emptyPacket);
    if (devicePorts[rtcp] != 0)
        send(rtcp, udp::endpoint(target, devicePorts[rtcp]), report);
}

void RtpPorts::sendRtcp(wire::ByteView packet) noexcept
{
    if (devicePorts[rtcp] != 0 && !packet.empty())
        send(rtcp, udp::endpoint(deviceAddresses[sendingAddress], devicePorts[rtcp]), packet);
}

void RtpPorts::send(Side side, const udp::endpoint& target, wire::ByteView packet) noexcept
{
    if (events == nullptr)
        return;
    error_code ignored;  // what is lost on the way would not be known either
    sockets[side]->send_to(boost::asio::buffer(packet.data(), packet.size()), target, 0, ignored);
}

void RtpPorts::close() noexcept
{
    events = nullptr;
    for (auto& socket : sockets)
        socket.reset();
}

void RtpPorts::breakWith(const error_code& ec, const std::string& reason)
{
    if (events == nullptr)
        return;
    Events& told = *events;
    close();
    told.onPortsBroken(ec, reason);
}
}  // namespace Tavro8::Utility

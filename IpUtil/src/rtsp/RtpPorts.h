#pragma once

#include "media/RtpTime.h"
#include "rtsp/StreamContext.h"
#include "wire/Bytes.h"
#include "wire/RtspMessage.h"

#include <IpUtil/ErrorCode.h>
#include <array>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/udp.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Tavro8::Utility
{
/// The two UDP ports of a track that is received: one for RTP, one for RTCP. Takes datagrams from the device and from
/// nobody else, and sends what the device's RTCP port is to get. Knows neither the track nor time.
///
/// It waits until datagrams are there and reads them, many at once, into the buffer of its I/O context; it holds none
/// itself. All of it runs on the I/O context.
class RtpPorts : public std::enable_shared_from_this<RtpPorts> {
public:
    /// Takes what arrives; `track` is the number given to `start`. Each may close the ports; none is called afterwards.
    class Events {
    public:
        /// The bytes are needed only during the call.
        virtual void onRtpDatagram(std::size_t track, wire::ByteView bytes, const media::ArrivalTime& arrival) = 0;
        virtual void onRtcpDatagram(std::size_t track, wire::ByteView bytes, const media::ArrivalTime& arrival) = 0;
        /// A datagram was longer than any may be.
        virtual void onTruncatedDatagram(std::size_t track) = 0;
        /// The ports cannot be used any more; they are closed already. `reason` is a part of a sentence.
        virtual void onPortsBroken(const error_code& ec, const std::string& reason) = 0;
        /// Keeps the owner alive during a call.
        virtual std::shared_ptr<void> keepAlive() = 0;

    protected:
        ~Events() = default;
    };

    /// Where the device's packets come from and go to.
    struct Device {
        boost::asio::ip::address address;     ///< the other end of the RTSP connection
        std::string source;                   ///< as the device named it, may be empty or nonsense
        std::optional<wire::PortPair> ports;  ///< its own, when it named them
    };

    /// Opens both ports at `local`, our end of the RTSP connection; null when the system has none to give.
    static std::shared_ptr<RtpPorts> open(boost::asio::io_context& service, StreamContext& context,
                                          const boost::asio::ip::address& local, error_code& ec);

    RtpPorts(StreamContext& context, boost::asio::ip::udp::socket rtp, boost::asio::ip::udp::socket rtcp);

    wire::PortPair numbers() const noexcept { return portNumbers; }
    /// How much the system holds for the RTP port; it may give less than it is asked for.
    int receiveBufferBytes() const noexcept;

    /// Begins to receive, once. `events` must outlive `close`.
    void start(Events& receiver, std::size_t track, const Device& device);
    bool isStarted() const noexcept { return started; }

    /// Sends a first packet to each of the device's ports, so that firewalls on the way let its answers through. Never
    /// to another source that it names: what it says must not aim our packets at others. That one gets reports, once
    /// packets have come from it.
    /// `report` is an RTCP packet that says nothing.
    void openWay(wire::ByteView report) noexcept;
    /// Dropped while the device's RTCP port is unknown, and when the system will not take it now.
    void sendRtcp(wire::ByteView packet) noexcept;

    /// Gives the ports back to the system.
    void close() noexcept;

    std::uint64_t rtpDatagrams() const noexcept { return received; }  ///< of the device
    std::uint64_t strayDatagrams() const noexcept { return strays; }  ///< of others, dropped

private:
    using udp = boost::asio::ip::udp;
    enum Side : std::size_t { rtp, rtcp };

    void waitReadable(Side side);
    void onReadable(Side side, const error_code& ec);
    void readTurn(Side side);
    void hand(Side side, std::size_t index, const media::ArrivalTime& arrival);
    bool isFromDevice(const udp::endpoint& sender) noexcept;
    void send(Side side, const udp::endpoint& target, wire::ByteView packet) noexcept;
    void breakWith(const error_code& ec, const std::string& reason);

    StreamContext& context;
    Events* events = nullptr;  // outlives its ports, which it closes; null when closed
    std::size_t trackNumber = 0;
    bool started = false;

    std::array<std::optional<udp::socket>, 2> sockets;
    wire::PortPair portNumbers;

    std::vector<boost::asio::ip::address> deviceAddresses;  // those that are believed; one or two
    std::size_t sendingAddress = 0;                         // from which of them media came last
    std::array<std::uint16_t, 2> devicePorts{};             // 0: unknown

    std::uint64_t received = 0;
    std::uint64_t strays = 0;
};

/// The address that a Transport header names as the source of its packets, when it may be believed: a host's own
/// address of the same family as the other end of the connection. Some devices name a group, nothing, or a host name.
std::optional<boost::asio::ip::address> usableSource(const std::string& source,
                                                     const boost::asio::ip::address& peer) noexcept;
}  // namespace Tavro8::Utility

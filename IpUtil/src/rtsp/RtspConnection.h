#pragma once

#include "media/RtpTime.h"
#include "rtsp/StreamContext.h"
#include "rtsp/StreamSocket.h"
#include "wire/InterleavedParser.h"

#include <IpUtil/ErrorCode.h>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Tavro8::Utility
{
/// The TCP connection of one RTSP session: resolves, connects, cuts what arrives into messages and interleaved
/// frames, and writes in order. Knows neither requests nor time.
///
/// It waits until bytes are there and reads them into the buffer of its I/O context; only an incomplete unit at the
/// end of a read is kept here. All of it runs on the I/O context.
class RtspConnection {
public:
    /// Takes what happens. Every operation may close the connection; none is called afterwards.
    class Events {
    public:
        virtual void onConnected() = 0;
        /// Bytes have come and are about to be read: a word in time for who has something to prepare.
        virtual void onReading() noexcept = 0;
        virtual void onMessage(const wire::RtspMessage& message) = 0;
        virtual void onInterleaved(const wire::InterleavedFrame& frame, const media::ArrivalTime& arrival) = 0;
        /// The connection could not be made, has ended or sends what cannot be read; it is closed already. `ec` is
        /// in the host category, `reason` a part of a sentence.
        virtual void onBroken(const error_code& ec, const std::string& reason) = 0;
        /// What the handlers in flight hold, so that the connection and its owner stay alive.
        virtual std::shared_ptr<void> keepAlive() = 0;

    protected:
        ~Events() = default;
    };

    using Written = std::function<void(const error_code& ec)>;

    RtspConnection(boost::asio::io_context& service, StreamContext& context, Events& events);

    /// Once. Names are resolved, numeric addresses at once; the addresses of a name are tried in turn.
    void connect(const std::string& host, std::uint16_t port);

    /// Queues bytes; `done` (may be empty) is told when they have been handed to the system. It is dropped when the
    /// connection breaks or is closed.
    void send(std::vector<std::uint8_t> bytes, Written done = {});
    /// What waits to be written.
    std::size_t queuedBytes() const noexcept { return queued; }
    /// Says good-bye as far as that is possible without waiting; for a connection that is closed right afterwards.
    void sendAtOnce(const std::string& bytes) noexcept;

    /// Both ends, valid from `onConnected` on.
    const boost::asio::ip::address& localAddress() const noexcept { return ourAddress; }
    const boost::asio::ip::address& deviceAddress() const noexcept { return theirAddress; }

    void close() noexcept;
    /// The I/O context is going, and handlers with it: let go of everything that belongs to it. Returns what they held,
    /// which may be the last to hold this object.
    [[nodiscard]] std::shared_ptr<void> release() noexcept;

    /// Gives back memory that a burst needed; called now and then.
    void trim();

    /// Stray bytes that belonged to no unit.
    std::uint64_t skippedBytes() const noexcept { return parser.skippedBytes(); }

private:
    using tcp = boost::asio::ip::tcp;
    using Socket = StreamSocket;
    using Resolver = boost::asio::ip::basic_resolver<tcp, Socket::executor_type>;
    struct Outgoing {
        std::vector<std::uint8_t> bytes;
        Written done;
    };

    void resolve(const std::string& host, std::uint16_t port);
    void onResolved(const error_code& ec, const Resolver::results_type& results);
    void connectNext();
    void onConnect(const error_code& ec);
    void waitReadable();
    void onWaitEnded(const error_code& ec);
    void onReadable(const error_code& ec);
    void readTurn();
    bool readOnce(std::span<std::uint8_t> buffer, std::size_t& held);
    void parse(wire::ByteView& input, const media::ArrivalTime& arrival);
    std::string describe(const wire::InterleavedParser::Malformed& malformed) const;
    void writeNext();
    void onWritten(const error_code& ec);
    template <typename Body>
    void guard(Body&& body);
    void breakWith(const error_code& ec, const std::string& reason);

    boost::asio::io_context& service;
    std::optional<Resolver> resolver;  // only for a name
    std::vector<tcp::endpoint> endpoints;
    std::size_t nextEndpoint = 0;
    boost::asio::ip::address ourAddress;
    boost::asio::ip::address theirAddress;
    std::deque<Outgoing> outgoing;  // the first one is being written
    std::size_t queued = 0;

    // What each read needs stands side by side, from the end of the parser on: it has left the caches when the next
    // frame comes.
    wire::InterleavedParser parser;
    StreamContext& context;
    Events& events;
    std::optional<Socket> socket;
    std::shared_ptr<void> alive;     // while a wait is pending: the owner of this object
    std::vector<std::uint8_t> tail;  // an incomplete unit, until the rest of it arrives
    bool open = false;
    bool readSinceTrim = false;
    bool mediaCame = false;
};
}  // namespace Tavro8::Utility

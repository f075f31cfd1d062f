#pragma once

#include <IpUtil/Export.h>
#include <Tavro8/ILogger.h>
#include <boost/range/range_fwd.hpp>
#include <cstdint>
#include <string>
#include <string_view>

// Declared only: these headers cost each file that includes this one a second or more. Who implements a client includes
// <boost/range/iterator_range_core.hpp> and <boost/smart_ptr/shared_ptr.hpp> in its .cpp file.
namespace boost
{
template <class T>
class shared_ptr;
}  // namespace boost

namespace Tavro8
{
/// The TCP server of the process: devices connect to it and push their notifications. Each port has one listening
/// socket, which all devices share; what comes is delivered by the address it comes from. IPv4 and IPv6 are served
/// alike. Other addresses than the registered ones are refused.
///
/// What a client gets: whole HTTP requests, each with request line, headers and body in one piece, however the network
/// has cut or joined them. The bytes are those of the wire, except that the body of a chunked request is put together
/// (chunk lines and trailers are left out). A POST or PUT that states no length and ends its connection has what comes
/// until then as its body. Bytes that are no HTTP are handed on as they were read. What breaks off in the middle is
/// dropped.
///
/// Limits: 1 MiB a message; 16 connections an address, of which the longest silent one is closed for a seventeenth; a
/// connection on which nothing has come for 30 s is closed; unfinished messages may take 8 MiB an address and 64 MiB in
/// all. A broken or oversized message costs its connection and nothing else.
///
/// One thread, of the process's `Utility::GlobalService`, serves all ports. It runs while somebody is registered or
/// holds the global service. `GlobalService::barrier` waits for it like for all others.
class IPUTIL_API TcpServerEx {
public:
    /// One connection of a device, for a client that wants to answer. May be kept as long as the client likes; after
    /// the connection has ended it does nothing. Any thread.
    class IPUTIL_API Session {
    public:
        virtual ~Session();

        /// The device's address as text; IPv4 is written as IPv4 however it arrived.
        virtual const std::string& getRemoteAddress() const noexcept = 0;
        /// Queues a copy of `bytes` for sending. False when the connection has ended, or when more than 1 MiB would
        /// wait because the device does not read; the connection is closed then.
        virtual bool send(std::string_view bytes) = 0;
        /// Ends the connection once what was queued has been sent. Nothing more is delivered from it.
        virtual void close() noexcept = 0;
    };

    /// Receives what one address sends to one port. Both operations are called on the server's thread, one at a time,
    /// without a lock held; what they throw is logged, and the server goes on. While one of them blocks nobody is
    /// served.
    class IPUTIL_API IClient {
    public:
        /// Slot 0. One message. `data` is valid during the call only.
        virtual void processData(const boost::iterator_range<const char*>& data,
                                 const boost::shared_ptr<Session>& session) = 0;
        /// Slot 1. A connection has ended, whoever ended it; not called once the registration has ended. Here it does
        /// nothing.
        virtual void onConnectionClose(const boost::shared_ptr<Session>& session);

    protected:
        ~IClient() = default;  // never deleted through this interface, and the slots above are the first
    };

    /// Delivers to `client` what comes from `clientIp` on `port`, from now on. When this returns the port is listened
    /// on; if it cannot be, the log says why, once, and it is tried again (after 1 s, doubling to 30 s) while somebody
    /// wants it. Port 0 and a text that is no IP address are logged and ignored.
    ///
    /// Registrations of one port and address form a stack: the newest receives.
    ///
    /// `logger` (may be null) and `client` must live until the registration has ended. Any thread, also from within a
    /// client's operations.
    static void startForClient(std::uint16_t port, ILogger* logger, const std::string& clientIp, IClient* client);

    /// Ends the newest registration of this port and address. Afterwards its client is not called: a delivery that is
    /// under way on another thread is waited for; within that delivery itself this returns at once. With the last
    /// registration of an address its connections are closed, with the last of a port the port. Without a registration
    /// nothing happens. Any thread.
    static void stopForClient(std::uint16_t port, const std::string& clientIp) noexcept;

    /// Ends what is left of the registrations of `client`, at any place of any stack, and waits as `stopForClient`
    /// does. For the destructor of a client: the end of one registration may have ended that of somebody else who uses
    /// the same port and address, and left this one's behind.
    static void stopAllOfClient(const IClient* client) noexcept;

    TcpServerEx() = delete;
};
}  // namespace Tavro8

#pragma once

#include "server/EventSession.h"
#include "wire/HttpRequestFramer.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>
#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <span>
#include <string>

namespace Tavro8::server
{
class EventConnection;
struct Sender;

/// Who owns connections and is told what becomes of them, on the server's thread.
class ConnectionOwner {
public:
    /// Where connections read to; used up before the call returns.
    virtual std::span<char> receiveBuffer() noexcept = 0;
    /// Something has come.
    virtual void onActivity(EventConnection& connection) = 0;
    /// A message is complete.
    virtual void onMessage(EventConnection& connection, std::string_view message) = 0;
    /// The connection keeps so many bytes more, or less, than it did. May close it.
    virtual void onKeptBytesChanged(EventConnection& connection, std::ptrdiff_t change) = 0;
    /// It is over; `reason` for the log, null when there is nothing to tell. The owner closes it.
    virtual void onEnd(EventConnection& connection, const char* reason) = 0;

protected:
    ~ConnectionOwner() = default;
};

/// One connection of a device: reads what has come, frames it, sends what clients answer. Lives on the server's thread;
/// `flushLater` is for any. Handlers keep it alive; its owner outlives them, being a service of their context.
class EventConnection final : public std::enable_shared_from_this<EventConnection> {
public:
    using tcp = boost::asio::ip::tcp;
    using Clock = std::chrono::steady_clock;

    /// `sender` outlives the connection's being open.
    EventConnection(tcp::socket socket, std::string remoteAddress, ConnectionOwner& owner, Sender& sender);
    ~EventConnection();
    EventConnection(const EventConnection&) = delete;
    EventConnection& operator=(const EventConnection&) = delete;

    void start();
    /// Frees the socket. Nothing is delivered any more; said to nobody.
    void close() noexcept;
    bool isOpen() const noexcept { return open; }
    /// Bytes that have arrived and not been read yet.
    bool hasUnreadBytes() noexcept;
    /// Hands on what the end of the connection completes.
    void finish();

    /// Sends what waits in the session, soon. Any thread, under the session's lock.
    void flushLater();

    const boost::shared_ptr<EventSession>& getSession() const noexcept { return session; }
    const boost::shared_ptr<TcpServerEx::Session>& getClientSession() const noexcept { return clientSession; }
    std::size_t getKeptBytes() const noexcept { return keptBytes; }

    Sender& sender;
    Clock::time_point lastActivity;                 ///< its owner's
    std::list<EventConnection*>::iterator quietAt;  ///< its owner's place for it

private:
    template <typename Body>
    void guard(Body&& body) noexcept;
    void waitReadable();
    void onReadable();
    void read(std::string_view input);
    void onPeerEnd();
    void flush();

    tcp::socket socket;
    ConnectionOwner& owner;
    wire::HttpRequestFramer framer;
    const boost::shared_ptr<EventSession> session;
    const boost::shared_ptr<TcpServerEx::Session> clientSession;  // the same, in the form in which clients get it
    std::string sending;
    std::size_t keptBytes = 0;
    bool open = true;
    bool peerEnded = false;  ///< nothing more comes, but an answer is still on its way
    bool writing = false;
};
}  // namespace Tavro8::server

#pragma once

#include <IpUtil/TcpServerEx.h>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>

namespace Tavro8::server
{
class EventConnection;

/// What clients hold of a connection. It may outlive the connection and the server; `mutex` guards all but the address
/// and is never held while anybody else is called, except that the connection is asked to send.
class EventSession final : public TcpServerEx::Session {
public:
    static constexpr std::size_t maxWaitingBytes = std::size_t{1024} * 1024;

    EventSession(std::string remoteAddress, EventConnection& connection);

    // Any thread:
    const std::string& getRemoteAddress() const noexcept override { return remoteAddress; }
    bool send(std::string_view bytes) override;
    void close() noexcept override;

    // The server's thread:
    /// The connection is going; nothing is asked of it afterwards.
    void detach() noexcept;
    /// Takes what waits for being sent, and says whether the connection is to end after it.
    bool takeWaiting(std::string& into);
    bool isClosing() const noexcept;

private:
    void askToFlush();

    const std::string remoteAddress;
    mutable std::mutex mutex;
    EventConnection* connection;  // null once it has ended
    std::string waiting;
    bool closing = false;
    bool flushAsked = false;
};
}  // namespace Tavro8::server

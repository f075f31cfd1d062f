#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace simulator::test
{

/// A receiver of notifications that shows every byte. It takes one connection at a time and writes nothing back.
/// Waits are bounded; what goes wrong is thrown as std::exception.
class NotificationPeer {
public:
    explicit NotificationPeer(const std::string& address = "127.0.0.1");
    ~NotificationPeer();

    std::uint16_t port() const;
    /// The body of a subscription to this receiver.
    std::string subscription() const;

    /// Waits for the next connection and returns the address it comes from; an earlier one is closed.
    std::string accept();
    /// Waits until so many bytes are there and takes them.
    std::string read(std::size_t count);
    /// The next HTTP message with a Content-Length.
    std::string readMessage();
    /// What one read of the socket brings.
    std::string readSome();
    /// Everything up to the end of the connection, which must come.
    std::string readToEnd();
    void write(const std::string& text);
    /// Ends the connection.
    void close();
    /// So that no connection can be made any more.
    void stopListening();

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace simulator::test

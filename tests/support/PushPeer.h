#pragma once

#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <cstdint>
#include <string>

// Devices that push to a port of ours.
namespace kelvo::test
{
/// A notification with a body of its own.
inline std::string notification(const std::string& body)
{
    return "POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\nHost: 192.0.2.1\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// A port that was free a moment ago.
inline std::uint16_t freePort()
{
    using boost::asio::ip::tcp;
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, tcp::v6());
    acceptor.set_option(boost::asio::ip::v6_only(false));
    acceptor.bind(tcp::endpoint(tcp::v6(), 0));
    return acceptor.local_endpoint().port();
}

/// A device: connects from an address of its own. Everything blocks.
class PushPeer {
public:
    explicit PushPeer(std::uint16_t port, const std::string& from = "127.0.0.1", const std::string& to = "127.0.0.1")
        : socket(context)
    {
        using boost::asio::ip::tcp;
        const auto target = boost::asio::ip::make_address(to);
        const tcp::endpoint source(boost::asio::ip::make_address(from), 0);
        socket.open(source.protocol());
        socket.bind(source);
        socket.connect({target, port});
        socket.set_option(tcp::no_delay(true));
    }

    void send(const std::string& bytes) { boost::asio::write(socket, boost::asio::buffer(bytes)); }
    /// False when the server has closed the connection.
    bool trySend(const std::string& bytes)
    {
        boost::system::error_code ec;
        boost::asio::write(socket, boost::asio::buffer(bytes), ec);
        return !ec;
    }
    void endSending() { socket.shutdown(boost::asio::ip::tcp::socket::shutdown_send); }
    void close() { socket.close(); }
    /// All that the server sends until it closes.
    std::string readToEnd()
    {
        std::string bytes;
        boost::system::error_code ec;
        boost::asio::read(socket, boost::asio::dynamic_buffer(bytes), ec);
        return bytes;
    }
    std::string read(std::size_t count)
    {
        std::string bytes(count, '\0');
        boost::asio::read(socket, boost::asio::buffer(bytes));
        return bytes;
    }

private:
    boost::asio::io_context context;
    boost::asio::ip::tcp::socket socket;
};
}  // namespace kelvo::test

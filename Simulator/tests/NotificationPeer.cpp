#include <utility>  // ahead of Asio, which forgets it

#include "NotificationPeer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <array>
#include <stdexcept>

namespace simulator::test
{

using boost::asio::ip::tcp;
using boost::system::error_code;

struct NotificationPeer::State {
    explicit State(const std::string& address) : acceptor(context, {boost::asio::ip::make_address(address), 0}) {}

    /// Runs what was started; false when the time is over.
    bool runUntil(const bool& done)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
        context.restart();
        while (!done && context.run_one_until(deadline) != 0) {
        }
        return done;
    }

    /// Appends what comes next; false at the end of the connection.
    bool receive()
    {
        std::array<char, 65536> bytes;
        error_code result;
        bool done = false;
        connection.async_read_some(boost::asio::buffer(bytes), [&](const error_code& error, std::size_t size) {
            result = error;
            received.append(bytes.data(), size);
            done = true;
        });
        if (!runUntil(done)) {
            connection.close();
            runUntil(done);
            throw std::runtime_error("nothing comes behind '" + received + "'");
        }
        return !result;
    }

    std::string take(std::size_t count)
    {
        std::string taken = received.substr(0, count);
        received.erase(0, count);
        return taken;
    }

    boost::asio::io_context context;
    tcp::acceptor acceptor;
    tcp::socket connection{context};
    std::string received;
};

NotificationPeer::NotificationPeer(const std::string& address) : state(std::make_unique<State>(address)) {}

NotificationPeer::~NotificationPeer() = default;

std::uint16_t NotificationPeer::port() const
{
    return state->acceptor.local_endpoint().port();
}

std::string NotificationPeer::subscription() const
{
    return R"({"AddressType": 0,"IPAddress" : ")" + state->acceptor.local_endpoint().address().to_string() +
           R"(","Port" : )" + std::to_string(port()) + R"(,"Duration" : 60})";
}

std::string NotificationPeer::accept()
{
    close();
    state->received.clear();
    bool done = false;
    error_code result;
    state->acceptor.async_accept(state->connection, [&](const error_code& error) {
        result = error;
        done = true;
    });
    if (!state->runUntil(done)) {
        state->acceptor.close();
        state->runUntil(done);
        throw std::runtime_error("no connection was made");
    }
    if (result)
        throw boost::system::system_error(result);
    return state->connection.remote_endpoint().address().to_string();
}

std::string NotificationPeer::read(std::size_t count)
{
    while (state->received.size() < count)
        if (!state->receive())
            throw std::runtime_error("the connection ended behind '" + state->received + "'");
    return state->take(count);
}

std::string NotificationPeer::readMessage()
{
    const std::string name = "Content-Length: ";
    std::size_t end = 0;
    while ((end = state->received.find("\r\n\r\n")) == std::string::npos)
        if (!state->receive())
            throw std::runtime_error("the connection ended within a head");
    const std::size_t length = state->received.find(name);
    if (length > end)
        throw std::runtime_error("there is no Content-Length in '" + state->received + "'");
    return read(end + 4 + std::stoul(state->received.substr(length + name.size())));
}

std::string NotificationPeer::readSome()
{
    if (state->received.empty() && !state->receive())
        throw std::runtime_error("the connection ended");
    return state->take(std::string::npos);
}

std::string NotificationPeer::readToEnd()
{
    while (state->receive()) {
    }
    return state->take(std::string::npos);
}

void NotificationPeer::write(const std::string& text)
{
    boost::asio::write(state->connection, boost::asio::buffer(text));
}

void NotificationPeer::close()
{
    error_code ignored;
    state->connection.close(ignored);
}

void NotificationPeer::stopListening()
{
    state->acceptor.close();
}

}  // namespace simulator::test

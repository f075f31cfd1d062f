#include "ScriptedHttpPeer.h"

#include "HostFakes.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <condition_variable>
#include <istream>
#include <mutex>
#include <thread>

namespace kelvo::test
{
using boost::asio::ip::tcp;

struct ScriptedHttpPeer::State {
    State() : acceptor(context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)) {}

    struct Connection {
        explicit Connection(boost::asio::io_context& context) : socket(context) {}
        tcp::socket socket;
        boost::asio::streambuf input;
        std::string reply;
    };

    void accept()
    {
        auto connection = std::make_shared<Connection>(context);
        acceptor.async_accept(connection->socket, [this, connection](const boost::system::error_code& ec) {
            if (ec)
                return;
            read(connection);
            accept();
        });
    }

    void read(const std::shared_ptr<Connection>& connection)
    {
        boost::asio::async_read_until(connection->socket, connection->input, "\r\n\r\n",
                                      [this, connection](const boost::system::error_code& ec, std::size_t) {
                                          if (!ec)
                                              respond(connection);
                                      });
    }

    void respond(const std::shared_ptr<Connection>& connection)
    {
        std::istream stream(&connection->input);
        std::string method;
        std::string path;
        stream >> method >> path;
        {
            const std::lock_guard lock(mutex);
            seen.push_back(method + " " + path);
            const auto found = answers.find(path);
            connection->reply = found == answers.end() ? format(404, "") : found->second;
            changed.notify_all();
        }
        if (connection->reply.empty()) {
            silent.push_back(connection);
            return;
        }
        boost::asio::async_write(connection->socket, boost::asio::buffer(connection->reply),
                                 [connection](const boost::system::error_code&, std::size_t) {
                                     boost::system::error_code ignored;
                                     connection->socket.shutdown(tcp::socket::shutdown_send, ignored);
                                 });
    }

    static std::string format(unsigned status, const std::string& body)
    {
        return "HTTP/1.1 " + std::to_string(status) +
               " Scripted\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    boost::asio::io_context context;
    tcp::acceptor acceptor;
    std::vector<std::shared_ptr<Connection>> silent;  // held open; only the peer's thread
    std::thread thread;
    mutable std::mutex mutex;  // guards all below
    mutable std::condition_variable changed;
    std::map<std::string, std::string> answers;
    std::vector<std::string> seen;
};

ScriptedHttpPeer::ScriptedHttpPeer() : state(std::make_unique<State>())
{
    state->accept();
    state->thread = std::thread([this] { state->context.run(); });
}

ScriptedHttpPeer::~ScriptedHttpPeer()
{
    state->context.stop();
    state->thread.join();
}

std::uint16_t ScriptedHttpPeer::port() const noexcept
{
    return state->acceptor.local_endpoint().port();
}

std::string ScriptedHttpPeer::address() const
{
    return "127.0.0.1:" + std::to_string(port());
}

void ScriptedHttpPeer::answer(const std::string& path, unsigned status, const std::string& body)
{
    answerRaw(path, State::format(status, body));
}

void ScriptedHttpPeer::answerRaw(const std::string& path, const std::string& bytes)
{
    const std::lock_guard lock(state->mutex);
    state->answers[path] = bytes;
}

void ScriptedHttpPeer::staySilent(const std::string& path)
{
    answerRaw(path, "");
}

std::vector<std::string> ScriptedHttpPeer::requests() const
{
    const std::lock_guard lock(state->mutex);
    return state->seen;
}

bool ScriptedHttpPeer::waitForRequests(std::size_t count) const
{
    std::unique_lock lock(state->mutex);
    return state->changed.wait_for(lock, patience, [&] { return state->seen.size() >= count; });
}
}  // namespace kelvo::test

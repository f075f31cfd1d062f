#include "ScriptedHttpPeer.h"

#include "HostFakes.h"

#include <algorithm>
#include <boost/asio/buffers_iterator.hpp>
#include <boost/asio/completion_condition.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <sstream>
#include <string_view>
#include <thread>
#include <utility>

namespace kelvo::test
{
using boost::asio::ip::tcp;

struct ScriptedHttpPeer::State {
    explicit State(const std::string& host)
        : host(host), acceptor(context, tcp::endpoint(boost::asio::ip::make_address(host), 0))
    {}

    struct Connection {
        explicit Connection(boost::asio::io_context& context) : socket(context) {}
        tcp::socket socket;
        boost::asio::streambuf input;
        std::string reply;
    };
    using ConnectionPtr = std::shared_ptr<Connection>;

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

    void read(const ConnectionPtr& connection)
    {
        boost::asio::async_read_until(connection->socket, connection->input, "\r\n\r\n",
                                      [this, connection](const boost::system::error_code& ec, std::size_t head) {
                                          if (!ec)
                                              readBody(connection, head);
                                      });
    }

    /// The first `head` bytes of the input are the request without its body.
    void readBody(const ConnectionPtr& connection, std::size_t head)
    {
        const std::size_t whole = head + statedLength(textOf(*connection).substr(0, head));
        const std::size_t there = connection->input.size();
        boost::asio::async_read(connection->socket, connection->input,
                                boost::asio::transfer_exactly(whole > there ? whole - there : 0),
                                [this, connection, head](const boost::system::error_code& ec, std::size_t) {
                                    if (!ec)
                                        respond(connection, head);
                                });
    }

    static std::string textOf(const Connection& connection)
    {
        const auto bytes = connection.input.data();
        return {boost::asio::buffers_begin(bytes), boost::asio::buffers_end(bytes)};
    }

    static std::size_t statedLength(std::string head)
    {
        std::ranges::transform(head, head.begin(),
                               [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; });
        constexpr std::string_view name = "\r\ncontent-length:";
        const auto at = head.find(name);
        return at == std::string::npos ? 0 : std::stoul(head.substr(at + name.size()));
    }

    void respond(const ConnectionPtr& connection, std::size_t head)
    {
        const std::string request = textOf(*connection);
        std::istringstream stream(request);
        std::string method;
        std::string path;
        stream >> method >> path;
        {
            const std::lock_guard lock(mutex);
            seen.push_back(method + " " + path);
            seenBodies.push_back(request.substr(head));
            seenWhole.push_back(request);
            const bool mayPass = !needsAuthorization || request.find("\r\nAuthorization: ") < head;
            connection->reply = mayPass ? replyTo(method, path) : challenge();
            changed.notify_all();
        }
        if (connection->reply.empty())
            silent.push_back(connection);
        else
            write(connection);
    }

    static void write(const ConnectionPtr& connection)
    {
        boost::asio::async_write(connection->socket, boost::asio::buffer(connection->reply),
                                 [connection](const boost::system::error_code&, std::size_t) {
                                     boost::system::error_code ignored;
                                     connection->socket.shutdown(tcp::socket::shutdown_send, ignored);
                                 });
    }

    /// Under `mutex`.
    std::string replyTo(const std::string& method, const std::string& path)
    {
        for (const std::string& target : {method + ' ' + path, path}) {
            if (auto& once = answersOnce[target]; !once.empty()) {
                std::string reply = std::move(once.front());
                once.pop_front();
                return reply;
            }
            if (const auto found = answers.find(target); found != answers.end())
                return found->second;
        }
        return format(404, "");
    }

    static std::string format(unsigned status, const std::string& body)
    {
        return "HTTP/1.1 " + std::to_string(status) +
               " Scripted\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    }

    static std::string challenge()
    {
        return "HTTP/1.1 401 Unauthorized\r\nConnection: close\r\nContent-Length: 0\r\nWWW-Authenticate: Digest "
               "realm=\"48ea63000001\", qop=\"auth\", nonce=\"0123456789abcdef\", algorithm=\"MD5\"\r\n\r\n";
    }

    const std::string host;
    boost::asio::io_context context;
    tcp::acceptor acceptor;
    std::vector<ConnectionPtr> silent;  // held open; only the peer's thread
    std::thread thread;
    mutable std::mutex mutex;  // guards all below
    mutable std::condition_variable changed;
    std::map<std::string, std::string> answers;
    std::map<std::string, std::deque<std::string>> answersOnce;
    bool needsAuthorization = false;
    std::vector<std::string> seen;
    std::vector<std::string> seenBodies;
    std::vector<std::string> seenWhole;
};

ScriptedHttpPeer::ScriptedHttpPeer(const std::string& host) : state(std::make_unique<State>(host))
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
    return state->host + ':' + std::to_string(port());
}

void ScriptedHttpPeer::answer(const std::string& target, unsigned status, const std::string& body)
{
    answerRaw(target, State::format(status, body));
}

void ScriptedHttpPeer::answerOnce(const std::string& target, unsigned status, const std::string& body)
{
    const std::lock_guard lock(state->mutex);
    state->answersOnce[target].push_back(State::format(status, body));
}

void ScriptedHttpPeer::answerRaw(const std::string& target, const std::string& bytes)
{
    const std::lock_guard lock(state->mutex);
    state->answers[target] = bytes;
}

void ScriptedHttpPeer::staySilent(const std::string& target)
{
    answerRaw(target, "");
}

void ScriptedHttpPeer::breakSilence(unsigned status, const std::string& body)
{
    breakSilenceRaw(State::format(status, body));
}

void ScriptedHttpPeer::breakSilenceRaw(const std::string& bytes)
{
    boost::asio::post(state->context, [this, bytes] {
        for (const auto& connection : std::exchange(state->silent, {})) {
            connection->reply = bytes;
            State::write(connection);
        }
    });
}

void ScriptedHttpPeer::requireAuthorization()
{
    const std::lock_guard lock(state->mutex);
    state->needsAuthorization = true;
}

std::vector<std::string> ScriptedHttpPeer::requests() const
{
    const std::lock_guard lock(state->mutex);
    return state->seen;
}

std::vector<std::string> ScriptedHttpPeer::bodies() const
{
    const std::lock_guard lock(state->mutex);
    return state->seenBodies;
}

std::vector<std::string> ScriptedHttpPeer::wholeRequests() const
{
    const std::lock_guard lock(state->mutex);
    return state->seenWhole;
}

bool ScriptedHttpPeer::waitForRequest(const std::string& request, std::size_t times) const
{
    std::unique_lock lock(state->mutex);
    return state->changed.wait_for(
        lock, patience, [&] { return static_cast<std::size_t>(std::ranges::count(state->seen, request)) >= times; });
}

bool ScriptedHttpPeer::waitForRequests(std::size_t count) const
{
    std::unique_lock lock(state->mutex);
    return state->changed.wait_for(lock, patience, [&] { return state->seen.size() >= count; });
}
}  // namespace kelvo::test

#include <utility>  // ahead of Asio, which forgets it

#include "HttpServer.h"

#include "Listener.h"
#include "Log.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

#include <set>
#include <sstream>

namespace simulator
{
namespace
{

namespace beast = boost::beast;
namespace http = boost::beast::http;
using boost::asio::awaitable;
using boost::asio::redirect_error;
using boost::asio::use_awaitable;
using boost::asio::ip::tcp;
using boost::system::error_code;

using HttpRequest = http::request<http::string_body>;

constexpr std::uint64_t maximumBodyBytes = std::uint64_t{4} * 1024 * 1024;
/// The longest that a client is made to wait by a fault before the simulator gives up on it.
constexpr auto maximumSilence = std::chrono::minutes(10);

std::string toText(const tcp::endpoint& endpoint)
{
    std::ostringstream out;
    out << endpoint;
    return out.str();
}

/// IPv4 in its own form, also when it came in through an IPv6 socket.
std::string toText(const boost::asio::ip::address& address)
{
    if (address.is_v6() && address.to_v6().is_v4_mapped())
        return boost::asio::ip::make_address_v4(boost::asio::ip::v4_mapped, address.to_v6()).to_string();
    return address.to_string();
}

HttpQuestion makeQuestion(const HttpRequest& request, const tcp::endpoint& peer, const tcp::endpoint& device)
{
    HttpQuestion question;
    question.method = std::string(request.method_string());
    question.target = std::string(request.target());
    question.authorization = std::string(request[http::field::authorization]);
    question.body = request.body();
    question.peer = toText(peer);
    question.deviceAddress = toText(device.address());
    question.fromLoopback = peer.address().is_loopback();
    return question;
}

http::response<http::string_body> makeResponse(const HttpAnswer& answer, unsigned version, bool keepAlive)
{
    http::response<http::string_body> response;
    response.version(version);
    response.result(answer.status);
    if (http::int_to_status(answer.status) == http::status::unknown)
        response.reason("Unknown");
    response.set(http::field::server, "Simulator");
    for (const std::string& challenge : answer.challenges)
        response.insert(http::field::www_authenticate, challenge);
    response.set(http::field::content_type, "application/json");
    response.keep_alive(keepAlive);
    response.body() = answer.body;
    response.prepare_payload();
    return response;
}

std::string toBytes(const http::response<http::string_body>& response)
{
    std::ostringstream out;
    out << response;
    return out.str();
}

/// Announces chunks, sends one that promises more than follows, and no end.
std::string truncatedBytes(const HttpAnswer& answer, unsigned version)
{
    auto response = makeResponse(answer, version, true);
    response.body().clear();
    response.erase(http::field::content_length);
    response.set(http::field::transfer_encoding, "chunked");
    std::ostringstream out;
    out << response.base() << std::hex << answer.body.size() << "\r\n"
        << std::string_view(answer.body).substr(0, answer.body.size() / 2);
    return out.str();
}

/// One connection with or without TLS.
template <typename Stream>
class Conversation {
public:
    Conversation(Stream& streamToUse, const HttpService& serviceToUse, std::chrono::milliseconds idle)
        : stream(streamToUse), service(serviceToUse), idleTimeout(idle), pause(streamToUse.get_executor())
    {}

    awaitable<void> run()
    {
        error_code error;
        const tcp::endpoint peer = lowest().socket().remote_endpoint(error);
        const tcp::endpoint device = error ? tcp::endpoint() : lowest().socket().local_endpoint(error);
        while (!error) {
            http::request_parser<http::string_body> parser;
            parser.body_limit(maximumBodyBytes);
            lowest().expires_after(idleTimeout);
            co_await http::async_read(stream, buffer, parser, redirect_error(use_awaitable, error));
            if (error)
                break;
            const HttpRequest request = parser.release();
            const HttpAnswer answer = service(makeQuestion(request, peer, device));
            const bool goesOn = co_await give(answer, request);
            if (answer.afterwards)
                answer.afterwards();
            if (!goesOn)
                co_return;
        }
        if (error.category() == http::make_error_code(http::error::end_of_stream).category() &&
            error != http::error::end_of_stream && error != http::error::partial_message)
            co_await refuse(error);
    }

private:
    beast::tcp_stream& lowest() { return beast::get_lowest_layer(stream); }

    /// Answers in the prescribed manner; true when the connection goes on.
    awaitable<bool> give(const HttpAnswer& answer, const HttpRequest& request)
    {
        if (answer.delay.count() > 0)
            co_await wait(answer.delay);
        switch (answer.manner) {
        case HttpAnswer::Manner::whole:
            break;
        case HttpAnswer::Manner::dripped: {
            const bool keepAlive = request.keep_alive();
            co_return co_await drip(toBytes(makeResponse(answer, request.version(), keepAlive)), answer.dripInterval) &&
                keepAlive;
        }
        case HttpAnswer::Manner::truncated:
            co_await send(truncatedBytes(answer, request.version()));
            co_return false;
        case HttpAnswer::Manner::garbage:
            co_await send(std::string(garbageBytes));
            co_return false;
        case HttpAnswer::Manner::silent:
            co_await waitForPeerToGiveUp();
            co_return false;
        case HttpAnswer::Manner::closed:
            co_return false;
        }
        const bool keepAlive = request.keep_alive();
        const bool sent = co_await send(toBytes(makeResponse(answer, request.version(), keepAlive)));
        co_return sent&& keepAlive;
    }

    awaitable<bool> send(std::string bytes)
    {
        error_code error;
        lowest().expires_after(idleTimeout);
        co_await boost::asio::async_write(stream, boost::asio::buffer(bytes), redirect_error(use_awaitable, error));
        co_return !error;
    }

    awaitable<bool> drip(std::string bytes, std::chrono::milliseconds interval)
    {
        for (const char byte : bytes) {
            const bool sent = co_await send(std::string(1, byte));
            if (!sent)
                co_return false;
            co_await wait(interval);
        }
        co_return true;
    }

    awaitable<void> wait(std::chrono::milliseconds duration)
    {
        error_code ignored;
        lowest().expires_never();
        pause.expires_after(duration);
        co_await pause.async_wait(redirect_error(use_awaitable, ignored));
    }

    awaitable<void> waitForPeerToGiveUp()
    {
        error_code error;
        lowest().expires_after(maximumSilence);
        while (!error) {
            std::array<char, 512> ignored;
            co_await stream.async_read_some(boost::asio::buffer(ignored), redirect_error(use_awaitable, error));
        }
    }

    awaitable<void> refuse(error_code why)
    {
        logLine("refused what is no HTTP request: " + why.message());
        HttpAnswer answer;
        answer.status = 400;
        co_await send(toBytes(makeResponse(answer, 11, false)));
    }

    Stream& stream;
    const HttpService& service;
    std::chrono::milliseconds idleTimeout;
    boost::asio::steady_timer pause;
    beast::flat_buffer buffer;
};

}  // namespace

struct HttpServer::State {
    Settings settings;
    HttpService service;
    std::set<tcp::socket*> open;  ///< sockets of the running conversations

    /// Keeps a conversation's socket in `open` for as long as it lives.
    class Registration {
    public:
        Registration(std::shared_ptr<State> owner, tcp::socket& socketToList)
            : state(std::move(owner)), socket(&socketToList)
        {
            state->open.insert(socket);
        }
        ~Registration() { state->open.erase(socket); }
        Registration(const Registration&) = delete;
        Registration& operator=(const Registration&) = delete;

    private:
        std::shared_ptr<State> state;
        tcp::socket* socket;
    };

    static awaitable<void> converse(std::shared_ptr<State> self, tcp::socket socket)
    {
        beast::tcp_stream stream(std::move(socket));
        const Registration registration(self, stream.socket());
        Conversation conversation(stream, self->service, self->settings.idleTimeout);
        co_await conversation.run();
        error_code ignored;
        stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
    }

    static awaitable<void> converseSecurely(std::shared_ptr<State> self, tcp::socket socket,
                                            boost::asio::ssl::context& tls)
    {
        beast::ssl_stream<beast::tcp_stream> stream(beast::tcp_stream(std::move(socket)), tls);
        beast::tcp_stream& lowest = beast::get_lowest_layer(stream);
        const Registration registration(self, lowest.socket());
        error_code error;
        lowest.expires_after(self->settings.idleTimeout);
        co_await stream.async_handshake(boost::asio::ssl::stream_base::server, redirect_error(use_awaitable, error));
        if (error)
            co_return;
        Conversation conversation(stream, self->service, self->settings.idleTimeout);
        co_await conversation.run();
        lowest.expires_after(self->settings.idleTimeout);
        co_await stream.async_shutdown(redirect_error(use_awaitable, error));
    }
};

HttpServer::HttpServer(Settings settings, HttpService service)
    : state(std::make_shared<State>(State{settings, std::move(service), {}}))
{}

HttpServer::~HttpServer()
{
    closeConnections();
}

bool HttpServer::serve(tcp::socket socket, boost::asio::ssl::context* tls)
{
    if (state->open.size() >= state->settings.maxConnections) {
        reset(socket);
        return false;
    }
    const auto executor = socket.get_executor();
    const auto finished = [](const std::exception_ptr& thrown) {
        try {
            if (thrown)
                std::rethrow_exception(thrown);
        } catch (const std::exception& error) {
            logLine(std::string("a connection ended with an exception: ") + error.what());
        }
    };
    if (tls != nullptr)
        boost::asio::co_spawn(executor, State::converseSecurely(state, std::move(socket), *tls), finished);
    else
        boost::asio::co_spawn(executor, State::converse(state, std::move(socket)), finished);
    return true;
}

void HttpServer::closeConnections()
{
    error_code ignored;
    for (tcp::socket* socket : state->open)
        socket->close(ignored);
}

}  // namespace simulator

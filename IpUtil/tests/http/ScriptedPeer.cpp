#include "ScriptedPeer.h"

#include "wire/Text.h"

#include <utility>

#include <algorithm>
#include <atomic>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/write.hpp>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <thread>

namespace Tavro8::http::test
{
namespace
{
using boost::asio::ip::tcp;
using boost::system::error_code;

class PlainConnection : public PeerConnection {
public:
    explicit PlainConnection(tcp::socket accepted) : socket(std::move(accepted)) {}

    void send(std::string_view bytes) override
    {
        error_code gone;  // a client that has closed meanwhile is part of many scripts
        boost::asio::write(socket, boost::asio::buffer(bytes.data(), bytes.size()), gone);
    }
    void close() override { interrupt(); }
    void reset() override
    {
        error_code ignored;
        socket.set_option(boost::asio::socket_base::linger(true, 0), ignored);
        const std::lock_guard lock(mutex);
        socket.close(ignored);
    }
    /// Any thread: wakes the script.
    void interrupt()
    {
        const std::lock_guard lock(mutex);
        error_code ignored;
        if (socket.is_open())
            socket.shutdown(tcp::socket::shutdown_both, ignored);
    }

protected:
    std::size_t readSome(char* to, std::size_t bytes) override
    {
        error_code ec;
        return socket.read_some(boost::asio::buffer(to, bytes), ec);
    }

    tcp::socket socket;
    std::mutex mutex;  // between `interrupt` and `reset`
};

class TlsConnection final : public PlainConnection {
public:
    TlsConnection(tcp::socket accepted, boost::asio::ssl::context& context)
        : PlainConnection(std::move(accepted)), stream(socket, context)
    {}

    void send(std::string_view bytes) override
    {
        error_code gone;
        if (shakeHands())
            boost::asio::write(stream, boost::asio::buffer(bytes.data(), bytes.size()), gone);
    }

protected:
    std::size_t readSome(char* to, std::size_t bytes) override
    {
        error_code ec;
        return shakeHands() ? stream.read_some(boost::asio::buffer(to, bytes), ec) : 0;
    }

private:
    bool shakeHands()
    {
        if (!established) {
            error_code ec;
            stream.handshake(boost::asio::ssl::stream_base::server, ec);
            established = !ec;
        }
        return established;
    }

    boost::asio::ssl::stream<tcp::socket&> stream;
    bool established = false;
};

/// A fresh self-signed certificate, like the one a camera makes for itself.
void giveCertificate(boost::asio::ssl::context& context)
{
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), &EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME* const name = X509_get_subject_name(certificate.get());
    const unsigned char commonName[] = "camera";
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, commonName, -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_sign(certificate.get(), key.get(), EVP_sha256());
    SSL_CTX_use_certificate(context.native_handle(), certificate.get());
    SSL_CTX_use_PrivateKey(context.native_handle(), key.get());
}
}  // namespace

void Signal::raise(unsigned times)
{
    {
        const std::lock_guard lock(mutex);
        pending += times;
    }
    changed.notify_all();
}

bool Signal::await()
{
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, patience, [this] { return pending != 0; }))
        return false;
    --pending;
    return true;
}

std::string PeerConnection::readRequest()
{
    char buffer[4096];
    std::size_t wanted = 0;
    for (;;) {
        const std::size_t headEnd = received.find("\r\n\r\n");
        if (headEnd != std::string::npos) {
            const std::string head = received.substr(0, headEnd + 4);
            wanted = head.size() + wire::parseNumber<std::size_t>(headerOf(head, "Content-Length")).value_or(0);
        }
        if (wanted != 0 && received.size() >= wanted)
            break;
        const std::size_t count = readSome(buffer, sizeof buffer);
        if (count == 0)
            return {};
        received.append(buffer, count);
    }
    std::string request = received.substr(0, wanted);
    received.erase(0, wanted);
    onRequest(request);
    return request;
}

void PeerConnection::awaitClose()
{
    char buffer[4096];
    while (readSome(buffer, sizeof buffer) != 0) {
    }
}

struct ScriptedPeer::State {
    State(Script script, Security security)
        : script(std::move(script)), acceptor(context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0))
    {
        if (security == Security::tls) {
            tls = std::make_unique<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server);
            giveCertificate(*tls);
        }
        port = acceptor.local_endpoint().port();
        acceptNext();
        acceptThread = std::thread([this] { context.run(); });
    }

    ~State()
    {
        context.stop();
        acceptThread.join();
        for (const auto& connection : connections)
            connection->interrupt();
        for (std::thread& thread : scriptThreads)
            thread.join();
    }

    void acceptNext()
    {
        acceptor.async_accept([this](const error_code& ec, tcp::socket socket) {
            if (!ec)
                runScript(std::move(socket));
            acceptNext();
        });
    }

    void runScript(tcp::socket socket)
    {
        auto connection = tls != nullptr ? std::make_shared<TlsConnection>(std::move(socket), *tls)
                                         : std::make_shared<PlainConnection>(std::move(socket));
        connection->index = connections.size();
        connection->onRequest = [this](const std::string& request) { note([&] { requests.push_back(request); }); };
        connections.push_back(connection);
        note([&] { ++connectionCount; });
        scriptThreads.emplace_back([this, connection] {
            script(*connection);
            connection->interrupt();
            note([&] { ++scriptEnds; });
        });
    }

    template <typename Change>
    void note(Change change)
    {
        {
            const std::lock_guard lock(mutex);
            change();
        }
        changed.notify_all();
    }

    template <typename Condition>
    bool await(Condition condition)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, patience, condition);
    }

    const Script script;
    boost::asio::io_context context;
    tcp::acceptor acceptor;
    std::unique_ptr<boost::asio::ssl::context> tls;
    std::uint16_t port = 0;
    std::thread acceptThread;
    std::vector<std::shared_ptr<PlainConnection>> connections;  // the accepting thread's
    std::vector<std::thread> scriptThreads;                     // the accepting thread's

    std::mutex mutex;  // guards all below
    std::condition_variable changed;
    std::size_t connectionCount = 0;
    std::size_t scriptEnds = 0;
    std::vector<std::string> requests;
};

ScriptedPeer::ScriptedPeer(Script script, Security security)
    : state(std::make_unique<State>(std::move(script), security))
{}

ScriptedPeer::~ScriptedPeer() = default;

std::uint16_t ScriptedPeer::getPort() const noexcept
{
    return state->port;
}

std::size_t ScriptedPeer::getConnectionCount() const
{
    const std::lock_guard lock(state->mutex);
    return state->connectionCount;
}

std::vector<std::string> ScriptedPeer::getRequests() const
{
    const std::lock_guard lock(state->mutex);
    return state->requests;
}

bool ScriptedPeer::awaitRequests(std::size_t count) const
{
    return state->await([&] { return state->requests.size() >= count; });
}

bool ScriptedPeer::awaitScriptEnds(std::size_t count) const
{
    return state->await([&] { return state->scriptEnds >= count; });
}

std::string okResponse(std::string_view body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + std::string(body);
}

std::string emptyResponse(std::string_view statusLineRest, std::string_view moreHeaders)
{
    return "HTTP/1.1 " + std::string(statusLineRest) + "\r\n" + std::string(moreHeaders) + "Content-Length: 0\r\n\r\n";
}

void echoTargets(PeerConnection& connection)
{
    for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest())
        connection.send(okResponse(targetOf(request)));
}

std::string targetOf(const std::string& request)
{
    const std::size_t begin = request.find(' ') + 1;
    return request.substr(begin, request.find(' ', begin) - begin);
}

std::string headerOf(const std::string& request, std::string_view name)
{
    const std::size_t at = wire::findNoCase(request, "\r\n" + std::string(name) + ":");
    if (at == std::string::npos)
        return {};
    const std::size_t begin = at + name.size() + 3;
    return std::string(wire::trim(std::string_view(request).substr(begin, request.find("\r\n", begin) - begin)));
}

std::uint16_t closedPort()
{
    boost::asio::io_context context;
    const tcp::acceptor acceptor(context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    return acceptor.local_endpoint().port();
}
}  // namespace Tavro8::http::test

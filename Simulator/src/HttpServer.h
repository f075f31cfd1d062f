#pragma once

#include "HttpExchange.h"

#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <memory>

namespace boost::asio::ssl
{
class context;
}

namespace simulator
{

/// Speaks HTTP/1.1 on accepted connections and asks a service for each answer. Used on the I/O context only.
class HttpServer {
public:
    struct Settings {
        std::chrono::milliseconds idleTimeout{5'000};
        unsigned maxConnections = 8;
    };

    HttpServer(Settings settings, HttpService service);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// Serves a connection until either side closes it. Returns false, having reset the connection, when there are
    /// too many already. With `tls`, which outlives the server, TLS is spoken below HTTP.
    bool serve(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context* tls = nullptr);

    /// Closes every connection in the middle of whatever it does.
    void closeConnections();

private:
    struct State;
    std::shared_ptr<State> state;  ///< shared with the connections, which may outlive the server
};

}  // namespace simulator

#pragma once

#include <IpUtil/Http.h>
#include <chrono>
#include <string>
#include <string_view>

namespace Tavro8::http
{
struct HttpRequest {
    std::string method;
    std::string target;  ///< as it stands in the request line
    std::string body;    ///< sent with its length for PUT and POST, even when empty
    HttpHeaders headers;
    std::chrono::milliseconds timeout{0};  ///< 0: the default of the I/O context

    /// Doing it twice is the same as doing it once (RFC 9110 section 9.2.2).
    bool isIdempotent() const noexcept { return method != "POST"; }
    /// The caller asks for a connection of its own, which ends with the reply.
    bool asksToClose() const noexcept;
};

/// `path` as it may stand in a request line: beginning with '/', blanks and control characters encoded.
std::string requestTarget(std::string_view path);

/// The bytes of the request. `authorization` may be empty.
std::string formatRequest(const HttpRequest& request, const asio::ConnectionInfo& info, std::string_view authorization);
}  // namespace Tavro8::http

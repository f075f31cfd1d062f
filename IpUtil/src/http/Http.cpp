#include "http/BlockingClient.h"
#include "http/Exchange.h"

#include <IpUtil/Http.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <utility>

namespace Tavro8::http
{
namespace
{
HttpRequest makeRequest(const char* method, const std::string& path, const HttpHeaders& headers,
                        const std::string& body = {})
{
    HttpRequest request;
    request.method = method;
    request.target = requestTarget(path);
    request.body = body;
    request.headers = headers;
    return request;
}
}  // namespace

void runUntil(boost::asio::io_context& context, const bool& finished)
{
    while (!finished && context.run_one() != 0) {
    }
}

CancellationPtr asyncGetEx(const ConnectionInfoPtr& info, const std::string& path, boost::asio::io_context& context,
                           CompletionHandler handler)
{
    return asyncGetEx(info, path, context, HttpHeaders{}, std::move(handler));
}

CancellationPtr asyncGetEx(const ConnectionInfoPtr& info, const std::string& path, boost::asio::io_context& context,
                           const HttpHeaders& headers, CompletionHandler handler)
{
    return startExchange(context, info, makeRequest("GET", path, headers), std::move(handler));
}

CancellationPtr asyncPutEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                           boost::asio::io_context& context, CompletionHandler handler)
{
    return asyncPutEx(info, path, body, context, HttpHeaders{}, std::move(handler));
}

CancellationPtr asyncPutEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                           boost::asio::io_context& context, const HttpHeaders& headers, CompletionHandler handler)
{
    return startExchange(context, info, makeRequest("PUT", path, headers, body), std::move(handler));
}

CancellationPtr asyncPostEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                            boost::asio::io_context& context, CompletionHandler handler, std::int32_t timeoutSeconds)
{
    return asyncPostEx(info, path, body, context, HttpHeaders{}, std::move(handler), timeoutSeconds);
}

CancellationPtr asyncPostEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                            boost::asio::io_context& context, const HttpHeaders& headers, CompletionHandler handler,
                            std::int32_t timeoutSeconds)
{
    HttpRequest request = makeRequest("POST", path, headers, body);
    request.timeout = std::chrono::seconds(std::max(timeoutSeconds, 0));
    return startExchange(context, info, std::move(request), std::move(handler));
}

CancellationPtr asyncDeleteEx(const ConnectionInfoPtr& info, const std::string& path, boost::asio::io_context& context,
                              CompletionHandler handler)
{
    return asyncDeleteEx(info, path, context, HttpHeaders{}, std::move(handler));
}

CancellationPtr asyncDeleteEx(const ConnectionInfoPtr& info, const std::string& path, boost::asio::io_context& context,
                              const HttpHeaders& headers, CompletionHandler handler)
{
    return startExchange(context, info, makeRequest("DELETE", path, headers), std::move(handler));
}

struct HttpSession::State {
    BlockingClient client;
};

HttpSession::HttpSession(ConnectionInfoPtr info) : HttpSession(std::move(info), CancellationSource{}) {}

HttpSession::HttpSession(ConnectionInfoPtr info, const CancellationSource& cancellation)
    : state(new State{BlockingClient(std::move(info), cancellation)})
{}

HttpSession::~HttpSession() = default;

std::shared_ptr<HttpResponse> HttpSession::get(const std::string& path, std::vector<char>* body)
{
    return state->client.get(path, body);
}
}  // namespace Tavro8::http

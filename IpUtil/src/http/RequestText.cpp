#include "http/RequestText.h"

#include "wire/HeaderList.h"
#include "wire/Text.h"
#include "wire/Url.h"

namespace Tavro8::http
{
namespace
{
/// The port stands only when it is not the scheme's own (RFC 9110 section 7.2).
std::string hostValue(const asio::ConnectionInfo& info)
{
    wire::Url url;
    url.host = info.host.substr(0, info.host.find('%'));  // a zone means nothing to the device
    const std::uint16_t ownPort = info.secure ? 443 : 80;
    url.port = info.port == ownPort ? std::uint16_t{0} : info.port;
    return url.authority();
}
}  // namespace

bool HttpRequest::asksToClose() const noexcept
{
    const std::string* const value = headers.find(HTTP_HEADER_CONNECTION);
    return value != nullptr && wire::equalsNoCase(wire::trim(*value), "close");
}

std::string requestTarget(std::string_view path)
{
    std::string target = wire::percentSafe(path);
    if (!target.starts_with('/'))
        target.insert(target.begin(), '/');
    return target;
}

std::string formatRequest(const HttpRequest& request, const asio::ConnectionInfo& info, std::string_view authorization)
{
    wire::HeaderList headers;
    headers.add("Host", hostValue(info));
    if (!authorization.empty())
        headers.add("Authorization", authorization);
    for (const auto& [name, value] : request.headers.all())
        headers.add(name, value);
    if (request.method == "PUT" || request.method == "POST") {
        if (!request.body.empty() && !headers.contains(HTTP_HEADER_CONTENT_TYPE))
            headers.add(HTTP_HEADER_CONTENT_TYPE, "application/json");
        std::string length;
        wire::appendNumber(length, request.body.size());
        headers.set("Content-Length", length);
    }

    std::string text = request.method + ' ' + request.target + " HTTP/1.1\r\n";
    headers.appendTo(text);
    text += "\r\n";
    text += request.body;
    return text;
}
}  // namespace Tavro8::http

#include "http/DigestMemory.h"
#include "wire/Text.h"
#include "wire/Url.h"

#include <IpUtil/ConnectionInfo.h>

namespace Tavro8::asio
{
namespace
{
std::shared_ptr<ConnectionInfo> refuse(std::string* reason, const char* why)
{
    if (reason != nullptr)
        *reason = why;
    return nullptr;
}
}  // namespace

std::shared_ptr<ConnectionInfo> parseConnectionInfo(const std::string& address, std::string* reason)
{
    wire::UrlResult parsed = wire::parseUrl(address, "http");
    wire::Url& url = parsed.url;
    const bool otherScheme = parsed && url.scheme != "http" && url.scheme != "https";
    if (parsed.error == wire::UrlError::unknownScheme || otherScheme)
        return refuse(reason, "The address does not begin with http:// or https://.");
    if (!parsed)
        return refuse(reason, wire::describe(parsed.error));

    auto info = std::make_shared<ConnectionInfo>();
    info->port = url.effectivePort();
    info->secure = url.scheme == "https";
    info->host = std::move(url.host);
    info->user = std::move(url.user);
    info->password = std::move(url.password);
    info->digestMemory = http::DigestMemory::sharedFor(*info);
    return info;
}

std::shared_ptr<ConnectionInfo> changePort(const std::shared_ptr<const ConnectionInfo>& info, std::uint16_t port)
{
    if (info == nullptr)
        return nullptr;
    auto changed = std::make_shared<ConnectionInfo>(*info);
    changed->port = port;
    changed->digestMemory = http::DigestMemory::sharedFor(*changed);
    return changed;
}

std::string describeEndpoint(const ConnectionInfo& info)
{
    const bool bracketed = info.host.find(':') != std::string::npos;
    std::string text = bracketed ? '[' + info.host + ']' : info.host;
    text += ':';
    wire::appendNumber(text, info.port);
    return text;
}
}  // namespace Tavro8::asio

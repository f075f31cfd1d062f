#include "LoadRequests.h"

#include <algorithm>
#include <charconv>

namespace kelvo::bench
{
std::string lower(std::string_view text)
{
    std::string result(text);
    std::ranges::transform(result, result.begin(),
                           [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return result;
}

std::optional<std::uint16_t> numberAfter(std::string_view text, std::string_view name)
{
    const std::size_t at = text.find(name);
    if (at == std::string_view::npos)
        return std::nullopt;
    text.remove_prefix(at + name.size());
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    std::uint16_t value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc{})
        return std::nullopt;
    return value;
}

std::string succeeded(std::string_view path, std::string_view data)
{
    const std::string body = "{\n\"Response\":\t{\n\"ResponseURL\":\t\"" + std::string(path) +
                             "\",\n\"ResponseCode\":\t0,\n\"ResponseString\":\t\"Succeed\",\n\"Data\":\t" +
                             std::string(data) + "}\n}";
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

std::string managementReply(std::string_view path, std::uint16_t httpPort, std::uint16_t rtspPort)
{
    std::string data;
    if (path == "/LAPI/V1.0/Network/Port")
        data = "{\"HTTPPort\":\t" + std::to_string(httpPort) + ",\n\"RTSPPort\":\t" + std::to_string(rtspPort) + "}";
    else if (path == "/LAPI/V1.0/System/DeviceInfo")
        data = "{\"DeviceName\":\t\"Load\",\n\"DeviceModel\":\t\"LOAD-1\",\n\"DeviceType\":\t0}";
    else
        return "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n";
    return succeeded(path, data);
}
}  // namespace kelvo::bench

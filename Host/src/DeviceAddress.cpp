#include "DeviceAddress.h"

#include "PercentEncoding.h"
#include "Secrets.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>

namespace Host
{
namespace
{
constexpr std::string_view schemeMark = "://";
constexpr std::string_view blanks = " \t\r\n";  // copied along with an address

bool isPort(std::string_view text) noexcept
{
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    return error == std::errc{} && stop == end && port != 0;
}

/// An IPv6 address without brackets, which leaves no room for a port (RFC 4291 section 2.2). Counts the groups,
/// because "fee:dad:cafe" may as well be a user and a password.
bool isBareIpv6(std::string_view host) noexcept
{
    host = host.substr(0, host.find('%'));  // the zone
    const auto colons = std::count(host.begin(), host.end(), ':');
    const bool embedsIpv4 = host.find('.') != std::string_view::npos;
    return host.find_first_not_of("0123456789abcdefABCDEF:.") == std::string_view::npos &&
           (host.find("::") != std::string_view::npos || colons == (embedsIpv4 ? 6 : 7));
}

/// Where the colon in front of the port stands in `authority`; npos when there is none.
std::size_t portColon(std::string_view authority) noexcept
{
    if (authority.starts_with('['))
        return authority.find(':', std::min(authority.find(']'), authority.size()));
    return isBareIpv6(authority) ? std::string_view::npos : authority.find(':');
}
}  // namespace

DeviceAddress::DeviceAddress(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    text = text.substr(0, text.find_last_not_of(blanks) + 1);
    const std::size_t mark = text.find(schemeMark);
    if (mark != std::string_view::npos && mark == text.find_first_of("@:/")) {
        scheme = text.substr(0, mark + schemeMark.size());
        text.remove_prefix(scheme.size());
    }
    if (const std::size_t at = text.rfind('@'); at != std::string_view::npos) {
        const std::string_view userInfo = text.substr(0, at);
        const std::size_t colon = userInfo.find(':');
        user = userInfo.substr(0, colon);
        passwordGiven = colon != std::string_view::npos;
        if (passwordGiven)
            password = userInfo.substr(colon + 1);
        text.remove_prefix(at + 1);
    }
    rest = text;
    readPort();
}

void DeviceAddress::readPort()
{
    const std::string_view whole = rest;
    const std::string_view authority = whole.substr(0, whole.find_first_of("/?#"));
    shownRest = authority;
    const std::size_t colon = portColon(authority);
    usablePort = colon == std::string_view::npos || isPort(authority.substr(colon + 1));
    if (usablePort)
        return;
    misplaced = whole.substr(colon + 1);  // a password may go on behind a '/'
    shownRest = std::string(authority.substr(0, colon + 1)).append(maskedPassword);
}

void DeviceAddress::setPassword(std::string_view plain)
{
    password = percentEncode(plain);
    passwordGiven = true;
}

std::string DeviceAddress::front(std::string_view shownPassword) const
{
    std::string text = scheme + user;
    if (passwordGiven)
        text.append(":").append(shownPassword);
    if (passwordGiven || hasUser())
        text += '@';
    return text;
}

std::string DeviceAddress::complete() const
{
    return front(password) + rest;
}

std::string DeviceAddress::masked() const
{
    return front(maskedPassword) + shownRest;
}

std::string DeviceAddress::hostName() const
{
    const std::string authority = rest.substr(0, rest.find_first_of("/?#"));
    if (authority.starts_with('['))
        return authority.substr(0, authority.find(']') + 1);
    if (std::count(authority.begin(), authority.end(), ':') > 1)
        return '[' + authority + ']';
    return authority.substr(0, authority.find(':'));
}
}  // namespace Host

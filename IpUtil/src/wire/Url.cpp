#include "wire/Url.h"

#include "wire/Text.h"

#include <algorithm>

namespace Tavro8::wire
{
namespace
{
constexpr std::string_view upperDigits = "0123456789ABCDEF";

void appendPercent(std::string& to, char c)
{
    const auto byte = static_cast<unsigned char>(c);
    to += '%';
    to += upperDigits[byte >> 4];
    to += upperDigits[byte & 0x0f];
}

bool isUnreserved(char c)
{
    const char lower = toLower(c);
    return isDigit(c) || (lower >= 'a' && lower <= 'z') || c == '-' || c == '.' || c == '_' || c == '~';
}

bool isHostCharacter(char c)
{
    return isUnreserved(c) || static_cast<unsigned char>(c) >= 0x80;  // an international name is the resolver's affair
}

/// Hexadecimal digits, colons, the dots of an embedded IPv4 address, and a zone behind '%'.
bool looksLikeIpv6(std::string_view host)
{
    std::string_view zone = host;
    const std::string_view address = cutAt(zone, '%');
    const auto fits = [](char c) { return hexDigit(c) >= 0 || c == ':' || c == '.'; };
    return std::count(address.begin(), address.end(), ':') >= 2 && std::all_of(address.begin(), address.end(), fits) &&
           std::all_of(zone.begin(), zone.end(), isUnreserved);
}

UrlError readPort(std::string_view text, Url& url)
{
    const auto port = parseNumber<std::uint16_t>(text);
    if (!port || *port == 0)
        return UrlError::badPort;
    url.port = *port;
    return UrlError::none;
}

UrlError readBracketedHost(std::string_view text, Url& url)
{
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos)
        return UrlError::badHost;
    url.host = text.substr(1, close - 1);
    const std::string_view rest = text.substr(close + 1);
    if (url.host.empty())
        return UrlError::emptyHost;
    if (!looksLikeIpv6(url.host))
        return UrlError::badHost;
    if (rest.empty())
        return UrlError::none;
    return rest.front() == ':' ? readPort(rest.substr(1), url) : UrlError::badHost;
}

UrlError readHostAndPort(std::string_view text, Url& url)
{
    if (text.starts_with('['))
        return readBracketedHost(text, url);
    if (looksLikeIpv6(text)) {
        url.host = text;
        return UrlError::none;
    }
    const std::size_t colon = text.find(':');
    url.host = text.substr(0, colon);
    if (url.host.empty())
        return UrlError::emptyHost;
    if (!std::all_of(url.host.begin(), url.host.end(), isHostCharacter))
        return UrlError::badHost;
    return colon == std::string_view::npos ? UrlError::none : readPort(text.substr(colon + 1), url);
}

void readUser(std::string_view text, Url& url)
{
    url.hasUser = true;
    url.user = percentDecode(cutAt(text, ':'));
    url.password = percentDecode(text);
}

constexpr std::string_view schemeMark = "://";

/// Length of the scheme with its mark, 0 when the text has none.
std::size_t schemePrefix(std::string_view text)
{
    const std::size_t mark = text.find(schemeMark);
    // A mark behind the first '/' or '?' belongs to a path.
    const bool inFront = mark != std::string_view::npos && text.find_first_of("/?") == mark + 1;
    return inFront ? mark + schemeMark.size() : 0;
}

UrlError readInto(std::string_view text, std::string_view defaultScheme, Url& url)
{
    if (text.empty())
        return UrlError::empty;
    if (text.size() > maxUrlBytes)
        return UrlError::tooLong;
    if (std::any_of(text.begin(), text.end(), [](char c) { return c == ' ' || isControl(c); }))
        return UrlError::blankInside;

    if (const std::size_t prefix = schemePrefix(text); prefix != 0) {
        url.scheme = lowerCase(text.substr(0, prefix - schemeMark.size()));
        text.remove_prefix(prefix);
    } else {
        url.scheme = lowerCase(defaultScheme);
    }
    if (defaultPort(url.scheme) == 0)
        return UrlError::unknownScheme;

    const std::size_t authorityEnd = std::min(text.find_first_of("/?"), text.size());
    url.target = text.substr(authorityEnd, text.find('#', authorityEnd) - authorityEnd);
    std::string_view authority = text.substr(0, authorityEnd);
    // The last '@', since people leave those of a password unencoded.
    if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
        readUser(authority.substr(0, at), url);
        authority.remove_prefix(at + 1);
    }
    return readHostAndPort(authority, url);
}

std::string format(const Url& url, const std::string& user)
{
    return url.scheme + "://" + user + url.authority() + url.target;
}
}  // namespace

std::uint16_t Url::effectivePort() const noexcept
{
    return port != 0 ? port : defaultPort(scheme);
}

std::string Url::authority() const
{
    std::string text = host.find(':') == std::string::npos ? host : '[' + host + ']';
    if (port != 0) {
        text += ':';
        appendNumber(text, port);
    }
    return text;
}

const char* describe(UrlError error) noexcept
{
    switch (error) {
    case UrlError::none:
        return "The address is in order.";
    case UrlError::empty:
        return "The address is empty.";
    case UrlError::blankInside:
        return "The address holds a blank or a control character.";
    case UrlError::unknownScheme:
        return "The address begins with a scheme that is not known.";
    case UrlError::emptyHost:
        return "The address names no host.";
    case UrlError::badHost:
        return "The host name in the address is not valid.";
    case UrlError::badPort:
        return "The port in the address is no number from 1 to 65535.";
    case UrlError::tooLong:
        return "The address is too long.";
    }
    return "The address is not valid.";
}

UrlResult parseUrl(std::string_view text, std::string_view defaultScheme)
{
    UrlResult result;
    result.error = readInto(trim(text), defaultScheme, result.url);
    if (!result)
        result.url = Url{};
    return result;
}

std::uint16_t defaultPort(std::string_view scheme) noexcept
{
    if (equalsNoCase(scheme, "http"))
        return 80;
    if (equalsNoCase(scheme, "https"))
        return 443;
    if (equalsNoCase(scheme, "rtsp"))
        return 554;
    if (equalsNoCase(scheme, "rtsps"))
        return 322;
    return 0;
}

std::string formatWithoutCredentials(const Url& url)
{
    return format(url, {});
}

std::string formatWithCredentials(const Url& url)
{
    if (!url.hasUser)
        return formatWithoutCredentials(url);
    std::string user = percentEncode(url.user);
    if (!url.password.empty())
        user += ':' + percentEncode(url.password);
    return format(url, user + '@');
}

std::string urlWithoutCredentials(std::string_view text)
{
    text = trim(text);
    std::size_t begin = schemePrefix(text);
    std::string_view searched = text;
    if (parseUrl(text))
        searched = text.substr(0, text.find_first_of("/?", begin));
    const std::size_t at = searched.rfind('@');
    if (at == std::string_view::npos)
        return std::string(text);
    if (at < begin)
        begin = 0;  // "://" behind a user is no scheme's
    return std::string(text.substr(0, begin)) + std::string(text.substr(at + 1));
}

std::string percentSafe(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (c == ' ' || isControl(c) || static_cast<unsigned char>(c) >= 0x80)
            appendPercent(result, c);
        else
            result += c;
    }
    return result;
}

std::string percentEncode(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (isUnreserved(c))
            result += c;
        else
            appendPercent(result, c);
    }
    return result;
}

std::string percentDecode(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? hexDigit(text[i + 2]) : -1;
        if (text[i] == '%' && low >= 0) {
            result += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}
}  // namespace Tavro8::wire

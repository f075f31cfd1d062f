#include "DeviceAddress.h"

#include <algorithm>
#include <cstddef>

namespace Host
{
namespace
{
constexpr std::string_view schemeMark = "://";
constexpr std::string_view stars = "***";

/// RFC 3986 section 2.3: characters that never need encoding.
bool isUnreserved(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

std::string percentEncode(std::string_view plain)
{
    constexpr char digits[] = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : plain) {
        if (isUnreserved(c)) {
            encoded += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            encoded += {'%', digits[byte >> 4U], digits[byte & 15U]};
        }
    }
    return encoded;
}

bool endsWord(char c) noexcept
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '"' || c == '\'' || c == '<' || c == '>';
}

std::string maskWord(std::string_view word)
{
    const std::size_t at = word.rfind('@');
    const std::size_t mark = word.find(schemeMark);
    const std::size_t begin = mark < at ? mark + schemeMark.size() : 0;
    const std::size_t colon = word.find(':', begin);
    if (at == std::string_view::npos || colon >= at)
        return std::string(word);
    return std::string(word.substr(0, colon + 1)).append(stars).append(word.substr(at));
}
}  // namespace

DeviceAddress::DeviceAddress(std::string_view text)
{
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
}

void DeviceAddress::setPassword(std::string_view plain)
{
    password = percentEncode(plain);
    passwordGiven = true;
}

std::string DeviceAddress::build(std::string_view shownPassword) const
{
    std::string text = scheme + user;
    if (passwordGiven)
        text.append(":").append(shownPassword);
    if (passwordGiven || hasUser())
        text += '@';
    return text + rest;
}

std::string DeviceAddress::complete() const
{
    return build(password);
}

std::string DeviceAddress::masked() const
{
    return build(stars);
}

std::string DeviceAddress::hostName() const
{
    const std::string authority = rest.substr(0, rest.find('/'));
    if (authority.starts_with('['))
        return authority.substr(0, authority.find(']') + 1);
    if (std::count(authority.begin(), authority.end(), ':') > 1)
        return '[' + authority + ']';
    return authority.substr(0, authority.find(':'));
}

std::string maskPasswords(std::string_view text)
{
    std::string masked;
    while (!text.empty()) {
        const auto end = std::find_if(text.begin(), text.end(), endsWord);
        const auto length = static_cast<std::size_t>(end - text.begin());
        masked += maskWord(text.substr(0, length));
        text.remove_prefix(length);
        const std::size_t separators = std::min<std::size_t>(text.size(), 1);
        masked.append(text.substr(0, separators));
        text.remove_prefix(separators);
    }
    return masked;
}
}  // namespace Host

#include "PercentEncoding.h"

#include <charconv>

namespace Host
{
namespace
{
/// RFC 3986 section 2.3: characters that never need encoding.
bool isUnreserved(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}
}  // namespace

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

std::string percentDecode(std::string_view encoded)
{
    std::string plain;
    while (!encoded.empty()) {
        unsigned char byte = 0;
        std::size_t length = 1;
        const std::string_view digits = encoded.substr(1, 2);
        if (encoded.front() == '%' && digits.size() == 2 &&
            std::from_chars(digits.data(), digits.data() + 2, byte, 16).ptr == digits.data() + 2)
            length = 3;
        plain += length == 3 ? static_cast<char>(byte) : encoded.front();
        encoded.remove_prefix(length);
    }
    return plain;
}
}  // namespace Host

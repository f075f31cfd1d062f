#include "wire/Base64.h"

#include "wire/Text.h"

#include <array>

namespace Tavro8::wire
{
namespace
{
constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::int8_t notInAlphabet = -1;

constexpr std::array<std::int8_t, 256> makeReverse()
{
    std::array<std::int8_t, 256> reverse{};
    reverse.fill(notInAlphabet);
    for (std::size_t i = 0; i < alphabet.size(); ++i)
        reverse[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
    return reverse;
}
constexpr std::array<std::int8_t, 256> reverseAlphabet = makeReverse();

char letter(std::uint32_t group, unsigned shift)
{
    return alphabet[(group >> shift) & 0x3f];
}
}  // namespace

std::string encodeBase64(ByteView bytes)
{
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t at = 0;
    for (; at + 3 <= bytes.size(); at += 3) {
        const std::uint32_t group = readBe24(bytes.data() + at);
        text += letter(group, 18);
        text += letter(group, 12);
        text += letter(group, 6);
        text += letter(group, 0);
    }
    const std::size_t left = bytes.size() - at;
    if (left == 0)
        return text;
    const std::uint32_t second = left == 2 ? bytes[at + 1] : 0U;
    const std::uint32_t group = (std::uint32_t{bytes[at]} << 16) | (second << 8);
    text += letter(group, 18);
    text += letter(group, 12);
    text += left == 2 ? letter(group, 6) : '=';
    text += '=';
    return text;
}

std::optional<Bytes> decodeBase64(std::string_view text)
{
    for (int padding = 0; padding < 2 && !text.empty() && text.back() == '='; ++padding)
        text.remove_suffix(1);
    if (text.size() % 4 == 1)  // six bits make no byte
        return std::nullopt;

    Bytes bytes;
    bytes.reserve(text.size() * 3 / 4);
    std::uint32_t bits = 0;
    unsigned bitCount = 0;
    for (const char c : text) {
        const std::int8_t value = reverseAlphabet[static_cast<unsigned char>(c)];
        if (value == notInAlphabet)
            return std::nullopt;
        bits = (bits << 6) | static_cast<std::uint32_t>(value);
        bitCount += 6;
        if (bitCount >= 8) {
            bitCount -= 8;
            bytes.push_back(static_cast<std::uint8_t>(bits >> bitCount));
        }
    }
    return bytes;
}

std::optional<Bytes> decodeHex(std::string_view text)
{
    if (text.size() % 2 != 0)
        return std::nullopt;
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hexDigit(text[i]);
        const int low = hexDigit(text[i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

std::string encodeHex(ByteView bytes)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0x0f];
    }
    return text;
}
}  // namespace Tavro8::wire

#include "settings/Utf8.h"
#include <IpUtil/Wide.h>

namespace Tavro8::Utility
{
namespace
{
constexpr char32_t replacementCharacter = 0xFFFD;

/// What the first byte promises: how many follow, and the range of the second, which rules out overlong forms,
/// surrogates and values beyond Unicode.
struct Lead {
    std::size_t following;
    std::uint8_t secondFrom;
    std::uint8_t secondTo;
    char32_t bits;
};

constexpr Lead readLead(std::uint8_t first) noexcept
{
    if (first < 0xC2 || first > 0xF4)
        return {0, 0, 0, 0};
    if (first < 0xE0)
        return {1, 0x80, 0xBF, first & 0x1FU};
    if (first < 0xF0)
        return {2, static_cast<std::uint8_t>(first == 0xE0 ? 0xA0 : 0x80),
                static_cast<std::uint8_t>(first == 0xED ? 0x9F : 0xBF), first & 0x0FU};
    return {3, static_cast<std::uint8_t>(first == 0xF0 ? 0x90 : 0x80),
            static_cast<std::uint8_t>(first == 0xF4 ? 0x8F : 0xBF), first & 0x07U};
}

void append(std::wstring& text, char32_t character)
{
    if constexpr (sizeof(wchar_t) == 2) {
        if (character >= 0x10000) {
            character -= 0x10000;
            text += static_cast<wchar_t>(0xD800 + (character >> 10U));
            text += static_cast<wchar_t>(0xDC00 + (character & 0x3FFU));
            return;
        }
    }
    text += static_cast<wchar_t>(character);
}

constexpr bool isSurrogate(char32_t unit) noexcept
{
    return unit >= 0xD800 && unit <= 0xDFFF;
}

/// The first character of `text`, whose units are UTF-16 or UTF-32 by their size; takes it off.
char32_t takeCharacter(std::wstring_view& text) noexcept
{
    const auto unit = static_cast<char32_t>(text.front());
    text.remove_prefix(1);
    if (isSurrogate(unit)) {
        const char32_t next = text.empty() ? 0 : static_cast<char32_t>(text.front());
        if (sizeof(wchar_t) != 2 || unit >= 0xDC00 || next < 0xDC00 || next > 0xDFFF)
            return replacementCharacter;
        text.remove_prefix(1);
        return 0x10000 + ((unit - 0xD800) << 10U) + (next - 0xDC00);
    }
    return unit > 0x10FFFF ? replacementCharacter : unit;
}

void append(std::string& text, char32_t character)
{
    const auto following = [&](unsigned shift) { text += static_cast<char>(0x80U | ((character >> shift) & 0x3FU)); };
    if (character < 0x80) {
        text += static_cast<char>(character);
    } else if (character < 0x800) {
        text += static_cast<char>(0xC0U | (character >> 6U));
        following(0);
    } else if (character < 0x10000) {
        text += static_cast<char>(0xE0U | (character >> 12U));
        following(6);
        following(0);
    } else {
        text += static_cast<char>(0xF0U | (character >> 18U));
        following(12);
        following(6);
        following(0);
    }
}
}  // namespace

Utf8Character readUtf8(std::string_view text) noexcept
{
    const auto byte = [text](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    if (byte(0) < 0x80)
        return {byte(0), 1, true};
    const Lead lead = readLead(byte(0));
    if (lead.following == 0)
        return {replacementCharacter, 1, false};
    char32_t value = lead.bits;
    for (std::size_t i = 1; i <= lead.following; ++i) {
        const std::uint8_t from = i == 1 ? lead.secondFrom : 0x80;
        const std::uint8_t to = i == 1 ? lead.secondTo : 0xBF;
        if (i >= text.size() || byte(i) < from || byte(i) > to)
            return {replacementCharacter, i, false};
        value = (value << 6U) | (byte(i) & 0x3FU);
    }
    return {value, lead.following + 1, true};
}

bool isUtf8(std::string_view text) noexcept
{
    while (!text.empty()) {
        const Utf8Character character = readUtf8(text);
        if (!character.valid)
            return false;
        text.remove_prefix(character.length);
    }
    return true;
}

std::wstring toWide(std::string_view text)
{
    std::wstring wide;
    wide.reserve(text.size());
    while (!text.empty()) {
        const Utf8Character character = readUtf8(text);
        append(wide, character.value);
        text.remove_prefix(character.length);
    }
    return wide;
}

std::string toNarrow(std::wstring_view text)
{
    std::string narrow;
    narrow.reserve(text.size());
    while (!text.empty())
        append(narrow, takeCharacter(text));
    return narrow;
}
}  // namespace Tavro8::Utility

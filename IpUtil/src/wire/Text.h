#pragma once

#include <charconv>
#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

/// ASCII text helpers of the wire formats. None of them asks the locale: a host may have set one that
/// groups digits or folds letters differently.
namespace Tavro8::wire
{
constexpr char toLower(char c) noexcept
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr char toUpper(char c) noexcept
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

constexpr bool isDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}

/// Blank, tab and the line ends.
constexpr bool isBlank(char c) noexcept
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

constexpr bool isControl(char c) noexcept
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// Equal when upper and lower case are the same.
constexpr bool equalsNoCase(std::string_view a, std::string_view b) noexcept
{
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (toLower(a[i]) != toLower(b[i]))
            return false;
    }
    return true;
}

constexpr bool startsWithNoCase(std::string_view text, std::string_view prefix) noexcept
{
    return text.size() >= prefix.size() && equalsNoCase(text.substr(0, prefix.size()), prefix);
}

/// Position of `needle` in `text` from `from` on with case ignored, npos when it is not there.
constexpr std::size_t findNoCase(std::string_view text, std::string_view needle, std::size_t from = 0) noexcept
{
    for (std::size_t at = from; at + needle.size() <= text.size(); ++at) {
        if (equalsNoCase(text.substr(at, needle.size()), needle))
            return at;
    }
    return std::string_view::npos;
}

constexpr std::string_view trim(std::string_view text) noexcept
{
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

inline std::string lowerCase(std::string_view text)
{
    std::string result(text);
    for (char& c : result)
        c = toLower(c);
    return result;
}

inline std::string upperCase(std::string_view text)
{
    std::string result(text);
    for (char& c : result)
        c = toUpper(c);
    return result;
}

/// Cuts `text` at the first `separator`: returns what stands before it and leaves the rest in `text`.
/// Without a separator all of the text is returned and nothing is left.
constexpr std::string_view cutAt(std::string_view& text, char separator) noexcept
{
    const std::size_t at = text.find(separator);
    const std::string_view head = text.substr(0, at);
    text = at == std::string_view::npos ? std::string_view{} : text.substr(at + 1);
    return head;
}

/// All of `text` as a number of the given base: no sign for unsigned types, no blanks, no prefix.
/// Nothing when any character is left over or the value does not fit.
template <std::integral Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) noexcept
{
    Number value{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    if (error != std::errc{} || stop != end || text.empty())
        return std::nullopt;
    return value;
}

/// All of `text` as a decimal fraction such as "12.5", without a locale.
inline std::optional<double> parseFraction(std::string_view text) noexcept
{
    double value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, std::chars_format::fixed);
    if (error != std::errc{} || stop != end || text.empty())
        return std::nullopt;
    return value;
}

template <std::integral Number>
void appendNumber(std::string& to, Number value, int base = 10)
{
    char digits[72];
    const auto [end, error] = std::to_chars(digits, digits + sizeof digits, value, base);
    if (error == std::errc{})
        to.append(digits, end);
}

/// Value of one hexadecimal digit, -1 for any other character.
constexpr int hexDigit(char c) noexcept
{
    if (isDigit(c))
        return c - '0';
    const char lower = toLower(c);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}
}  // namespace Tavro8::wire

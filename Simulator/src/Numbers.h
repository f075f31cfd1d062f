#pragma once

#include <charconv>
#include <optional>
#include <string_view>

namespace simulator
{

/// A number of a path, in decimal digits and nothing else.
inline std::optional<unsigned> parseNumber(std::string_view text)
{
    unsigned value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

}  // namespace simulator

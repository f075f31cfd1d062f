#pragma once

#include <boost/lexical_cast/bad_lexical_cast.hpp>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string_view>

namespace Tavro8::Utility
{
/// The decimal number that `text` begins with, after blanks and a sign; what follows the digits is ignored. Knows no
/// locale. Raises `std::invalid_argument` without a digit and `std::out_of_range` beyond an `int`; their texts
/// reach log files and are the same on every platform.
///
/// Defined here, so that the exception does not cross the boundary of the library.
inline int toInt(std::string_view text)
{
    const auto first = text.find_first_not_of(" \t\n\v\f\r");
    text.remove_prefix(first == std::string_view::npos ? text.size() : first);
    const bool negative = !text.empty() && text.front() == '-';
    if (negative || (!text.empty() && text.front() == '+'))
        text.remove_prefix(1);
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (text.empty() || !isDigit(text.front()))
        throw std::invalid_argument("invalid stoi argument");

    std::int64_t value = 0;
    for (std::size_t i = 0; i < text.size() && isDigit(text[i]); ++i) {
        value = value * 10 + (text[i] - '0');
        // The most negative integer has no positive counterpart.
        if (value > std::int64_t{std::numeric_limits<int>::max()} + (negative ? 1 : 0))
            throw std::out_of_range("stoi argument out of range");
    }
    return static_cast<int>(negative ? -value : value);
}

/// The number as a port. Raises `boost::bad_lexical_cast` when it is negative or above 65535.
inline std::uint16_t toPort(int value)
{
    if (value < 0 || value > std::numeric_limits<std::uint16_t>::max())
        throw boost::bad_lexical_cast(typeid(int), typeid(std::uint16_t));
    return static_cast<std::uint16_t>(value);
}
}  // namespace Tavro8::Utility

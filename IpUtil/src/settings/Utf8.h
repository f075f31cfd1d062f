#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tavro8::Utility
{
/// One character of UTF-8 text and the bytes that it takes.
struct Utf8Character {
    char32_t value;
    std::size_t length;
    bool valid;
};

/// Reads the first character of `text`, which must not be empty. Bytes that are no UTF-8 (overlong forms,
/// surrogates, what is cut off) give an invalid character as long as the part that looked right (Unicode 3.9).
Utf8Character readUtf8(std::string_view text) noexcept;

bool isUtf8(std::string_view text) noexcept;
}  // namespace Tavro8::Utility

#pragma once

#include <cstddef>
#include <cstdio>

namespace Host
{
/// True when `stream` is a terminal that understands "erase to the end of the line".
bool isTerminal(std::FILE* stream) noexcept;

/// Columns of the terminal; 80 when it does not say.
std::size_t terminalWidth(std::FILE* stream) noexcept;

/// True when text is shown, or read elsewhere, as UTF-8.
bool usesUtf8();
}  // namespace Host

#include "platform/Terminal.h"

#if defined(_WIN32)
#include <io.h>
#include <windows.h>
#else
#include <algorithm>
#include <cstdlib>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>
#endif

namespace Host
{
namespace
{
constexpr std::size_t defaultWidth = 80;
}

#if defined(_WIN32)
bool isTerminal(std::FILE* stream) noexcept
{
    const auto console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
    DWORD mode = 0;
    return GetConsoleMode(console, &mode) && SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

std::size_t terminalWidth(std::FILE* stream) noexcept
{
    CONSOLE_SCREEN_BUFFER_INFO info{};
    const auto console = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream)));
    if (!GetConsoleScreenBufferInfo(console, &info))
        return defaultWidth;
    return static_cast<std::size_t>(info.srWindow.Right - info.srWindow.Left) + 1;
}

bool usesUtf8()
{
    return GetConsoleOutputCP() == CP_UTF8;
}
#else
bool isTerminal(std::FILE* stream) noexcept
{
    return isatty(fileno(stream)) == 1;
}

std::size_t terminalWidth(std::FILE* stream) noexcept
{
    winsize size{};
    if (ioctl(fileno(stream), TIOCGWINSZ, &size) != 0 || size.ws_col == 0)
        return defaultWidth;
    return size.ws_col;
}

bool usesUtf8()
{
    // As setlocale() reads them (POSIX, "Internationalization Variables"); the program itself stays in the C locale.
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0')
            continue;
        std::string locale = value;
        std::transform(locale.begin(), locale.end(), locale.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
        return locale.find("utf-8") != locale.npos || locale.find("utf8") != locale.npos;
    }
    return false;
}
#endif
}  // namespace Host

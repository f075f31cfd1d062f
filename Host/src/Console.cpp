#include "Console.h"

#include "DeviceAddress.h"
#include "platform/Terminal.h"

namespace Host
{
namespace
{
constexpr std::string_view eraseLine = "\r\x1b[K";

void put(std::FILE* stream, std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), stream);
}
}  // namespace

Console::Console(std::FILE* errorStream) : stream(errorStream), terminal(isTerminal(errorStream)) {}

Console::~Console()
{
    clearProgress();
}

void Console::line(std::string_view text) noexcept
try {
    const std::string masked = maskPasswords(text) + '\n';
    const std::lock_guard lock(mutex);
    if (!shownProgress.empty())
        put(stream, eraseLine);
    put(stream, masked);
    put(stream, shownProgress);
    std::fflush(stream);
} catch (...) {  // out of memory: a message less
}

void Console::progress(std::string_view text) noexcept
try {
    if (!terminal)
        return;
    const std::lock_guard lock(mutex);
    if (text.empty() && shownProgress.empty())
        return;
    // A line as wide as the terminal would wrap on some of them.
    shownProgress = text.substr(0, terminalWidth(stream) - 1);
    put(stream, eraseLine);
    put(stream, shownProgress);
    std::fflush(stream);
} catch (...) {  // out of memory: an old progress line
}
}  // namespace Host

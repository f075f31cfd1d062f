#include "Console.h"

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

void Console::hide(std::string_view secret)
{
    const std::lock_guard lock(mutex);
    secrets.add(secret);
}

void Console::hideIn(std::string_view argument)
{
    const std::lock_guard lock(mutex);
    secrets.addFrom(argument);
}

std::string Console::masked(std::string_view text) const
{
    const std::lock_guard lock(mutex);
    return secrets.mask(text);
}

void Console::foreignLine(std::string_view text) noexcept
try {
    // Known passwords first: the pattern cuts an address where its password holds a blank.
    line(maskAddresses(masked(text)));
} catch (...) {  // out of memory: a message less
}

void Console::line(std::string_view text) noexcept
try {
    const std::lock_guard lock(mutex);
    const std::string shown = secrets.mask(text) + '\n';
    if (!shownProgress.empty())
        put(stream, eraseLine);
    put(stream, shown);
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
    shownProgress = secrets.mask(text).substr(0, terminalWidth(stream) - 1);
    put(stream, eraseLine);
    put(stream, shownProgress);
    std::fflush(stream);
} catch (...) {  // out of memory: an old progress line
}
}  // namespace Host

#include "LoggedErrors.h"

#include <algorithm>

namespace Host
{
namespace
{
thread_local LoggedErrors* listening = nullptr;

std::string_view withoutBlanks(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));  // some lines begin with one
    return text;
}

/// Takes "[192.0.2.10:80] ", "[[2001:db8::1]:80] " and "[collapsed 50]" off.
std::string_view withoutMarks(std::string_view text)
{
    for (;;) {
        text = withoutBlanks(text);
        const std::size_t end = text.find(']', text.starts_with("[[") ? text.find(']') + 1 : 0);
        if (!text.starts_with('[') || end == std::string_view::npos)
            return text;
        text.remove_prefix(end + 1);
    }
}

/// Takes the name of an object with a number off, "tc 0: ".
std::string_view withoutObject(std::string_view text)
{
    const std::size_t blank = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz");
    if (blank == 0 || blank >= text.size() || text[blank] != ' ')
        return text;
    const std::size_t colon = text.find_first_not_of("0123456789.", blank + 1);
    if (colon == blank + 1 || colon == std::string_view::npos || text.substr(colon, 2) != ": ")
        return text;
    return text.substr(colon + 2);
}
}  // namespace

LoggedErrors::LoggedErrors() noexcept
{
    listening = this;
}

LoggedErrors::~LoggedErrors()
{
    listening = nullptr;
}

void LoggedErrors::note(std::string_view message)
{
    if (listening == nullptr || !listening->message.empty())
        return;
    listening->message = withoutMarks(withoutObject(withoutMarks(message)));
}
}  // namespace Host

#include "LoggedErrors.h"

#include <algorithm>

namespace Host
{
namespace
{
thread_local LoggedErrors* listening = nullptr;
}

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
    message.remove_prefix(std::min(message.find_first_not_of(' '), message.size()));  // some lines begin with one
    listening->message = message;
}
}  // namespace Host

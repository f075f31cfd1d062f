#pragma once

#include <string>
#include <string_view>

namespace Host
{
/// Remembers the first error that the module logs on this thread while the object lives: operations without a result
/// tell in the log alone what went wrong, on the thread of their caller. One at a time on each thread.
class LoggedErrors {
public:
    LoggedErrors() noexcept;
    ~LoggedErrors();
    LoggedErrors(const LoggedErrors&) = delete;
    LoggedErrors& operator=(const LoggedErrors&) = delete;

    /// What went wrong, without the names of device and object that stand in front of a log line, and without the
    /// mark of folded lines. Empty when there was none.
    const std::string& first() const noexcept { return message; }

    /// Called by the logger for each error.
    static void note(std::string_view message);

private:
    std::string message;
};
}  // namespace Host

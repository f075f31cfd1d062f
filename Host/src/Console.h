#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace Host
{
/// Standard error: messages, log lines and, on a terminal, one progress line that stays at the bottom.
///
/// The one place through which text for people leaves the program beside the results, and therefore the one
/// place that masks passwords. Any thread.
class Console {
public:
    explicit Console(std::FILE* errorStream);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// Writes a line of its own above the progress line.
    void line(std::string_view text) noexcept;

    /// Replaces the progress line; does nothing when the stream is no terminal. Cut to the terminal's width.
    void progress(std::string_view text) noexcept;

    /// Removes the progress line.
    void clearProgress() noexcept { progress({}); }

    bool showsProgress() const noexcept { return terminal; }

private:
    std::FILE* const stream;
    const bool terminal;
    std::mutex mutex;
    std::string shownProgress;  // guarded by mutex
};
}  // namespace Host

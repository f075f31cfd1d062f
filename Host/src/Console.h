#pragma once

#include "Secrets.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace Host
{
/// Standard error: messages, log lines and, on a terminal, one progress line that stays at the bottom.
///
/// The one place through which text for people leaves the program beside the results, and therefore the one
/// that knows the passwords and masks them. Any thread.
class Console {
public:
    explicit Console(std::FILE* errorStream);
    ~Console();
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    /// From now on `secret`, or what of an argument of the command line is one, appears in no text.
    void hide(std::string_view secret);
    void hideIn(std::string_view argument);

    /// `text` as it may leave the program.
    std::string masked(std::string_view text) const;

    /// Writes a line of its own above the progress line.
    void line(std::string_view text) noexcept;

    /// The same with words of others, such as the module's log or the reasons of a library: passwords that only
    /// they know are masked in everything that looks like an address.
    void foreignLine(std::string_view text) noexcept;

    /// Replaces the progress line; does nothing when the stream is no terminal. Cut to the terminal's width.
    void progress(std::string_view text) noexcept;

    /// Removes the progress line.
    void clearProgress() noexcept { progress({}); }

    bool showsProgress() const noexcept { return terminal; }

private:
    std::FILE* const stream;
    const bool terminal;
    mutable std::mutex mutex;  // guards what follows
    Secrets secrets;
    std::string shownProgress;
};
}  // namespace Host

#pragma once

#include <iosfwd>
#include <json/forwards.h>
#include <mutex>
#include <string_view>

namespace Host
{
class Console;

/// Standard output: the results of a command, for people or, one JSON object a line, for programs.
/// The one place that knows which of the two is wanted. Any thread.
class Output {
public:
    /// `sharedConsole` (may be null) removes its progress line before a result appears on the same terminal.
    Output(std::ostream& resultStream, bool writeJson, Console* sharedConsole)
        : stream(resultStream), json(writeJson), console(sharedConsole)
    {}

    /// Writes the object `fields` with a first member `"event": name`, or `readable`, a text of whole lines;
    /// an empty text writes nothing.
    void event(std::string_view name, const Json::Value& fields, std::string_view readable);

    /// Which of the two forms of an event is written: asked where there are so many that making the other one costs.
    bool writesJson() const noexcept { return json; }

    /// True when results could not be written, for example to a full disk or a pipe without a reader.
    bool hasFailed() const;

private:
    std::ostream& stream;
    const bool json;
    Console* const console;
    mutable std::mutex mutex;  // guards stream
};
}  // namespace Host

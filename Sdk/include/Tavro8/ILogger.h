#pragma once

#include <Tavro8/IContract.h>

namespace Tavro8
{
/// How grave a log line is. A logger's level is the lowest severity it wants; level 0 wants everything.
enum class LogSeverity : int {
    debug = 0,
    info = 1,
    warning = 2,
    error = 3,
};

/// Where log lines go. Every operation may be called on any thread and must neither throw nor call back.
class ILogger : public IContract {
public:
    /// Slot 3. Lines below this severity need not be built.
    virtual LogSeverity GetLevel() const noexcept = 0;

    /// Slot 4. One line without its end. All texts are UTF-8 and belong to the caller.
    /// `function` is the qualified name of the operation, `file` the source path without its ending.
    virtual void Log(LogSeverity severity, const char* function, const char* file, int line,
                     const char* message) noexcept = 0;

    /// Slot 5. Releases the logger; called by its owner alone.
    virtual void Destroy() noexcept = 0;
};

constexpr bool wants(LogSeverity level, LogSeverity severity) noexcept
{
    return level == LogSeverity::debug || level <= severity;
}
}  // namespace Tavro8

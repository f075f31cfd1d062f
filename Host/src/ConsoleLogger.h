#pragma once

#include <Tavro8/ILogger.h>
#include <string_view>

namespace Host
{
class Console;

/// Hands the module's log lines to the console. Any thread.
class ConsoleLogger final : public Tavro8::ILogger {
public:
    /// `logConsole` outlives the logger, which outlives the module.
    ConsoleLogger(Console& logConsole, Tavro8::LogSeverity lowestSeverity) : console(logConsole), level(lowestSeverity)
    {}

    void* FindContract(const char* name) noexcept override;
    Tavro8::LogSeverity GetLevel() const noexcept override { return level; }
    void Log(Tavro8::LogSeverity severity, const char* function, const char* file, int line,
             const char* message) noexcept override;
    void Destroy() noexcept override {}  // belongs to the host, which releases it after the module

private:
    Console& console;
    const Tavro8::LogSeverity level;
};
}  // namespace Host

#include "ConsoleLogger.h"

#include "Console.h"
#include "LoggedErrors.h"
#include "TimeText.h"

#include <chrono>
#include <string>

namespace Host
{
namespace
{
const char* severityText(Tavro8::LogSeverity severity) noexcept
{
    switch (severity) {
    case Tavro8::LogSeverity::debug:
        return "debug  ";
    case Tavro8::LogSeverity::info:
        return "info   ";
    case Tavro8::LogSeverity::warning:
        return "warning";
    case Tavro8::LogSeverity::error:
        return "error  ";
    }
    return "?      ";
}
}  // namespace

void* ConsoleLogger::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<Tavro8::ILogger, Tavro8::IContract>(this, name);
}

void ConsoleLogger::Log(Tavro8::LogSeverity severity, const char* function, const char*, int,
                        const char* message) noexcept
try {
    if (severity == Tavro8::LogSeverity::error)
        LoggedErrors::note(message != nullptr ? message : "");
    if (!Tavro8::wants(level, severity))
        return;
    std::string text = clockText(presentMoment());
    text.append(" ").append(severityText(severity)).append(" ");
    if (function != nullptr && *function != '\0')
        text.append(function).append(": ");
    console.foreignLine(text.append(message != nullptr ? message : ""));
} catch (...) {  // out of memory: a log line less
}
}  // namespace Host

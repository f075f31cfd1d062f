#pragma once

#include <IpUtil/Export.h>
#include <Tavro8/ILogger.h>
#include <cstdint>
#include <exception>
#include <locale>
#include <sstream>
#include <string>
#include <utility>

namespace Tavro8
{
/// The qualified name of the logging operation, with the line where it is written.
struct LogPlace {
    // Implicit, so that a call site writes the name alone and the line comes by itself. GCC, Clang and MSVC all know
    // the builtin; std::source_location only comes with Clang 15.
    LogPlace(const char* operation, int here = __builtin_LINE()) noexcept : function(operation), line(here) {}
    const char* function;
    int line;
};

/// Writes log lines of one source file or object: asks the level before it builds the text, builds it in the
/// classic locale, and puts the object name (when there is one) and ": " in front. Thread-safe as the logger is.
class LoggerHelper {
public:
    LoggerHelper() noexcept = default;
    /// `sourcePath` is the path without its ending, such as "Drivers/Uniview/src/ModuleDriver"; it and `logger`
    /// (may be null) must outlive the helper.
    LoggerHelper(ILogger* logger, const char* sourcePath, std::string objectName = {})
        : logger(logger), sourcePath(sourcePath), objectName(std::move(objectName))
    {}

    template <typename... Parts>
    void debug(LogPlace place, const Parts&... parts) const noexcept
    {
        write(LogSeverity::debug, place, parts...);
    }
    template <typename... Parts>
    void info(LogPlace place, const Parts&... parts) const noexcept
    {
        write(LogSeverity::info, place, parts...);
    }
    template <typename... Parts>
    void warning(LogPlace place, const Parts&... parts) const noexcept
    {
        write(LogSeverity::warning, place, parts...);
    }
    template <typename... Parts>
    void error(LogPlace place, const Parts&... parts) const noexcept
    {
        write(LogSeverity::error, place, parts...);
    }

    bool wants(LogSeverity severity) const noexcept
    {
        return logger != nullptr && Tavro8::wants(logger->GetLevel(), severity);
    }
    ILogger* getLogger() const noexcept { return logger; }
    const std::string& getObjectName() const noexcept { return objectName; }

private:
    template <typename... Parts>
    void write(LogSeverity severity, const LogPlace& place, const Parts&... parts) const noexcept
    {
        if (!wants(severity))
            return;
        try {
            std::ostringstream text;
            text.imbue(std::locale::classic());
            if (!objectName.empty())
                text << objectName << ": ";
            static_cast<void>((text << ... << parts));
            logger->Log(severity, place.function, sourcePath, place.line, text.str().c_str());
        } catch (...) {  // a log line that cannot be built is given up; logging never fails its caller
        }
    }

    ILogger* logger = nullptr;
    const char* sourcePath = "";
    std::string objectName;
};

/// Runs the body of an operation that the host calls: nothing escapes, what was thrown is logged.
template <typename Body>
std::int32_t guarded(const LoggerHelper& logger, LogPlace operation, std::int32_t onThrow, Body&& body) noexcept
{
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception& e) {
        logger.error(operation, e.what());
    } catch (...) {  // Boost.Thread's interruption is no std::exception
        logger.error(operation, "unknown exception");
    }
    return onThrow;
}

/// The same for operations without a result.
template <typename Body>
void guardedVoid(const LoggerHelper& logger, LogPlace operation, Body&& body) noexcept
{
    static_cast<void>(guarded(logger, operation, 0, [&body] {
        std::forward<Body>(body)();
        return 0;
    }));
}
}  // namespace Tavro8

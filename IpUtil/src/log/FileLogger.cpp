#include "settings/Path.h"
#include <IpUtil/Logger.h>
#include <IpUtil/LoggerHelper.h>
#include <Tavro8/GDRV/IModuleContext.h>
#include <chrono>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <utility>

namespace Tavro8::LoggerDetail
{
namespace
{
using Clock = std::chrono::steady_clock;
using FileSink = spdlog::sinks::rotating_file_sink_st;

// A full disk is asked again this often; each failing attempt may block for some tens of milliseconds.
constexpr auto pauseAfterFailure = std::chrono::seconds(30);

spdlog::level::level_enum toSpdlog(LogSeverity severity) noexcept
{
    switch (severity) {
    case LogSeverity::debug:
        return spdlog::level::debug;
    case LogSeverity::info:
        return spdlog::level::info;
    case LogSeverity::warning:
        return spdlog::level::warn;
    case LogSeverity::error:
        break;
    }
    return spdlog::level::err;
}

spdlog::filename_t toFilename(const std::wstring& path)
{
    return Utility::toPath(path).string<spdlog::filename_t::value_type>();  // narrow or wide, as spdlog was built
}

const char* orEmpty(const char* text) noexcept
{
    return text == nullptr ? "" : text;
}

/// `function file:line message`; what would end the line early becomes a blank, since devices write some messages.
std::string formatLine(const char* function, const char* file, int line, const char* message)
{
    std::string text;
    text.append(orEmpty(function)).append(1, ' ');
    text.append(orEmpty(file)).append(1, ':').append(std::to_string(line)).append(1, ' ');
    text.append(orEmpty(message));
    for (char& c : text) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    return text;
}

/// One rotated log file. The sink is ours alone: spdlog's process-wide registry, which other modules may use and
/// which outlives a module, is never touched. Any thread; `mutex` guards all.
class LogFile {
public:
    explicit LogFile(const std::wstring& path) : filename(toFilename(path)) { open(); }

    /// Throws when the line cannot be written; then skips the lines of the next while and begins anew.
    void write(LogSeverity severity, const std::string& text)
    {
        const std::lock_guard lock(mutex);
        if (sink == nullptr && Clock::now() < retryAt)
            return;
        retryAt = Clock::now() + pauseAfterFailure;
        if (sink == nullptr)
            open();
        const auto keep = std::exchange(sink, nullptr);  // dropped when one of the next two throws
        keep->log(spdlog::details::log_msg({}, toSpdlog(severity), text));
        keep->flush();
        sink = keep;
    }

private:
    void open()
    {
        auto made = std::make_shared<FileSink>(filename, logFileBytes, logFilesKept);
        made->set_formatter(std::make_unique<spdlog::pattern_formatter>("%Y-%m-%dT%H:%M:%S.%eZ %l %v",
                                                                        spdlog::pattern_time_type::utc, "\n"));
        sink = std::move(made);
    }

    const spdlog::filename_t filename;
    std::mutex mutex;
    std::shared_ptr<FileSink> sink;  // null after a failure
    Clock::time_point retryAt;
};

/// Passes lines to the host's logger and to the file.
class FileLogger final : public ILogger {
public:
    FileLogger(ILogger* host, const std::wstring& path) : host(host)
    {
        try {
            if (!path.empty())
                file = std::make_unique<LogFile>(path);
        } catch (const std::exception& e) {
            reportFailure("Cannot open log file: ", e.what());
        } catch (...) {
            reportFailure("Cannot open log file: ", "unknown exception");
        }
    }

    void* FindContract(const char* name) noexcept override { return findContractIn<ILogger, IContract>(this, name); }

    LogSeverity GetLevel() const noexcept override { return host == nullptr ? LogSeverity::error : host->GetLevel(); }

    void Log(LogSeverity severity, const char* function, const char* source, int line,
             const char* message) noexcept override
    {
        if (host != nullptr)
            host->Log(severity, function, source, line, message);
        try {
            if (file != nullptr)
                file->write(severity, formatLine(function, source, line, message));
        } catch (const std::exception& e) {
            reportFailure("Cannot write log file: ", e.what());
        } catch (...) {
            reportFailure("Cannot write log file: ", "unknown exception");
        }
    }

    void Destroy() noexcept override { delete this; }

private:
    void reportFailure(const char* what, const char* reason) const noexcept
    {
        const LoggerHelper logger(host, "IpUtil/src/log/FileLogger");
        logger.error("Tavro8::LoggerDetail::initFileLogger", what, reason);
    }

    ILogger* const host;  // the context's, outlives this logger; null when the host wants no log
    std::unique_ptr<LogFile> file;
};
}  // namespace

ILogger* initFileLogger(GDRV::ILoggingContext* context)
{
    if (context == nullptr)
        return std::make_unique<FileLogger>(nullptr, std::wstring()).release();
    const wchar_t* path = context->GetLogFile();
    return std::make_unique<FileLogger>(context->GetLogger(), path == nullptr ? std::wstring() : path).release();
}
}  // namespace Tavro8::LoggerDetail

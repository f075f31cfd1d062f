#pragma once

#include <Tavro8/ILogger.h>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace kelvo::test
{
struct LogLine {
    Tavro8::LogSeverity severity{};
    std::string function;
    std::string file;
    int line = 0;
    std::string message;
};

/// Keeps every log line for a test to look at, and lets it wait for one. Any thread.
class RecordingLogger final : public Tavro8::ILogger {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::ILogger, Tavro8::IContract>(this, name);
    }
    Tavro8::LogSeverity GetLevel() const noexcept override { return level; }
    void Log(Tavro8::LogSeverity severity, const char* function, const char* file, int line,
             const char* message) noexcept override
    {
        const std::lock_guard lock(mutex);
        recorded.push_back({severity, function, file, line, message});
        changed.notify_all();
    }
    void Destroy() noexcept override { ++destroyed; }

    std::vector<LogLine> lines() const
    {
        const std::lock_guard lock(mutex);
        return recorded;
    }

    /// All messages, each with a line end.
    std::string text() const
    {
        std::string all;
        for (const LogLine& line : lines())
            all += line.message + '\n';
        return all;
    }

    std::size_t errorCount() const
    {
        const std::lock_guard lock(mutex);
        return static_cast<std::size_t>(std::ranges::count(recorded, Tavro8::LogSeverity::error, &LogLine::severity));
    }

    /// How many lines contain `text`.
    std::size_t count(const std::string& text) const
    {
        const std::lock_guard lock(mutex);
        return countLocked(text);
    }
    bool contains(const std::string& text) const { return count(text) > 0; }

    /// The first line that contains `text`; an empty one when there is none.
    LogLine find(const std::string& text) const
    {
        const std::lock_guard lock(mutex);
        const auto found = std::find_if(recorded.begin(), recorded.end(), holds(text));
        return found == recorded.end() ? LogLine{} : *found;
    }

    /// Waits until a line contains `text`; false when none came in time.
    bool waitFor(const std::string& text, std::size_t times = 1)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), [&] { return countLocked(text) >= times; });
    }

    Tavro8::LogSeverity level = Tavro8::LogSeverity::debug;  ///< set before the logger is used
    int destroyed = 0;                                       ///< read after the logger's last use

private:
    struct Holds {
        std::string text;
        bool operator()(const LogLine& line) const { return line.message.find(text) != std::string::npos; }
    };
    static Holds holds(const std::string& text) { return {text}; }
    std::size_t countLocked(const std::string& text) const
    {
        return static_cast<std::size_t>(std::count_if(recorded.begin(), recorded.end(), holds(text)));
    }

    mutable std::mutex mutex;  // guards `recorded`
    std::condition_variable changed;
    std::vector<LogLine> recorded;
};

inline std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << line.function << " [" << line.file << "] " << line.message;
}
}  // namespace kelvo::test

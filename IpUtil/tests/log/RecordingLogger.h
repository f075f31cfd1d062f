#pragma once

#include <Tavro8/ILogger.h>
#include <mutex>
#include <string>
#include <vector>

/// Keeps what was logged. Any thread.
class RecordingLogger final : public Tavro8::ILogger {
public:
    struct Line {
        Tavro8::LogSeverity severity;
        std::string function;
        std::string file;
        int line;
        std::string message;
    };

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::ILogger, Tavro8::IContract>(this, name);
    }
    Tavro8::LogSeverity GetLevel() const noexcept override { return level; }
    void Log(Tavro8::LogSeverity severity, const char* function, const char* file, int line,
             const char* message) noexcept override
    {
        const std::lock_guard lock(mutex);
        lines.push_back({severity, function, file, line, message});
    }
    void Destroy() noexcept override { ++destroyed; }

    std::vector<Line> all() const
    {
        const std::lock_guard lock(mutex);
        return lines;
    }
    std::size_t countContaining(const std::string& text) const
    {
        std::size_t count = 0;
        for (const Line& line : all())
            count += line.message.find(text) != std::string::npos ? 1U : 0U;
        return count;
    }

    Tavro8::LogSeverity level = Tavro8::LogSeverity::debug;
    int destroyed = 0;

private:
    mutable std::mutex mutex;
    std::vector<Line> lines;
};

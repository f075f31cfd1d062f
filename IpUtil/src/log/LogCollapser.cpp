#include <IpUtil/Logger.h>
#include <algorithm>
#include <string>
#include <utility>

namespace Tavro8::LoggerDetail
{
namespace
{
// More different failures than one device produces in a poll; a device that invents new texts costs no more memory.
constexpr std::size_t maxMessages = 256;
}  // namespace

std::uint32_t LogCollapserMaker::collapse(std::string_view message, std::uint32_t count)
{
    const std::lock_guard lock(mutex);
    std::string key(message);
    const auto known = entries.find(key);
    if (known != entries.end())
        return repeat(known->second, count);
    if (entries.size() >= maxMessages) {
        entries.erase(std::min_element(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
            return left.second.lastUse < right.second.lastUse;
        }));
    }
    entries.emplace(std::move(key), Entry{0, ++clock});
    return 1;
}

std::uint32_t LogCollapserMaker::collapse(std::string_view message, std::uint32_t count, const std::string& place,
                                          std::size_t maxTexts)
{
    const std::lock_guard lock(mutex);
    std::string key(message);
    const auto known = entries.find(key);
    if (known != entries.end())
        return repeat(known->second, count);
    if (entries.size() < maxTexts) {
        entries.emplace(std::move(key), Entry{0, ++clock});
        return 1;
    }
    const auto [others, isFirst] = places.try_emplace(place);
    return isFirst ? 1 : repeat(others->second, count);
}

std::uint32_t LogCollapserMaker::repeat(Entry& entry, std::uint32_t count) noexcept
{
    entry.lastUse = ++clock;
    if (++entry.pending < count)
        return 0;
    return std::exchange(entry.pending, 0U);
}

void LogCollapserMaker::forget()
{
    const std::lock_guard lock(mutex);
    entries.clear();
    places.clear();
}

LogSeverity CollapsingLogger::GetLevel() const noexcept
{
    return wrapped != nullptr ? wrapped->GetLevel() : LogSeverity::error;
}

void CollapsingLogger::Log(LogSeverity severity, const char* function, const char* file, int line,
                           const char* message) noexcept
try {
    if (wrapped == nullptr)
        return;
    const std::uint32_t times =
        severity < LogSeverity::warning
            ? 1
            : collapser.collapse(message, collapseCount, std::string(file) + ':' + std::to_string(line), maxTexts);
    if (times == 1)
        wrapped->Log(severity, function, file, line, message);
    else if (times > 1)
        wrapped->Log(severity, function, file, line, ("[collapsed " + std::to_string(times) + "]" + message).c_str());
} catch (...) {  // no memory to remember it: better twice than never
    wrapped->Log(severity, function, file, line, message);
}
}  // namespace Tavro8::LoggerDetail

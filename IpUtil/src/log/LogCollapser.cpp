#include <IpUtil/Logger.h>
#include <algorithm>
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
    if (known == entries.end()) {
        if (entries.size() >= maxMessages) {
            entries.erase(std::min_element(entries.begin(), entries.end(), [](const auto& left, const auto& right) {
                return left.second.lastUse < right.second.lastUse;
            }));
        }
        entries.emplace(std::move(key), Entry{0, ++clock});
        return 1;
    }
    Entry& entry = known->second;
    entry.lastUse = ++clock;
    if (++entry.pending < count)
        return 0;
    return std::exchange(entry.pending, 0U);
}
}  // namespace Tavro8::LoggerDetail

#include "Coverage.h"

#include <algorithm>

namespace Host
{
using Tavro8::GDRV::DateTimeRange;

std::vector<DateTimeRange> coverage(const DateTimeRange& interval, std::span<const DateTimeRange> recordings)
{
    std::vector<DateTimeRange> sorted;
    for (const DateTimeRange& recording : recordings)
        if (recording.begin <= recording.end && recording.begin < interval.end && recording.end >= interval.begin)
            sorted.push_back({std::max(recording.begin, interval.begin), std::min(recording.end, interval.end)});
    std::ranges::sort(sorted, {}, &DateTimeRange::begin);
    std::vector<DateTimeRange> joined;
    for (const DateTimeRange& range : sorted) {
        if (joined.empty() || range.begin > joined.back().end)
            joined.push_back(range);
        else
            joined.back().end = std::max(joined.back().end, range.end);
    }
    return joined;
}

std::uint64_t totalMs(std::span<const DateTimeRange> ranges) noexcept
{
    std::uint64_t sum = 0;
    for (const DateTimeRange& range : ranges)
        sum += range.end - range.begin;
    return sum;
}
}  // namespace Host

#include "RecordingRanges.h"

#include "RecordedInterval.h"
#include "UtcText.h"

#include <IpUtil/LoggerHelper.h>
#include <algorithm>
#include <iterator>
#include <json/value.h>
#include <tuple>

namespace Uniview
{
namespace
{
using Tavro8::GDRV::DateTimeRange;
using Ranges = std::vector<DateTimeRange>;

constexpr const char* sourcePath = "Drivers/Uniview/src/RecordingSearch";
constexpr const char* adjusting = "Uniview::adjustingRanges";

/// How ranges of which no time lies in two are sorted anyway: an empty one stands in front of what begins there.
bool comesBefore(const DateTimeRange& one, const DateTimeRange& other) noexcept
{
    return std::tie(one.begin, one.end) < std::tie(other.begin, other.end);
}

/// False when the record has no two numbers in the right order.
bool readRecord(const Json::Value& record, DateTimeRange& range)
{
    if (!record.isObject())
        return false;
    const Json::Value& begin = record["Begin"];
    const Json::Value& end = record["End"];
    if (!begin.isUInt() || !end.isUInt())  // asUInt would throw
        return false;
    range = {begin.asUInt() * millisecondsPerSecond, end.asUInt() * millisecondsPerSecond};
    return range.begin <= range.end;
}

}  // namespace

std::size_t appendRecords(const Json::Value& records, Ranges& ranges)
{
    std::size_t unreadable = 0;
    ranges.reserve(ranges.size() + records.size());
    for (const Json::Value& record : records) {
        DateTimeRange range;
        if (readRecord(record, range))
            ranges.push_back(range);
        else
            ++unreadable;
    }
    return unreadable;
}

void trimCovered(Ranges& ranges, std::uint64_t coverage, Tavro8::ILogger* logger)
{
    const Tavro8::LoggerHelper log(logger, sourcePath);
    const bool wanted = log.wants(Tavro8::LogSeverity::info);
    std::ranges::sort(ranges, {}, &DateTimeRange::begin);
    std::uint64_t covered = coverage;
    auto kept = ranges.begin();
    for (const DateTimeRange& range : ranges) {
        if (covered > range.end) {
            if (wanted)
                log.info(adjusting, "Merged overlapped recording range (", utcText(range.begin), " - ",
                         utcText(range.end), ')');
            continue;
        }
        // Where both are the same the range stays, if only as an empty one.
        *kept = {std::max(covered, range.begin), range.end};
        covered = kept->end;
        ++kept;
    }
    ranges.erase(kept, ranges.end());
}

void adjustingRanges(const Json::Value& records, Ranges& ranges, std::uint64_t coverage, Tavro8::ILogger* logger)
{
    const Tavro8::LoggerHelper log(logger, sourcePath);
    if (!records.isArray()) {
        log.error(adjusting, "Recording range list is empty.");
        return;
    }
    if (const std::size_t unreadable = appendRecords(records, ranges); unreadable != 0)
        log.warning(adjusting, "Recordings without a readable begin and end are left out: ", unreadable, " of ",
                    records.size());
    trimCovered(ranges, coverage, logger);
}

void CollectedRanges::add(const Ranges& page)
{
    if (page.empty())
        return;
    // Only those that the page reaches are looked at again.
    const auto first = std::ranges::lower_bound(ranges, page.front().begin, {}, &DateTimeRange::end);
    const auto last = std::upper_bound(first, ranges.end(), page.back().end,
                                       [](std::uint64_t end, const DateTimeRange& range) { return end < range.begin; });
    Ranges merged;
    merged.reserve(static_cast<std::size_t>(last - first) + page.size());
    std::set_union(first, last, page.begin(), page.end(), std::back_inserter(merged), comesBefore);
    std::uint64_t covered = 0;
    auto kept = merged.begin();
    for (const DateTimeRange& range : merged) {
        if (range.begin < covered && range.end <= covered)
            continue;
        *kept = {std::max(covered, range.begin), range.end};
        covered = kept->end;
        ++kept;
    }
    const auto at = ranges.erase(first, last);
    ranges.insert(at, merged.begin(), kept);
}
}  // namespace Uniview

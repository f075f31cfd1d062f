#include "RecordingRanges.h"

#include "RecordedInterval.h"
#include "UtcText.h"

#include <IpUtil/LoggerHelper.h>
#include <algorithm>
#include <iterator>
#include <json/value.h>
#include <limits>
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

/// Says which ranges have been taken out.
class RemovalLog {
public:
    explicit RemovalLog(Tavro8::ILogger* logger) : log(logger, sourcePath), wanted(log.wants(Tavro8::LogSeverity::info))
    {}
    void add(const DateTimeRange& range) const
    {
        if (wanted)
            log.info(adjusting, "Merged overlapped recording range (", utcText(range.begin), " - ", utcText(range.end),
                     ')');
    }

private:
    const Tavro8::LoggerHelper log;
    const bool wanted;
};

/// Walks over sorted ranges: each begins where the time ends that is covered in front of it, and one that is
/// `isWithin(range, covered)` goes.
template <typename IsWithin>
void trim(Ranges& ranges, std::uint64_t covered, const RemovalLog& removed, IsWithin&& isWithin)
{
    auto kept = ranges.begin();
    for (const DateTimeRange& range : ranges) {
        if (isWithin(range, covered)) {
            removed.add(range);
            continue;
        }
        *kept = {std::max(covered, range.begin), range.end};
        covered = kept->end;
        ++kept;
    }
    ranges.erase(kept, ranges.end());
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

/// Of all records of a page that can be read. Without any, the first is behind every begin.
struct Begins {
    std::uint64_t first = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t last = 0;
};

Begins beginsOf(const Json::Value& records)
{
    Begins begins;
    if (!records.isArray())
        return begins;
    DateTimeRange range;
    for (const Json::Value& record : records) {
        if (readRecord(record, range))
            begins = {std::min(begins.first, range.begin), std::max(begins.last, range.begin)};
    }
    return begins;
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
    std::ranges::sort(ranges, {}, &DateTimeRange::begin);
    // One that ends with the covered time stays, if only as an empty one.
    trim(ranges, coverage, RemovalLog(logger),
         [](const DateTimeRange& range, std::uint64_t covered) { return covered > range.end; });
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

void CollectedRanges::addPage(const Json::Value& records, Tavro8::ILogger* logger)
{
    const Begins begins = beginsOf(records);
    const bool goesOn = ranges.empty() || begins.first > latestBegin;
    Ranges page;
    adjustingRanges(records, page, goesOn ? coverage() : begin, logger);
    if (goesOn)
        ranges.insert(ranges.end(), page.begin(), page.end());
    else
        merge(page, logger);
    latestBegin = std::max(latestBegin, begins.last);
}

std::uint64_t CollectedRanges::coverage() const noexcept
{
    return ranges.empty() ? begin : ranges.back().end;
}

void CollectedRanges::merge(const Ranges& page, Tavro8::ILogger* logger)
{
    if (page.empty())
        return;
    // Only those that the page reaches are looked at again.
    const auto first = std::ranges::lower_bound(ranges, page.front().begin, {}, &DateTimeRange::end);
    const auto last = std::upper_bound(first, ranges.end(), page.back().end,
                                       [](std::uint64_t end, const DateTimeRange& range) { return end < range.begin; });
    const RemovalLog removed(logger);
    Ranges again;
    std::set_intersection(first, last, page.begin(), page.end(), std::back_inserter(again), comesBefore);
    std::ranges::for_each(again, [&](const DateTimeRange& range) { removed.add(range); });
    Ranges merged;
    std::set_union(first, last, page.begin(), page.end(), std::back_inserter(merged), comesBefore);
    // Nothing is left of one that ends with the covered time: the same record may come again and again.
    trim(merged, begin, removed, [](const DateTimeRange& range, std::uint64_t covered) {
        return range.begin < covered && range.end <= covered;
    });
    ranges.insert(ranges.erase(first, last), merged.begin(), merged.end());
}
}  // namespace Uniview

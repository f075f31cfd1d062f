#include "RecordList.h"

#include <algorithm>
#include <span>

namespace simulator
{
namespace
{

constexpr std::uint32_t minute = 60;
constexpr std::uint32_t hour = 3600;
constexpr std::uint32_t day = 24 * hour;
constexpr std::uint32_t daysKept = 30;
constexpr std::uint32_t daysOfWeek = 7;

/// Seconds within an hour.
using Pattern = std::span<const RecordedSpan>;

constexpr RecordedSpan whole[] = {{0, 3600}};
constexpr RecordedSpan halves[] = {{0, 1800}, {1800, 3600}};
constexpr RecordedSpan gaps[] = {{0, 900}, {1200, 2700}};
constexpr RecordedSpan overlaps[] = {{0, 2000}, {300, 600}, {1900, 3630}};
constexpr RecordedSpan motion[] = {{60, 90}, {240, 420}, {480, 480}, {1500, 1560}, {3000, 3600}};
constexpr Pattern patterns[] = {whole, halves, gaps, overlaps, {}, motion};

/// By the number of a counted record: most last their minute, so that each touches the next one.
constexpr std::uint32_t countedSeconds[] = {60, 60, 75, 60, 20, 60, 0, 60};

/// Wide enough to count on behind the last second that a record can name.
using Second = std::uint64_t;

RecordedSpan spanUntil(std::uint32_t limit, Second begin, Second end)
{
    return {static_cast<std::uint32_t>(std::min<Second>(begin, limit)),
            static_cast<std::uint32_t>(std::min<Second>(end, limit))};
}

}  // namespace

RecordList::RecordList(std::vector<RecordedSpan> given) : records(std::move(given))
{
    std::ranges::sort(records, [](const RecordedSpan& left, const RecordedSpan& right) {
        return left.begin != right.begin ? left.begin < right.begin : left.end < right.end;
    });
    for (const RecordedSpan& record : records) {
        if (record.begin == record.end)
            continue;
        longest = std::max(longest, record.end - record.begin);
        whole = whole ? RecordedSpan{whole->begin, std::max(whole->end, record.end)} : record;
    }
}

std::size_t RecordList::firstFrom(std::uint32_t begin) const
{
    return static_cast<std::size_t>(std::ranges::lower_bound(records, begin, {}, &RecordedSpan::begin) -
                                    records.begin());
}

RecordList::Matches RecordList::matches(const RecordedSpan& interval) const
{
    Matches found;
    found.first = firstFrom(interval.begin);
    found.last = std::max(found.first, firstFrom(interval.end));
    const std::uint32_t mayReachIn = interval.begin - std::min(interval.begin, longest);
    for (std::size_t i = firstFrom(mayReachIn); i < found.first; ++i)
        if (records[i].end > interval.begin && interval.end > interval.begin)
            found.earlier.push_back(i);
    return found;
}

RecordList::Page RecordList::page(const RecordedSpan& interval, std::size_t offset, std::size_t limit,
                                  RecordOrder order) const
{
    const Matches found = matches(interval);
    Page page;
    page.total = found.count();
    const std::size_t begin = std::min(offset, page.total);
    const std::size_t end = begin + std::min(limit, page.total - begin);
    for (std::size_t i = begin; i < end; ++i)
        page.records.push_back(records[found[order == RecordOrder::oldestFirst ? i : page.total - 1 - i]]);
    return page;
}

std::vector<RecordedSpan> RecordList::coverage(const RecordedSpan& interval) const
{
    const Matches found = matches(interval);
    std::vector<RecordedSpan> covered;
    for (std::size_t i = 0; i < found.count(); ++i) {
        const RecordedSpan& record = records[found[i]];
        const RecordedSpan part{std::max(record.begin, interval.begin), std::min(record.end, interval.end)};
        if (part.begin >= part.end)
            continue;
        if (!covered.empty() && part.begin <= covered.back().end)
            covered.back().end = std::max(covered.back().end, part.end);
        else
            covered.push_back(part);
    }
    return covered;
}

std::vector<RecordedSpan> monthOfRecords(unsigned channel, std::uint32_t until)
{
    std::vector<RecordedSpan> records;
    const std::uint32_t begin = until - std::min(until, daysKept * day);
    for (Second start = begin / hour * hour; start < until; start += hour) {
        if (start / day % daysOfWeek == channel % daysOfWeek)
            continue;
        // From day to day, an hour has another pattern.
        const Pattern& pattern = patterns[(start / hour + start / day + channel) % std::size(patterns)];
        for (const RecordedSpan& part : pattern)
            if (start + part.begin >= begin && start + part.begin < until)
                records.push_back(spanUntil(until, start + part.begin, start + part.end));
    }
    return records;
}

std::vector<RecordedSpan> countedRecords(std::uint32_t count, std::uint32_t until)
{
    std::vector<RecordedSpan> records;
    records.reserve(count);
    const Second first = until - std::min<Second>(until, Second{count} * minute);
    for (std::uint32_t i = 0; i < count; ++i) {
        const Second begin = first + Second{i} * minute;
        records.push_back(spanUntil(UINT32_MAX, begin, begin + countedSeconds[i % std::size(countedSeconds)]));
    }
    return records;
}

}  // namespace simulator

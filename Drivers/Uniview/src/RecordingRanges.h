#pragma once

#include "Export.h"

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <Tavro8/ILogger.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <json/forwards.h>
#include <vector>

namespace Uniview
{
/// Normalises one page of a device's record list: appends the records of the JSON array "RecordInfos" ("Begin" and
/// "End" in whole seconds since 1970, unsigned 32 bits) to `ranges` as milliseconds, sorts all of it by begin, and
/// trims or removes what an earlier range, or the time before `coverage` (milliseconds), covers already.
///
/// What comes out is sorted, begins at `coverage` or later, and no time lies in two ranges. A range that begins where
/// the covered time ends is kept whole; one that ends exactly there is kept as an empty range; one that ends before it
/// is removed with a log line. `logger` may be null.
///
/// When `records` is null or no array, `ranges` stays as it is. A record without two readable numbers, or that ends
/// before it begins, is left out; one log line says how many are. Exported by the module, so that tools of the host
/// share the rule. Any thread.
UNIVIEW_API void adjustingRanges(const Json::Value& records, std::vector<Tavro8::GDRV::DateTimeRange>& ranges,
                                 std::uint64_t coverage, Tavro8::ILogger* logger);

/// The first of its two steps: appends the records of an array in their order. Gives the number of those left out.
std::size_t appendRecords(const Json::Value& records, std::vector<Tavro8::GDRV::DateTimeRange>& ranges);

/// The second: sorts `ranges`, none of which ends before it begins, and takes out what is covered already.
void trimCovered(std::vector<Tavro8::GDRV::DateTimeRange>& ranges, std::uint64_t coverage, Tavro8::ILogger* logger);

/// What the pages of one search have found together, in whichever order they come: some devices list the newest records
/// first, and a list may grow while it is read, so that records come twice. Sorted, and no time lies in two ranges.
class CollectedRanges {
public:
    /// `begin` of the interval that is searched, in milliseconds.
    explicit CollectedRanges(std::uint64_t begin = 0) : begin(begin) {}

    /// Adds a page's "RecordInfos" as `adjustingRanges` leaves them, which also says what is wrong with them.
    ///
    /// When all of them begin behind those before, the coverage point is the end of what has been found, so that pages
    /// from old to new come out as though they were one. Any other page is judged from the begin of the interval, since
    /// older ranges would be lost, and put in between. What another page has as well is left out then with the same log
    /// line, be it the same range or one inside of others, and overlaps are cut.
    ///
    /// Costs time in proportion to the page when pages come oldest or newest first; one that belongs in the middle
    /// moves what is on the shorter side of it.
    void addPage(const Json::Value& records, Tavro8::ILogger* logger);

    const std::deque<Tavro8::GDRV::DateTimeRange>& get() const noexcept { return ranges; }

private:
    std::uint64_t coverage() const noexcept;
    void merge(const std::vector<Tavro8::GDRV::DateTimeRange>& page, Tavro8::ILogger* logger);

    std::uint64_t begin;
    std::uint64_t latestBegin = 0;                   // of all records that could be read
    std::deque<Tavro8::GDRV::DateTimeRange> ranges;  // grows at either end without moving the rest
};
}  // namespace Uniview

#include "FuzzTarget.h"

#include "Lapi.h"
#include "RecordingRanges.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Tavro8::fuzz
{
namespace
{
using GDRV::DateTimeRange;
using Ranges = std::vector<DateTimeRange>;

void requireDisjoint(const Ranges& ranges, std::uint64_t coverage)
{
    std::uint64_t covered = coverage;
    for (const DateTimeRange& range : ranges) {
        require(range.begin <= range.end, "a range ends behind its begin");
        require(covered <= range.begin, "no time lies in two ranges, or in front of the coverage point");
        covered = range.end;
    }
}

/// Stretches without the borders between them and without empty ones: time alone.
std::map<std::uint64_t, std::uint64_t> timeOf(Ranges ranges, std::uint64_t coverage)
{
    std::map<std::uint64_t, std::uint64_t> stretches;
    std::ranges::sort(ranges, {}, &DateTimeRange::begin);
    for (DateTimeRange range : ranges) {
        range.begin = std::max(range.begin, coverage);
        if (range.begin >= range.end)
            continue;
        if (!stretches.empty() && stretches.rbegin()->second >= range.begin)
            stretches.rbegin()->second = std::max(stretches.rbegin()->second, range.end);
        else
            stretches.emplace(range.begin, range.end);
    }
    return stretches;
}

Ranges rangesOf(const Uniview::CollectedRanges& collected)
{
    return {collected.get().begin(), collected.get().end()};
}

/// Eight bytes: the coverage point. Then JSON texts with a zero byte between them, each taken as the "RecordInfos" of
/// one page of a search.
///
/// Promises: nothing throws; ranges come out sorted and disjoint, behind the coverage point; they cover the time of the
/// records that can be read, no more and no less, by page and all pages together.
void feed(ByteView input)
{
    Script script(input);
    const std::uint64_t coverage = script.u64();
    Ranges read;
    Uniview::CollectedRanges collected(coverage);
    const Bytes bytes = script.remaining();
    for (auto text = bytes.begin(); text != bytes.end();) {
        const auto end = std::find(text, bytes.end(), std::uint8_t{0});
        Json::Value records;
        std::string error;
        if (Uniview::lapi::parseJson(std::string(text, end), records, error)) {
            Ranges page;
            Uniview::adjustingRanges(records, page, coverage, nullptr);
            require(records.isArray() || page.empty(), "only an array has records");
            requireDisjoint(page, coverage);
            Ranges raw;
            if (records.isArray())
                static_cast<void>(Uniview::appendRecords(records, raw));
            require(timeOf(page, coverage) == timeOf(raw, coverage), "a page covers what its records do");
            read.insert(read.end(), raw.begin(), raw.end());
            collected.addPage(records, nullptr);
            requireDisjoint(rangesOf(collected), coverage);
        }
        text = end == bytes.end() ? end : end + 1;
    }
    require(timeOf(rangesOf(collected), coverage) == timeOf(read, coverage), "pages lose nothing together");
}

const Target recordings("recordings", feed);
}  // namespace
}  // namespace Tavro8::fuzz

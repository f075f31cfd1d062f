#include "RecordingRanges.h"

#include "RecordingLogger.h"

#include <algorithm>
#include <bitset>
#include <cstdint>
#include <gtest/gtest.h>
#include <json/value.h>
#include <limits>
#include <ostream>
#include <random>
#include <utility>
#include <vector>

namespace Tavro8::GDRV
{
std::ostream& operator<<(std::ostream& out, const DateTimeRange& range)
{
    return out << '[' << range.begin << ',' << range.end << ']';
}
}  // namespace Tavro8::GDRV

namespace
{
using namespace Uniview;
using kelvo::test::RecordingLogger;
using Tavro8::GDRV::DateTimeRange;
using Ranges = std::vector<DateTimeRange>;
using Seconds = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

Json::Value records(const Seconds& bounds)
{
    Json::Value list(Json::arrayValue);
    for (const auto& [begin, end] : bounds) {
        Json::Value& record = list.append(Json::objectValue);
        record["Begin"] = begin;
        record["End"] = end;
    }
    return list;
}

Ranges adjusted(const Seconds& bounds, std::uint64_t coverage = 0, Tavro8::ILogger* logger = nullptr)
{
    Ranges ranges;
    adjustingRanges(records(bounds), ranges, coverage, logger);
    return ranges;
}

Ranges rangesOf(const CollectedRanges& found)
{
    return {found.get().begin(), found.get().end()};
}

/// What the pages of a search give together.
Ranges collected(const std::vector<Seconds>& pages, std::uint64_t begin = 0, Tavro8::ILogger* logger = nullptr)
{
    CollectedRanges all(begin);
    for (const Seconds& page : pages)
        all.addPage(records(page), logger);
    return rangesOf(all);
}

Ranges ranges(const Seconds& bounds)
{
    Ranges converted;
    for (const auto& [begin, end] : bounds)
        converted.push_back({std::uint64_t{begin} * 1000, std::uint64_t{end} * 1000});
    return converted;
}

constexpr const char* merged = "Merged overlapped recording range (";

TEST(AdjustingRanges, trimsARangeToWhereTheCoveredTimeEnds)
{
    EXPECT_EQ(adjusted({{100, 200}, {150, 300}}), (Ranges{{100000, 200000}, {200000, 300000}}));
}

TEST(AdjustingRanges, removesWhatLiesInCoveredTimeAndSaysSo)
{
    RecordingLogger logger;
    EXPECT_EQ(adjusted({{100, 200}, {120, 180}}, 0, &logger), (Ranges{{100000, 200000}}));
    ASSERT_EQ(logger.count(merged), 1U);
    const auto line = logger.find(merged);
    EXPECT_EQ(line.message, "Merged overlapped recording range (1970-01-01T00:02:00Z - 1970-01-01T00:03:00Z)");
    EXPECT_EQ(line.function, "Uniview::adjustingRanges");
    EXPECT_EQ(line.file, "Drivers/Uniview/src/RecordingSearch");
}

TEST(AdjustingRanges, theCoveragePointTrimsAndRemoves)
{
    const struct {
        std::uint64_t coverage;
        Ranges expected;
    } cases[] = {
        {0, {{100000, 200000}}},
        {100000, {{100000, 200000}}},
        {150000, {{150000, 200000}}},
        {199999, {{199999, 200000}}},
        {200000, {{200000, 200000}}},  // one that ends exactly there stays, as an empty one
        {200001, {}},
        {250000, {}},
        {std::numeric_limits<std::uint64_t>::max(), {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.coverage);
        EXPECT_EQ(adjusted({{100, 200}}, c.coverage), c.expected);
    }
}

TEST(AdjustingRanges, sortsByBegin)
{
    EXPECT_EQ(adjusted({{300, 400}, {100, 200}, {200, 250}}),
              (Ranges{{100000, 200000}, {200000, 250000}, {300000, 400000}}));
}

TEST(AdjustingRanges, aRangeThatOnlyEndsWithTheCoveredTimeIsKeptAsAnEmptyOne)
{
    EXPECT_EQ(adjusted({{100, 200}, {150, 200}}), (Ranges{{100000, 200000}, {200000, 200000}}));
}

TEST(AdjustingRanges, addsToWhatIsThereAndSortsAllOfIt)
{
    Ranges ranges{{400000, 500000}};
    adjustingRanges(records({{100, 200}}), ranges, 0, nullptr);
    EXPECT_EQ(ranges, (Ranges{{100000, 200000}, {400000, 500000}}));
}

TEST(AdjustingRanges, reachesToTheEndOfThirtyTwoBits)
{
    EXPECT_EQ(adjusted({{0, 4294967295U}}), (Ranges{{0, 4294967295000U}}));
}

TEST(AdjustingRanges, whatIsNoArrayLeavesTheResultAsItIs)
{
    for (const Json::Value& value : {Json::Value(), Json::Value(Json::objectValue), Json::Value("x"), Json::Value(7)}) {
        RecordingLogger logger;
        Ranges ranges{{5, 7}, {1, 2}};
        adjustingRanges(value, ranges, 1000, &logger);
        EXPECT_EQ(ranges, (Ranges{{5, 7}, {1, 2}}));
        EXPECT_EQ(logger.find("Recording range list is empty.").severity, Tavro8::LogSeverity::error);
        adjustingRanges(value, ranges, 1000, nullptr);
        EXPECT_EQ(ranges.size(), 2U);
    }
}

TEST(AdjustingRanges, anEmptyArrayIsNoFailure)
{
    RecordingLogger logger;
    EXPECT_TRUE(adjusted({}, 0, &logger).empty());
    EXPECT_TRUE(logger.lines().empty());
}

TEST(AdjustingRanges, recordsThatCannotBeReadAreLeftOutWithOneLine)
{
    const std::int64_t beyond = std::int64_t{1} << 32;
    const std::pair<Json::Value, Json::Value> odd[] = {
        {Json::Value(beyond), Json::Value(beyond + 1)},
        {Json::Value(-1), Json::Value(5)},
        {Json::Value("100"), Json::Value("200")},
        {Json::Value(1.5), Json::Value(2)},
        {Json::Value(1), Json::Value()},
        {Json::Value(true), Json::Value(2)},
        {Json::Value(Json::arrayValue), Json::Value(2)},
        {Json::Value(200), Json::Value(100)},
    };
    Json::Value list = records({{100, 200}});
    for (const auto& [begin, end] : odd) {
        Json::Value& record = list.append(Json::objectValue);
        record["Begin"] = begin;
        record["End"] = end;
    }
    list.append(Json::nullValue);
    list.append("text");
    list.append(Json::arrayValue);
    list.append(Json::objectValue);
    list.append(records({{300, 400}})[0]);

    RecordingLogger logger;
    Ranges ranges;
    adjustingRanges(list, ranges, 0, &logger);
    EXPECT_EQ(ranges, (Ranges{{100000, 200000}, {300000, 400000}}));
    ASSERT_EQ(logger.lines().size(), 1U);
    EXPECT_EQ(logger.lines().front().message, "Recordings without a readable begin and end are left out: 12 of 14");
}

// ---- against a slow and obvious reference -------------------------------------------------------------------------

constexpr std::size_t clockSeconds = 128;
using Covered = std::bitset<clockSeconds>;

Covered coveredBy(const Seconds& bounds, std::uint64_t coverageMs)
{
    Covered covered;
    for (const auto& [begin, end] : bounds) {
        for (std::uint32_t second = begin; second < end; ++second)
            covered.set(second, second * 1000U >= coverageMs);
    }
    return covered;
}

/// Also checks that no second is there twice, and the order.
Covered secondsOf(const Ranges& ranges)
{
    Covered covered;
    std::uint64_t last = 0;
    for (const DateTimeRange& range : ranges) {
        EXPECT_LE(last, range.begin);
        EXPECT_LE(range.begin, range.end);
        last = range.end;
        for (std::uint64_t second = range.begin / 1000; second < range.end / 1000; ++second) {
            EXPECT_FALSE(covered[second]);
            covered.set(second);
        }
    }
    return covered;
}

Seconds randomBounds(std::mt19937& random, std::size_t most)
{
    Seconds bounds(random() % (most + 1));
    for (auto& [begin, end] : bounds) {
        begin = static_cast<std::uint32_t>(random() % clockSeconds);
        end = begin + static_cast<std::uint32_t>(random() % std::min<std::size_t>(clockSeconds - begin, 40));
    }
    return bounds;
}

/// The rule word by word: what is covered is taken out of the list, and the next takes its place.
Ranges byErasing(Ranges ranges, std::uint64_t previous)
{
    for (std::size_t at = 0; at < ranges.size();) {
        DateTimeRange& range = ranges[at];
        if (previous <= range.begin) {
            previous = range.end;
            ++at;
        } else if (previous <= range.end) {
            range.begin = previous;
            previous = range.end;
            ++at;
        } else {
            ranges.erase(ranges.begin() + static_cast<std::ptrdiff_t>(at));
        }
    }
    return ranges;
}

TEST(AdjustingRanges, coversTheSameTimeAsASlowReferenceOnRandomRecords)
{
    std::mt19937 random(20170426);
    for (int round = 0; round < 5000; ++round) {
        const Seconds bounds = randomBounds(random, 12);
        const std::uint64_t coverage = random() % 3 == 0 ? random() % clockSeconds * 1000 : 0;
        const Ranges ranges = adjusted(bounds, coverage);
        ASSERT_EQ(secondsOf(ranges), coveredBy(bounds, coverage)) << "round " << round;
        ASSERT_TRUE(ranges.empty() || ranges.front().begin >= coverage) << "round " << round;
    }
}

TEST(AdjustingRanges, walksAsTheRuleSaysOnRandomRanges)
{
    std::mt19937 random(7);
    for (int round = 0; round < 5000; ++round) {
        Ranges sorted;
        for (const auto& [begin, end] : randomBounds(random, 12))
            sorted.push_back({begin, end});
        std::ranges::sort(sorted, {}, &DateTimeRange::begin);
        // Equal begins may come in either order; without them the result is one and the same.
        const auto equal = std::ranges::unique(sorted, {}, &DateTimeRange::begin);
        sorted.erase(equal.begin(), equal.end());
        const std::uint64_t coverage = random() % clockSeconds;
        Ranges walked = sorted;
        trimCovered(walked, coverage, nullptr);
        ASSERT_EQ(walked, byErasing(sorted, coverage)) << "round " << round;
    }
}

// ---- pages --------------------------------------------------------------------------------------------------------

TEST(CollectedRanges, aPageIsTakenAsItIs)
{
    const Seconds page{{100, 200}, {120, 200}, {150, 200}, {200, 250}, {300, 300}, {400, 500}};
    ASSERT_EQ(adjusted(page).size(), 6U);
    EXPECT_EQ(collected({page}), adjusted(page));
    EXPECT_EQ(collected({page, {}, page}), adjusted(page)) << "each as often as one page has it";
}

TEST(CollectedRanges, aPageGoesOnWhereTheCoverageOfTheLastEnds)
{
    RecordingLogger logger;
    EXPECT_EQ(collected({{{100, 200}, {300, 400}}, {{320, 380}, {350, 450}, {360, 450}}}, 150'000, &logger),
              (Ranges{{150000, 200000}, {300000, 400000}, {400000, 450000}, {450000, 450000}}));
    ASSERT_EQ(logger.count(merged), 1U);
    EXPECT_EQ(logger.find(merged).message,
              "Merged overlapped recording range (1970-01-01T00:05:20Z - 1970-01-01T00:06:20Z)");
}

TEST(CollectedRanges, oneThatEndsWithTheCoverageOfTheLastPageIsKeptAsAnEmptyOne)
{
    RecordingLogger logger;
    EXPECT_EQ(collected({{{100, 200}}, {{150, 200}}}, 0, &logger), ranges({{100, 200}, {200, 200}}));
    EXPECT_TRUE(logger.lines().empty());
}

TEST(CollectedRanges, pagesFromOldToNewComeOutAsOnePage)
{
    std::mt19937 random(11);
    for (int round = 0; round < 500; ++round) {
        Seconds all = randomBounds(random, 20);
        std::ranges::sort(all);
        // Equal begins may come in either order; without them the result is one and the same.
        const auto equal = std::ranges::unique(all, {}, &Seconds::value_type::first);
        all.erase(equal.begin(), equal.end());
        std::vector<Seconds> pages;
        for (std::size_t at = 0, count = 0; at < all.size(); at += count) {
            count = std::min(random() % 5, all.size() - at);
            const auto begin = all.begin() + static_cast<std::ptrdiff_t>(at);
            pages.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(count));
            std::ranges::shuffle(pages.back(), random);
        }
        const std::uint64_t begin = random() % clockSeconds * 1000;
        RecordingLogger apart;
        RecordingLogger together;
        ASSERT_EQ(collected(pages, begin, &apart), adjusted(all, begin, &together)) << "round " << round;
        ASSERT_EQ(apart.count(merged), together.count(merged)) << "round " << round;
    }
}

TEST(CollectedRanges, pagesThatComeNewestFirstLoseNothing)
{
    EXPECT_EQ(collected({{{500, 600}, {700, 800}}, {{300, 400}, {450, 550}}, {{100, 200}}}),
              ranges({{100, 200}, {300, 400}, {450, 550}, {550, 600}, {700, 800}}));
}

TEST(CollectedRanges, recordsThatComeAgainAddNothingAndHaveTheirLines)
{
    RecordingLogger logger;
    EXPECT_EQ(collected({{{100, 200}, {300, 400}}, {{300, 400}, {500, 600}}, {{100, 200}}, {{150, 150}}}, 0, &logger),
              ranges({{100, 200}, {300, 400}, {500, 600}}));
    EXPECT_EQ(logger.count(merged), 3U);
}

TEST(CollectedRanges, whatLiesInsideOfALaterOrAnEarlierPageHasItsLine)
{
    for (const std::vector<Seconds>& pages :
         {std::vector<Seconds>{{{500, 600}}, {{100, 300}}, {{150, 250}}}, {{{500, 600}}, {{150, 250}}, {{100, 300}}}}) {
        RecordingLogger logger;
        EXPECT_EQ(collected(pages, 0, &logger), ranges({{100, 300}, {500, 600}}));
        ASSERT_EQ(logger.count(merged), 1U);
        EXPECT_EQ(logger.find(merged).message,
                  "Merged overlapped recording range (1970-01-01T00:02:30Z - 1970-01-01T00:04:10Z)");
    }
}

TEST(CollectedRanges, aRangeThatSpansEarlierOnesTakesTheirPlace)
{
    EXPECT_EQ(collected({{{100, 200}, {300, 400}, {500, 600}}, {{250, 550}}}),
              ranges({{100, 200}, {250, 550}, {550, 600}}));
}

TEST(CollectedRanges, aPageWithoutAListChangesNothing)
{
    CollectedRanges all;
    all.addPage(records({{100, 200}}), nullptr);
    Json::Value members(Json::objectValue);
    members["one"] = records({{700, 800}})[0];
    for (const Json::Value& none : {Json::Value(), members, Json::Value(7), records({})})
        all.addPage(none, nullptr);
    all.addPage(records({{150, 200}}), nullptr);
    EXPECT_EQ(rangesOf(all), ranges({{100, 200}, {200, 200}}));
}

TEST(CollectedRanges, anEmptyRangeStaysUnlessItLiesInsideOfOneOfAnotherPage)
{
    const struct {
        std::uint32_t at;
        Seconds expected;
    } cases[] = {
        {100, {{100, 100}, {100, 200}, {300, 400}}},
        {150, {{100, 200}, {300, 400}}},
        {200, {{100, 200}, {200, 200}, {300, 400}}},
        {250, {{100, 200}, {250, 250}, {300, 400}}},
    };
    const Seconds newest{{300, 400}};
    const Seconds whole{{100, 200}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.at);
        const Seconds empty{{c.at, c.at}};
        EXPECT_EQ(collected({newest, empty, whole}), ranges(c.expected));
        EXPECT_EQ(collected({newest, whole, empty}), ranges(c.expected));
    }
}

TEST(CollectedRanges, pagesThatComeAgainAddNoTimeAndDoNotPileUp)
{
    std::mt19937 random(3);
    for (int round = 0; round < 500; ++round) {
        std::vector<Seconds> pages(1 + random() % 4);
        std::size_t most = 0;
        for (Seconds& page : pages) {
            page = randomBounds(random, 5);
            most += page.size();
        }
        std::vector<Seconds> again;
        for (int times = 0; times < 4; ++times)
            again.insert(again.end(), pages.begin(), pages.end());
        const Ranges found = collected(again);
        ASSERT_EQ(secondsOf(found), secondsOf(collected(pages))) << "round " << round;
        ASSERT_LE(found.size(), most) << "round " << round;
    }
}

TEST(CollectedRanges, coverTheSameTimeInWhicheverOrderPagesCome)
{
    std::mt19937 random(42);
    for (int round = 0; round < 2000; ++round) {
        std::vector<Seconds> pages(random() % 6);
        Seconds all;
        for (Seconds& page : pages) {
            page = randomBounds(random, 5);
            all.insert(all.end(), page.begin(), page.end());
        }
        const std::uint64_t begin = random() % 3 == 0 ? random() % clockSeconds * 1000 : 0;
        const Ranges found = collected(pages, begin);
        ASSERT_EQ(secondsOf(found), coveredBy(all, begin)) << "round " << round;
        ASSERT_TRUE(found.empty() || found.front().begin >= begin) << "round " << round;
    }
}
}  // namespace

#include "RecordList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <set>

namespace simulator
{

void PrintTo(const RecordedSpan& span, std::ostream* out)
{
    *out << '[' << span.begin << ", " << span.end << ')';
}

namespace
{

using Spans = std::vector<RecordedSpan>;

constexpr std::uint32_t until = 1'790'000'000;
constexpr std::uint32_t hour = 3600;
constexpr std::uint32_t day = 24 * hour;

RecordList sample()
{
    return RecordList({{500, 500}, {100, 200}, {200, 300}, {250, 400}, {260, 270}});
}

TEST(RecordList, listsTheOldestOrTheNewestFirst)
{
    const auto list = sample();
    EXPECT_EQ(list.page({0, 1000}, 0, 10, RecordOrder::oldestFirst).records,
              (Spans{{100, 200}, {200, 300}, {250, 400}, {260, 270}, {500, 500}}));
    EXPECT_EQ(list.page({0, 1000}, 1, 2, RecordOrder::newestFirst).records, (Spans{{260, 270}, {250, 400}}));
}

TEST(RecordList, findsWhatHasASecondInTheInterval)
{
    const auto list = sample();
    const auto find = [&](RecordedSpan interval) {
        return list.page(interval, 0, 10, RecordOrder::oldestFirst).records;
    };
    EXPECT_EQ(find({200, 201}), (Spans{{200, 300}})) << "the first one has ended";
    EXPECT_EQ(find({199, 200}), (Spans{{100, 200}})) << "the second one has not begun";
    EXPECT_EQ(find({265, 266}), (Spans{{200, 300}, {250, 400}, {260, 270}}));
    EXPECT_EQ(find({390, 501}), (Spans{{250, 400}, {500, 500}}));
    EXPECT_EQ(find({400, 500}), Spans{});
    EXPECT_EQ(find({265, 265}), Spans{});
}

TEST(RecordList, knowsTheTotalOnEachPageAndBeyondTheLast)
{
    const auto list = sample();
    for (const std::size_t offset : {0u, 3u, 5u, 6u, 1000u}) {
        SCOPED_TRACE(offset);
        const auto page = list.page({0, 1000}, offset, 2, RecordOrder::oldestFirst);
        EXPECT_EQ(page.total, 5u);
        EXPECT_EQ(page.records.size(), offset < 4 ? 2u : 0u);
    }
}

TEST(RecordList, coversEachSecondOnce)
{
    EXPECT_EQ(sample().coverage({0, 1000}), (Spans{{100, 400}}));
    EXPECT_EQ(sample().coverage({150, 220}), (Spans{{150, 220}}));
    EXPECT_EQ(sample().coverage({400, 1000}), Spans{});
    EXPECT_EQ(RecordList({{10, 20}, {21, 30}}).coverage({0, 100}), (Spans{{10, 20}, {21, 30}}));
}

TEST(RecordList, reachesFromTheFirstRecordedSecondToTheLast)
{
    EXPECT_EQ(sample().extent(), (RecordedSpan{100, 400})) << "the empty one adds none";
    EXPECT_EQ(RecordList({{5, 5}, {10, 90}, {20, 30}}).extent(), (RecordedSpan{10, 90}));
    EXPECT_EQ(RecordList({{5, 5}}).extent(), std::nullopt);
    EXPECT_EQ(RecordList({}).extent(), std::nullopt);
}

TEST(RecordList, pagesAreSlicesOfTheWhole)
{
    const RecordList list(monthOfRecords(2, until));
    for (const RecordOrder order : {RecordOrder::oldestFirst, RecordOrder::newestFirst}) {
        const RecordedSpan interval{until - 9 * day - 1234, until - day + 77};
        const auto whole = list.page(interval, 0, SIZE_MAX, order);
        ASSERT_GT(whole.total, 200u);
        ASSERT_EQ(whole.records.size(), whole.total);
        Spans pieces;
        while (pieces.size() < whole.total) {
            const auto page = list.page(interval, pieces.size(), 37, order);
            ASSERT_EQ(page.total, whole.total);
            ASSERT_FALSE(page.records.empty());
            pieces.insert(pieces.end(), page.records.begin(), page.records.end());
        }
        EXPECT_EQ(pieces, whole.records);
    }
}

TEST(RecordList, coverageIsThatOfTheListedRecords)
{
    const RecordList list(monthOfRecords(0, until));
    const RecordedSpan interval{until - 2 * day, until};
    std::set<std::uint32_t> listed;
    for (const RecordedSpan& record : list.page(interval, 0, SIZE_MAX, RecordOrder::oldestFirst).records)
        for (std::uint32_t second = record.begin; second < record.end; ++second)
            if (second >= interval.begin && second < interval.end)
                listed.insert(second);
    std::set<std::uint32_t> covered;
    for (const RecordedSpan& span : list.coverage(interval))
        for (std::uint32_t second = span.begin; second < span.end; ++second)
            EXPECT_TRUE(covered.insert(second).second) << second;
    EXPECT_EQ(covered, listed);
}

TEST(MonthOfRecords, dependsOnChannelAndTimeOnly)
{
    const auto month = monthOfRecords(1, until);
    EXPECT_EQ(month, monthOfRecords(1, until));
    EXPECT_NE(month, monthOfRecords(2, until));
    // A day later, what both months have is the same.
    const RecordedSpan common{until - 28 * day, until - day};
    EXPECT_EQ(RecordList(month).coverage(common), RecordList(monthOfRecords(1, until + day)).coverage(common));
}

TEST(MonthOfRecords, hasGapsOverlapsAdjacentEmptyAndContainedOnes)
{
    for (const unsigned channel : {0u, 1u, 7u, 63u}) {
        SCOPED_TRACE(channel);
        const RecordList list(monthOfRecords(channel, until));
        unsigned gaps = 0, overlaps = 0, adjacent = 0, empty = 0, contained = 0;
        const Spans& all = list.all();
        std::uint32_t reached = 0;  // by the records so far
        for (const RecordedSpan& record : all) {
            EXPECT_GE(record.begin, until - 30 * day);
            EXPECT_LE(record.end, until);
            empty += record.begin == record.end;
            gaps += record.begin > reached;
            adjacent += record.begin == reached;
            overlaps += record.begin < reached && record.end > reached;
            contained += record.end < reached;
            reached = std::max(reached, record.end);
        }
        for (const unsigned count : {gaps, overlaps, adjacent, empty, contained})
            EXPECT_GT(count, 20u);
        std::set<std::uint32_t> days;
        for (const RecordedSpan& record : all)
            days.insert(record.begin / day);
        EXPECT_GE(days.size(), 25u);
        EXPECT_LE(days.size(), 27u) << "some days are empty";
    }
}

TEST(MonthOfRecords, endsInTheMiddleOfARecord)
{
    // 10:30 on a day whose hours from 10 on are recorded whole.
    std::uint32_t middle = until / day * day + hour / 2;
    while (RecordList(monthOfRecords(0, middle)).coverage({middle - 60, middle + 60}) != Spans{{middle - 60, middle}})
        middle += hour;
    EXPECT_EQ(RecordList(monthOfRecords(0, middle)).all().back().end, middle);
}

TEST(MonthOfRecords, mayEndWithTheLastSecondThereIs)
{
    for (const unsigned channel : {0u, 1u, 2u, 3u, 4u, 5u, 6u}) {
        SCOPED_TRACE(channel);
        const RecordList list(monthOfRecords(channel, UINT32_MAX));
        EXPECT_GT(list.all().size(), 400u);
        for (const RecordedSpan& record : list.all()) {
            EXPECT_GE(record.begin, UINT32_MAX - 30 * day);
            EXPECT_GE(record.end, record.begin);
        }
    }
}

TEST(CountedRecords, areAsManyAsAskedFor)
{
    EXPECT_TRUE(countedRecords(0, until).empty());
    const auto eight = countedRecords(8, until);
    const std::uint32_t first = until - 480;
    EXPECT_EQ(eight, (Spans{{first, first + 60},
                            {first + 60, first + 120},
                            {first + 120, first + 195},
                            {first + 180, first + 240},
                            {first + 240, first + 260},
                            {first + 300, first + 360},
                            {first + 360, first + 360},
                            {first + 420, until}}));
    EXPECT_EQ(countedRecords(100'000, until).size(), 100'000u);
}

TEST(CountedRecords, mayEndWithTheLastSecondThereIs)
{
    constexpr std::uint32_t last = UINT32_MAX;
    EXPECT_EQ(countedRecords(3, last), (Spans{{last - 180, last - 120}, {last - 120, last - 60}, {last - 60, last}}));
}

TEST(CountedRecords, canAllBePagedThrough)
{
    const RecordList list(countedRecords(100'000, until));
    std::size_t seen = 0;
    for (std::size_t offset = 0; offset < 100'000; offset += 100) {
        const auto page = list.page({0, UINT32_MAX}, offset, 100, RecordOrder::newestFirst);
        ASSERT_EQ(page.total, 100'000u);
        seen += page.records.size();
    }
    EXPECT_EQ(seen, 100'000u);
}

}  // namespace
}  // namespace simulator

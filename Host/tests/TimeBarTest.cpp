#include "TimeBar.h"

#include "TimeParser.h"

#include <gtest/gtest.h>
#include <limits>

namespace Host
{
namespace
{
using Tavro8::GDRV::DateTimeRange;
using Ranges = std::vector<DateTimeRange>;

std::uint64_t at(const char* text)
{
    return parseTime(text, {}).value();
}

DateTimeRange range(const char* begin, const char* end)
{
    return {at(begin), at(end)};
}

std::string ascii(const DateTimeRange& interval, const Ranges& covered, std::size_t columns)
{
    return drawTimeBar(interval, covered, columns, BarCharacters::ascii);
}

/// Without the scale.
std::string bar(const DateTimeRange& interval, const Ranges& covered, std::size_t columns,
                BarCharacters characters = BarCharacters::ascii)
{
    const std::string drawn = drawTimeBar(interval, covered, columns, characters);
    return drawn.substr(0, drawn.find('\n'));
}

TEST(TimeBar, drawsWhatIsRecordedOfTwoDays)
{
    EXPECT_EQ(ascii(range("2026-11-20", "2026-11-22"), {range("2026-11-20T12:00", "2026-11-22")}, 48),
              "............####################################\n"
              "|11-20      |12:00      |11-21      |12:00\n");
}

TEST(TimeBar, showsHowMuchOfAColumnIsRecorded)
{
    const Ranges tenths{{0, 1}, {100, 149}, {200, 250}, {300, 399}, {400, 500}};
    EXPECT_EQ(bar({0, 600}, tenths, 6), "--++#.");
    EXPECT_EQ(bar({0, 600}, tenths, 6, BarCharacters::blocks), "▁▄▄▇█·");
    Ranges rising;
    for (std::uint64_t i = 0; i < 8; ++i)
        rising.push_back({i * 70, i * 70 + i * 10});
    EXPECT_EQ(bar({0, 560}, rising, 8, BarCharacters::blocks), "▁▂▃▄▅▆▇█");
}

TEST(TimeBar, addsUpWhatLiesInOneColumn)
{
    EXPECT_EQ(bar({0, 300}, {{100, 120}, {130, 150}, {160, 180}}, 3), ".+.");
}

TEST(TimeBar, drawsARecordingOverManyColumnsToItsPreciseEnds)
{
    EXPECT_EQ(bar({0, 1000}, {{100, 900}}, 10), ".########.");
    EXPECT_EQ(bar({0, 1000}, {{190, 810}}, 10), ".-######-.");
    EXPECT_EQ(bar({0, 1000}, {{0, 1000}}, 10), "##########");
    EXPECT_EQ(bar({0, 1000}, {}, 10), "..........");
}

TEST(TimeBar, showsAMomentWithoutLength)
{
    EXPECT_EQ(bar({0, 1000}, {{500, 500}}, 10), ".....-....");
    EXPECT_EQ(bar({0, 1000}, {{0, 0}, {999, 999}}, 10), "-........-");
}

TEST(TimeBar, drawsAMonthOnANarrowTerminal)
{
    EXPECT_EQ(ascii(range("2026-11-01", "2026-12-01"),
                    {range("2026-11-02", "2026-11-08"), range("2026-11-09T12:00", "2026-11-30")}, 79),
              "..-###############-...+#####################################################-..\n"
              "|11-01 |11-04  |11-07  |11-10  |11-13  |11-16  |11-19  |11-22  |11-25  |11-28\n");
}

TEST(TimeBar, choosesAScaleThatHasRoom)
{
    const struct {
        const char* begin;
        const char* end;
        std::size_t columns;
        const char* scale;
    } cases[] = {
        {"2026-11-20T14:00:00Z", "2026-11-20T14:00:20Z", 40, "|14:00:00 |14:00:05 |14:00:10 |14:00:15\n"},
        {"2026-11-20T13:59:30Z", "2026-11-20T14:09:00Z", 40, "  |14:00               |14:05\n"},
        {"2026-11-20T14:00:00Z", "2026-11-20T15:00:00Z", 60,
         "|14:00    |14:10    |14:20    |14:30    |14:40    |14:50\n"},
        {"2026-11-20T20:00:00Z", "2026-11-21T04:00:00Z", 60,
         "|20:00 |21:00  |22:00 |23:00  |11-21 |01:00  |02:00 |03:00\n"},
        {"2026-11-20", "2026-11-27", 79, "|11-20     |11-21     |11-22     |11-23      |11-24     |11-25     |11-26\n"},
        {"2026-11-01", "2026-12-01", 119,
         "|11-01 |11-03  |11-05  |11-07  |11-09  |11-11  |11-13  |11-15  |11-17  |11-19  |11-21  |11-23  |11-25  "
         "|11-27  |11-29\n"},
        {"2026-11-01", "2027-02-01", 79, "      |11-09      |11-23      |12-07      |12-21      |01-04      |01-18\n"},
        {"2026-01-15", "2027-01-15", 119,
         "     |2026-02 |2026-03  |2026-04  |2026-05  |2026-06  |2026-07  |2026-08  |2026-09  |2026-10  |2026-11  "
         "|2026-12  |\n"},
        {"2016-01-01", "2026-01-01", 79, "|2016-01       |2018-01        |2020-01        |2022-01        |2024-01\n"},
        {"1970-01-01", "9999-12-31", 79,
         "|2000-01  |3000-01 |4000-01  |5000-01  |6000-01  |7000-01  |8000-01  |9000-01\n"},
        {"2026-11-20T14:00:00Z", "2026-11-20T14:00:20Z", 9, "|14:00:00\n"},
        {"2026-11-20T14:00:00Z", "2026-11-20T14:00:00.400Z", 79, "|14:00:00\n"},
        {"2026-11-20T14:00:00.100Z", "2026-11-20T14:00:00.400Z", 79, ""},
        {"2026-11-20T14:00:00Z", "2026-11-20T14:00:20Z", 8, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.begin) + " - " + c.end);
        const std::string drawn = ascii(range(c.begin, c.end), {}, c.columns);
        EXPECT_EQ(drawn.substr(drawn.find('\n') + 1), c.scale);
        EXPECT_EQ(drawn.find('\n'), c.columns);
    }
}

TEST(TimeBar, survivesTheSmallestAndTheLargest)
{
    EXPECT_EQ(bar({7, 8}, {{7, 8}}, 79), "#");
    EXPECT_EQ(bar({0, 5}, {{1, 2}, {3, 5}}, 79), ".#.##");
    EXPECT_EQ(bar({0, 1000}, {{0, 1000}}, 0), "#");
    EXPECT_EQ(bar({5, 5}, {}, 10), ".");
    constexpr std::uint64_t endOfTime = 253'402'300'799'000;
    EXPECT_EQ(bar({0, endOfTime}, {{0, endOfTime}}, 1000), std::string(1000, '#'));
}
}  // namespace
}  // namespace Host

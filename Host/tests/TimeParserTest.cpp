#include "TimeParser.h"

#include <gtest/gtest.h>

namespace Host
{
namespace
{
using namespace std::chrono_literals;

constexpr std::uint64_t twoOClock = 1'795'183'200'000;  // 2026-11-20 14:00:00 UTC
constexpr Moment now(std::chrono::milliseconds(twoOClock + 250));

TEST(TimeParser, readsWhatPeopleWrite)
{
    const struct {
        const char* text;
        std::uint64_t ms;
    } cases[] = {
        {"2026-11-20T14:00:00Z", twoOClock},
        {"2026-11-20T14:00:00", twoOClock},
        {"2026-11-20t14:00z", twoOClock},
        {"2026-11-20 14:00", twoOClock},
        {"2026-11-20T14:00:00.25Z", twoOClock + 250},
        {"2026-11-20T14:00:00,2509999", twoOClock + 250},
        {"2026-11-20T15:30:00+01:30", twoOClock},
        {"2026-11-20T10:30:00-0330", twoOClock},
        {"2026-11-21T00:30+10:30", twoOClock},
        {"2026-11-20", twoOClock - 14 * 3'600'000},
        {"2024-02-29", 1'709'164'800'000},
        {"1970-01-01T00:00:00Z", 0},
        {"9999-12-31T23:59:59Z", 253'402'300'799'000},
        {"9999-12-31T23:59:59.999Z", 253'402'300'799'999},
        {"9999-12-31T23:59:59+23:59", 253'402'214'459'000},
        {"1795183200", twoOClock},
        {"100000000", 100'000'000'000},
        {"253402300799", 253'402'300'799'000},
        {"now", twoOClock},
        {"-90s", twoOClock - 90'000},
        {"-30m", twoOClock - 1'800'000},
        {"-3h", twoOClock - 3 * 3'600'000},
        {"-2d", twoOClock - 2 * 86'400'000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(parseTime(c.text, now), c.ms);
    }
}

TEST(TimeParser, refusesWhatIsNoTime)
{
    for (const char* text : {"",
                             " ",
                             "yesterday",
                             "2026",
                             "20261120",
                             "0",
                             "2026-11",
                             "2026-13-01",
                             "2026-02-29",
                             "2026-11-31",
                             "2026-00-10",
                             "26-11-20",
                             "2026-11-20T",
                             "2026-11-20T14",
                             "2026-11-20T24:00:00Z",
                             "2026-11-20T14:60:00Z",
                             "2026-11-20T14:00:60Z",
                             "2026-11-20T14:00:00.Z",
                             "2026-11-20T14:00:00ZZ",
                             "2026-11-20T14:00:00+1",
                             "2026-11-20T14:00:00+24:00",
                             "2026-11-20Z",
                             "2026-11-20 ",
                             " 2026-11-20",
                             "1969-12-31T23:59:59Z",
                             "1970-01-01T00:00:00+00:01",
                             "1795183200000",
                             "1795183200.5",
                             "253402300800",
                             "999999999999",
                             "9999-12-31T23:59:59-23:59",
                             "9999-12-31T23:00:00-01:00",
                             "99999999999999999999999",
                             "-1795183200",
                             "-d",
                             "-2w",
                             "-2d ",
                             "-2d3h",
                             "+2d",
                             "-99999999999d",
                             "-999999999d",
                             "Now"})
        EXPECT_EQ(parseTime(text, now), std::nullopt) << text;
}
}  // namespace
}  // namespace Host

#include "UtcText.h"

#include "GroupingLocale.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

namespace
{
using namespace Uniview;

TEST(UtcText, namesTimesForPeopleAndForRtsp)
{
    const struct {
        std::uint64_t timeMs;
        const char* utc;
        const char* clock;
    } cases[] = {
        {0, "1970-01-01T00:00:00Z", "19700101T000000Z"},
        {1493172645000, "2017-04-26T02:10:45Z", "20170426T021045Z"},
        {1493172645999, "2017-04-26T02:10:45Z", "20170426T021045Z"},
        {1582934399000, "2020-02-28T23:59:59Z", "20200228T235959Z"},
        {1582934400000, "2020-02-29T00:00:00Z", "20200229T000000Z"},
        {4294967295000, "2106-02-07T06:28:15Z", "21060207T062815Z"},
        {std::numeric_limits<std::uint64_t>::max(), "9999-12-31T23:59:59Z", "99991231T235959Z"},
    };
    const kelvo::test::GroupingLocale locale;
    for (const auto& c : cases) {
        EXPECT_EQ(utcText(c.timeMs), c.utc);
        EXPECT_EQ(clockText(c.timeMs), c.clock);
    }
}
}  // namespace

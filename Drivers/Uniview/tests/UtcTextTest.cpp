#include "UtcText.h"

#include "GroupingLocale.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

namespace
{
using namespace Uniview;

TEST(UtcText, namesWholeSeconds)
{
    const struct {
        std::uint64_t timeMs;
        const char* utc;
    } cases[] = {
        {0, "1970-01-01T00:00:00Z"},
        {1493172645000, "2017-04-26T02:10:45Z"},
        {1493172645999, "2017-04-26T02:10:45Z"},
        {1582934399000, "2020-02-28T23:59:59Z"},
        {1582934400000, "2020-02-29T00:00:00Z"},
        {4294967295000, "2106-02-07T06:28:15Z"},
        {std::numeric_limits<std::uint64_t>::max(), "9999-12-31T23:59:59Z"},
    };
    const kelvo::test::GroupingLocale locale;
    for (const auto& c : cases)
        EXPECT_EQ(utcText(c.timeMs), c.utc);
}
}  // namespace

#include "TimeText.h"

#include <gtest/gtest.h>
#include <limits>

namespace Host
{
namespace
{
using namespace std::chrono_literals;

TEST(TimeText, writesTheTimeOfDayInUtc)
{
    EXPECT_EQ(clockText(Moment(0ms)), "00:00:00.000");
    EXPECT_EQ(clockText(Moment(48h + 7h + 3min + 9s + 42ms)), "07:03:09.042");
}

TEST(TimeText, writesDateAndTimeInUtc)
{
    EXPECT_EQ(isoText(Moment(0ms)), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(isoText(Moment(1489040894042ms)), "2017-03-09T06:28:14.042Z");
}

TEST(TimeText, writesPartsOfASecondOnlyWhereThereAreSome)
{
    EXPECT_EQ(momentText(1489040894000), "2017-03-09T06:28:14Z");
    EXPECT_EQ(momentText(1489040894042), "2017-03-09T06:28:14.042Z");
    EXPECT_EQ(momentText(253402300799000), "9999-12-31T23:59:59Z");
}

TEST(TimeText, countsInTheSingularToo)
{
    EXPECT_EQ(countText(0, "frame"), "0 frames");
    EXPECT_EQ(countText(1, "frame"), "1 frame");
    EXPECT_EQ(countText(2, "frame"), "2 frames");
}

TEST(TimeText, writesDurations)
{
    EXPECT_EQ(durationText(0s), "00:00");
    EXPECT_EQ(durationText(-5s), "00:00");
    EXPECT_EQ(durationText(59999ms), "00:59");
    EXPECT_EQ(durationText(7min + 3s), "07:03");
    EXPECT_EQ(durationText(3600s), "1:00:00");
    EXPECT_EQ(durationText(100h + 61s), "100:01:01");
}

TEST(TimeText, writesRatesAndSizes)
{
    EXPECT_EQ(bitRateText(0), "0 bit/s");
    EXPECT_EQ(bitRateText(999), "999 bit/s");
    EXPECT_EQ(bitRateText(4100), "4.1 kbit/s");
    EXPECT_EQ(bitRateText(12.04e6), "12.0 Mbit/s");
    EXPECT_EQ(bitRateText(5e12), "5000.0 Gbit/s");
    EXPECT_EQ(sizeText(1023), "1023 bytes");
    EXPECT_EQ(sizeText(1536), "1.5 KiB");
}

TEST(TimeText, survivesTheLargestNumber)
{
    EXPECT_EQ(decimalText(std::numeric_limits<double>::max(), 1).size(), 311U);
    EXPECT_EQ(decimalText(2.375, 2), "2.38");
}
}  // namespace
}  // namespace Host

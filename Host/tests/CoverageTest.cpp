#include "Coverage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using Tavro8::GDRV::DateTimeRange;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr DateTimeRange interval{1000, 2000};

std::vector<DateTimeRange> covered(const std::vector<DateTimeRange>& recordings)
{
    return coverage(interval, recordings);
}

TEST(Coverage, sortsAndJoinsWhatOverlapsOrTouches)
{
    EXPECT_THAT(covered({{1500, 1600}, {1100, 1200}, {1150, 1300}, {1300, 1400}, {1160, 1170}}),
                ElementsAre(DateTimeRange{1100, 1400}, DateTimeRange{1500, 1600}));
}

TEST(Coverage, cutsAtTheBoundsOfTheInterval)
{
    EXPECT_THAT(covered({{0, 1100}, {1900, 5000}}), ElementsAre(DateTimeRange{1000, 1100}, DateTimeRange{1900, 2000}));
    EXPECT_THAT(covered({{0, 5000}}), ElementsAre(interval));
    EXPECT_THAT(covered({{0, 999}, {2000, 2100}}), IsEmpty());
}

TEST(Coverage, keepsAMomentThatNothingElseCovers)
{
    EXPECT_THAT(covered({{1500, 1500}}), ElementsAre(DateTimeRange{1500, 1500}));
    EXPECT_THAT(covered({{1500, 1500}, {1400, 1600}}), ElementsAre(DateTimeRange{1400, 1600}));
}

TEST(Coverage, leavesOutWhatEndsBeforeItBegins)
{
    EXPECT_THAT(covered({{1500, 1400}}), IsEmpty());
}

TEST(Coverage, addsUp)
{
    EXPECT_EQ(totalMs(covered({{1100, 1300}, {1200, 1400}, {1800, 9000}, {1500, 1500}})), 500U);
}
}  // namespace
}  // namespace Host

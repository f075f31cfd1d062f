#include <IpUtil/ConnectionPolicy.h>
#include <IpUtil/Version.h>
#include <gtest/gtest.h>
#include <limits>

using namespace Tavro8::Utility;
using namespace std::chrono_literals;

TEST(Backoff, doublesFromOneSecondToThirty)
{
    Backoff backoff;
    for (const auto expected : {1s, 2s, 4s, 8s, 16s, 30s, 30s})
        EXPECT_EQ(backoff.next(0.5), expected);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(backoff.next(0.5), 30s);
    EXPECT_EQ(backoff.getFailures(), 107U);
}

TEST(Backoff, variesByAFifth)
{
    EXPECT_EQ(Backoff().next(0), 800ms);
    EXPECT_EQ(Backoff().next(1), 1200ms);
    EXPECT_EQ(Backoff().next(std::numeric_limits<double>::quiet_NaN()), 1s);
    EXPECT_EQ(Backoff().next(7), 1s);
}

TEST(Backoff, beginsAnewAfterASuccess)
{
    Backoff backoff;
    backoff.next(0.5);
    backoff.next(0.5);
    backoff.reset();
    EXPECT_EQ(backoff.getFailures(), 0U);
    EXPECT_EQ(backoff.next(0.5), 1s);
}

TEST(Version, ofTheLibraryIsThatOfItsHeaders)
{
    EXPECT_EQ(loadedIpUtilVersion(), ipUtilVersion);
}

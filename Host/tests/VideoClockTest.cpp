#include "media/VideoClock.h"

#include <gtest/gtest.h>
#include <initializer_list>

namespace Host
{
namespace
{
constexpr std::int64_t frameMs = 40;

TEST(VideoClock, keepsRegularTimes)
{
    VideoClock clock;
    for (const std::int64_t time : {0, 40, 80, 120})
        EXPECT_EQ(clock.advance(time, frameMs), time);
}

TEST(VideoClock, takesOutJitter)
{
    VideoClock clock;
    clock.advance(0, frameMs);
    std::int64_t regular = 0;
    for (const std::int64_t jitter : {35, -20, 90, -90, 0, 25}) {
        regular += frameMs;
        EXPECT_EQ(clock.advance(regular + jitter, frameMs), regular);
    }
}

TEST(VideoClock, keepsItsDistancesWhenTheTimestampsAreCorrected)
{
    VideoClock clock;
    std::int64_t last = clock.advance(0, frameMs);
    for (std::int64_t stated = frameMs - 400; stated < 10000; stated += frameMs) {
        const std::int64_t time = clock.advance(stated, frameMs);
        EXPECT_EQ(time - last, frameMs);
        last = time;
    }
}

TEST(VideoClock, comesBackFromFarAhead)
{
    VideoClock clock;
    std::int64_t last = clock.advance(0, frameMs);
    std::int64_t stated = -3000;
    for (; stated < 200000; stated += frameMs) {
        const std::int64_t time = clock.advance(stated, frameMs);
        EXPECT_GE(time - last, frameMs - 1);
        last = time;
    }
    EXPECT_NEAR(static_cast<double>(last - stated), 1000, 2 * frameMs);
}

TEST(VideoClock, followsADrift)
{
    VideoClock clock;
    for (std::int64_t i = 0; i < 10000; ++i)
        EXPECT_NEAR(static_cast<double>(clock.advance(i * 41, frameMs)), static_cast<double>(i * 41), 101);
}

TEST(VideoClock, jumpsWherePicturesAreMissing)
{
    VideoClock clock;
    clock.advance(0, frameMs);
    EXPECT_EQ(clock.advance(1000, frameMs), 1000);
}

TEST(VideoClock, takesTheTimestampsWhenTheDurationIsUnknown)
{
    VideoClock clock;
    EXPECT_EQ(clock.advance(0, 0), 0);
    EXPECT_EQ(clock.advance(70, 0), 70);
}

TEST(VideoClock, alwaysGoesForward)
{
    VideoClock clock;
    EXPECT_EQ(clock.advance(0, 0), 0);
    EXPECT_EQ(clock.advance(0, 0), 1);
    EXPECT_EQ(clock.advance(-500, 0), 2);
    EXPECT_GT(clock.advance(-5000, frameMs), 2);
}
}  // namespace
}  // namespace Host

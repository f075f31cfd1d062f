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
    std::int64_t last = 0;
    for (const std::int64_t jitter : {35, -20, 38, -39, 0, 25}) {
        const std::int64_t time = clock.advance(last + frameMs + jitter, frameMs);
        EXPECT_NEAR(static_cast<double>(time - last), frameMs, 5);
        last = time;
    }
}

TEST(VideoClock, followsADrift)
{
    VideoClock clock;
    for (std::int64_t i = 0; i < 10000; ++i)
        EXPECT_NEAR(static_cast<double>(clock.advance(i * 41, frameMs)), static_cast<double>(i * 41), 20);
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

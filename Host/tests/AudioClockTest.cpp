#include "media/AudioClock.h"

#include <gtest/gtest.h>

namespace Host
{
namespace
{
constexpr std::uint32_t rate = 8000;
constexpr std::int64_t piece = 320;  // 40 ms

TEST(AudioClock, countsSamplesAndIgnoresJitter)
{
    AudioClock clock(rate);
    EXPECT_EQ(clock.advance(0, piece), 0);
    EXPECT_EQ(clock.advance(71, piece), piece);
    EXPECT_EQ(clock.advance(79, piece), 2 * piece);
}

TEST(AudioClock, beginsWhereTheSoundBegins)
{
    AudioClock clock(rate);
    EXPECT_EQ(clock.advance(500, piece), 4000);
    EXPECT_EQ(clock.advance(540, piece), 4000 + piece);
}

TEST(AudioClock, leavesAGapWhereSoundIsMissing)
{
    AudioClock clock(rate);
    clock.advance(0, piece);
    EXPECT_EQ(clock.advance(1000, piece), 8000);
}

TEST(AudioClock, neverGoesBack)
{
    AudioClock clock(rate);
    clock.advance(1000, piece);
    EXPECT_EQ(clock.advance(0, piece), 8000 + piece);
}
}  // namespace
}  // namespace Host

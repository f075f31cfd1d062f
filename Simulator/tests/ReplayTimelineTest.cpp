#include "ReplayTimeline.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using namespace std::chrono_literals;

TEST(ReplayTimeline, leapsOverGaps)
{
    const ReplayTimeline timeline({{100, 110}, {200, 205}, {300, 301}});
    EXPECT_EQ(timeline.length(), 16s);
    EXPECT_EQ(timeline.begin(), 100s);
    EXPECT_EQ(timeline.end(), 301s);
    const struct {
        std::chrono::nanoseconds position;
        RecordedTime time;
        std::size_t span;
    } cases[] = {
        {0s, 100s, 0},  {9'999ms, 109'999ms, 0},  {10s, 200s, 1}, {14'960ms, 204'960ms, 1},
        {15s, 300s, 2}, {15'900ms, 300'900ms, 2}, {16s, 301s, 2}, {17s, 302s, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.position.count());
        EXPECT_EQ(timeline.timeAt(c.position), c.time);
        EXPECT_EQ(timeline.spanAt(c.position), c.span);
    }
}

TEST(ReplayTimeline, isReadInUtc)
{
    EXPECT_EQ(readableTime(0s), "1970-01-01 00:00:00");
    EXPECT_EQ(readableTime(1'493'172'645'999ms), "2017-04-26 02:10:45");
    EXPECT_EQ(readableTime(4'107'542'399s), "2100-02-28 23:59:59");
}

}  // namespace
}  // namespace simulator

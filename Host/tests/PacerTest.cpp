#include "Pacer.h"

#include <gtest/gtest.h>

namespace Host
{
namespace
{
using namespace std::chrono_literals;
using Time = Pacer::Clock::time_point;

TEST(Pacer, beginsAtOnce)
{
    Pacer pacer(20ms);
    const Time now(5s);
    EXPECT_EQ(pacer.next(now), now);
}

TEST(Pacer, doesNotDriftWhenEachWaitTakesTooLong)
{
    Pacer pacer(20ms);
    const Time begin(5s);
    Time due = pacer.next(begin);
    for (int piece = 1; piece <= 180'000; ++piece) {  // an hour
        due = pacer.next(due + 3ms);
        ASSERT_EQ(due - begin, piece * 20ms);
    }
}

TEST(Pacer, catchesUpOnShortDelays)
{
    Pacer pacer(20ms);
    const Time begin(5s);
    pacer.next(begin);
    EXPECT_EQ(pacer.next(begin + 200ms), begin + 20ms);
    EXPECT_EQ(pacer.next(begin + 200ms), begin + 40ms);
}

TEST(Pacer, goesOnAtItsPaceAfterALongPause)
{
    Pacer pacer(20ms);
    const Time begin(5s);
    pacer.next(begin);
    const Time late = begin + 60s;
    EXPECT_EQ(pacer.next(late), late);
    EXPECT_EQ(pacer.next(late + 1ms), late + 20ms);
    EXPECT_EQ(pacer.next(late + 25ms), late + 40ms);
}
}  // namespace
}  // namespace Host

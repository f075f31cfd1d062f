#include "PtzMotion.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using std::chrono::milliseconds;

constexpr double exact = 1e-6;

/// So many seconds after some moment.
PtzTime at(double seconds)
{
    return PtzTime(milliseconds(1'000'000)) +
           std::chrono::duration_cast<PtzTime::duration>(std::chrono::duration<double>(seconds));
}

TEST(PtzAxis, restsUntilItIsToldToMove)
{
    const PtzAxis axis(tiltRange, 12);
    EXPECT_EQ(axis.at(at(0)), 12);
    EXPECT_EQ(axis.at(at(1000)), 12);
    EXPECT_EQ(axis.target(), 12);
    EXPECT_LE(axis.arrival(), at(0));
}

TEST(PtzAxis, movesAtItsSpeedUntilItIsStopped)
{
    PtzAxis axis(tiltRange, 10);
    axis.drive(-4, at(0));
    EXPECT_NEAR(axis.at(at(0)), 10, exact);
    EXPECT_NEAR(axis.at(at(2.5)), 0, exact);
    axis.drive(0, at(3));
    EXPECT_NEAR(axis.at(at(100)), -2, exact);
    EXPECT_EQ(axis.arrival(), at(3));
}

TEST(PtzAxis, goesOnFromWhereItIsWhenTheSpeedChanges)
{
    PtzAxis axis(zoomRange, 1);
    axis.drive(5, at(0));
    axis.drive(-1, at(2));
    EXPECT_NEAR(axis.at(at(3)), 10, exact);
}

TEST(PtzAxis, stopsAtItsLimits)
{
    PtzAxis axis(tiltRange, 80);
    axis.drive(10, at(0));
    EXPECT_EQ(axis.target(), 90);
    EXPECT_NEAR(axis.at(at(0.9)), 89, exact);
    EXPECT_EQ(axis.at(at(1)), 90);
    EXPECT_EQ(axis.at(at(50)), 90);
    EXPECT_NEAR(std::chrono::duration<double>(axis.arrival() - at(0)).count(), 1, exact);

    axis.drive(10, at(60));  // there is no way left
    EXPECT_EQ(axis.at(at(60)), 90);
    EXPECT_LE(axis.arrival(), at(60));
    axis.goTo(-200, 10, at(60));
    EXPECT_EQ(axis.target(), -90);
}

TEST(PtzAxis, turnsWithoutEndWhenCircular)
{
    PtzAxis axis(panRange, 350);
    axis.drive(20, at(0));
    EXPECT_FALSE(axis.target());
    EXPECT_NEAR(axis.at(at(0.25)), 355, exact);
    EXPECT_NEAR(axis.at(at(1)), 10, exact);
    EXPECT_NEAR(axis.at(at(37)), 10, exact) << "twice round";
    EXPECT_GT(axis.arrival(), at(1e6));
    axis.drive(-20, at(1));
    EXPECT_NEAR(axis.at(at(2)), 350, exact);
}

TEST(PtzAxis, arrivesAfterAWhileAndExactly)
{
    PtzAxis axis(zoomRange, 1);
    axis.goTo(2.3, 0.7, at(0));
    EXPECT_EQ(axis.target(), 2.3);
    EXPECT_NEAR(axis.at(at(1)), 1.7, exact);
    EXPECT_LT(axis.at(axis.arrival() - milliseconds(1)), 2.3);
    EXPECT_EQ(axis.at(axis.arrival()), 2.3) << "to the last bit";
    EXPECT_NEAR(std::chrono::duration<double>(axis.arrival() - at(0)).count(), 1.3 / 0.7, exact);
}

TEST(PtzAxis, takesTheShorterWayRound)
{
    const struct {
        double from;
        double to;
        double after;  ///< half of a second at 40 degrees a second
    } cases[] = {
        {10, 350, 350}, {350, 10, 10}, {10, 100, 30}, {100, 10, 80}, {300, 30, 320}, {30, 300, 10}, {0, 360, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " to " + std::to_string(c.to));
        PtzAxis axis(panRange, c.from);
        axis.goTo(c.to, 40, at(0));
        EXPECT_NEAR(axis.at(at(0.5)), c.after, exact);
        EXPECT_EQ(axis.at(at(10)), c.to == 360 ? 0 : c.to);
    }
}

TEST(PtzRange, keepsEveryValueInside)
{
    EXPECT_EQ(panRange.clamp(360), 0);
    EXPECT_EQ(panRange.clamp(-30), 330);
    EXPECT_EQ(panRange.clamp(725), 5);
    EXPECT_LT(panRange.clamp(-1e-20), 360) << "where adding a round gives the whole of it";
    EXPECT_EQ(zoomRange.clamp(0), 1);
    EXPECT_EQ(zoomRange.clamp(31), 30);
}

TEST(PtzMotion, arrivesWhenItsSlowestAxisDoes)
{
    PtzMotion motion({.pan = 0, .tilt = 0, .zoom = 1, .focus = 50, .iris = 50});
    EXPECT_FALSE(motion.moving(at(0)));
    const PtzView view{.pan = 90, .tilt = -10, .zoom = 4, .focus = 20, .iris = 80};
    motion.goTo(view, 3, at(0));  // 60 degrees a second
    EXPECT_TRUE(motion.moving(at(1.4)));
    EXPECT_FALSE(motion.moving(at(1.6)));
    EXPECT_EQ(motion.at(at(1.6)), view);
    EXPECT_EQ(motion.target(), view);
    EXPECT_EQ(motion.at(at(1)).tilt, -10);
}

TEST(PtzMotion, stopsAllAxes)
{
    PtzMotion motion(PtzView{});
    motion.pan.drive(10, at(0));
    motion.zoom.drive(1, at(0));
    EXPECT_FALSE(motion.target());
    motion.stop(at(2));
    EXPECT_FALSE(motion.moving(at(2)));
    EXPECT_NEAR(motion.at(at(9)).pan, 20, exact);
    EXPECT_NEAR(motion.at(at(9)).zoom, 3, exact);
}

/// Where a tour has the head look to the right.
double panOf(const PtzTour& tour, double seconds)
{
    const auto [motion, time] = tour.at(at(seconds));
    return motion.at(time).pan;
}

TEST(PtzTour, visitsItsStopsAgainAndAgain)
{
    // At speed 1, 20 degrees a second: 1 s to the first stop, 2 s there, 2 s to the second, 1 s there, 2 s back.
    const PtzTour tour({}, {{{.pan = 20}, 1, milliseconds(2000)}, {{.pan = 60}, 1, milliseconds(1000)}}, at(0));
    const struct {
        double seconds;
        double pan;
        bool moving;
    } cases[] = {
        {0, 0, true},
        {0.5, 10, true},
        {1.5, 20, false},
        {2.9, 20, false},
        {4, 40, true},
        {5.5, 60, false},
        {7, 40, true},
        {9, 20, false},
        {11, 40, true},
        {12.5, 60, false},
        {7 + 7 * 100'000, 40, true},  // a week later, in the same place of the round
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.seconds);
        EXPECT_NEAR(panOf(tour, c.seconds), c.pan, 1e-3);
        const auto [motion, time] = tour.at(at(c.seconds));
        EXPECT_EQ(motion.moving(time), c.moving);
    }
}

TEST(PtzTour, staysAtItsOnlyStop)
{
    const PtzTour tour({}, {{{.pan = 20}, 1, milliseconds(0)}}, at(0));
    EXPECT_NEAR(panOf(tour, 0.5), 10, exact);
    EXPECT_EQ(panOf(tour, 1.5), 20);
    EXPECT_EQ(panOf(tour, 1e6), 20);
}

TEST(PtzTour, takesEachStopAtItsSpeed)
{
    const PtzTour tour({}, {{{.pan = 90}, 9, milliseconds(0)}, {{.pan = 0}, 3, milliseconds(0)}}, at(0));
    EXPECT_NEAR(panOf(tour, 0.25), 45, exact);
    EXPECT_NEAR(panOf(tour, 0.5 + 0.1 + 0.75), 45, exact) << "on the way back, a third as fast";
}

}  // namespace
}  // namespace simulator

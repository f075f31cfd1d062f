#include "PtzMotion.h"

#include <algorithm>
#include <cmath>

namespace simulator
{
namespace
{

using Seconds = std::chrono::duration<double>;

/// How fast a recalled preset restores focus and iris, in percent a second.
constexpr double lensPerSecond = 100;

/// Rounded up, so that the value at the end is the goal and never short of it.
PtzTime after(PtzTime start, double seconds)
{
    return start + std::chrono::ceil<PtzTime::duration>(Seconds(seconds));
}

/// The way from one value to another, the shorter one round a circle.
double distance(const PtzRange& range, double from, double to)
{
    return range.circular ? std::remainder(to - from, range.most - range.least) : to - from;
}

}  // namespace

double PtzRange::clamp(double value) const
{
    if (!circular)
        return std::clamp(value, least, most);
    const double round = most - least;
    const double rest = std::fmod(value - least, round);
    const double inside = least + (rest < 0 ? rest + round : rest);
    return inside < most ? inside : least;  // a tiny negative rest adds up to the whole round
}

double PtzAxis::at(PtzTime time) const
{
    if (goal && time >= end)
        return *goal;
    return range.clamp(from + rate * Seconds(time - start).count());
}

void PtzAxis::drive(double unitsPerSecond, PtzTime now)
{
    from = at(now);
    rate = unitsPerSecond;
    start = end = now;
    if (rate == 0) {
        goal = from;
    } else if (range.circular) {
        goal.reset();
        end = PtzTime::max();
    } else {
        goal = rate > 0 ? range.most : range.least;
        end = after(now, (*goal - from) / rate);
    }
}

void PtzAxis::goTo(double target, double unitsPerSecond, PtzTime now)
{
    from = at(now);
    goal = range.clamp(target);
    const double way = distance(range, from, *goal);
    rate = std::copysign(unitsPerSecond, way);
    start = now;
    end = after(now, std::abs(way) / unitsPerSecond);
}

PtzMotion::PtzMotion(const PtzView& view)
    : pan(panRange, view.pan),
      tilt(tiltRange, view.tilt),
      zoom(zoomRange, view.zoom),
      focus(focusRange, view.focus),
      iris(irisRange, view.iris)
{}

PtzView PtzMotion::at(PtzTime time) const
{
    return {pan.at(time), tilt.at(time), zoom.at(time), focus.at(time), iris.at(time)};
}

std::optional<PtzView> PtzMotion::target() const
{
    if (!pan.target())  // the only axis that can turn without end
        return std::nullopt;
    return PtzView{*pan.target(), *tilt.target(), *zoom.target(), *focus.target(), *iris.target()};
}

PtzTime PtzMotion::arrival() const
{
    return std::max({pan.arrival(), tilt.arrival(), zoom.arrival(), focus.arrival(), iris.arrival()});
}

void PtzMotion::stop(PtzTime now)
{
    for (PtzAxis* axis : {&pan, &tilt, &zoom, &focus, &iris})
        axis->drive(0, now);
}

void PtzMotion::goTo(const PtzView& view, unsigned speed, PtzTime now)
{
    pan.goTo(view.pan, degreesPerSecond(speed), now);
    tilt.goTo(view.tilt, degreesPerSecond(speed), now);
    zoom.goTo(view.zoom, zoomPerSecond(speed), now);
    focus.goTo(view.focus, lensPerSecond, now);
    iris.goTo(view.iris, lensPerSecond, now);
}

PtzTour::PtzTour(const PtzView& from, const std::vector<Stop>& stops, PtzTime now) : end(now)
{
    PtzView view = from;
    const auto travel = [&](const Stop& stop) {
        PtzMotion motion(view);
        motion.goTo(stop.view, stop.speed, end);
        legs.push_back({end, motion});
        end = std::max(motion.arrival(), end) + std::max(stop.dwell, shortestDwell);
        view = stop.view;
    };
    travel(stops.front());
    std::for_each(stops.begin() + 1, stops.end(), travel);
    travel(stops.front());
}

PtzTour::Moment PtzTour::at(PtzTime time) const
{
    const PtzTime round = legs.at(1).begin;
    if (time >= end)
        time = round + (time - round) % (end - round);
    const auto next = std::ranges::upper_bound(legs, time, {}, &Leg::begin);
    const Leg& leg = next == legs.begin() ? *next : *std::prev(next);
    return {leg.motion, time};
}

}  // namespace simulator

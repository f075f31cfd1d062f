#pragma once

#include <chrono>
#include <optional>
#include <vector>

namespace simulator
{

using PtzTime = std::chrono::steady_clock::time_point;

/// Where a head looks, and how.
struct PtzView {
    double pan = 0;     ///< degrees to the right, 0 up to 360
    double tilt = 0;    ///< degrees upwards, -90..90
    double zoom = 1;    ///< ratio, 1..30
    double focus = 50;  ///< percent of the way from near to far
    double iris = 50;   ///< percent
    bool operator==(const PtzView&) const = default;
};

/// The values that an axis can take. A circular one goes on with `least` behind `most`.
struct PtzRange {
    double least = 0;
    double most = 0;
    bool circular = false;

    double clamp(double value) const;
};

inline constexpr PtzRange panRange{0, 360, true};
inline constexpr PtzRange tiltRange{-90, 90};
inline constexpr PtzRange zoomRange{1, 30};
inline constexpr PtzRange focusRange{0, 100};
inline constexpr PtzRange irisRange{0, 100};

/// One axis of a head: its value as a function of time. It reads no clock, and does not remember what was before the
/// last command: the times that it is given only grow.
class PtzAxis {
public:
    PtzAxis(const PtzRange& limits, double value) : range(limits), from(value), goal(value) {}

    double at(PtzTime time) const;
    /// Moves by `unitsPerSecond`, whose sign is the direction, until told otherwise or at a limit; 0 stops.
    void drive(double unitsPerSecond, PtzTime now);
    /// Moves to `target`, the shorter way round when circular. The speed is positive.
    void goTo(double target, double unitsPerSecond, PtzTime now);

    /// Where it comes to rest; nothing when it turns without end.
    std::optional<double> target() const { return goal; }
    /// When it comes to rest, or did.
    PtzTime arrival() const { return end; }

private:
    PtzRange range;
    double from;
    double rate = 0;  ///< units a second
    PtzTime start{};
    PtzTime end{};
    std::optional<double> goal;
};

/// All axes of a head.
class PtzMotion {
public:
    explicit PtzMotion(const PtzView& view);

    PtzView at(PtzTime time) const;
    bool moving(PtzTime time) const { return time < arrival(); }
    /// The view in which all axes rest; nothing when one turns without end.
    std::optional<PtzView> target() const;
    PtzTime arrival() const;

    void stop(PtzTime now);
    /// Moves every axis to where `view` has it, at `speed` from 1 to `fastest`.
    void goTo(const PtzView& view, unsigned speed, PtzTime now);

    PtzAxis pan;
    PtzAxis tilt;
    PtzAxis zoom;
    PtzAxis focus;
    PtzAxis iris;

    /// The speeds of absolute movement, 1..9.
    static constexpr unsigned fastest = 9;
    static double degreesPerSecond(unsigned speed) { return 20.0 * speed; }
    static double zoomPerSecond(unsigned speed) { return 2.0 * speed; }
};

/// A head that goes from stop to stop, again and again, as a function of time.
class PtzTour {
public:
    struct Stop {
        PtzView view;
        unsigned speed = PtzMotion::fastest;  ///< on the way to the view, 1..9
        std::chrono::milliseconds dwell{0};   ///< at least `shortestDwell` is spent there
    };
    static constexpr std::chrono::milliseconds shortestDwell{100};

    /// There is at least one stop.
    PtzTour(const PtzView& from, const std::vector<Stop>& stops, PtzTime now);

    /// The movement of the moment, and the time by which to ask it. The reference lives as long as the tour.
    struct Moment {
        const PtzMotion& motion;
        PtzTime time;
    };
    Moment at(PtzTime time) const;

private:
    struct Leg {
        PtzTime begin;
        PtzMotion motion;
    };
    std::vector<Leg> legs;  ///< the first leads to the first stop, the others are the round
    PtzTime end{};          ///< of the first round
};

}  // namespace simulator

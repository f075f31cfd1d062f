// Movement to a place: ptz position, absolute, area, point.
#include "Console.h"
#include "DeviceSession.h"
#include "Output.h"
#include "TimeText.h"
#include "commands/PtzCommand.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <optional>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
using Clock = Monitor::Clock;

struct Position {
    double pan = 0;
    double tilt = 0;
    double zoom = 0;

    bool operator==(const Position&) const = default;
};

/// The result is 0 when `position` was filled in.
std::int32_t readPosition(GDRV::IAbsoluteTelemetry& telemetry, Position& position)
{
    std::uint32_t pan = 0;
    std::uint32_t tilt = 0;
    std::uint32_t zoom = 0;
    const std::int32_t result = telemetry.GetPositionParams(pan, tilt, zoom);
    if (result == 0)
        position = {fromHundredths(pan), fromHundredths(tilt), fromHundredths(zoom)};
    return result;
}

void report(const PtzRun& run, const Position& position, Json::Value fields = Json::Value(Json::objectValue))
{
    fields["channel"] = run.channel;
    fields["pan"] = position.pan;
    fields["tilt"] = position.tilt;
    fields["zoom"] = position.zoom;
    run.surroundings.output.event("position", fields,
                                  "pan " + decimalText(position.pan, 2) + ", tilt " + decimalText(position.tilt, 2) +
                                      ", zoom " + decimalText(position.zoom, 2) + '\n');
}

/// An option or a positional for a decimal number.
template <typename Value>
CLI::Option* addNumber(CLI::App& app, const char* name, Value& value, double least, double most, const char* help)
{
    return app.add_option(name, value, help)
        ->check(
            CLI::Validator([least, most](std::string& text) { return checkNumber(text, least, most); }, "", "number"));
}

class PositionOperation final : public PtzOperation {
public:
    const char* getName() const override { return "position"; }
    const char* getSummary() const override { return "Tell where the camera looks"; }
    void describeOptions(CLI::App&) override {}

    ExitStatus run(const PtzRun& run) override
    {
        Position position;
        const std::int32_t result = readPosition(run.telemetry.absolute(), position);
        if (result != 0)
            throw Failure(ExitStatus::failed, reasonSentence("the position cannot be read", result), result);
        report(run, position);
        return ExitStatus::done;
    }
};

class AbsoluteOperation final : public PtzOperation {
public:
    const char* getName() const override { return "absolute"; }
    const char* getSummary() const override { return "Move to a position and wait until the camera is there"; }

    void describeOptions(CLI::App& app) override
    {
        addNumber(app, "--pan", pan, -360, 360, "Degrees to the right")->type_name("DEGREES");
        addNumber(app, "--tilt", tilt, -180, 180, "Degrees upwards")->type_name("DEGREES");
        addNumber(app, "--zoom", zoom, 0, 1000, "Ratio, 1 is the widest")->type_name("RATIO");
        whole(app.add_option("--speed", speed, "0 to 9"), 0, greatestMoveSpeed)->type_name("N")->capture_default_str();
        addNumber(app, "--wait", patience, 0, 600,
                  "How many seconds it may take until the camera reports the position;\n0: do not wait, nor ask. "
                  "`arrived` of the event `position` tells whether it is there")
            ->type_name("S")
            ->capture_default_str();
    }

    void check() const override
    {
        if (!pan && !tilt && !zoom)
            throw Failure(ExitStatus::usage, "name at least one of --pan, --tilt and --zoom");
    }

    ExitStatus run(const PtzRun& run) override
    {
        GDRV::IAbsoluteTelemetry& telemetry = run.telemetry.absolute();
        const std::int32_t result =
            telemetry.AbsoluteMoveEx(toHundredths(pan.value_or(0)), speed, toHundredths(tilt.value_or(0)), speed,
                                     toHundredths(zoom.value_or(0)), speed, mask());
        run.report(getName(), wishes(), result, "movement accepted", "the camera could not be moved");
        if (patience > 0)
            awaitArrival(run, telemetry);
        return run.status();
    }

private:
    std::uint32_t mask() const
    {
        return (pan ? GDRV::absolutePan : 0U) | (tilt ? GDRV::absoluteTilt : 0U) | (zoom ? GDRV::absoluteZoom : 0U);
    }

    Json::Value wishes() const
    {
        Json::Value fields(Json::objectValue);
        if (pan)
            fields["pan"] = *pan;
        if (tilt)
            fields["tilt"] = *tilt;
        if (zoom)
            fields["zoom"] = *zoom;
        return fields;
    }

    bool isThere(const Position& position) const
    {
        // Half a tenth: devices have steps of their own, and the module cuts what is behind the second decimal.
        const auto near = [](double difference) { return std::abs(difference) < 0.05; };
        return (!pan || near(std::remainder(position.pan - *pan, 360))) && (!tilt || near(position.tilt - *tilt)) &&
               (!zoom || near(position.zoom - *zoom));
    }

    /// Asks for the position until it is the wanted one or the time is over, and tells it. A device may accept a
    /// movement and refuse it in the body of its answer, which the module does not judge: then the camera stays.
    void awaitArrival(const PtzRun& run, GDRV::IAbsoluteTelemetry& telemetry) const
    {
        constexpr std::chrono::milliseconds interval{100};
        const Surroundings& surroundings = run.surroundings;
        const auto end =
            Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(patience));
        std::optional<Position> first;
        Position position;
        std::size_t answers = 0;
        for (;; ++answers) {
            if (const std::int32_t result = readPosition(telemetry, position); result != 0)
                return surroundings.console.line(reasonSentence("accepted, but the position cannot be read", result));
            if (!first)
                first = position;
            if (isThere(position) || surroundings.interrupted.stop_requested() || Clock::now() >= end)
                break;
            surroundings.console.progress("pan " + decimalText(position.pan, 2) + ", tilt " +
                                          decimalText(position.tilt, 2) + ", zoom " + decimalText(position.zoom, 2));
            surroundings.monitor.wait(surroundings.interrupted, Clock::now() + interval, [] { return false; });
        }
        surroundings.console.clearProgress();
        Json::Value fields(Json::objectValue);
        fields["arrived"] = isThere(position);
        report(run, position, fields);
        if (isThere(position))
            return;
        // The first answer alone says nothing of movement.
        surroundings.console.line(
            answers > 0 && position == *first
                ? "the camera is not there and has not moved: it may have refused; else allow more with --wait"
                : "the camera is not there yet; allow more with --wait");
    }

    std::optional<double> pan;
    std::optional<double> tilt;
    std::optional<double> zoom;
    std::uint32_t speed = 5;
    double patience = 10;
};

/// How far outside the picture a corner may be: an area that zooms out begins left of it and above it.
constexpr double farOutside = 100;

class AreaOperation final : public PtzOperation {
public:
    const char* getName() const override { return "area"; }
    const char* getSummary() const override { return "Make an area of the picture fill it, or zoom out"; }

    void describeOptions(CLI::App& app) override
    {
        addNumber(app, "X", area.x, -farOutside, farOutside, "Left edge; the picture reaches from 0 to 1")
            ->required()
            ->type_name("");
        addNumber(app, "Y", area.y, -farOutside, farOutside, "Upper edge, likewise")->required()->type_name("");
        addNumber(app, "W", area.width, 0, farOutside, "Width; above 1 zooms out by that factor")
            ->required()
            ->type_name("");
        addNumber(app, "H", area.height, 0, farOutside, "Height, likewise")->required()->type_name("");
    }

    ExitStatus run(const PtzRun& run) override
    {
        Json::Value fields(Json::objectValue);
        fields["x"] = area.x;
        fields["y"] = area.y;
        fields["width"] = area.width;
        fields["height"] = area.height;
        run.report(getName(), fields, run.telemetry.pointClick().AreaZoom(area), "movement accepted",
                   "the area could not be shown");
        return ExitStatus::done;
    }

private:
    GDRV::NormalizedRect area;
};

class PointOperation final : public PtzOperation {
public:
    const char* getName() const override { return "point"; }
    const char* getSummary() const override { return "Make a point of the picture its centre"; }

    void describeOptions(CLI::App& app) override
    {
        addNumber(app, "X", point.x, 0, 1, "From the left edge, 0, to the right, 1")->required()->type_name("");
        addNumber(app, "Y", point.y, 0, 1, "From the upper edge, 0, to the lower, 1")->required()->type_name("");
    }

    ExitStatus run(const PtzRun& run) override
    {
        Json::Value fields(Json::objectValue);
        fields["x"] = point.x;
        fields["y"] = point.y;
        run.report(getName(), fields, run.telemetry.pointClick().PointMove(point), "movement accepted",
                   "the point could not be centred");
        return ExitStatus::done;
    }

private:
    GDRV::NormalizedPoint point;
};
}  // namespace

PtzOperations makePtzPositions()
{
    PtzOperations all;
    all.push_back(std::make_unique<PositionOperation>());
    all.push_back(std::make_unique<AbsoluteOperation>());
    all.push_back(std::make_unique<AreaOperation>());
    all.push_back(std::make_unique<PointOperation>());
    return all;
}
}  // namespace Host

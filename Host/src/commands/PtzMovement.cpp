// Movement that lasts until it is stopped: ptz move, zoom, focus, iris, stop.
#include "LoggedErrors.h"
#include "commands/PtzCommand.h"

#include <CLI/CLI.hpp>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
/// Throws `Failure` when the module logs that it could not do it.
template <typename Call>
void callWithoutResult(const std::string& operation, Call&& call)
{
    const LoggedErrors errors;
    call();
    if (!errors.first().empty())
        throw Failure(ExitStatus::failed, operation + " failed: " + errors.first());
}

/// Starts a movement and stops it in time, also when starting seemed to fail: the device may have heard of it.
class Movement : public PtzOperation {
public:
    void describeOptions(CLI::App& app) override
    {
        describeSpeeds(app);
        app.add_option("--seconds", seconds,
                       "How long it moves, then it is stopped; 0: until Ctrl-C, which stops it too")
            ->check(CLI::Validator([](std::string& text) { return checkSeconds(text, 0, 1e7); }, "", "seconds"))
            ->type_name("S")
            ->capture_default_str();
    }

    ExitStatus run(const PtzRun& run) final
    {
        checkSpeeds(run);
        GDRV::ITelemetry& telemetry = *run.telemetry;
        const std::string operation = getName();
        try {
            callWithoutResult(operation, [&] { start(telemetry); });
            run.pass(seconds, "moving");
        } catch (...) {  // the camera must not go on for ever
            stop(telemetry);
            throw;
        }
        callWithoutResult("stopping", [&] { stop(telemetry); });
        run.report(operation, speeds(), 0, operation + ": accepted, and the stop too", {});
        return run.status();
    }

private:
    virtual void describeSpeeds(CLI::App& app) = 0;
    virtual void checkSpeeds(const PtzRun& run) const = 0;
    virtual void start(GDRV::ITelemetry& telemetry) const = 0;
    virtual void stop(GDRV::ITelemetry& telemetry) const = 0;
    virtual Json::Value speeds() const = 0;

    double seconds = 1;
};

class MoveOperation final : public Movement {
public:
    const char* getName() const override { return "move"; }
    const char* getSummary() const override { return "Pan and tilt for a while, then stop"; }

private:
    void describeSpeeds(CLI::App& app) override
    {
        whole(app.add_option("PAN", pan, "Speed to the right; negative: to the left"), leastSpeed, greatestSpeed)
            ->required()
            ->type_name("");
        whole(app.add_option("TILT", tilt, "Speed upwards; negative: downwards"), leastSpeed, greatestSpeed)
            ->required()
            ->type_name("");
    }
    void checkSpeeds(const PtzRun& run) const override
    {
        run.checkSpeed(pan, "panSpeed");
        run.checkSpeed(tilt, "tiltSpeed");
    }
    void start(GDRV::ITelemetry& telemetry) const override { telemetry.MoveContinuous(pan, tilt); }
    void stop(GDRV::ITelemetry& telemetry) const override { telemetry.MoveContinuous(0, 0); }
    Json::Value speeds() const override
    {
        Json::Value fields(Json::objectValue);
        fields["pan"] = pan;
        fields["tilt"] = tilt;
        return fields;
    }

    std::int32_t pan = 0;
    std::int32_t tilt = 0;
};

/// Zoom, focus and iris, which are driven alike.
class LensOperation final : public Movement {
public:
    using Drive = void (GDRV::ITelemetry::*)(std::int32_t) noexcept;

    /// `limitName`: the parameter of the model that limits the speed.
    LensOperation(const char* lensName, const char* lensSummary, const char* speedHelp, const char* limitName,
                  Drive lensDrive)
        : name(lensName), summary(lensSummary), help(speedHelp), limit(limitName), drive(lensDrive)
    {}

    const char* getName() const override { return name; }
    const char* getSummary() const override { return summary; }

private:
    void describeSpeeds(CLI::App& app) override
    {
        whole(app.add_option("SPEED", speed, help), leastSpeed, greatestSpeed)->required()->type_name("");
    }
    void checkSpeeds(const PtzRun& run) const override { run.checkSpeed(speed, limit); }
    void start(GDRV::ITelemetry& telemetry) const override { (telemetry.*drive)(speed); }
    void stop(GDRV::ITelemetry& telemetry) const override { (telemetry.*drive)(0); }
    Json::Value speeds() const override
    {
        Json::Value fields(Json::objectValue);
        fields["speed"] = speed;
        return fields;
    }

    const char* const name;
    const char* const summary;
    const char* const help;
    const char* const limit;
    const Drive drive;
    std::int32_t speed = 0;
};

class StopOperation final : public PtzOperation {
public:
    const char* getName() const override { return "stop"; }
    const char* getSummary() const override { return "Stop whatever moves"; }
    void describeOptions(CLI::App&) override {}

    ExitStatus run(const PtzRun& run) override
    {
        callWithoutResult("stopping", [&] { (*run.telemetry).MoveContinuous(0, 0); });
        run.report(getName(), Json::Value(Json::objectValue), 0, "stop: accepted", {});
        return ExitStatus::done;
    }
};
}  // namespace

PtzOperations makePtzMovements()
{
    PtzOperations all;
    all.push_back(std::make_unique<MoveOperation>());
    all.push_back(std::make_unique<LensOperation>("zoom", "Zoom for a while, then stop", "Closer; negative: wider",
                                                  "zoomSpeed", &GDRV::ITelemetry::ZoomContinuous));
    all.push_back(std::make_unique<LensOperation>("focus", "Focus for a while, then stop",
                                                  "To the far; negative: to the near", "focusSpeed",
                                                  &GDRV::ITelemetry::FocusContinuous));
    all.push_back(std::make_unique<LensOperation>("iris", "Open or close the iris for a while, then stop",
                                                  "Open; negative: close", "focusSpeed",  // the module's limit too
                                                  &GDRV::ITelemetry::IrisContinuous));
    all.push_back(std::make_unique<StopOperation>());
    return all;
}
}  // namespace Host

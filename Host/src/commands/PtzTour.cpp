// ptz tour start, stop, fill.
#include "commands/PtzCommand.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <optional>
#include <string_view>

namespace Host
{
namespace
{
constexpr std::int32_t success = 0;

class TourOperation : public PtzOperation {
public:
    void describeOptions(CLI::App& app) override
    {
        whole(app.add_option("INDEX", tour, "Tour, 0 or 1"), 0, greatestIndex)->required()->type_name("");
    }

protected:
    void report(const PtzRun& run, std::int32_t result, const std::string& done, const std::string& failed) const
    {
        Json::Value fields(Json::objectValue);
        fields["tour"] = tour;
        const std::string subject = "tour " + std::to_string(tour);
        run.report(std::string("tour ") + getName(), fields, result, subject + done, subject + failed);
    }

    std::uint32_t tour = 0;
};

class StartOperation final : public TourOperation {
public:
    const char* getName() const override { return "start"; }
    const char* getSummary() const override { return "Play a tour"; }

    void describeOptions(CLI::App& app) override
    {
        TourOperation::describeOptions(app);
        app.add_option("--seconds", seconds,
                       "Stop it after so long, or at Ctrl-C; 0: at Ctrl-C only.\n"
                       "Without it the tour goes on when the program has ended")
            ->check(CLI::Validator([](std::string& text) { return checkSeconds(text, 0, 1e7); }, "", "seconds"))
            ->type_name("S");
    }

    ExitStatus run(const PtzRun& run) override
    {
        const std::int32_t started = (*run.telemetry).PlayTour(tour);
        if (started != success || !seconds) {
            report(run, started, ": start accepted", " could not be started");
            return ExitStatus::done;
        }
        run.pass(*seconds, "playing");
        report(run, (*run.telemetry).StopTour(), ": start and stop accepted", " plays on: it could not be stopped");
        return run.status();
    }

private:
    std::optional<double> seconds;
};

class StopTourOperation final : public TourOperation {
public:
    const char* getName() const override { return "stop"; }
    const char* getSummary() const override { return "Stop a tour that an earlier run has started"; }

    void describeOptions(CLI::App& app) override
    {
        TourOperation::describeOptions(app);
        app.footer("The module stops only a tour that it has started itself, and does not remember those of earlier\n"
                   "runs: so the tour is started anew and stopped at once. The camera may twitch. `ptz stop` and any\n"
                   "other movement end a tour on most devices as well.\n\n" +
                   app.get_footer());
    }

    ExitStatus run(const PtzRun& run) override
    {
        std::int32_t result = (*run.telemetry).PlayTour(tour);
        if (result == success)
            result = (*run.telemetry).StopTour();
        report(run, result, ": stop accepted", " could not be stopped");
        return ExitStatus::done;
    }
};

struct TourPoint {
    std::uint32_t preset = 0;
    std::uint32_t seconds = 0;
    std::uint32_t speed = 5;
};

/// Takes the number in front of `text`, and the colon behind it; false when there is none.
bool takeNumber(std::string_view& text, std::uint32_t& number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{})
        return false;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (text.empty())
        return true;
    const bool separated = text.front() == ':' && text.size() > 1;
    text.remove_prefix(1);
    return separated;
}

std::optional<TourPoint> parsePoint(std::string_view text)
{
    TourPoint point;
    if (!takeNumber(text, point.preset) || text.empty() || !takeNumber(text, point.seconds))
        return std::nullopt;
    if (!text.empty() && (!takeNumber(text, point.speed) || !text.empty()))
        return std::nullopt;
    if (point.speed > greatestMoveSpeed)
        return std::nullopt;
    return point;
}

class FillOperation final : public TourOperation {
public:
    const char* getName() const override { return "fill"; }
    const char* getSummary() const override { return "Write a tour to the device, in place of what it was"; }

    void describeOptions(CLI::App& app) override
    {
        TourOperation::describeOptions(app);
        app.add_option("--point", texts,
                       "A stop of the tour: preset (from 0), seconds to stay there, speed on the way\n"
                       "(0 to 9 [5]). Repeat it for each stop, in their order")
            ->required()
            ->allow_extra_args(false)
            ->check(CLI::Validator(
                [](std::string& text) {
                    return parsePoint(text)
                               ? ""
                               : '"' + text + "\" is not PRESET:SECONDS or PRESET:SECONDS:SPEED with a speed of 0 to 9";
                },
                "", "point"))
            ->type_name("PRESET:SECONDS[:SPEED]");
    }

    ExitStatus run(const PtzRun& run) override
    {
        Tavro8::GDRV::ITelemetryAdjuster& adjuster = run.telemetry.adjuster();
        std::int32_t result = adjuster.StartFillTour(tour);
        for (const std::string& text : texts) {
            const TourPoint point = parsePoint(text).value_or(TourPoint{});  // the parser has checked it
            if (result == success)
                result = adjuster.SetPoint(point.speed, point.preset, point.seconds);
        }
        if (result == success)
            result = adjuster.StopFillTour();
        const std::string stops = texts.size() == 1 ? " stop" : " stops";
        report(run, result, " has " + std::to_string(texts.size()) + stops, " could not be written");
        return ExitStatus::done;
    }

private:
    std::vector<std::string> texts;
};
}  // namespace

std::unique_ptr<PtzOperation> makePtzTour()
{
    PtzOperations all;
    all.push_back(std::make_unique<StartOperation>());
    all.push_back(std::make_unique<StopTourOperation>());
    all.push_back(std::make_unique<FillOperation>());
    return std::make_unique<PtzGroup>("tour", "Play, stop or write a tour of presets", std::move(all));
}
}  // namespace Host

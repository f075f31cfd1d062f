#include "Console.h"
#include "EventWatch.h"
#include "Output.h"
#include "TimeText.h"
#include "commands/Command.h"

#include <CLI/CLI.hpp>
#include <array>
#include <atomic>
#include <boost/any.hpp>
#include <json/value.h>
#include <set>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
using Clock = Monitor::Clock;

/// Those that the SDK names. Where two stand for the same events of the device, the first is watched unless the user
/// names the other.
const std::array detectionTypes{
    "motion",          "crossLineDetectType",   "enterAreaDetectType", "leaveAreaDetectType", "intrusionDetectType",
    "audioDetectType", "temperatureDetectType", "motionTCP",           "smartAudioDetectType"};
constexpr std::size_t distinctTypes = 7;

struct EventsOptions {
    double seconds = 10;  ///< 0: until interrupted
    std::vector<std::string> detectors;
};

const char* stateText(GDRV::DetectorState state) noexcept
{
    switch (state) {
    case GDRV::DetectorState::begin:
        return "begin";
    case GDRV::DetectorState::end:
        return "end";
    case GDRV::DetectorState::momentary:
        return "momentary";
    }
    return "unknown";
}

Json::Value jsonOf(const boost::any& value)
{
    if (const auto* text = boost::any_cast<std::string>(&value))
        return *text;
    if (const auto* flag = boost::any_cast<bool>(&value))
        return *flag;
    if (const auto* number = boost::any_cast<int>(&value))
        return *number;
    if (const auto* number = boost::any_cast<std::int64_t>(&value))
        return Json::Value::Int64(*number);
    if (const auto* number = boost::any_cast<double>(&value))
        return *number;
    return {};
}

Moment systemTime(std::int64_t milliseconds)
{
    return Moment(std::chrono::milliseconds(milliseconds));
}

/// Prints what happens in front of one device until it is time to end.
class EventsRun {
public:
    EventsRun(const Surroundings& runSurroundings, const EventsOptions& eventsOptions)
        : surroundings(runSurroundings), options(eventsOptions), devices(runSurroundings)
    {}

    ExitStatus run()
    {
        watch();
        const auto begin = Clock::now();
        const auto end =
            options.seconds > 0
                ? begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(options.seconds))
                : Clock::time_point::max();
        while (!surroundings.interrupted.stop_requested() && Clock::now() < end) {
            surroundings.console.progress("watching, " + countText() + ", " + durationText(Clock::now() - begin));
            surroundings.monitor.wait(surroundings.interrupted, std::min(end, Clock::now() + tick()),
                                      [] { return false; });
        }
        surroundings.console.progress("stopping ...");
        watches = {};
        surroundings.console.clearProgress();
        summarize(Clock::now() - begin);
        return surroundings.interrupted.stop_requested() ? ExitStatus::interrupted : ExitStatus::done;
    }

private:
    /// The module's objects; they go before the device does.
    struct Watches {
        std::unique_ptr<IoWatch> io;
        std::vector<std::unique_ptr<DetectorWatch>> detectors;
    };

    Clock::duration tick() const
    {
        return surroundings.console.showsProgress() ? Clock::duration(std::chrono::milliseconds(250))
                                                    : Clock::duration(std::chrono::hours(1));
    }

    void watch()
    {
        GDRV::IDevice& device = devices.getFirst().getDevice();
        watches.io = std::make_unique<IoWatch>(
            device, 0, IoWatch::Callbacks{[this](std::uint32_t input, bool state) { tellInput(input, state); }, {}});
        for (std::uint32_t channel = 0; channel < surroundings.options.channels; ++channel)
            for (const std::string& type : options.detectors)
                watches.detectors.push_back(std::make_unique<DetectorWatch>(
                    device, channel, type, [this](const GDRV::DetectorEventInfo& event) { tellDetector(event); }));
        watches.io->start();
        for (const auto& detector : watches.detectors)
            detector->start();
    }

    void tellInput(std::uint32_t input, bool state) noexcept
    try {
        ++inputs;
        Json::Value fields(Json::objectValue);
        fields["input"] = input;
        fields["state"] = state;
        surroundings.output.event("input", fields,
                                  now() + "input " + std::to_string(input) + (state ? " on\n" : " off\n"));
    } catch (const std::exception& e) {
        surroundings.console.line(std::string("an input's state cannot be shown: ") + e.what());
    }

    void tellDetector(const GDRV::DetectorEventInfo& event) noexcept
    try {
        ++detections;
        Json::Value fields(Json::objectValue);
        fields["type"] = event.detectionType;
        fields["state"] = stateText(event.state);
        fields["channel"] = event.channel;
        fields["alarmType"] = event.alarmType;
        fields["time"] = event.deviceTimeMs == 0 ? Json::Value() : Json::Value(isoText(systemTime(event.deviceTimeMs)));
        Json::Value& own = fields["fields"] = Json::Value(Json::objectValue);
        if (event.fields != nullptr)
            for (const auto& [name, value] : *event.fields)
                own[name] = jsonOf(value);
        surroundings.output.event("detector", fields,
                                  now() + event.detectionType + ' ' + stateText(event.state) + ", channel " +
                                      std::to_string(event.channel) + " (" + event.alarmType + deviceTime(event) +
                                      ")\n");
    } catch (const std::exception& e) {
        surroundings.console.line(std::string("a detector's event cannot be shown: ") + e.what());
    }

    static std::string now() { return clockText(presentMoment()) + "  "; }

    static std::string deviceTime(const GDRV::DetectorEventInfo& event)
    {
        return event.deviceTimeMs == 0 ? "" : ", device time " + isoText(systemTime(event.deviceTimeMs));
    }

    std::string countText() const
    {
        return std::to_string(inputs) + " input changes, " + std::to_string(detections) + " detector events";
    }

    void summarize(std::chrono::duration<double> elapsed)
    {
        Json::Value fields(Json::objectValue);
        fields["inputs"] = inputs.load();
        fields["detections"] = detections.load();
        fields["seconds"] = elapsed.count();
        surroundings.output.event("summary", fields, countText() + " in " + decimalText(elapsed.count(), 1) + " s\n");
    }

    const Surroundings& surroundings;
    const EventsOptions& options;
    std::atomic<unsigned> inputs{0};
    std::atomic<unsigned> detections{0};
    ConnectedDevices devices;
    Watches watches;
};

class EventsCommand final : public Command {
public:
    const char* getName() const override { return "events"; }
    const char* getSummary() const override { return "Print input changes and detector events as they arrive"; }

    void describeOptions(CLI::App& app) override
    {
        app.add_option("--seconds", options.seconds, "How long; 0: until Ctrl-C")
            ->check(CLI::Validator([](std::string& text) { return checkSeconds(text, 0, 1e7); }, "", "seconds"))
            ->type_name("S")
            ->capture_default_str();
        std::string names;
        std::size_t lineBegin = 0;
        for (const char* type : detectionTypes) {
            names += names.empty() ? "" : names.size() - lineBegin > 50 ? ",\n" : ", ";
            lineBegin = names.ends_with('\n') ? names.size() : lineBegin;
            names += type;
        }
        app.add_option("--detector", options.detectors,
                       "A detector to watch on each channel; may be repeated. One of\n" + names +
                           ".\nWithout it: all of the device's events")
            ->check(CLI::IsMember(std::set<std::string>(detectionTypes.begin(), detectionTypes.end())).description(""))
            ->type_name("TYPE");
        app.footer(
            app.get_footer() +
            "\n\nThe device sends its events to this machine, to the port that --set localServerPort=N names (32000\n"
            "without it) and at the address through which the device is reached (or --set localServerIP=A).\n"
            "One program can have a port at a time. A device that has restarted is asked for its events again after\n"
            "50 seconds at most");
    }

    ExitStatus run(const Surroundings& surroundings) override
    {
        if (options.detectors.empty())
            options.detectors.assign(detectionTypes.begin(), detectionTypes.begin() + distinctTypes);
        return EventsRun(surroundings, options).run();
    }

private:
    EventsOptions options;
};
}  // namespace

std::unique_ptr<Command> makeEventsCommand()
{
    return std::make_unique<EventsCommand>();
}
}  // namespace Host

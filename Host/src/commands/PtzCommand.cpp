#include "commands/PtzCommand.h"

#include "Console.h"
#include "DeviceSession.h"
#include "Output.h"
#include "TimeText.h"

#include <CLI/CLI.hpp>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/any.hpp>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <thread>
#include <utility>

namespace Host
{
namespace
{
using Clock = Monitor::Clock;

PtzOperations allOperations()
{
    PtzOperations all = makePtzMovements();
    PtzOperations positions = makePtzPositions();
    std::move(positions.begin(), positions.end(), std::back_inserter(all));
    all.push_back(makePtzPreset());
    all.push_back(makePtzTour());
    return all;
}

/// Tells a user who interrupts why nothing ends: the module's calls return when the device has answered or their
/// time-out has passed, and the camera is stopped only then.
class SlowEndNotice {
public:
    explicit SlowEndNotice(const Surroundings& surroundings)
        : monitor(surroundings.monitor), watcher([this, &surroundings] { watch(surroundings); })
    {}
    ~SlowEndNotice()
    {
        monitor.change([this] { ended = true; });
    }
    SlowEndNotice(const SlowEndNotice&) = delete;
    SlowEndNotice& operator=(const SlowEndNotice&) = delete;

private:
    void watch(const Surroundings& surroundings)
    {
        constexpr std::chrono::seconds soon{1};
        const auto hasEnded = [this] { return ended; };
        if (monitor.wait(surroundings.interrupted, Clock::time_point::max(), hasEnded))
            return;
        if (!monitor.wait({}, Clock::now() + soon, hasEnded))
            surroundings.console.line("stopping; the device does not answer, Ctrl-C again to give up");
    }

    Monitor& monitor;
    bool ended = false;  // guarded by the monitor
    std::jthread watcher;
};

class PtzCommand final : public Command {
public:
    const char* getName() const override { return operations.getName(); }
    const char* getSummary() const override { return operations.getSummary(); }
    std::optional<std::uint32_t> getChannel() const override { return channel; }

    void describeOptions(CLI::App& app) override
    {
        whole(app.add_option("--channel", channel, "Channel, counted from 0; also behind the operation"), 0,
              greatestIndex)
            ->type_name("N")
            ->capture_default_str();
        operations.describeOptions(app);
        app.footer(
            "The speeds of move, zoom, focus and iris are whole numbers, whose sign is the direction: right, up, "
            "closer,\n"
            "far and open are positive. Limits are the model's (--model), 100 without one: a speed beyond ends with\n"
            "status 2, and nothing is sent. Those of absolute are 0 to 9.\n"
            "The module tells no result of move, zoom, focus, iris and stop. They end with status 4, and without the\n"
            "event `result`, when it logs an error meanwhile; otherwise `code` is 0.\n"
            "What a device accepts it need not do: of a movement, a preset or a tour that is played only the HTTP\n"
            "status is judged, since many devices say no more; `ptz position` and the picture tell. A tour that is\n"
            "written (tour fill) and a position that is read are judged to the end of the device's answer.\n"
            "An interrupted operation ends when the device has answered. A second Ctrl-C gives up at once: what moves\n"
            "then may move on.\n\n" +
            app.get_footer());
    }

    ExitStatus run(const Surroundings& surroundings) override
    {
        operations.check();
        const ConnectedDevices devices(surroundings);
        const Telemetry telemetry(devices.getFirst().getDevice(), channel);
        const SlowEndNotice notice(surroundings);
        return operations.run({surroundings, telemetry, channel, devices.getDescription()});
    }

private:
    PtzGroup operations{"ptz", "Move the camera: pan, tilt, zoom, presets and tours", allOperations()};
    std::uint32_t channel = 0;
};
}  // namespace

void PtzRun::checkSpeed(std::int32_t speed, const char* limit) const
{
    const auto& model = description.GetChannelModelParameters(channel);
    const auto found = model.find(limit);
    const int* const most = found == model.end() ? nullptr : boost::any_cast<int>(&found->second);
    if (most == nullptr || std::abs(std::int64_t{speed}) <= *most)
        return;
    throw Failure(ExitStatus::usage, "the speed " + std::to_string(speed) + " is beyond the model's limit: " + limit +
                                         " is " + std::to_string(*most));
}

void PtzRun::report(const std::string& operation, Json::Value fields, std::int32_t result, const std::string& readable,
                    const std::string& what) const
{
    fields["code"] = result;
    fields["operation"] = operation;
    fields["channel"] = channel;
    const bool done = result == Tavro8::toResult(Tavro8::ResultCode::success);
    surroundings.output.event("result", fields, done ? readable + '\n' : "");
    if (!done)
        throw Failure(ExitStatus::failed, reasonSentence(what, result), result);
}

void PtzRun::pass(double seconds, const std::string& doing) const
{
    const auto begin = Clock::now();
    const auto end = seconds > 0
                         ? begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))
                         : Clock::time_point::max();
    const auto tick = surroundings.console.showsProgress() ? Clock::duration(std::chrono::milliseconds(250))
                                                           : Clock::duration(std::chrono::hours(1));
    while (!surroundings.interrupted.stop_requested() && Clock::now() < end) {
        surroundings.console.progress(doing + ", " + durationText(Clock::now() - begin));
        surroundings.monitor.wait(surroundings.interrupted, std::min(end, Clock::now() + tick), [] { return false; });
    }
    surroundings.console.clearProgress();
}

CLI::Option* whole(CLI::Option* option, std::int64_t least, std::int64_t most)
{
    return option->check(
        CLI::Validator([least, most](std::string& text) { return checkWhole(text, least, most); }, "", "whole number"));
}

void PtzGroup::describeOptions(CLI::App& app)
{
    for (const auto& operation : operations) {
        CLI::App& part = *app.add_subcommand(operation->getName(), operation->getSummary());
        operation->describeOptions(part);
        parts.push_back(&part);
    }
    app.require_subcommand(0, 1);  // none is refused with the list of them
}

PtzOperation& PtzGroup::chosen() const
{
    std::string names;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (parts[i]->parsed())
            return *operations[i];
        names.append(names.empty() ? "" : ", ").append(operations[i]->getName());
    }
    throw Failure(ExitStatus::usage, std::string("name one of these behind ") + name + ": " + names);
}

std::unique_ptr<Command> makePtzCommand()
{
    return std::make_unique<PtzCommand>();
}
}  // namespace Host

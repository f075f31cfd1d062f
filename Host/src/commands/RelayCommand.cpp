#include "EventWatch.h"
#include "Output.h"
#include "commands/Command.h"

#include <CLI/CLI.hpp>
#include <Tavro8/ResultCode.h>
#include <json/value.h>
#include <optional>

namespace Host
{
namespace
{
class RelayCommand final : public Command {
public:
    const char* getName() const override { return "relay"; }
    const char* getSummary() const override { return "Switch a relay output"; }

    void describeOptions(CLI::App& app) override
    {
        app.add_option("INDEX", index, "Relay, counted from 0")->required()->type_name("");
        app.add_option("STATE", state, "on or off")
            ->required()
            ->transform(CLI::IsMember({"on", "off"}, CLI::ignore_case).description(""))  // "ON" becomes "on"
            ->type_name("");
        app.add_option("--channel", channel, "Channel whose relays are meant, counted from 0")
            ->type_name("N")
            ->capture_default_str();
    }

    ExitStatus run(const Surroundings& surroundings) override
    {
        const ConnectedDevices devices(surroundings);
        const std::int32_t result = switchRelay(devices.getFirst().getDevice(), surroundings);
        Json::Value fields(Json::objectValue);
        fields["code"] = result;
        const std::string relay = "relay " + std::to_string(index);
        const bool done = result == Tavro8::toResult(Tavro8::ResultCode::success);
        surroundings.output.event("result", fields, done ? relay + " is " + state + '\n' : "");
        if (!done)
            throw Failure(ExitStatus::failed, reasonSentence(relay + " could not be switched", result), result);
        return ExitStatus::done;
    }

private:
    /// What the device says of it. Throws `Failure` when it says nothing.
    std::int32_t switchRelay(Tavro8::GDRV::IDevice& device, const Surroundings& surroundings) const
    {
        std::optional<std::int32_t> outcome;  // guarded by the monitor
        IoWatch io(device, channel, {.input = {}, .relay = [&](std::uint32_t, std::int32_t result) {
                                         surroundings.monitor.change([&] { outcome = result; });
                                     }});
        if (const std::int32_t refusal = io.switchRelay(index, state == "on"); refusal != 0)
            return refusal;
        const bool answered = surroundings.monitor.wait(surroundings.interrupted, surroundings.timeoutFromNow(),
                                                        [&] { return outcome.has_value(); });
        if (answered)
            return *surroundings.monitor.read([&] { return outcome; });
        if (surroundings.interrupted.stop_requested())
            throw Failure(ExitStatus::interrupted, "interrupted; the device may have switched all the same");
        throw Failure(ExitStatus::failed, "the device did not answer in time; allow more with --timeout");
    }

    std::uint32_t index = 0;
    std::uint32_t channel = 0;
    std::string state;
};
}  // namespace

std::unique_ptr<Command> makeRelayCommand()
{
    return std::make_unique<RelayCommand>();
}
}  // namespace Host

// ptz preset set, goto, remove.
#include "commands/PtzCommand.h"

#include <CLI/CLI.hpp>
#include <functional>

namespace Host
{
namespace
{
class PresetOperation final : public PtzOperation {
public:
    using Call = std::function<std::int32_t(const Telemetry& telemetry, std::uint32_t preset)>;

    /// `success` and `failure` stand behind "preset N".
    PresetOperation(const char* presetName, const char* presetSummary, const char* successText, const char* failureText,
                    Call presetCall)
        : name(presetName),
          summary(presetSummary),
          success(successText),
          failure(failureText),
          call(std::move(presetCall))
    {}

    const char* getName() const override { return name; }
    const char* getSummary() const override { return summary; }

    void describeOptions(CLI::App& app) override
    {
        whole(app.add_option("N", preset, "Preset, counted from 0"), 0, greatestIndex)->required()->type_name("");
    }

    ExitStatus run(const PtzRun& run) override
    {
        Json::Value fields(Json::objectValue);
        fields["preset"] = preset;
        const std::string subject = "preset " + std::to_string(preset);
        run.report(std::string("preset ") + name, fields, call(run.telemetry, preset), subject + success,
                   subject + failure);
        return ExitStatus::done;
    }

private:
    const char* const name;
    const char* const summary;
    const char* const success;
    const char* const failure;
    const Call call;
    std::uint32_t preset = 0;
};
}  // namespace

std::unique_ptr<PtzOperation> makePtzPreset()
{
    PtzOperations all;
    all.push_back(std::make_unique<PresetOperation>(
        "set", "Store where the camera looks now", ": storing accepted", " could not be stored",
        [](const Telemetry& telemetry, std::uint32_t preset) { return telemetry.adjuster().SetPreset(preset); }));
    all.push_back(std::make_unique<PresetOperation>(
        "goto", "Move to where a preset looks", ": movement accepted", " could not be recalled",
        [](const Telemetry& telemetry, std::uint32_t preset) { return (*telemetry).GoToPreset(preset); }));
    all.push_back(std::make_unique<PresetOperation>(
        "remove", "Remove a preset", ": removal accepted", " could not be removed",
        [](const Telemetry& telemetry, std::uint32_t preset) { return telemetry.adjuster().RemovePreset(preset); }));
    return std::make_unique<PtzGroup>("preset", "Store, recall or remove a preset", std::move(all));
}
}  // namespace Host

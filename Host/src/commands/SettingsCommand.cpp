#include "SettingKeys.h"

#include "Console.h"
#include "EventWatch.h"
#include "Output.h"
#include "commands/Command.h"

#include <CLI/CLI.hpp>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <functional>
#include <json/value.h>
#include <set>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
constexpr const char* everything = "all";  // the resource that a module reports last

constexpr std::int32_t wrongValue = Tavro8::toResult(Tavro8::ResultCode::invalidArgument);

/// What the keys expect, for whoever gave one of them a value that cannot be used.
std::string expectation(const std::vector<std::string>& keys)
{
    std::string text;
    for (const std::string& name : keys)
        if (const SettingKey* key = findSettingKey(name))
            text.append("; ").append(name).append(" takes ").append(key->values).append(" (").append(key->type) += ')';
    return text;
}

std::string joined(const std::vector<std::string>& words, const char* between)
{
    std::string line;
    for (const std::string& word : words)
        line.append(line.empty() ? "" : between).append(word);
    return line;
}

Json::Value jsonOf(const std::vector<std::string>& words)
{
    Json::Value list(Json::arrayValue);
    for (const std::string& word : words)
        list.append(word);
    return list;
}

/// Told what became of one resource, on a thread of the module; does not throw.
using AppliedCallback = std::function<void(const std::string& resource, std::int32_t result)>;

/// A source that is made for its settings alone. `Source` is `IVideoSource` or `IAudioSource`. Destroying it ends the
/// module's object; no callback is running then.
template <typename Source>
class SettingsTarget final : private EventHandler<GDRV::IAsyncDeviceChannelHandler> {
public:
    explicit SettingsTarget(AppliedCallback onApplied) : callback(std::move(onApplied)) {}
    ~SettingsTarget() override
    {
        if (source != nullptr)
            source->Destroy();
    }
    SettingsTarget(const SettingsTarget&) = delete;
    SettingsTarget& operator=(const SettingsTarget&) = delete;

    /// `make(handler, &source)` asks the device for the source. Throws `Failure` when there is none.
    template <typename Make>
    void open(const std::string& failureText, Make&& make)
    {
        const std::int32_t result = make(static_cast<GDRV::IAsyncDeviceChannelHandler*>(this), &source);
        requireMade(source, failureText, result);
    }

    /// The module's result; 0 says that the callback will be told of the resource "all".
    std::int32_t apply(const Tavro8::ParameterMap& parameters) { return source->ApplySettings(parameters); }

private:
    void SettingsApplied(Tavro8::IContract*, const char* resource, std::int32_t result) noexcept override
    {
        callback(resource, result);
    }

    const AppliedCallback callback;
    Source* source = nullptr;
};

/// Applies settings to one stream and the sound of its channel, and tells what became of each resource.
class SettingsRun {
public:
    struct Place {
        std::uint32_t channel = 0;
        std::uint32_t stream = 0;
    };

    SettingsRun(const Surroundings& runSurroundings, const Place& runPlace, const WantedSettings& wantedSettings)
        : surroundings(runSurroundings), place(runPlace), wanted(wantedSettings), devices(runSurroundings)
    {}

    ExitStatus run()
    {
        open();
        surroundings.console.progress("applying settings ...");
        if (!wanted.video.empty())
            begin(video, wanted.video);
        if (!wanted.audio.empty())
            begin(audio, wanted.audio);
        const bool finished =
            surroundings.monitor.wait(surroundings.interrupted, surroundings.timeoutFromNow(usualSettingsTimeout),
                                      [this] { return pending == 0; });
        surroundings.console.clearProgress();
        if (!finished)
            endByWhatWasTold();
        return conclude();
    }

private:
    void open()
    {
        GDRV::IDevice& device = devices.getFirst().getDevice();
        const std::string channel = "channel " + std::to_string(place.channel);
        // The stream is named in both ways, since sound belongs to a stream's connection.
        const Tavro8::ParameterMap parameters{{"stream", static_cast<int>(place.stream)}};
        if (!wanted.video.empty())
            video.open(channel + " stream " + std::to_string(place.stream) + " has no settings",
                       [&](GDRV::IAsyncDeviceChannelHandler* handler, GDRV::IVideoSource** source) {
                           return device.CreateVideoSource(place.channel, place.stream, handler, nullptr, parameters,
                                                           nullptr, source);
                       });
        if (!wanted.audio.empty())
            audio.open("the sound of " + channel + " has no settings", [&](GDRV::IAsyncDeviceChannelHandler* handler,
                                                                           GDRV::IAudioSource** source) {
                return device.CreateAudioSource(place.channel, handler, nullptr, parameters, nullptr, source);
            });
    }

    template <typename Source>
    void begin(SettingsTarget<Source>& target, const Tavro8::ParameterMap& parameters)
    {
        surroundings.monitor.change([this] { ++pending; });
        const std::int32_t taken = target.apply(parameters);
        if (taken == 0)
            return;
        surroundings.monitor.change([&] {
            for (const auto& parameter : parameters)
                lose(parameter.first, taken);
        });
        complete(taken);
    }

    void complete(std::int32_t result)
    {
        surroundings.monitor.change([&] {
            outcome = outcome == 0 ? result : outcome;
            pending -= pending > 0 ? 1 : 0;  // whatever a module tells twice
        });
    }

    /// On a thread of the module.
    void takeNote(const std::string& resource, std::int32_t result) noexcept
    try {
        if (resource == everything) {
            complete(result);
            return;
        }
        report(resource, result);
        const std::vector<std::string> keys = wanted.keysOf(resource);
        surroundings.monitor.change([&] {
            told.insert(resource);
            if (result == 0 || keys.empty())
                return;
            refusal = refusal == 0 ? result : refusal;
            for (const std::string& key : keys)
                lose(key, result);
        });
    } catch (const std::exception& e) {
        surroundings.console.line(std::string("what became of a setting cannot be shown: ") + e.what());
    }

    /// Call under the monitor's lock.
    void lose(const std::string& key, std::int32_t result)
    {
        lost.push_back(key);
        if (result == wrongValue)
            doubtful.push_back(key);
    }

    void report(const std::string& resource, std::int32_t result) const
    {
        const std::vector<std::string> keys = wanted.keysOf(resource);
        Json::Value fields(Json::objectValue);
        fields["resource"] = resource;
        fields["code"] = result;
        fields["keys"] = jsonOf(keys);
        const std::string which = resource + ": " + joined(keys, ", ");
        if (!keys.empty())
            surroundings.output.event(
                "result", fields,
                (result == 0 ? which + " applied" : reasonSentence(which + " not applied", result)) + '\n');
        else
            surroundings.output.event("result", fields, result == 0 ? resource + ": left as it is\n" : "");
        if (keys.empty() && result != 0)
            surroundings.console.line(
                reasonSentence("remark: " + resource + " cannot be read, but nothing was to be changed there", result));
    }

    /// Those of `resources` of which the module has told nothing.
    std::vector<std::string> untoldOf(std::vector<std::string> resources) const
    {
        surroundings.monitor.read(
            [&] { std::erase_if(resources, [this](const auto& name) { return told.contains(name); }); });
        return resources;
    }

    /// Modules read everything, so that a device may still owe an answer that nobody needs. Throws `Failure` when what
    /// is missing was asked for.
    void endByWhatWasTold()
    {
        if (surroundings.interrupted.stop_requested() || !untoldOf(wanted.resources()).empty())
            throw unfinished();
        if (const auto names = untoldOf(wanted.resourcesOfSources()); !names.empty())
            surroundings.console.line("remark: no answer in time for " + joined(names, ", ") +
                                      ", but nothing was to be changed there");
        surroundings.monitor.change([this] { outcome = outcome == 0 ? refusal : outcome; });
    }

    ExitStatus conclude() const
    {
        const std::int32_t result = surroundings.monitor.read([this] { return outcome; });
        Json::Value fields(Json::objectValue);
        fields["resource"] = everything;
        fields["code"] = result;
        surroundings.output.event("result", fields, "");
        if (result != 0)
            throw Failure(ExitStatus::failed,
                          reasonSentence("not applied" + which(), result) +
                              expectation(surroundings.monitor.read([this] { return doubtful; })),
                          result);
        return ExitStatus::done;
    }

    /// What was refused, and what belongs to resources that the module does not ask this device for.
    std::string which() const
    {
        auto keys = surroundings.monitor.read([this] { return lost; });
        for (const std::string& resource : untoldOf(wanted.resources()))
            for (const std::string& key : wanted.keysOf(resource))
                if (std::find(keys.begin(), keys.end(), key) == keys.end())
                    keys.push_back(key);
        return keys.empty() ? "" : ": " + joined(keys, ", ");
    }

    Failure unfinished() const
    {
        const std::vector<std::string> names = untoldOf(wanted.resources());
        const std::string silent = names.empty() ? "" : "; no answer for " + joined(names, ", ");
        if (surroundings.interrupted.stop_requested())
            return {ExitStatus::interrupted, "interrupted; the device may have taken settings all the same" + silent};
        return {ExitStatus::failed, "the device did not answer in time" + silent + "; allow more with --timeout"};
    }

    AppliedCallback noteTaker()
    {
        return [this](const std::string& resource, std::int32_t result) { takeNote(resource, result); };
    }

    const Surroundings& surroundings;
    const Place& place;
    const WantedSettings& wanted;

    // Guarded by the monitor.
    std::size_t pending = 0;
    std::int32_t outcome = 0;           ///< the first failure of those that are complete
    std::int32_t refusal = 0;           ///< the first failure of a resource that was to be changed
    std::set<std::string> told;         ///< resources
    std::vector<std::string> lost;      ///< keys that were not applied
    std::vector<std::string> doubtful;  ///< of these: to which a value of another type or form was given

    ConnectedDevices devices;
    SettingsTarget<GDRV::IVideoSource> video{noteTaker()};
    SettingsTarget<GDRV::IAudioSource> audio{noteTaker()};
};

void listSettings(Output& output)
{
    const char* resource = "";
    for (const SettingKey& key : settingKeys()) {
        Json::Value fields(Json::objectValue);
        fields["key"] = key.name;
        fields["resource"] = key.resource;
        fields["source"] = key.isSound() ? "audio" : "video";
        fields["type"] = key.type;
        fields["values"] = key.values;
        fields["meaning"] = key.meaning;
        const std::string heading = key.resource == std::string_view(resource)
                                        ? ""
                                        : (*resource == '\0' ? "" : "\n") + std::string(key.resource) + ":\n";
        resource = key.resource;
        std::string name = key.name;
        name.resize(std::max<std::size_t>(name.size() + 2, 28), ' ');
        output.event("setting", fields,
                     heading + "  " + name + key.meaning + " [" + key.type + ": " + key.values + "]\n");
    }
}

class SettingsCommand final : public Command {
public:
    const char* getName() const override { return "settings"; }
    const char* getSummary() const override { return "Change settings of streams, pictures and sound"; }
    std::optional<std::uint32_t> getChannel() const override { return place.channel; }

    void describeOptions(CLI::App& app) override
    {
        describeSetting(*app.add_subcommand("set", "Change settings of one stream and its channel"));
        list = app.add_subcommand("list", "Tell the settings there are, their types and values; needs no device");
        app.require_subcommand(0, 1);  // none is refused with the list of them
    }

    ExitStatus run(const Surroundings& surroundings) override
    {
        if (list->parsed()) {
            listSettings(surroundings.output);
            return ExitStatus::done;
        }
        if (!set->parsed())
            throw Failure(ExitStatus::usage, "name one of these behind settings: set, list");
        const WantedSettings wanted = readSettings(assignments);
        return SettingsRun(surroundings, place, wanted).run();
    }

private:
    void describeSetting(CLI::App& app)
    {
        set = &app;
        app.add_option("SETTINGS", assignments,
                       "KEY=VALUE, one or more; `kelvo-host settings list` tells the keys.\n"
                       "KEY:TYPE=VALUE for a device that wants another type than the usual one:\n"
                       "text, integer, flag (true or false) or fraction")
            ->required()
            ->type_name("");
        app.add_option("--channel", place.channel, "Channel, counted from 0")->type_name("N")->capture_default_str();
        app.add_option("--stream", place.stream, "Stream of the channel, counted from 0")
            ->check(CLI::Range(0U, 15U).description(""))
            ->type_name("N")
            ->capture_default_str();
        app.footer(
            "The event `result` comes once for each resource that the device was asked for, with its `code` and\n"
            "the `keys` that were to be changed there, and at the end for the resource `all`, whose code decides\n"
            "the exit status. A resource that cannot be read, or does not answer in time, though nothing was to\n"
            "be changed there is no failure.\n\n"
            "A model (--model) whose maxFpsForCodec names the most pictures a second of each codec caps fps; a\n"
            "codec that it leaves out keeps the frame rate that the device has, and fps alone then fails.\n\n" +
            app.get_footer());
    }

    CLI::App* set = nullptr;
    CLI::App* list = nullptr;
    std::vector<std::string> assignments;
    SettingsRun::Place place;
};
}  // namespace

std::unique_ptr<Command> makeSettingsCommand()
{
    return std::make_unique<SettingsCommand>();
}
}  // namespace Host

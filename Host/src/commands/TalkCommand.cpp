#include "Console.h"
#include "EventWatch.h"
#include "Output.h"
#include "Pacer.h"
#include "PathText.h"
#include "TimeText.h"
#include "commands/Command.h"
#include "media/SoundFile.h"

#include <CLI/CLI.hpp>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <array>
#include <json/value.h>
#include <optional>
#include <utility>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
using Clock = Monitor::Clock;

constexpr std::chrono::milliseconds pieceLength{20};
constexpr std::size_t pieceSamples = SoundFile::sampleRate * pieceLength.count() / 1000;
constexpr std::size_t piecesPerProgress = 12;  // about four times a second

/// Hanging up says good-bye to the device, which may not answer any more.
constexpr std::chrono::seconds hangUpTimeout{10};

/// The host's end of a talk-back line. Destroying it ends the module's object; no callback is running then.
/// Used by the command's thread; what the module tells is guarded by the monitor.
class TalkLine final : private EventHandler<GDRV::IAudioDestinationHandler> {
public:
    /// Throws `Failure` when the module offers no talk-back to the channel.
    TalkLine(GDRV::IDevice& device, std::uint32_t channel, Monitor& sharedMonitor) : monitor(sharedMonitor)
    {
        const std::int32_t result = device.CreateAudioDestination(channel, this, {}, &destination);
        requireMade(destination, "channel " + std::to_string(channel) + " cannot be talked to", result);
    }
    ~TalkLine() override { destination->Destroy(); }
    TalkLine(const TalkLine&) = delete;
    TalkLine& operator=(const TalkLine&) = delete;

    void call() noexcept { destination->Call(); }
    void push(std::span<const std::int16_t> samples) noexcept { destination->PushAudioFrame({samples}); }
    void hangUp() noexcept { destination->HangUp(); }

    bool stands() const
    {
        return monitor.read([this] { return standing; });
    }

    /// How the call ended; nothing while it has not.
    std::optional<std::int32_t> getEnd() const
    {
        return monitor.read([this] { return end; });
    }

    /// True when the call is over or the line stands; false when neither came about before the deadline.
    bool awaitAnswer(const std::stop_token& interrupted, Clock::time_point deadline)
    {
        return monitor.wait(interrupted, deadline, [this] { return standing || end; });
    }

    /// True when the call is over; false when the deadline came first, or the user interrupted.
    bool awaitEnd(const std::stop_token& interrupted, Clock::time_point deadline)
    {
        return monitor.wait(interrupted, deadline, [this] { return end.has_value(); });
    }

private:
    void Started(Tavro8::IContract*) noexcept override
    {
        monitor.change([this] { standing = true; });
    }
    void CallEnded(Tavro8::IContract*, std::int32_t result) noexcept override
    {
        monitor.change([&] { end = result; });
    }

    Monitor& monitor;
    bool standing = false;
    std::optional<std::int32_t> end;
    GDRV::IAudioDestination* destination = nullptr;
};

/// Of a call that a device did not take.
std::string refusalSentence(std::int32_t result)
{
    const bool hasNone = result == Tavro8::toResult(Tavro8::ResultCode::notSupported) ||
                         result == Tavro8::toResult(Tavro8::ResultCode::noSuchStream);
    return reasonSentence("the call was refused", result) + (hasNone ? "; the device cannot be talked to" : "");
}

struct TalkOptions {
    std::filesystem::path input;
    std::uint32_t channel = 0;
};

/// One call, from dialling to hanging up.
class TalkRun {
public:
    TalkRun(const Surroundings& runSurroundings, const TalkOptions& talkOptions)
        : surroundings(runSurroundings),
          options(talkOptions),
          sound(talkOptions.input),
          devices(runSurroundings),
          line(devices.getFirst().getDevice(), talkOptions.channel, runSurroundings.monitor)
    {}

    ExitStatus run()
    {
        open();
        std::optional<Failure> failure;
        try {
            speak();
        } catch (const std::runtime_error& e) {
            failure.emplace(ExitStatus::failed, e.what());
        }
        const bool broken = line.getEnd().has_value();
        hangUp();
        report();
        if (failure)
            throw Failure(*failure);
        if (surroundings.interrupted.stop_requested() && !broken)
            return ExitStatus::interrupted;
        if (const std::int32_t result = line.getEnd().value_or(0); result != 0)
            throw Failure(ExitStatus::failed, reasonSentence("the call broke", result), result);
        return ExitStatus::done;
    }

private:
    void open()
    {
        surroundings.console.progress("calling ...");
        line.call();
        const bool answered = line.awaitAnswer(surroundings.interrupted, surroundings.timeoutFromNow());
        if (line.stands() && !surroundings.interrupted.stop_requested())
            return;
        if (const auto result = line.getEnd())
            throw Failure(ExitStatus::refused, refusalSentence(*result), *result);
        hangUp();
        if (answered || surroundings.interrupted.stop_requested())
            throw Failure(ExitStatus::interrupted, "interrupted");
        throw Failure(ExitStatus::refused, "the device did not answer the call in time; allow more with --timeout");
    }

    /// Until the file ends, the call ends or the user interrupts.
    void speak()
    {
        Pacer pacer(pieceLength);
        std::array<std::int16_t, pieceSamples> piece{};
        bool goesOn = true;
        while (goesOn) {
            const std::size_t count = sound.read(piece);
            // The moment behind the last piece is waited for too: until then the device plays it.
            goesOn = await(pacer.next(Clock::now())) && count > 0;
            if (!goesOn)
                break;
            std::fill(piece.begin() + static_cast<std::ptrdiff_t>(count), piece.end(), std::int16_t{0});
            line.push(piece);
            if (packets++ % piecesPerProgress == 0)
                surroundings.console.progress(progressText());
        }
    }

    /// False when the call ended or the user interrupted before.
    bool await(Clock::time_point moment)
    {
        return !line.awaitEnd(surroundings.interrupted, moment) && !surroundings.interrupted.stop_requested();
    }

    void hangUp()
    {
        surroundings.console.progress("hanging up ...");
        if (!line.getEnd())
            line.hangUp();
        if (!line.awaitEnd({}, Clock::now() + hangUpTimeout))
            surroundings.console.line("the module did not report the end of the call in time");
        surroundings.console.clearProgress();
    }

    double seconds() const { return static_cast<double>(packets) * pieceSamples / SoundFile::sampleRate; }

    std::string progressText() const
    {
        std::string text = "speaking " + durationText(std::chrono::duration<double>(seconds()));
        if (const auto length = sound.getSeconds())
            text += " of " + durationText(std::chrono::duration<double>(*length));
        return text;
    }

    void report() const
    {
        if (const std::uint64_t damaged = sound.getDamaged(); damaged > 0)
            surroundings.console.line("remark: left out what cannot be decoded: " + countText(damaged, "piece") +
                                      " of " + pathText(options.input));
        Json::Value fields(Json::objectValue);
        fields["channel"] = options.channel;
        fields["input"] = pathText(options.input);
        fields["packets"] = static_cast<Json::UInt64>(packets);
        fields["seconds"] = seconds();
        surroundings.output.event("summary", fields,
                                  "Spoken    " + decimalText(seconds(), 1) + " s to channel " +
                                      std::to_string(options.channel) + " in " + countText(packets, "packet") + '\n');
    }

    const Surroundings& surroundings;
    const TalkOptions& options;
    std::uint64_t packets = 0;

    SoundFile sound;  // opened before anything is connected: a slip of the pen is answered at once
    ConnectedDevices devices;
    TalkLine line;
};

class TalkCommand final : public Command {
public:
    const char* getName() const override { return "talk"; }
    const char* getSummary() const override { return "Speak a sound file to the device"; }
    std::optional<std::uint32_t> getChannel() const override { return options.channel; }

    void describeOptions(CLI::App& app) override
    {
        app.add_option("--input", options.input, "The sound: any file that FFmpeg reads, also the sound of a video")
            ->required()
            ->type_name("FILE");
        app.add_option("--channel", options.channel, "Channel, counted from 0")->type_name("N")->capture_default_str();
        app.footer("The file is played at its own speed, at 8000 samples a second in one channel. The event `summary` "
                   "counts\n"
                   "`packets` of 20 ms; the last one is filled up with silence. Exit status 2: there is no sound in "
                   "the file;\n"
                   "3: the device refused the call or did not answer it; 4: the call broke, or there is no "
                   "talk-back.\n\n" +
                   app.get_footer());
    }

    ExitStatus run(const Surroundings& surroundings) override { return TalkRun(surroundings, options).run(); }

private:
    TalkOptions options;
};
}  // namespace

std::unique_ptr<Command> makeTalkCommand()
{
    return std::make_unique<TalkCommand>();
}
}  // namespace Host

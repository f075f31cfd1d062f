#include "Console.h"
#include "FrameRecorder.h"
#include "Output.h"
#include "PlaybackStream.h"
#include "RecordedInterval.h"
#include "StreamReport.h"
#include "TimeText.h"
#include "commands/Command.h"
#include "commands/MediaFiles.h"
#include "platform/ProcessUsage.h"

#include <CLI/CLI.hpp>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <optional>

namespace Host
{
using Tavro8::ResultCode;
using Tavro8::GDRV::DateTimeRange;
namespace
{
using Clock = Monitor::Clock;

constexpr std::int32_t notSupported = Tavro8::toResult(ResultCode::notSupported);

/// Closing says good-bye to the device, which may not answer any more.
constexpr std::chrono::seconds closeTimeout{10};

struct PlaybackOptions {
    IntervalOptions interval;
    MediaFiles files;
    std::uint32_t channel = 0;
    std::uint32_t speed = 1;
    bool keyFramesOnly = false;
    double seconds = 0;  ///< 0: to the end

    bool wantSpeed() const noexcept { return speed != 1 || keyFramesOnly; }
};

/// What a device does not offer of the manner in which it was to play.
struct Refused {
    bool speed = false;
    bool keyFrames = false;
};

std::string refusalText(const PlaybackOptions& options, const Refused& refused)
{
    const std::string factor = std::to_string(options.speed) + " times as fast";
    const std::string opening = "the device does not offer ";
    if (refused.keyFrames && refused.speed)
        return opening + "exactly that: " + factor + ", key frames only (result 8); it plays as it can";
    if (refused.speed)
        return opening + "to play " + factor + " (result 8); it plays " +
               (options.keyFramesOnly ? "" : "every frame ") + "at its own speed";
    return opening + "to play key frames only (result 8); it plays every frame" +
           (options.speed == 1 ? "" : ", " + factor);
}

/// Of a recording that cannot be opened or played.
const char* whatToTry(std::int32_t result) noexcept
{
    switch (static_cast<ResultCode>(result)) {
    case ResultCode::resourceNotFound:
    case ResultCode::noSuchStream:
        return "; `kelvo-host recordings` tells what is recorded";
    default:
        return intervalHint(result);
    }
}

/// One playback. The members are in the order in which they are needed, so that they go away in the order that the
/// module asks for: the playback, then the recorder with the frames it holds, then the device, and last the module.
class PlaybackRun {
public:
    PlaybackRun(const Surroundings& runSurroundings, const PlaybackOptions& runOptions)
        : surroundings(runSurroundings),
          options(runOptions),
          interval(intervalOf(runOptions.interval)),
          what("channel " + std::to_string(runOptions.channel) + " from " + intervalText(interval)),
          devices(runSurroundings)
    {
        if (const FrameRecorder::Wishes wishes = recorderWishes(); wishes.any())
            recorder.emplace(wishes, surroundings.monitor, surroundings.console);
        stream.emplace(devices.getFirst().getDevice(), options.channel, surroundings.monitor,
                       recorder ? &recorder->getQueue() : nullptr, callbacks());
    }

    ExitStatus run()
    {
        startedAt = Clock::now();
        open();
        play();
        receive();
        summary.elapsed = elapsed();
        summary.load = {processCpuSeconds() - cpuAtFirstFrame, processResidentBytes()};
        stop();
        return finish();
    }

private:
    FrameRecorder::Wishes recorderWishes()
    {
        FrameRecorder::Wishes wishes;
        wishes.recording = options.files.output;
        wishes.sound = options.keyFramesOnly ? ExpectedSound::possible : ExpectedSound::certain;
        wishes.picture = options.files.snapshot;
        wishes.onPart = [this](const RecordedPart& part) { reportPart(surroundings.output, ++partCount, part); };
        return wishes;
    }

    PlaybackStream::Callbacks callbacks()
    {
        return {.gap = [this](const DateTimeRange& gap) {
            reportGap(surroundings.output, gap);
            surroundings.console.line("nothing is recorded from " + intervalText(gap));
        }};
    }

    bool recorderFailed() const { return recorder && recorder->hasFailed(); }

    PlaybackStream::State state() const
    {
        return surroundings.monitor.read([this] { return stream->getState(); });
    }

    template <typename Condition>
    bool await(Clock::time_point deadline, Condition&& condition) const
    {
        return surroundings.monitor.wait(surroundings.interrupted, deadline,
                                         [&] { return condition(stream->getState()) || recorderFailed(); });
    }

    void throwIfInterrupted() const
    {
        if (surroundings.interrupted.stop_requested())
            throw Failure(ExitStatus::interrupted, "interrupted");
    }

    [[noreturn]] void refuse(std::int32_t result) const
    {
        throw Failure(ExitStatus::failed, reasonSentence(what + " cannot be played", result) + whatToTry(result),
                      result);
    }

    void open()
    {
        surroundings.console.progress("opening ...");
        if (const std::int32_t result = stream->open(interval); result != 0)
            refuse(result);
        await(surroundings.timeoutFromNow(), [](const auto& now) { return now.opened || now.closed; });
        throwIfInterrupted();
        const PlaybackStream::State now = state();
        if (!now.opened && !now.closed)
            throw Failure(ExitStatus::failed, "the device did not answer in time; allow more with --timeout");
        if (const std::int32_t result = now.opened.value_or(0); result != 0)
            refuse(result);
    }

    /// Until the first frame.
    void play()
    {
        if (options.wantSpeed())
            stream->setSpeed(options.speed, options.keyFramesOnly);
        surroundings.console.progress("waiting for the first picture ...");
        if (const std::int32_t result = stream->play(); result != 0)
            refuse(result);
        await(surroundings.timeoutFromNow(),
              [this](const auto& now) { return stream->hasFrames() || now.ended || now.closed || now.refusal != 0; });
        firstFrame = stream->getFirstFrame().value_or(Clock::now());
        cpuAtFirstFrame = processCpuSeconds();
        summary.connecting = firstFrame - startedAt;
        if (stream->hasFrames() || surroundings.monitor.read([this] { return recorderFailed(); }))
            return;
        throwIfInterrupted();
        const PlaybackStream::State now = state();
        if (const auto result = now.getBreak())
            throw Failure(ExitStatus::failed, reasonSentence(what + " cannot be played", *result), *result);
        if (now.refusal != 0 && !now.ended)
            refuse(now.refusal);
        if (!now.ended && !now.closed)
            throw Failure(ExitStatus::failed, "no picture arrived in time; allow more with --timeout");
        throw Failure(ExitStatus::failed, "nothing is recorded on " + what);
    }

    /// Once the device has refused the wished speed: finds out what of it, by what the module takes from then on, which
    /// is what the device does already; and tells it.
    void considerSpeed()
    {
        if (refused || !state().speedRefused)
            return;
        const auto offers = [this](bool keyFramesOnly) { return stream->setSpeed(options.speed, keyFramesOnly); };
        refused = Refused{options.speed != 1, options.keyFramesOnly};
        if (refused->speed && refused->keyFrames && offers(true) == notSupported) {
            const std::int32_t everyFrame = offers(false);
            refused->speed = everyFrame != 0;
            refused->keyFrames = everyFrame != notSupported;
        }
        surroundings.console.line(refusalText(options, *refused));
    }

    std::chrono::duration<double> elapsed() const { return Clock::now() - firstFrame; }

    /// Until the end, or until the time is over, the user interrupts or the recorder fails.
    void receive()
    {
        const auto tick = surroundings.console.showsProgress() ? Clock::duration(std::chrono::milliseconds(250))
                                                               : Clock::duration(std::chrono::hours(1));
        const auto end = options.seconds > 0 ? firstFrame + std::chrono::duration_cast<Clock::duration>(
                                                                std::chrono::duration<double>(options.seconds))
                                             : Clock::time_point::max();
        for (considerSpeed(); !isOver() && Clock::now() < end; considerSpeed()) {
            surroundings.console.progress(progressText(interval, stream->getPlayed(), stream->getVideo(), elapsed()));
            await(std::min(end, Clock::now() + tick),
                  [this](const auto& now) { return now.ended || now.closed || (now.speedRefused && !refused); });
        }
    }

    bool isOver() const
    {
        return surroundings.interrupted.stop_requested() || surroundings.monitor.read([this] {
            const PlaybackStream::State& now = stream->getState();
            return now.ended || now.closed || recorderFailed();
        });
    }

    void stop()
    {
        surroundings.console.progress("stopping ...");
        broken = state().getBreak();
        if (!state().closed) {
            stream->close();
            if (!surroundings.monitor.wait({}, Clock::now() + closeTimeout,
                                           [this] { return stream->getState().closed.has_value(); }))
                surroundings.console.line("the module did not report the end of the playback in time");
        }
        surroundings.console.clearProgress();
    }

    /// Completes the files and tells what was received, even when something went wrong.
    ExitStatus finish()
    {
        summary.video = stream->getVideo();
        summary.audio = stream->getAudio();
        summary.played = PlayedInterval{.media = stream->getPlayed(),
                                        .speed = options.speed,
                                        .keyFramesOnly = options.keyFramesOnly,
                                        .speedRefused = refused && refused->speed,
                                        .keyFramesRefused = keyFramesRefused(),
                                        .endReached = state().ended};
        const std::optional<Failure> failure = completeFiles();
        reportSummary(surroundings.output, summary);
        if (broken)
            throw Failure(ExitStatus::failed, reasonSentence("the playback broke off" + reached(), *broken), *broken);
        if (failure)
            throw Failure(*failure);
        return surroundings.interrupted.stop_requested() ? ExitStatus::interrupted : ExitStatus::done;
    }

    /// The frames tell it, too, when the module does not.
    bool keyFramesRefused() const
    {
        return options.keyFramesOnly &&
               ((refused && refused->keyFrames) || summary.video.frames > summary.video.keyFrames);
    }

    std::string reached() const
    {
        const auto& recorded = summary.played->media.recorded;
        return recorded ? " at " + momentText(recorded->end) : std::string();
    }

    std::optional<Failure> completeFiles()
    {
        if (!recorder)
            return {};
        // A module that is still handing over a frame, since writing does not get on, is let go.
        recorder->getQueue().close();
        stream.reset();  // no frame comes any more
        std::optional<Failure> failure;
        try {
            recorder->finish();
            summary.recordings = recorder->getRecordings();
        } catch (const Failure& e) {
            failure = e;
        }
        summary.droppedFrames = recorder->getQueue().getDropped();
        if (recorder->hasPicture())
            summary.picture = options.files.snapshot;
        return failure;
    }

    const Surroundings& surroundings;
    const PlaybackOptions& options;
    const DateTimeRange interval;
    const std::string what;
    Clock::time_point startedAt;
    Clock::time_point firstFrame;
    double cpuAtFirstFrame = 0;
    std::size_t partCount = 0;  // used by the recorder's thread
    std::optional<Refused> refused;
    std::optional<std::int32_t> broken;
    StreamSummary summary;

    ConnectedDevices devices;
    std::optional<FrameRecorder> recorder;
    std::optional<PlaybackStream> stream;
};

class PlaybackCommand final : public Command {
public:
    const char* getName() const override { return "playback"; }
    const char* getSummary() const override { return "Receive what the device has recorded"; }
    std::optional<std::uint32_t> getChannel() const override { return options.channel; }

    void describeOptions(CLI::App& app) override
    {
        describeInterval(app, options.interval);
        app.add_option("--channel", options.channel, "Channel, counted from 0")->type_name("N")->capture_default_str();
        describeMediaFiles(app, options.files);
        app.add_option("--speed", options.speed, "So many times as fast: 1, 2, 4 or 8")
            ->check(CLI::IsMember({1U, 2U, 4U, 8U}).description(""))
            ->type_name("N")
            ->capture_default_str();
        app.add_flag("--key-frames", options.keyFramesOnly, "Only pictures that can be decoded alone");
        app.add_option("--seconds", options.seconds, "How long, counted from the first picture; 0: to the end")
            ->check(CLI::Validator([](std::string& text) { return checkSeconds(text, 0, 1e7); }, "", "seconds"))
            ->type_name("S")
            ->capture_default_str();
        app.footer(std::string(timesHelp) +
                   "\nThe file has the times of the recording, whatever the speed; stretches in which nothing is "
                   "recorded are cut out,\n"
                   "which a message and the event `gap` tell. It begins with the key frame that the first pictures "
                   "need, which may lie in\n"
                   "front of the interval, and ends with the interval. Sound is recorded where the device has some; "
                   "with --key-frames\n"
                   "devices send none. What of --speed and --key-frames the device does not offer a message tells, and "
                   "`speedRefused` and\n"
                   "`keyFramesRefused` in the event `summary`; that is otherwise the one of `live` with "
                   "`recordedBegin`, `recordedEnd`,\n"
                   "`gaps` and `endReached`. Instead of lost packets it counts `losses`, the frames in front of which "
                   "packets are missing,\n"
                   "and `soundLeftOut`, frames of sound that no picture followed. Exit status 4: nothing is recorded "
                   "there, the device\n"
                   "refuses, or the connection was lost; what came until then is in the file.\n\n" +
                   app.get_footer());
    }

    ExitStatus run(const Surroundings& surroundings) override
    {
        intervalOf(options.interval);  // a slip of the pen is answered before anything else
        requireWritable(options.files);
        return PlaybackRun(surroundings, options).run();
    }

private:
    PlaybackOptions options;
};
}  // namespace

std::unique_ptr<Command> makePlaybackCommand()
{
    return std::make_unique<PlaybackCommand>();
}
}  // namespace Host

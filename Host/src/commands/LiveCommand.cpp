#include "Console.h"
#include "FrameRecorder.h"
#include "LiveStream.h"
#include "Output.h"
#include "SettingKeys.h"
#include "StreamReport.h"
#include "commands/Command.h"
#include "commands/MediaFiles.h"
#include "platform/ProcessUsage.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>

namespace Host
{
namespace
{
using Clock = Monitor::Clock;

struct LiveOptions {
    LiveStream::Request request;
    double seconds = 10;  ///< 0: until interrupted
    MediaFiles files;
    std::size_t count = 1;
    bool discard = false;
    bool frames = false;
};

using LiveStreams = std::vector<std::unique_ptr<LiveStream>>;

/// Waits until all streams that play have told their statistics anew, so that a report never adds up new numbers of
/// some and old ones of others.
class StatisticsRound {
public:
    explicit StatisticsRound(const LiveStreams& allStreams) : streams(allStreams) { begin(); }

    void begin()
    {
        seen.clear();
        for (const auto& stream : streams)
            seen.push_back(stream->getVideoReports());
        next = 0;
    }

    /// Goes on where it came to last time: called each time any of perhaps thousands of streams has told something.
    bool isComplete()
    {
        while (next < streams.size() && (!streams[next]->isPlaying() || streams[next]->getVideoReports() != seen[next]))
            ++next;
        return next == streams.size();
    }

private:
    const LiveStreams& streams;
    std::vector<std::uint64_t> seen;
    std::size_t next = 0;
};

/// One run of the command. The members are in the order in which they are needed, so that they go away in the
/// order that the module asks for: streams, then the recorder with the frames it holds, then the devices, and
/// last the module.
class LiveRun {
public:
    LiveRun(const Surroundings& runSurroundings, const LiveOptions& liveOptions)
        : surroundings(runSurroundings), options(liveOptions), devices(runSurroundings, liveOptions.count)
    {
        if (const FrameRecorder::Wishes wishes = recorderWishes(); wishes.any())
            recorder.emplace(wishes, surroundings.monitor, surroundings.console);
        for (const auto& session : devices.getSessions())
            streams.push_back(std::make_unique<LiveStream>(session->getDevice(), options.request, surroundings.monitor,
                                                           surroundings.console,
                                                           recorder ? &recorder->getQueue() : nullptr));
    }

    /// When the run ends early: all streams stop at once rather than one after the other.
    ~LiveRun()
    {
        for (const auto& stream : streams)
            stream->requestStop();
    }
    LiveRun(const LiveRun&) = delete;
    LiveRun& operator=(const LiveRun&) = delete;

    ExitStatus run()
    {
        raiseDescriptorLimit();
        startedAt = Clock::now();
        for (const auto& stream : streams)
            stream->start();
        awaitFirstFrames();
        receive();
        summary.connecting = connecting();
        summary.elapsed = elapsed();
        summary.load = load();
        stop();
        return finish();
    }

private:
    FrameRecorder::Wishes recorderWishes()
    {
        FrameRecorder::Wishes wishes;
        wishes.recording = options.files.output;
        wishes.sound = options.request.sound ? ExpectedSound::certain : ExpectedSound::none;
        wishes.picture = options.files.snapshot;
        wishes.onPart = [this](const RecordedPart& part) { reportPart(surroundings.output, ++partCount, part); };
        if (options.frames)
            wishes.onFrame = [this](const Tavro8::GDRV::MediaFrame& frame) {
                reportFrame(surroundings.output, frameIndex++, frame);
            };
        return wishes;
    }

    ReceivedMedia received() const
    {
        std::vector<ReceivedMedia> all;
        for (const auto& stream : streams)
            all.push_back(stream->getVideo());
        return addUp(all);
    }

    std::size_t silentStreams() const
    {
        return static_cast<std::size_t>(
            std::count_if(streams.begin(), streams.end(), [](const auto& stream) { return !stream->isPlaying(); }));
    }

    std::chrono::duration<double> elapsed() const
    {
        return firstFrame ? Clock::now() - *firstFrame : std::chrono::duration<double>(0);
    }

    /// From the start to the first picture of the stream that took longest, of those that play.
    std::chrono::duration<double> connecting() const
    {
        Clock::time_point last = startedAt;
        for (const auto& stream : streams)
            last = std::max(last, stream->getVideo().firstFrame.value_or(startedAt));
        return last - startedAt;
    }

    ProcessLoad load() const { return {processCpuSeconds() - cpuAtFirstFrame, processResidentBytes()}; }

    bool recorderFailed() const { return recorder && recorder->hasFailed(); }

    void awaitFirstFrames()
    {
        surroundings.console.progress("waiting for the first picture ...");
        const auto deadline = surroundings.timeoutFromNow();
        const auto await = [&](std::size_t silent) {
            return surroundings.monitor.wait(surroundings.interrupted, deadline,
                                             [this, silent] { return silentStreams() <= silent || recorderFailed(); });
        };
        await(streams.size() - 1);
        cpuAtFirstFrame = processCpuSeconds();
        const bool ready = await(0);
        firstFrame = received().firstFrame;
        if (ready || surroundings.interrupted.stop_requested())
            return;
        const Failure failure = silence();
        if (!firstFrame)
            throw Failure(failure);
        // Who asks for many wants to know how many the device serves, and what those cost.
        surroundings.console.line(std::string("going on without some: ") + failure.what());
    }

    Failure silence() const
    {
        std::string what = "no picture arrived in time";
        if (streams.size() > 1)
            what += " on " + std::to_string(silentStreams()) + " of " + std::to_string(streams.size()) + " streams";
        // What a stream tells is nearer to the point than the state of its device.
        std::int32_t reason = received().streamState;
        if (reason == 0)
            reason = devices.getFirst().getTrouble().value_or(0);
        return {ExitStatus::failed, silenceReason(what, reason), reason == 0 ? std::nullopt : std::optional(reason)};
    }

    /// Reports until the time is over, the user interrupts or the recorder fails.
    void receive()
    {
        // People want to see the clock tick; programs get an event when there is news.
        const auto tick = surroundings.console.showsProgress() ? Clock::duration(std::chrono::milliseconds(250))
                                                               : Clock::duration(std::chrono::hours(1));
        const auto end = options.seconds > 0 ? Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                                  std::chrono::duration<double>(options.seconds))
                                             : Clock::time_point::max();
        StatisticsRound round(streams);
        const auto news = [&] { return recorderFailed() || round.isComplete(); };
        while (!surroundings.interrupted.stop_requested() && Clock::now() < end) {
            surroundings.console.progress(progressText(received(), elapsed()));
            surroundings.monitor.wait(surroundings.interrupted, std::min(end, Clock::now() + tick), news);
            if (surroundings.monitor.read([this] { return recorderFailed(); }))
                return;
            if (!round.isComplete())
                continue;
            round.begin();
            reportStatistics(surroundings.output, received(), receivedSound(), load());
        }
    }

    void stop()
    {
        surroundings.console.progress("stopping ...");
        for (const auto& stream : streams)
            stream->requestStop();
        for (const auto& stream : streams)
            stream->awaitStop();
        surroundings.console.clearProgress();
    }

    /// Completes the files and tells what was received, even when writing went wrong.
    ExitStatus finish()
    {
        std::optional<Failure> failure;
        if (recorder) {
            try {
                recorder->finish();
            } catch (const Failure& e) {
                failure = e;
            }
            summary.droppedFrames = recorder->getQueue().getDropped();
            if (!failure)
                summary.recordings = recorder->getRecordings();
            if (recorder->hasPicture())
                summary.picture = options.files.snapshot;
        }
        summary.streams = streams.size();
        summary.silentStreams = silentStreams();
        summary.video = received();
        summary.audio = receivedSound();
        summary.soundChosen = !options.request.soundChoice.empty();
        reportSummary(surroundings.output, summary);
        if (summary.soundChosen && summary.audio->frames == 0)
            surroundings.console.line("remark: of the sound that --sound asks for none has come");
        const bool interrupted = surroundings.interrupted.stop_requested();
        if (failure && !(interrupted && !firstFrame))
            throw Failure(*failure);
        return interrupted ? ExitStatus::interrupted : ExitStatus::done;
    }

    /// Nothing when no sound was asked for.
    std::optional<ReceivedMedia> receivedSound() const
    {
        if (!options.request.sound)
            return {};
        std::vector<ReceivedMedia> all;
        for (const auto& stream : streams)
            all.push_back(stream->getAudio());
        return addUp(all);
    }

    const Surroundings& surroundings;
    const LiveOptions& options;
    Clock::time_point startedAt;
    double cpuAtFirstFrame = 0;
    std::uint64_t frameIndex = 0;  // used by the recorder's thread
    std::size_t partCount = 0;     // likewise
    std::optional<Clock::time_point> firstFrame;
    StreamSummary summary;

    ConnectedDevices devices;
    std::optional<FrameRecorder> recorder;
    LiveStreams streams;
};

class LiveCommand final : public Command {
public:
    const char* getName() const override { return "live"; }
    const char* getSummary() const override { return "Receive live video and sound"; }
    std::optional<std::uint32_t> getChannel() const override { return options.request.channel; }

    void describeOptions(CLI::App& app) override
    {
        LiveStream::Request& request = options.request;
        app.add_option("--channel", request.channel, "Channel, counted from 0")->type_name("N")->capture_default_str();
        app.add_option("--stream", request.stream, "Stream of the channel, counted from 0")
            ->check(CLI::Range(0U, 15U).description(""))
            ->type_name("N")
            ->capture_default_str();
        app.add_option("--seconds", options.seconds, "How long, counted from the first picture; 0: until Ctrl-C")
            ->check(CLI::Validator([](std::string& text) { return checkSeconds(text, 0, 1e7); }, "", "seconds"))
            ->type_name("S")
            ->capture_default_str();
        app.add_flag("--audio", request.sound,
                     "Receive the channel's sound too; a microphone that is muted is switched on\n"
                     "and stays so");
        app.add_option("--sound", soundChoice,
                       "With --audio: the sound that is wanted of what the device offers, as\n"
                       "encoding=G.711, algorithm=u-law or algorithm=A-law beside it, samplerate=8000")
            ->allow_extra_args(false)
            ->type_name("KEY=VALUE");
        app.add_option("--transport", request.transport,
                       "How media travel: tcp (over the RTSP connection), udp (tcp where the\n"
                       "device refuses udp or nothing arrives), or auto (udp where it refuses tcp)")
            ->check(CLI::IsMember({"tcp", "udp", "auto"}, CLI::ignore_case).description(""))
            ->type_name("HOW")
            ->capture_default_str();
        describeMediaFiles(app, options.files);
        app.add_flag("--frames", options.frames, "Tell of each frame");
        describeMeasuring(app);
    }

    ExitStatus run(const Surroundings& surroundings) override
    {
        refuseContradictions();
        options.request.soundChoice = readSoundChoice(soundChoice);
        requireWritable(options.files);
        return LiveRun(surroundings, options).run();
    }

private:
    void describeMeasuring(CLI::App& app)
    {
        constexpr const char* what = "Create N devices at the same address and receive a stream from each,\n"
                                     "to find out what a machine can take";
        app.add_option("--count", options.count, what)
            ->check(CLI::Range(std::size_t{1}, std::size_t{10000}).description(""))
            ->type_name("N")
            ->capture_default_str();
        app.add_flag("--discard", options.discard, "Only count what arrives");
    }

    void refuseContradictions() const
    {
        if (!soundChoice.empty() && !options.request.sound)
            throw Failure(ExitStatus::usage, "--sound chooses among the sound that --audio receives: give both");
        const bool looksAtFrames = !options.files.output.empty() || !options.files.snapshot.empty() || options.frames;
        if (looksAtFrames && (options.discard || options.count > 1))
            throw Failure(ExitStatus::usage, "--discard and --count above 1 only count what arrives; they go together "
                                             "with none of --output, --snapshot and --frames");
    }

    LiveOptions options;
    std::vector<std::string> soundChoice;
};
}  // namespace

std::unique_ptr<Command> makeLiveCommand()
{
    return std::make_unique<LiveCommand>();
}
}  // namespace Host

#include "Console.h"
#include "Coverage.h"
#include "Output.h"
#include "RecordedInterval.h"
#include "TimeBar.h"
#include "TimeText.h"
#include "commands/Command.h"
#include "platform/Terminal.h"

#include <CLI/CLI.hpp>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <json/value.h>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
using GDRV::DateTimeRange;
namespace
{
using Clock = Monitor::Clock;

struct RecordingsOptions {
    IntervalOptions interval;
    std::uint32_t channel = 0;
};

/// The host's end of one search. Destroying it cancels the search and ends the module's object.
class ArchiveSearch final : private GDRV::IRecordingSearchHandler {
public:
    /// Throws `Failure` when the module offers no search.
    ArchiveSearch(GDRV::IDevice& device, Monitor& sharedMonitor) : monitor(sharedMonitor)
    {
        const std::int32_t result = device.CreateRecordingSearch(&search);
        requireMade(search, "this device's archive cannot be searched", result);
    }
    ~ArchiveSearch() { search->Destroy(); }
    ArchiveSearch(const ArchiveSearch&) = delete;
    ArchiveSearch& operator=(const ArchiveSearch&) = delete;

    std::int32_t begin(std::uint32_t channel, const DateTimeRange& interval) noexcept
    {
        return search->FindRecordings(channel, interval, this);
    }

    /// How the search ended; nothing when the deadline came first or the user interrupted.
    std::optional<std::int32_t> awaitEnd(const std::stop_token& interrupted, Clock::time_point deadline)
    {
        monitor.wait(interrupted, deadline, [this] { return end.has_value(); });
        return monitor.read([this] { return end; });
    }

    /// Call after the end.
    std::vector<DateTimeRange> takeFound() noexcept { return std::move(found); }

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<GDRV::IRecordingSearchHandler, Tavro8::IContract>(
            static_cast<GDRV::IRecordingSearchHandler*>(this), name);
    }

private:
    void RecordingFound(GDRV::IRecordingSearch*, GDRV::Storage::IRecordingInfo* recording) noexcept override
    try {
        if (const auto* range = recording->GetRange())
            found.push_back(range->GetRange());
    } catch (const std::bad_alloc&) {
        incomplete = true;
    }
    void SearchCompleted(GDRV::IRecordingSearch*, std::int32_t result) noexcept override
    {
        constexpr std::int32_t noResources = Tavro8::toResult(Tavro8::ResultCode::noResources);
        monitor.change([&] { end = incomplete && result == 0 ? noResources : result; });
    }

    Monitor& monitor;
    GDRV::IRecordingSearch* search = nullptr;
    std::optional<std::int32_t> end;  // guarded by the monitor

    // The module's thread; after the end, the command's.
    std::vector<DateTimeRange> found;
    bool incomplete = false;
};

/// Of a search that was refused or has failed.
const char* hintFor(std::int32_t result) noexcept
{
    const bool unknown = result == Tavro8::toResult(Tavro8::ResultCode::resourceNotFound);
    return unknown ? "; it has no archive of this channel" : intervalHint(result);
}

/// One search and what it found.
class RecordingsRun {
public:
    RecordingsRun(const Surroundings& runSurroundings, const RecordingsOptions& runOptions)
        : surroundings(runSurroundings), options(runOptions), interval(intervalOf(runOptions.interval))
    {}

    ExitStatus run()
    {
        recordings = search();
        std::ranges::sort(recordings, {}, &DateTimeRange::begin);
        list();
        summarize();
        return ExitStatus::done;
    }

private:
    std::vector<DateTimeRange> search() const
    {
        const std::string what = "the recordings of channel " + std::to_string(options.channel) + " cannot be listed";
        const ConnectedDevices devices(surroundings);
        ArchiveSearch archive(devices.getFirst().getDevice(), surroundings.monitor);
        std::int32_t result = archive.begin(options.channel, interval);
        if (result == 0)
            result = awaitEnd(archive);
        if (result != 0)
            throw Failure(ExitStatus::failed, reasonSentence(what, result) + hintFor(result), result);
        return archive.takeFound();
    }

    /// However long it takes, unless the user has chosen: a large archive is hundreds of requests, each of which the
    /// module watches over, and only the end of all is told.
    std::int32_t awaitEnd(ArchiveSearch& archive) const
    {
        const auto startedAt = Clock::now();
        const auto deadline = surroundings.options.timeout ? surroundings.timeoutFromNow() : Clock::time_point::max();
        const auto tick = surroundings.console.showsProgress() ? Clock::duration(std::chrono::seconds(1))
                                                               : Clock::duration(std::chrono::hours(1));
        while (!surroundings.interrupted.stop_requested() && Clock::now() < deadline) {
            surroundings.console.progress("searching " + durationText(Clock::now() - startedAt) + " ...");
            if (const auto end = archive.awaitEnd(surroundings.interrupted, std::min(deadline, Clock::now() + tick))) {
                surroundings.console.clearProgress();
                return *end;
            }
        }
        if (surroundings.interrupted.stop_requested())
            throw Failure(ExitStatus::interrupted, "interrupted");
        throw Failure(ExitStatus::failed, "the search did not end in time; allow more with --timeout");
    }

    void list() const
    {
        const bool wholeSeconds = std::ranges::all_of(recordings, [](const DateTimeRange& recording) {
            return recording.begin % 1000 == 0 && recording.end % 1000 == 0;
        });
        std::string readable = headingOf(wholeSeconds);
        Json::Value fields(Json::objectValue);
        for (const DateTimeRange& recording : recordings) {
            if (surroundings.output.writesJson())
                addInterval(fields, recording);
            else
                readable += row(recording, wholeSeconds);
            surroundings.output.event("recording", fields, readable);
            readable.clear();
        }
    }

    static std::string headingOf(bool wholeSeconds)
    {
        const std::size_t width = wholeSeconds ? 22 : 26;
        std::string text = "Begin";
        text.resize(width, ' ');
        text += "End";
        text.resize(2 * width, ' ');
        return text + (wholeSeconds ? "    Length\n" : "        Length\n");
    }

    /// All rows alike, so that they stand below each other.
    static std::string row(const DateTimeRange& recording, bool wholeSeconds)
    {
        const std::uint64_t lengthMs = std::max(recording.end, recording.begin) - recording.begin;
        std::string length = durationText(std::chrono::milliseconds(lengthMs));
        if (!wholeSeconds)
            length += '.' + std::to_string(1000 + lengthMs % 1000).substr(1);
        const std::size_t width = wholeSeconds ? 10 : 14;
        length.insert(0, width - std::min(width, length.size()), ' ');
        return timeText(recording.begin, wholeSeconds) + "  " + timeText(recording.end, wholeSeconds) + "  " + length +
               '\n';
    }

    static std::string timeText(std::uint64_t timestampMs, bool wholeSeconds)
    {
        return wholeSeconds ? momentText(timestampMs) : isoText(Moment(std::chrono::milliseconds(timestampMs)));
    }

    void summarize() const
    {
        const std::vector<DateTimeRange> covered = coverage(interval, recordings);
        const double seconds = static_cast<double>(interval.end - interval.begin) / 1000;
        const double recordedSeconds = static_cast<double>(totalMs(covered)) / 1000;
        Json::Value fields(Json::objectValue);
        addInterval(fields, interval);
        fields["channel"] = options.channel;
        fields["recordings"] = static_cast<Json::UInt64>(recordings.size());
        fields["recordedSeconds"] = recordedSeconds;
        fields["seconds"] = seconds;
        surroundings.output.event("summary", fields, readableSummary(covered, recordedSeconds, seconds));
    }

    std::string readableSummary(const std::vector<DateTimeRange>& covered, double recordedSeconds, double seconds) const
    {
        const std::string where = "channel " + std::to_string(options.channel) + " from " + intervalText(interval);
        if (recordings.empty())
            return "Nothing is recorded on " + where + '\n';
        return "\nRecorded  " + durationText(std::chrono::duration<double>(recordedSeconds)) + " of " +
               durationText(std::chrono::duration<double>(seconds)) + " (" +
               decimalText(100 * recordedSeconds / seconds, 1) + " %) in " + countText(recordings.size(), "recording") +
               " on " + where + "\n" + bar(covered);
    }

    std::string bar(const std::vector<DateTimeRange>& covered) const
    {
        // A line as wide as the terminal would wrap on some of them.
        const std::size_t columns = std::max<std::size_t>(terminalWidth(stdout), 2) - 1;
        return drawTimeBar(interval, covered, columns, usesUtf8() ? BarCharacters::blocks : BarCharacters::ascii);
    }

    const Surroundings& surroundings;
    const RecordingsOptions& options;
    const DateTimeRange interval;
    std::vector<DateTimeRange> recordings;
};

class RecordingsCommand final : public Command {
public:
    const char* getName() const override { return "recordings"; }
    const char* getSummary() const override { return "List what the device has recorded"; }
    std::optional<std::uint32_t> getChannel() const override { return options.channel; }

    void describeOptions(CLI::App& app) override
    {
        describeInterval(app, options.interval);
        app.add_option("--channel", options.channel, "Channel, counted from 0")->type_name("N")->capture_default_str();
        app.footer(std::string(timesHelp) +
                   "\nRecordings are listed in UTC, the oldest first. One that began before the interval is listed "
                   "from its begin on, one\n"
                   "that begins in another from the end of that on; one that goes on behind the interval keeps its own "
                   "end. One inside of\n"
                   "another is left out; one without length, or that only ends together with another, is listed with "
                   "00:00. Below the list\n"
                   "the bar shows the interval from left to right: the higher a block, the more of its time is "
                   "recorded (without UTF-8:\n"
                   ". nothing, - less than half, + more, # all).\n"
                   "With --json an event `recording` for each, and `summary`; time that several recordings share "
                   "counts once in\n"
                   "`recordedSeconds`, and what lies outside of the interval does not. A large archive takes many "
                   "requests: the search\n"
                   "lasts as long as the device answers each, unless --timeout limits it as a whole.\n\n" +
                   app.get_footer());
    }

    ExitStatus run(const Surroundings& surroundings) override { return RecordingsRun(surroundings, options).run(); }

private:
    RecordingsOptions options;
};
}  // namespace

std::unique_ptr<Command> makeRecordingsCommand()
{
    return std::make_unique<RecordingsCommand>();
}
}  // namespace Host

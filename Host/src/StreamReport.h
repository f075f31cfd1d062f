#pragma once

#include "MediaReceiver.h"
#include "PlaybackStream.h"
#include "media/MediaWriter.h"

#include <chrono>
#include <filesystem>
#include <json/forwards.h>
#include <optional>
#include <string>
#include <vector>

namespace Host
{
class Output;

/// What a receiving command has to tell, in the words and members that are the same for live and recorded media.

/// The received media of several streams, counted together; the state is that of the first from which nothing came. Of
/// the named statistics, numbers are added up, and texts that
/// differ become "mixed".
ReceivedMedia addUp(const std::vector<ReceivedMedia>& streams);

/// A sentence about a stream from which nothing came: `what`, the reason that the stream's `state` tells, and
/// what to check. 0, a stream that plays, is no reason.
std::string silenceReason(const std::string& what, std::int32_t state);

/// What the program has cost so far.
struct ProcessLoad {
    double cpuSeconds = 0;            ///< user and system time since the first picture
    std::uint64_t residentBytes = 0;  ///< in RAM now
};

/// Writes the event `statistics`; `audio` is empty when no sound was asked for. It has no readable form: people watch
/// the progress line.
void reportStatistics(Output& output, const ReceivedMedia& video, const std::optional<ReceivedMedia>& audio,
                      const ProcessLoad& load);

/// Writes the event `part`: file `number`, counted from 1, of a recording begins. People read of it in a message.
void reportPart(Output& output, std::size_t number, const RecordedPart& part);

/// Writes the event `frame`. `index` counts all frames of the command from 0.
void reportFrame(Output& output, std::uint64_t index, const Tavro8::GDRV::MediaFrame& frame);

/// "H.264 1920x1080  25.0 frames/s  4.1 Mbit/s  0 lost  00:07"; without rates until the module has reported some.
std::string progressText(const ReceivedMedia& video, std::chrono::duration<double> elapsed);

/// What a playback has to tell beside what came.
struct PlayedInterval {
    PlayedMedia media;
    std::uint32_t speed = 1;  ///< as asked for, as the following
    bool keyFramesOnly = false;
    bool speedRefused = false;      ///< the device plays at a speed of its own
    bool keyFramesRefused = false;  ///< and every frame
    bool endReached = false;

    /// Key frames alone come without sound.
    bool playsSound() const noexcept { return !keyFramesOnly || keyFramesRefused; }
};

/// Writes the event `gap`. People read of it in a message.
void reportGap(Output& output, const Tavro8::GDRV::DateTimeRange& gap);

/// "2026-11-20T14:00:07Z  35 %  H.264 1920x1080  912 frames  4.1 MiB  00:07" while `interval` is played.
std::string progressText(const Tavro8::GDRV::DateTimeRange& interval, const PlayedMedia& played,
                         const ReceivedMedia& video, std::chrono::duration<double> elapsed);

/// All that the event `summary` says.
struct StreamSummary {
    std::size_t streams = 1;
    std::size_t silentStreams = 0;  ///< of these: on which no picture has arrived
    ReceivedMedia video;
    std::optional<ReceivedMedia> audio;
    bool soundChosen = false;                     ///< not any sound will do
    std::chrono::duration<double> connecting{0};  ///< from the start to the last stream's first frame
    std::chrono::duration<double> elapsed{0};     ///< since the first frame of all
    ProcessLoad load;                             ///< at the end
    std::uint64_t droppedFrames = 0;              ///< received, but the disk or the decoder did not keep up
    std::vector<RecordedPart> recordings;
    std::filesystem::path picture;         ///< empty when none was saved
    std::optional<PlayedInterval> played;  ///< recorded media, of which modules tell no statistics
};

void reportSummary(Output& output, const StreamSummary& summary);
}  // namespace Host

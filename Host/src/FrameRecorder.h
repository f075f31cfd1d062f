#pragma once

#include "FrameQueue.h"
#include "media/MediaWriter.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Host
{
class Console;
class Monitor;

/// Does with received frames what the user wishes, on a thread of its own: records them, saves a picture,
/// looks at each. Frames come in through `getQueue()`.
class FrameRecorder {
public:
    struct Wishes {
        std::filesystem::path recording;  ///< MP4 or Matroska file; empty for none
        ExpectedSound sound = ExpectedSound::none;
        std::filesystem::path picture;  ///< PNG or JPEG file of the first picture; empty for none
        std::function<void(const Tavro8::GDRV::MediaFrame&)> onFrame;  ///< may be empty
        std::function<void(const RecordedPart&)> onPart;  ///< told when a file of the recording begins; may be empty

        bool any() const { return !recording.empty() || !picture.empty() || onFrame; }
    };

    /// `console` is told what the user should know; `monitor` wakes when the recorder has failed.
    FrameRecorder(Wishes userWishes, Monitor& sharedMonitor, Console& userConsole);

    /// Finishes, and keeps silent about failures.
    ~FrameRecorder();

    FrameQueue& getQueue() noexcept { return queue; }

    /// True once writing has failed; call under the monitor's lock.
    bool hasFailed() const noexcept { return failed; }

    /// Waits until every queued frame is written and completes the files; a wait that takes long is told, since only
    /// the user can end one for a disk that hangs. Call after the sources have stopped.
    /// Throws `Failure` when something that was wished for is missing, with the reason.
    void finish();

    /// The files of the recording. Call after `finish`.
    std::vector<RecordedPart> getRecordings() const;
    bool hasPicture() const noexcept { return pictureSaved; }

private:
    void run();
    void take(const Tavro8::GDRV::FrameReference& frame);
    void savePictureOf(const Tavro8::GDRV::MediaFrame& frame);
    void complete();

    const Wishes wishes;
    Monitor& monitor;
    Console& console;
    FrameQueue queue;

    // The recorder's thread, and whoever has joined it.
    std::unique_ptr<MediaWriter> writer;
    std::string failure;
    bool pictureSaved = false;

    // Guarded by the monitor.
    bool failed = false;
    bool ended = false;

    std::thread thread;  // last: it uses all of the above
};
}  // namespace Host

#pragma once

#include "media/MediaFile.h"
#include "media/MediaFormat.h"

#include <Tavro8/GDRV/MediaFrame.h>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Host
{
/// One file of a recording, and what it was begun with.
struct RecordedPart {
    std::filesystem::path file;
    VideoFormat video;
    std::optional<AudioFormat> audio;  ///< empty for a file without sound
    std::uint64_t pictures = 0;
};

/// Whether sound comes beside the pictures: a file waits for it then, and the user is told of its absence if certain.
enum class ExpectedSound { none, possible, certain };

/// Records a stream whose format is not known beforehand and may change.
///
/// A file begins at a key frame; frames before the first one are left out. When codec or picture size change,
/// the recording goes on in a new part beside the first: name-2.mp4, name-3.mp4. One thread; operations throw
/// `std::runtime_error` when a file cannot be written.
class MediaWriter {
public:
    using Notice = std::function<void(const std::string& text)>;
    using PartBegun = std::function<void(const RecordedPart& part)>;

    /// When sound is expected the first file waits up to two seconds for it, since a file cannot gain a track
    /// later. `noticeUser` is told what the user should know, such as the beginning of a new part; `onPart` (may be
    /// empty) of each part, the first one too.
    MediaWriter(std::filesystem::path firstFile, ExpectedSound sound, Notice noticeUser, PartBegun onPart = {});
    ~MediaWriter();

    void write(const Tavro8::GDRV::FrameReference& frame);

    /// Completes the last file.
    void finish();

    /// What was written so far; empty as long as no key frame has come.
    const std::vector<RecordedPart>& getParts() const noexcept { return parts; }

private:
    void writeVideo(const Tavro8::GDRV::FrameReference& frame);
    void writeAudio(const Tavro8::GDRV::FrameReference& frame);
    void considerKeyFrame(const Tavro8::GDRV::FrameReference& frame);
    bool mayBegin() const;
    void begin();
    void writePicture(const Tavro8::GDRV::MediaFrame& frame);
    void beginPart(std::int64_t originMs);

    const std::filesystem::path path;
    const ExpectedSound expectedSound;
    const Notice notice;
    const PartBegun partBegun;

    std::vector<Tavro8::GDRV::FrameReference> pending;  // from the first key frame on, until sound is known
    std::optional<VideoFormat> video;                   // of the newest key frame
    std::optional<AudioFormat> audio;                   // of the newest sound
    std::optional<AudioFormat> audioInFile;             // what the open file was begun with
    std::unique_ptr<MediaFile> file;
    std::vector<RecordedPart> parts;
};
}  // namespace Host

#pragma once

#include "media/MediaFormat.h"

#include <filesystem>
#include <memory>
#include <optional>

namespace Host
{
/// True for the endings that `MediaFile` writes: .mp4 and .mkv in any case.
bool isMediaFile(const std::filesystem::path& path);

/// One MP4 or Matroska file with pictures and perhaps sound, both as received; only G.711 and plain samples
/// are turned into AAC for MP4, which has no place for them.
///
/// One thread. Every operation throws `std::runtime_error` when the file cannot be written.
class MediaFile {
public:
    /// `originMs` is the timestamp of the first picture, which becomes time 0; sound from before is left out.
    MediaFile(const std::filesystem::path& path, const VideoFormat& video, const std::optional<AudioFormat>& audio,
              std::int64_t originMs);
    ~MediaFile();

    void writeVideo(const Tavro8::GDRV::MediaFrame& frame);
    void writeAudio(const Tavro8::GDRV::MediaFrame& frame);

    /// Writes what is held back and the index. Without it an MP4 file cannot be played.
    void finish();

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace Host

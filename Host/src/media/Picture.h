#pragma once

#include "media/Ffmpeg.h"

#include <Tavro8/GDRV/MediaFrame.h>
#include <filesystem>

namespace Host
{
/// FFmpeg's number of a codec; `AV_CODEC_ID_NONE` for those it need not know.
AVCodecID ffmpegCodec(Tavro8::GDRV::MediaCodec codec) noexcept;

/// The picture of one key frame; null when it cannot be decoded, for example because it is damaged.
FramePtr decodePicture(const Tavro8::GDRV::MediaFrame& keyFrame);

/// True for the endings that `savePicture` takes: .png, .jpg and .jpeg in any case.
bool isPictureFile(const std::filesystem::path& path);

/// Writes `picture` to `path` in the format that the path's ending names. Throws `std::runtime_error`.
void savePicture(const AVFrame& picture, const std::filesystem::path& path);
}  // namespace Host

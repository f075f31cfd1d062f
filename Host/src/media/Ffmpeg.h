#pragma once

#include <memory>
#include <span>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace Host
{
// Owners of FFmpeg's objects, so that no path forgets to free one.
struct FfmpegDeleter {
    void operator()(AVCodecContext* object) const noexcept { avcodec_free_context(&object); }
    void operator()(AVFrame* object) const noexcept { av_frame_free(&object); }
    void operator()(AVPacket* object) const noexcept { av_packet_free(&object); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, FfmpegDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FfmpegDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, FfmpegDeleter>;

/// "No space left on device" and the like.
std::string ffmpegErrorText(int error);

/// Throws `std::runtime_error` "`what`: reason" when `result` is negative; gives it back otherwise.
int checkFfmpeg(int result, const std::string& what);

FramePtr makeFrame();
PacketPtr makePacket();

/// A packet with a copy of `data`, padded as the decoders want it.
PacketPtr makePacket(std::span<const std::uint8_t> data);

/// A context for the encoder or decoder of `id`. Throws when this FFmpeg was built without.
CodecContextPtr makeDecoder(AVCodecID id);
CodecContextPtr makeEncoder(AVCodecID id);
}  // namespace Host

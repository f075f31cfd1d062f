#include "media/Picture.h"

#include "PathText.h"

#include <fstream>
#include <stdexcept>

extern "C" {
#include <libswscale/swscale.h>
}

namespace Host
{
namespace fs = std::filesystem;
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;
namespace
{
constexpr int encodingQuality = 2;  // of 1 (best) to 31

bool isPng(const fs::path& path)
{
    return lowerCaseEnding(path) == ".png";
}

/// True for pictures whose values use all of 0 to 255; cameras mostly send 16 to 235.
bool isFullRange(const AVFrame& picture) noexcept
{
    return picture.color_range == AVCOL_RANGE_JPEG || picture.format == AV_PIX_FMT_YUVJ420P ||
           picture.format == AV_PIX_FMT_YUVJ422P || picture.format == AV_PIX_FMT_YUVJ444P;
}

/// The same layout without the range in its name, which the scaler has deprecated.
AVPixelFormat plainFormat(const AVFrame& picture) noexcept
{
    switch (picture.format) {
    case AV_PIX_FMT_YUVJ420P:
        return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
        return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
        return AV_PIX_FMT_YUV444P;
    default:
        return static_cast<AVPixelFormat>(picture.format);
    }
}

/// `picture` in another pixel format, with full range.
FramePtr convert(const AVFrame& picture, AVPixelFormat format)
{
    FramePtr converted = makeFrame();
    converted->format = format;
    converted->width = picture.width;
    converted->height = picture.height;
    converted->color_range = AVCOL_RANGE_JPEG;
    converted->quality = FF_QP2LAMBDA * encodingQuality;
    checkFfmpeg(av_frame_get_buffer(converted.get(), 0), "picture");

    const std::unique_ptr<SwsContext, decltype(&sws_freeContext)> scaler(
        sws_getContext(picture.width, picture.height, plainFormat(picture), picture.width, picture.height, format,
                       SWS_BICUBIC | SWS_ACCURATE_RND, nullptr, nullptr, nullptr),
        sws_freeContext);
    if (!scaler)
        throw std::runtime_error("the picture's pixel format cannot be converted");
    constexpr int unchanged = 1 << 16;  // contrast and saturation as fixed-point factors
    const int* coefficients =
        sws_getCoefficients(picture.colorspace == AVCOL_SPC_BT709 ? SWS_CS_ITU709 : SWS_CS_DEFAULT);
    sws_setColorspaceDetails(scaler.get(), coefficients, isFullRange(picture) ? 1 : 0, coefficients, 1, 0, unchanged,
                             unchanged);
    checkFfmpeg(sws_scale(scaler.get(), picture.data, picture.linesize, 0, picture.height, converted->data,
                          converted->linesize),
                "picture");
    return converted;
}

PacketPtr encode(const AVFrame& picture, AVCodecID codec)
{
    const CodecContextPtr encoder = makeEncoder(codec);
    encoder->width = picture.width;
    encoder->height = picture.height;
    encoder->pix_fmt = static_cast<AVPixelFormat>(picture.format);
    encoder->color_range = AVCOL_RANGE_JPEG;
    encoder->strict_std_compliance = FF_COMPLIANCE_UNOFFICIAL;  // JPEG from YUV of full range
    encoder->time_base = {1, 1};
    encoder->flags |= AV_CODEC_FLAG_QSCALE;
    encoder->global_quality = picture.quality;
    checkFfmpeg(avcodec_open2(encoder.get(), encoder->codec, nullptr), "picture encoder");
    checkFfmpeg(avcodec_send_frame(encoder.get(), &picture), "picture encoder");
    PacketPtr packet = makePacket();
    checkFfmpeg(avcodec_receive_packet(encoder.get(), packet.get()), "picture encoder");
    return packet;
}
}  // namespace

AVCodecID ffmpegCodec(MediaCodec codec) noexcept
{
    switch (codec) {
    case MediaCodec::h264:
        return AV_CODEC_ID_H264;
    case MediaCodec::h265:
        return AV_CODEC_ID_HEVC;
    case MediaCodec::mjpeg:
        return AV_CODEC_ID_MJPEG;
    case MediaCodec::g711U:
        return AV_CODEC_ID_PCM_MULAW;
    case MediaCodec::g711A:
        return AV_CODEC_ID_PCM_ALAW;
    case MediaCodec::aac:
        return AV_CODEC_ID_AAC;
    case MediaCodec::pcm16:
        return AV_CODEC_ID_PCM_S16LE;
    case MediaCodec::unknown:
        break;
    }
    return AV_CODEC_ID_NONE;
}

FramePtr decodePicture(const MediaFrame& keyFrame)
{
    const CodecContextPtr decoder = makeDecoder(ffmpegCodec(keyFrame.codec));
    decoder->thread_count = 1;  // threads would only delay the single picture
    checkFfmpeg(avcodec_open2(decoder.get(), decoder->codec, nullptr), "picture decoder");
    const PacketPtr packet = makePacket(keyFrame.data);
    FramePtr picture = makeFrame();
    if (avcodec_send_packet(decoder.get(), packet.get()) < 0)
        return nullptr;
    avcodec_send_packet(decoder.get(), nullptr);  // no more will come: hand out what would wait for reordering
    if (avcodec_receive_frame(decoder.get(), picture.get()) < 0 || picture->width <= 0 || picture->height <= 0)
        return nullptr;
    return picture;
}

bool isPictureFile(const fs::path& path)
{
    const std::string ending = lowerCaseEnding(path);
    return ending == ".png" || ending == ".jpg" || ending == ".jpeg";
}

void savePicture(const AVFrame& picture, const fs::path& path)
{
    const bool png = isPng(path);
    const FramePtr converted = convert(picture, png ? AV_PIX_FMT_RGB24 : AV_PIX_FMT_YUV420P);
    const PacketPtr encoded = encode(*converted, png ? AV_CODEC_ID_PNG : AV_CODEC_ID_MJPEG);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(encoded->data), encoded->size);
    if (!file.flush())
        throw std::runtime_error("cannot write " + pathText(path));
}
}  // namespace Host

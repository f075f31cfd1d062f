#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
}

/// An independent decoder must see the same in the files made of packets as in those that the encoder wrote.
namespace Tavro8::media
{
using namespace testkit;

namespace
{
struct Deleter {
    void operator()(AVCodecContext* context) const noexcept { avcodec_free_context(&context); }
    void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};

/// The visible samples of all three planes, one behind the other; empty when it cannot be decoded.
Bytes decode(const Bytes& file, int& width, int& height)
{
    const AVCodec* const codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
    const std::unique_ptr<AVCodecContext, Deleter> decoder(avcodec_alloc_context3(codec));
    const std::unique_ptr<AVPacket, Deleter> packet(av_packet_alloc());
    const std::unique_ptr<AVFrame, Deleter> picture(av_frame_alloc());
    decoder->err_recognition = AV_EF_EXPLODE;
    if (avcodec_open2(decoder.get(), codec, nullptr) < 0 ||
        av_new_packet(packet.get(), static_cast<int>(file.size())) < 0)
        return {};
    std::ranges::copy(file, packet->data);
    if (avcodec_send_packet(decoder.get(), packet.get()) < 0 || avcodec_receive_frame(decoder.get(), picture.get()) < 0)
        return {};
    width = picture->width;
    height = picture->height;
    Bytes samples;
    const bool half = picture->format == AV_PIX_FMT_YUVJ420P;
    for (int plane = 0; plane < 3; ++plane) {
        const int columns = plane == 0 ? width : width / 2;
        const int rows = plane == 0 || !half ? height : height / 2;
        for (int row = 0; row < rows; ++row) {
            const std::uint8_t* const line = picture->data[plane] + std::ptrdiff_t{row} * picture->linesize[plane];
            samples.insert(samples.end(), line, line + columns);
        }
    }
    return samples;
}
}  // namespace

TEST(DecodedPicture, isTheOneThatWasEncoded)
{
    const struct {
        const char* name;
        PictureSize size;
    } cases[] = {{"jpeg_420", {160, 120}},
                 {"jpeg_422", {160, 120}},
                 {"jpeg_restart_markers", {160, 120}},
                 {"jpeg_2592_wide", {2592, 48}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto pictures = readPictures(std::string(c.name) + ".mjpeg");
        Frames frames;
        const auto receiver = TrackReceiver::make(jpegFormat(c.size), std::make_shared<FramePool>(), frames);
        for (const Bytes& packet : readPackets(std::string(c.name) + ".rtp"))
            receiver->onRtp(packet, {});
        ASSERT_EQ(frames.size(), pictures.size());
        for (std::size_t i = 0; i < pictures.size(); ++i) {
            int width = 0;
            int height = 0;
            const Bytes samples = decode(frames[i].data, width, height);
            ASSERT_FALSE(samples.empty());
            EXPECT_EQ(width, static_cast<int>(c.size.width));
            EXPECT_EQ(height, static_cast<int>(c.size.height));
            EXPECT_TRUE(samples == decode(pictures[i], width, height)) << "picture " << i;
        }
    }
}
}  // namespace Tavro8::media

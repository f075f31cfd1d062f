#include "media/Ffmpeg.h"

#include <cstring>
#include <new>
#include <stdexcept>

namespace Host
{
namespace
{
template <typename Pointer, typename Raw>
Pointer owned(Raw* raw)
{
    if (raw == nullptr)
        throw std::bad_alloc();
    return Pointer(raw);
}

CodecContextPtr contextFor(const AVCodec* codec, AVCodecID id)
{
    if (codec == nullptr)
        throw std::runtime_error(std::string("FFmpeg was built without ") + avcodec_get_name(id));
    return owned<CodecContextPtr>(avcodec_alloc_context3(codec));
}
}  // namespace

std::string ffmpegErrorText(int error)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

int checkFfmpeg(int result, const std::string& what)
{
    if (result < 0)
        throw std::runtime_error(what + ": " + ffmpegErrorText(result));
    return result;
}

FramePtr makeFrame()
{
    return owned<FramePtr>(av_frame_alloc());
}

PacketPtr makePacket()
{
    return owned<PacketPtr>(av_packet_alloc());
}

PacketPtr makePacket(std::span<const std::uint8_t> data)
{
    PacketPtr packet = makePacket();
    checkFfmpeg(av_new_packet(packet.get(), static_cast<int>(data.size())), "packet");
    if (!data.empty())
        std::memcpy(packet->data, data.data(), data.size());
    return packet;
}

CodecContextPtr makeDecoder(AVCodecID id)
{
    return contextFor(avcodec_find_decoder(id), id);
}

CodecContextPtr makeEncoder(AVCodecID id)
{
    return contextFor(avcodec_find_encoder(id), id);
}
}  // namespace Host

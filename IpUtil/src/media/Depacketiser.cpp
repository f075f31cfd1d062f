#include "media/Depacketiser.h"

#include "media/AacDepacketiser.h"
#include "media/G711Depacketiser.h"
#include "media/JpegDepacketiser.h"
#include "media/VideoDepacketiser.h"

#include <algorithm>
#include <string_view>

namespace Tavro8::media
{
namespace
{
using GDRV::MediaCodec;

constexpr std::uint8_t largestPayloadType = 127;
constexpr std::uint32_t videoClockRate = 90000;
constexpr std::uint32_t telephoneClockRate = 8000;

// All formats of video that are received here prescribe 90 kHz. What counts neither milliseconds nor anything up to the
// system clock of MPEG is a slip of the device.
constexpr std::uint32_t slowestVideoClock = 1000;
constexpr std::uint32_t fastestVideoClock = 27'000'000;
}  // namespace

std::string_view formatParameter(const TrackFormat& format, std::string_view name) noexcept
{
    const auto found = std::ranges::find(format.formatParameters, name,
                                         [](const auto& parameter) { return std::string_view(parameter.first); });
    return found == format.formatParameters.end() ? std::string_view() : std::string_view(found->second);
}

std::uint32_t clockRateOf(const TrackFormat& format) noexcept
{
    const std::uint32_t rate = format.clockRate;
    if (isVideo(format.codec))
        return rate >= slowestVideoClock && rate <= fastestVideoClock ? rate : videoClockRate;
    return rate != 0 ? rate : telephoneClockRate;
}

const char* refusalOf(const TrackFormat& format)
{
    if (format.payloadTypes.empty())
        return "the track names no payload type";
    if (std::ranges::any_of(format.payloadTypes, [](std::uint8_t type) { return type > largestPayloadType; }))
        return "the track names a payload type above 127";
    if (!isVideo(format.codec) && format.clockRate > maxSampleRate)
        return "the sound track names a clock rate above 192 kHz";
    switch (format.codec) {
    case MediaCodec::h264:
        if (formatParameter(format, "packetization-mode") == "2")
            return "H.264 in interleaved packets (packetization-mode 2) is not supported";
        return nullptr;
    case MediaCodec::aac:
        return readAacPacking(format).refusal;
    case MediaCodec::h265:
    case MediaCodec::mjpeg:
    case MediaCodec::g711U:
    case MediaCodec::g711A:
        return nullptr;
    default:
        return "the codec of the track is not supported";
    }
}

std::unique_ptr<Depacketiser> makeDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& sink,
                                               const DepacketiserOptions& options)
{
    if (refusalOf(format) != nullptr)
        return nullptr;
    switch (format.codec) {
    case MediaCodec::h264:
        return std::make_unique<VideoDepacketiser<H264>>(format, pool, sink, options);
    case MediaCodec::h265:
        return std::make_unique<VideoDepacketiser<H265>>(format, pool, sink, options);
    case MediaCodec::mjpeg:
        return std::make_unique<JpegDepacketiser>(format, pool, sink, options);
    case MediaCodec::aac:
        return std::make_unique<AacDepacketiser>(format, pool, sink, options);
    case MediaCodec::g711U:
    case MediaCodec::g711A:
        return std::make_unique<G711Depacketiser>(format, pool, sink);
    default:
        return nullptr;
    }
}
}  // namespace Tavro8::media

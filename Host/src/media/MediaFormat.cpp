#include "media/MediaFormat.h"

#include "media/Picture.h"

#include <algorithm>

namespace Host
{
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;
namespace
{
constexpr std::uint32_t telephoneRate = 8000;  // what G.711 has when nobody says otherwise

/// True for parameter sets, and for the access unit delimiters and SEI that may stand between them.
bool belongsToHeader(MediaCodec codec, std::uint8_t firstByte) noexcept
{
    if (codec == MediaCodec::h264) {
        const unsigned type = firstByte & 0x1FU;
        return type >= 6 && type <= 9;  // SEI, SPS, PPS, delimiter (ITU-T H.264 table 7-1)
    }
    const unsigned type = (firstByte >> 1U) & 0x3FU;
    return type >= 32 && type <= 40 && type != 36 && type != 37;  // ITU-T H.265 table 7-1
}

bool isParameterSet(MediaCodec codec, std::uint8_t firstByte) noexcept
{
    if (codec == MediaCodec::h264) {
        const unsigned type = firstByte & 0x1FU;
        return type == 7 || type == 8;
    }
    const unsigned type = (firstByte >> 1U) & 0x3FU;
    return type >= 32 && type <= 34;
}

/// Offset of the next 00 00 01 at or after `from`; the size when there is none.
std::size_t findStartCode(std::span<const std::uint8_t> data, std::size_t from) noexcept
{
    constexpr std::uint8_t startCode[] = {0, 0, 1};
    const auto begin = data.begin() + static_cast<std::ptrdiff_t>(std::min(from, data.size()));
    return static_cast<std::size_t>(std::search(begin, data.end(), std::begin(startCode), std::end(startCode)) -
                                    data.begin());
}
}  // namespace

std::span<const std::uint8_t> leadingParameterSets(MediaCodec codec, std::span<const std::uint8_t> data)
{
    constexpr std::size_t startCodeSize = 3;
    std::size_t first = data.size();
    std::size_t unit = findStartCode(data, 0);
    while (unit + startCodeSize < data.size() && belongsToHeader(codec, data[unit + startCodeSize])) {
        if (isParameterSet(codec, data[unit + startCodeSize]))
            first = std::min(first, unit);
        unit = findStartCode(data, unit + startCodeSize);
    }
    return first < unit ? data.subspan(first, unit - first) : std::span<const std::uint8_t>{};
}

std::optional<VideoFormat> videoFormatOf(const MediaFrame& keyFrame)
{
    VideoFormat format{keyFrame.codec, keyFrame.width, keyFrame.height, {}};
    if (keyFrame.codec != MediaCodec::mjpeg) {
        const auto sets = keyFrame.parameterSets.empty() ? leadingParameterSets(keyFrame.codec, keyFrame.data)
                                                         : keyFrame.parameterSets;
        if (sets.empty())
            return std::nullopt;
        format.parameterSets.assign(sets.begin(), sets.end());
    }
    if (format.width == 0 || format.height == 0) {
        const FramePtr picture = decodePicture(keyFrame);
        if (!picture)
            return std::nullopt;
        format.width = static_cast<std::uint32_t>(picture->width);
        format.height = static_cast<std::uint32_t>(picture->height);
    }
    return format;
}

AudioFormat audioFormatOf(const MediaFrame& frame, const AudioFormat& known)
{
    AudioFormat format{frame.codec, frame.sampleRate, frame.channelCount, {}};
    if (format.sampleRate == 0)
        format.sampleRate = telephoneRate;
    if (format.channelCount == 0)
        format.channelCount = 1;
    if (!frame.parameterSets.empty())
        format.config.assign(frame.parameterSets.begin(), frame.parameterSets.end());
    else if (known.codec == format.codec)
        format.config = known.config;
    return format;
}
}  // namespace Host

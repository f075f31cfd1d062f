#pragma once

#include <Tavro8/GDRV/MediaFrame.h>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Host
{
/// What a file must know of its pictures before the first one is written.
struct VideoFormat {
    Tavro8::GDRV::MediaCodec codec = Tavro8::GDRV::MediaCodec::unknown;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::vector<std::uint8_t> parameterSets;  ///< Annex B; empty for MJPEG

    /// True when frames of `other` may go on in a file begun with this format. Parameter sets may differ:
    /// the new ones are in front of the key frame.
    bool continues(const VideoFormat& other) const noexcept
    {
        return codec == other.codec && width == other.width && height == other.height;
    }
};

/// What a file must know of its sound.
struct AudioFormat {
    Tavro8::GDRV::MediaCodec codec = Tavro8::GDRV::MediaCodec::unknown;
    std::uint32_t sampleRate = 0;
    std::uint32_t channelCount = 0;
    std::vector<std::uint8_t> config;  ///< AAC: the AudioSpecificConfig

    friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

/// The format of a video key frame. Where the frame does not say, size and parameter sets are read from the
/// picture itself. Nothing when the picture cannot be understood.
std::optional<VideoFormat> videoFormatOf(const Tavro8::GDRV::MediaFrame& keyFrame);

/// The format of an audio frame. `known` is the format so far: its config holds until a frame brings another.
AudioFormat audioFormatOf(const Tavro8::GDRV::MediaFrame& frame, const AudioFormat& known);

/// The leading parameter sets of an Annex B access unit, start codes included; empty when there are none.
std::span<const std::uint8_t> leadingParameterSets(Tavro8::GDRV::MediaCodec codec, std::span<const std::uint8_t> data);
}  // namespace Host

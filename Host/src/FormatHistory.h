#pragma once

#include <Tavro8/GDRV/MediaFrame.h>
#include <cstdint>
#include <vector>

namespace Host
{
/// A format that a stream has had, and how much came in it. What does not apply to pictures or to sound is 0.
struct StreamFormat {
    Tavro8::GDRV::MediaCodec codec = Tavro8::GDRV::MediaCodec::unknown;
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t sampleRate = 0;
    std::uint32_t channelCount = 0;
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;

    /// Whether `other` is the same format, however much came in it. A size that is not known fits each.
    bool sameAs(const StreamFormat& other) const noexcept
    {
        const bool sameSize = (width == other.width && height == other.height) || width == 0 || other.width == 0;
        return codec == other.codec && sameSize && sampleRate == other.sampleRate && channelCount == other.channelCount;
    }
};

/// The formats of a stream in the order in which they came, since users change them while the stream runs.
///
/// Bounded: a stream that changes without end is counted on under its latest format.
class FormatHistory {
public:
    static constexpr std::size_t mostFormats = 64;

    void add(const Tavro8::GDRV::MediaFrame& frame) noexcept;

    /// Adds what came on another stream: formats that both had are counted together.
    void addUp(const FormatHistory& other);

    const std::vector<StreamFormat>& getFormats() const noexcept { return formats; }

    /// The latest; an empty one before the first frame.
    StreamFormat latest() const { return formats.empty() ? StreamFormat{} : formats.back(); }

private:
    std::vector<StreamFormat> formats;
};
}  // namespace Host

#include "Clip.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Sample
{
// The files of clip/, made into arrays by the build.
extern const std::span<const std::uint8_t> smallClipBytes;
extern const std::span<const std::uint8_t> largeClipBytes;
extern const std::span<const std::uint8_t> h265ClipBytes;
extern const std::span<const std::uint8_t> jpegClipBytes;

namespace
{
using Tavro8::GDRV::MediaCodec;
using Bytes = std::span<const std::uint8_t>;

// How each picture of the clips begins: with an access unit delimiter (ITU-T H.264 section 7.3.2.4, H.265 section
// 7.3.2.5), and a JPEG with its start of image and the marker behind it.
constexpr std::uint8_t h264Delimiter[] = {0, 0, 0, 1, 0x09};
constexpr std::uint8_t h265Delimiter[] = {0, 0, 0, 1, 0x46};
constexpr std::uint8_t startOfImage[] = {0xFF, 0xD8, 0xFF};

std::vector<Bytes> cutIntoPictures(Bytes stream, Bytes beginning)
{
    std::vector<Bytes> pictures;
    auto begin = stream.begin();
    while (begin != stream.end()) {
        const auto end = std::search(begin + 1, stream.end(), beginning.begin(), beginning.end());
        pictures.emplace_back(begin, end);
        begin = end;
    }
    return pictures;
}

/// ITU-T G.711, the logarithm of a 14-bit sample in 8 segments of 16 steps.
std::uint8_t toMuLaw(int sample)
{
    constexpr int bias = 33;
    constexpr int largest = 8158;
    const int sign = sample < 0 ? 0x80 : 0;
    const int magnitude = std::min(std::abs(sample) / 4, largest) + bias;
    int segment = 0;
    while ((magnitude >> (segment + 6)) != 0)
        ++segment;
    const int step = (magnitude >> (segment + 1)) & 0x0F;
    return static_cast<std::uint8_t>(~(sign | (segment << 4) | step));
}
}  // namespace

const Clip& smallClip()
{
    static const Clip clip{MediaCodec::h264, 160, 120, 25, cutIntoPictures(smallClipBytes, h264Delimiter)};
    return clip;
}

const Clip& largeClip()
{
    static const Clip clip{MediaCodec::h264, 240, 180, 25, cutIntoPictures(largeClipBytes, h264Delimiter)};
    return clip;
}

const Clip& h265Clip()
{
    static const Clip clip{MediaCodec::h265, 128, 96, 5, cutIntoPictures(h265ClipBytes, h265Delimiter)};
    return clip;
}

const Clip& jpegClip()
{
    static const Clip clip{MediaCodec::mjpeg, 160, 120, 1, cutIntoPictures(jpegClipBytes, startOfImage)};
    return clip;
}

void FrameMemory::AddRef() const noexcept
{
    references.fetch_add(1, std::memory_order_relaxed);
}

void FrameMemory::Release() const noexcept
{
    if (references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        delete this;
}

std::vector<std::uint8_t> tone(std::uint64_t index)
{
    constexpr std::uint64_t rate = 8000;
    constexpr std::uint64_t count = rate * frameMs / 1000;
    std::vector<std::uint8_t> samples;
    for (std::uint64_t i = index * count; i < (index + 1) * count; ++i) {
        const double seconds = static_cast<double>(i) / static_cast<double>(rate);
        samples.push_back(toMuLaw(static_cast<int>(8000 * std::sin(2 * std::numbers::pi * 440 * seconds))));
    }
    return samples;
}
}  // namespace Sample

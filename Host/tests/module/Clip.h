#pragma once

#include <Tavro8/GDRV/MediaFrame.h>
#include <atomic>
#include <cstdint>
#include <span>
#include <vector>

namespace Sample
{
inline constexpr std::uint32_t framesPerSecond = 25;
inline constexpr std::uint32_t frameMs = 1000 / framesPerSecond;

/// A piece of test picture.
struct Clip {
    Tavro8::GDRV::MediaCodec codec;
    std::uint32_t width;
    std::uint32_t height;
    std::size_t keyFrameInterval;  ///< in pictures; the first is a key frame
    std::vector<std::span<const std::uint8_t>> pictures;
};

const Clip& smallClip();  ///< a second of H.264
const Clip& largeClip();  ///< likewise
const Clip& h265Clip();   ///< 0.4 s of H.265
const Clip& jpegClip();   ///< 0.2 s of MJPEG

/// The memory of one frame: copied in, and released with its last reference.
class FrameMemory final : public Tavro8::GDRV::IFrameBuffer {
public:
    static const FrameMemory* make(std::span<const std::uint8_t> bytes) { return new FrameMemory(bytes); }

    std::span<const std::uint8_t> bytes() const noexcept { return memory; }
    void AddRef() const noexcept override;
    void Release() const noexcept override;

private:
    explicit FrameMemory(std::span<const std::uint8_t> bytes) : memory(bytes.begin(), bytes.end()) {}
    ~FrameMemory() = default;

    const std::vector<std::uint8_t> memory;
    mutable std::atomic<unsigned> references{1};
};

/// A piece of a 440 Hz tone of `frameMs` in G.711 u-law at 8 kHz; the pieces of rising `index` join.
std::vector<std::uint8_t> tone(std::uint64_t index);
}  // namespace Sample

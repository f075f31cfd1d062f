#pragma once

#include <cstdint>
#include <span>
#include <utility>

namespace Tavro8::GDRV
{
/// What the payload of a frame is. The numbers are part of the binary contract.
enum class MediaCodec : std::uint32_t {
    unknown = 0,
    h264 = 1,    ///< Annex B byte stream, one access unit a frame
    h265 = 2,    ///< Annex B byte stream, one access unit a frame
    mjpeg = 3,   ///< one complete JPEG file a frame
    g711U = 16,  ///< G.711 u-law, one byte a sample
    g711A = 17,  ///< G.711 A-law, one byte a sample
    aac = 18,    ///< raw AAC access unit without ADTS; the AudioSpecificConfig is in `parameterSets`
    pcm16 = 19,  ///< signed 16-bit little-endian samples
};

constexpr bool isVideo(MediaCodec codec) noexcept
{
    return codec == MediaCodec::h264 || codec == MediaCodec::h265 || codec == MediaCodec::mjpeg;
}

/// The memory of one frame. Its bytes never change while anybody holds a reference.
///
/// Any thread may add or release references. The memory belongs to the driver's frame pool, so every
/// reference must be released before the host calls `finiModule`.
class IFrameBuffer {
public:
    virtual void AddRef() const noexcept = 0;   ///< slot 0
    virtual void Release() const noexcept = 0;  ///< slot 1

protected:
    ~IFrameBuffer() = default;
};

/// One frame of live or recorded media, as handed to `IMediaFrameHandler::OnFrame`.
///
/// A plain view: it is valid during the call. To keep it longer make a `FrameReference` of it.
struct MediaFrame {
    MediaCodec codec = MediaCodec::unknown;
    bool keyFrame = false;           ///< decoding can start here; true for all sound and every whole MJPEG frame
    bool lostPacketsBefore = false;  ///< packets are missing between the previous frame and this one
    bool damaged = false;            ///< packets are missing inside this frame

    /// Capture time in UTC milliseconds since the Unix epoch: from the RTCP sender report when the device
    /// sends one (RFC 3550 section 6.4.1), else the arrival time. Never runs backwards within a stream.
    std::int64_t timestampMs = 0;

    std::uint32_t durationMs =
        0;  ///< time since the previous video frame, 0 when unknown; audio: length of the samples
    std::uint32_t sampleCount = 0;   ///< audio: samples per channel in this frame; video: 0
    std::uint32_t sampleRate = 0;    ///< audio: samples a second; video: 0
    std::uint32_t channelCount = 0;  ///< audio channels; video: 0
    std::uint32_t width = 0;         ///< video: picture size in pixels as the parameter sets say, 0 when unknown
    std::uint32_t height = 0;

    std::span<const std::uint8_t> data;  ///< the payload; its memory is `buffer`'s

    /// The decoder parameters, given only in the frame in which they first appear or change, else empty.
    /// H.264 and H.265: the parameter sets as Annex B, a part of `data`. AAC: the AudioSpecificConfig.
    std::span<const std::uint8_t> parameterSets;

    const IFrameBuffer* buffer = nullptr;  ///< owner of the memory behind the spans; may be null for tests
};

/// Keeps a frame alive after the call that delivered it. Copies share the frame.
class FrameReference {
public:
    FrameReference() noexcept = default;
    explicit FrameReference(const MediaFrame& source) noexcept : frame(source)
    {
        if (frame.buffer != nullptr)
            frame.buffer->AddRef();
    }
    FrameReference(const FrameReference& other) noexcept : FrameReference(other.frame) {}
    FrameReference(FrameReference&& other) noexcept : frame(std::exchange(other.frame, MediaFrame{})) {}
    FrameReference& operator=(FrameReference other) noexcept
    {
        std::swap(frame, other.frame);
        return *this;
    }
    ~FrameReference()
    {
        if (frame.buffer != nullptr)
            frame.buffer->Release();
    }

    const MediaFrame& operator*() const noexcept { return frame; }
    const MediaFrame* operator->() const noexcept { return &frame; }
    explicit operator bool() const noexcept { return frame.buffer != nullptr; }

private:
    MediaFrame frame;
};
}  // namespace Tavro8::GDRV

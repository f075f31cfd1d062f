#pragma once

#include "FrameStamp.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace kelvo::bench
{
/// What tells one stream's packets from another's.
struct LoadTrack {
    std::uint32_t stream = 0;
    std::uint32_t ssrc = 0;
    std::uint16_t sequence = 0;     ///< of the next packet
    std::uint32_t timestamp = 0;    ///< of the next frame, 90 kHz
    std::uint8_t channel = 0;       ///< interleaved channel
    bool interleaved = true;        ///< whether the four bytes of the '$' header travel too
    std::uint32_t frame = 0;        ///< the next one
    std::uint64_t wireBytes = 0;    ///< sent so far
    std::uint64_t wirePackets = 0;  ///< sent so far
};

/// One group of pictures as RTP packets in interleaved frames, one behind the other: H.264 in 1080p at 25 pictures a
/// second and 4 Mbit/s, a key frame every two seconds, packets of 1400 bytes. Parameter sets are real, slices begin
/// with real headers, the rest of them is noise.
///
/// The packets are made those of a stream right before they are sent, so one recording serves all streams.
class LoadRecording {
public:
    static constexpr std::uint32_t framesPerGroup = 50;
    static constexpr std::uint32_t ticksPerFrame = 3600;
    static constexpr std::chrono::nanoseconds frameInterval{40'000'000};

    LoadRecording();

    static constexpr bool isKey(std::size_t frame) noexcept { return frame == 0; }
    std::size_t packetCount(std::size_t frame) const noexcept { return frames[frame].packets; }
    /// Length of the frame as Annex B, each NAL unit behind a start code of four bytes.
    std::size_t elementBytes(std::size_t frame) const noexcept { return frames[frame].elementBytes; }
    /// All packets of a frame, with their '$' headers.
    std::span<const std::uint8_t> frameBytes(std::size_t frame) const noexcept;
    /// One packet of a frame, with its '$' header.
    std::span<const std::uint8_t> packet(std::size_t frame, std::size_t index) const noexcept;
    std::span<const std::uint8_t> allBytes() const noexcept { return bytes; }
    /// Where the packet that holds the byte at `position` ends.
    std::size_t packetEnd(std::size_t position) const noexcept;

    /// Makes packet `index` of `frame` the next packet of the track.
    void address(std::size_t frame, std::size_t index, LoadTrack& track) noexcept;
    /// To be called when all packets of the frame have been addressed and the last is about to be sent.
    void finish(std::size_t frame, std::uint64_t sentNs, LoadTrack& track) noexcept;

    /// The session description of a stream (RFC 4566, RFC 6184 section 8.2).
    static std::string describe();

private:
    struct Frame {
        std::size_t firstPacket = 0;
        std::size_t packets = 0;
        std::size_t elementBytes = 0;
    };

    void addFrame(bool key, std::size_t sliceBytes);
    void addFragments(const std::vector<std::uint8_t>& nal);
    void addPacket(std::span<const std::uint8_t> payload, bool marker);

    std::vector<std::uint8_t> bytes;
    std::vector<std::size_t> offsets;  // of the packets, and where the last one ends
    std::vector<Frame> frames;
    std::uint32_t noise = 1;
};
}  // namespace kelvo::bench

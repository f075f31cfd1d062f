#pragma once

#include "media/Depacketiser.h"
#include "media/FrameBuilder.h"
#include "media/Jpeg.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Tavro8::media
{
/// JPEG pictures out of RTP packets (RFC 2435): each frame is a complete file.
///
/// - A frame ends with the marker bit, with the next timestamp, or where a picture begins anew: the second field of
///   interlaced video becomes a frame of its own.
/// - Quantisation tables come with the first packet of a picture, from an earlier picture of the same Q, or from Q
/// alone.
/// - A picture with a side over 2040 pixels has no place for it in the packets' headers. Devices then send a marker
///   segment with the size in an RTP header extension, name it in the session description, or both.
/// - Every picture stands alone: what is lost costs the picture it belongs to and no other.
class JpegDepacketiser final : public Depacketiser {
public:
    JpegDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& accessUnitSink,
                     const DepacketiserOptions& depacketiserOptions);

    void push(const RtpPacket& packet, bool lostBefore) override;
    void flush() override;
    void reset() override;

private:
    /// What the headers of all packets of a picture have in common.
    struct Layout {
        std::uint8_t type = 0;
        std::uint8_t q = 0;
        std::uint8_t width = 0;  // in units of eight pixels
        std::uint8_t height = 0;
        std::uint16_t restartInterval = 0;
        bool operator==(const Layout&) const = default;
    };

    struct Fragment {
        std::uint32_t offset = 0;  // of the data in the scan
        Layout layout;
        std::span<const std::uint8_t> behind;  // tables in the first packet of a picture, then data
    };

    struct Frame {
        bool open = false;
        std::uint32_t timestamp = 0;
        bool lostBefore = false;  // packets are missing in front
        bool begun = false;       // has its header
        bool damaged = false;
        bool oversized = false;
        Layout layout;
        std::size_t scanBytes = 0;
        PictureSize size;
    };

    /// The tables of a Q from 128 on.
    struct KnownTables {
        std::uint8_t q = 0;
        jpeg::QuantisationTables tables;
    };

    static std::optional<Fragment> readFragment(std::span<const std::uint8_t> payload) noexcept;
    void noteLoss() noexcept;
    void open(std::uint32_t timestamp) noexcept;
    void take(Fragment fragment, const RtpPacket& packet);
    void refuse() noexcept;
    bool beginPicture(Fragment& fragment, const RtpPacket& packet);
    const jpeg::QuantisationTables* tablesFor(Fragment& fragment);
    const jpeg::QuantisationTables* knownTables(std::uint8_t q) const noexcept;
    void addData(const Fragment& fragment);
    void append(std::span<const std::uint8_t> bytes);
    PictureSize sizeOf(const Layout& layout) const noexcept;
    void endFrame();
    void handOut();

    DepacketiserOptions options;
    AccessUnitSink& sink;
    PictureSize describedSize;
    FrameBuilder builder;
    FrameSizeGuess expectedSize;
    Frame frame;
    std::vector<KnownTables> cache;   // by Q, 128 to 254: at most 127
    jpeg::QuantisationTables scaled;  // of the last Q below 128
    std::uint8_t scaledQ = 0;
    jpeg::QuantisationTables ownTables;  // of a picture with Q 255
    std::vector<std::uint8_t> header;    // keeps its capacity

    bool markersSeen = false;     // the device marks the ends of pictures
    bool resynchronising = true;  // pictures without a beginning are no surprise
    bool lostBeforeNext = false;  // packets are missing before the next frame
    bool lossToTell = false;      // since the last frame handed out
    bool followsOthers = false;   // the next frame is not the stream's first
};
}  // namespace Tavro8::media

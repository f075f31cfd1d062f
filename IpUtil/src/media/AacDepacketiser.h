#pragma once

#include "media/AudioSpecificConfig.h"
#include "media/BitReader.h"
#include "media/Depacketiser.h"
#include "media/FrameBuilder.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Tavro8::media
{
/// RFC 3640 sets no limit. This one is seconds of sound, far beyond what a device holds back; without one a packet
/// could be tens of thousands of frames of a byte each.
inline constexpr std::size_t maxUnitsPerPacket = 128;

/// How `mpeg4-generic` packets are laid out (RFC 3640 section 4.1): widths of the fields of an access unit's header in
/// bits, 0 for fields that are not there.
struct AacPacking {
    std::uint32_t sizeLength = 0;
    std::uint32_t indexLength = 0;
    std::uint32_t indexDeltaLength = 0;
    std::uint32_t ctsDeltaLength = 0;
    std::uint32_t dtsDeltaLength = 0;
    std::uint32_t streamStateLength = 0;
    std::uint32_t auxiliarySizeLength = 0;
    bool randomAccessFlag = false;
    std::uint32_t constantSize = 0;  ///< bytes of each access unit when their headers do not tell
    const char* refusal = nullptr;   ///< why packets of this kind cannot be read

    bool hasHeaders() const noexcept
    {
        return (sizeLength | indexLength | indexDeltaLength | ctsDeltaLength | dtsDeltaLength | streamStateLength) !=
                   0 ||
               randomAccessFlag;
    }
};
AacPacking readAacPacking(const TrackFormat& format);

/// AAC in `mpeg4-generic` packets (RFC 3640): each access unit is a frame, without ADTS header.
///
/// A packet holds several access units, each a fixed time after the one before, or a fragment of one. What a decoder
/// has to know stands in the description, or is made of the track's rate and channels when it is missing there.
class AacDepacketiser final : public Depacketiser {
public:
    AacDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& accessUnitSink,
                    const DepacketiserOptions& depacketiserOptions);

    void push(const RtpPacket& packet, bool lostBefore) override;
    void flush() override;
    void reset() override;

private:
    void takePacket(const RtpPacket& packet);
    void takeUnits(std::span<const std::uint8_t> headers, std::size_t headerBits, std::span<const std::uint8_t> data);
    void takeUnitsOfConstantSize(std::span<const std::uint8_t> data);
    void takeUnsized(std::span<const std::uint8_t> data, bool marker);
    void takeUnit(std::span<const std::uint8_t> unit, std::uint32_t number);
    void takeFragment(std::size_t bytes, std::span<const std::uint8_t> data);
    void breakOff() noexcept;
    void refuse() noexcept;
    void handOut(std::uint32_t unitTimestamp);

    AacPacking packing;
    std::vector<std::uint8_t> config;  // AudioSpecificConfig
    AacConfig decoded;
    std::uint32_t ticksPerUnit;
    std::size_t maxUnitBytes;
    AccessUnitSink& sink;
    FrameBuilder builder;         // between packets: an access unit of which fragments have come
    std::size_t unitBytes = 0;    // what it will have, 0 when nothing tells
    std::uint32_t timestamp = 0;  // of the last packet
    bool started = false;         // has seen a packet
    bool startUncertain = true;   // packets missing may be fragments of the same access unit
    bool configTold = false;
    bool lossToTell = false;     // since the last frame handed out
    bool followsOthers = false;  // the next frame is not the stream's first
};
}  // namespace Tavro8::media

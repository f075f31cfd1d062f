#pragma once

#include "Tavro8/GDRV/MediaFrame.h"
#include "media/NalUnit.h"
#include "wire/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace Tavro8::media
{
struct TrackFormat;

/// H.264: its RTP payload format (RFC 6184) and what is read of its syntax (ITU-T H.264 section 7.3).
struct H264 {
    static constexpr GDRV::MediaCodec codec = GDRV::MediaCodec::h264;
    static constexpr bool hasVideoSets = false;
    static constexpr std::size_t headerBytes = 1;

    /// `nal` has at least its header.
    static NalRole roleOf(std::span<const std::uint8_t> nal) noexcept;

    /// Nothing when not even its ids can be read. A size of 0 when only the rest is unknown.
    static std::optional<ParameterSetInfo> readParameterSet(NalRole role, std::span<const std::uint8_t> nal) noexcept;

    /// The first bytes of a slice are enough.
    static SliceStart readSliceStart(std::span<const std::uint8_t> nal) noexcept;

    /// Nothing has to be known from packet to packet.
    struct PacketState {
        explicit PacketState(const TrackFormat&) noexcept {}
        void restart() noexcept {}
    };

    /// Cuts a payload into NAL units and fragments: `addNal(nal)`,
    /// `addFragment(isFirst, isLast, nalHeader, body)`. When it breaks the format, what came before the
    /// break has been handed over.
    ///
    /// Single NAL units, STAP-A and FU-A. The interleaved forms (STAP-B, MTAP, FU-B) belong to
    /// packetization-mode 2, which is never agreed on.
    ///
    ///     NAL header  |F|NRI|  Type   |      FU header  |S|E|R|  Type   |
    template <typename Handler>
    static SplitResult split(std::span<const std::uint8_t> payload, PacketState&, Handler& handler)
    {
        if (payload.empty())
            return SplitResult::whole;
        const unsigned header = payload[0];
        const unsigned type = header & 0x1fU;
        if ((header & forbiddenBit) != 0)
            return SplitResult::broken;
        if (type == fuA) {
            if (payload.size() < 3)
                return SplitResult::broken;
            const unsigned fu = payload[1];
            const std::uint8_t nalHeader[] = {static_cast<std::uint8_t>((header & 0x60U) | (fu & 0x1fU))};
            if (!isNalType(fu & 0x1fU))
                return SplitResult::broken;
            handler.addFragment((fu & 0x80U) != 0, (fu & 0x40U) != 0, std::span(nalHeader), payload.subspan(2));
            return SplitResult::whole;
        }
        if (type == stapA)
            return splitAggregate(payload.subspan(1), handler);
        if (!isNalType(type))
            return isInterleaved(type) ? SplitResult::broken : SplitResult::unknown;
        handler.addNal(payload);
        return SplitResult::whole;
    }

private:
    static constexpr unsigned forbiddenBit = 0x80;
    static constexpr unsigned stapA = 24;
    static constexpr unsigned fuA = 28;

    static constexpr bool isNalType(unsigned type) noexcept { return type >= 1 && type <= 23; }

    /// STAP-B, MTAP16, MTAP24, FU-B.
    static constexpr bool isInterleaved(unsigned type) noexcept { return type >= 25 && type <= 29; }

    template <typename Handler>
    static SplitResult splitAggregate(std::span<const std::uint8_t> rest, Handler& handler)
    {
        if (rest.empty())
            return SplitResult::broken;
        while (!rest.empty()) {
            if (rest.size() < 3)
                return SplitResult::broken;
            const std::size_t bytes = wire::readBe16(rest.data());
            if (bytes == 0 || bytes > rest.size() - 2)
                return SplitResult::broken;
            const auto nal = rest.subspan(2, bytes);
            if ((nal[0] & forbiddenBit) != 0 || !isNalType(nal[0] & 0x1fU))
                return SplitResult::broken;
            handler.addNal(nal);
            rest = rest.subspan(2 + bytes);
        }
        return SplitResult::whole;
    }
};
}  // namespace Tavro8::media

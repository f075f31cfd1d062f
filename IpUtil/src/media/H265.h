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
/// H.265: its RTP payload format (RFC 7798) and what is read of its syntax (ITU-T H.265 section 7.3).
/// Only the base layer is of interest; NAL units of others are ignored.
struct H265 {
    static constexpr GDRV::MediaCodec codec = GDRV::MediaCodec::h265;
    static constexpr bool hasVideoSets = true;
    static constexpr std::size_t headerBytes = 2;

    /// `nal` has at least its header.
    static NalRole roleOf(std::span<const std::uint8_t> nal) noexcept;

    /// Nothing when not even its ids can be read. A size of 0 when only the rest is unknown.
    static std::optional<ParameterSetInfo> readParameterSet(NalRole role, std::span<const std::uint8_t> nal) noexcept;

    /// The first bytes of a slice segment are enough.
    static SliceStart readSliceStart(std::span<const std::uint8_t> nal) noexcept;

    /// Cuts a payload into NAL units and fragments: `addNal(nal)`,
    /// `addFragment(isFirst, isLast, nalHeader, body)`. When it breaks the format, what came before the
    /// break has been handed over.
    ///
    /// Single NAL units, aggregation packets and fragmentation units, without decoding order numbers.
    ///
    ///     NAL header  |F|   Type    |  LayerId  | TID |      FU header  |S|E|  FuType   |
    template <typename Handler>
    static SplitResult split(std::span<const std::uint8_t> payload, Handler& handler)
    {
        if (payload.empty())
            return SplitResult::whole;
        if (!isHeader(payload))
            return SplitResult::broken;
        const unsigned type = typeOf(payload[0]);
        if (type == fragmentation) {
            if (payload.size() < 4)
                return SplitResult::broken;
            const unsigned fu = payload[2];
            if ((fu & 0x3fU) >= aggregation)
                return SplitResult::broken;
            const std::uint8_t nalHeader[] = {static_cast<std::uint8_t>((payload[0] & 0x01U) | ((fu & 0x3fU) << 1)),
                                              payload[1]};
            handler.addFragment((fu & 0x80U) != 0, (fu & 0x40U) != 0, std::span(nalHeader), payload.subspan(3));
            return SplitResult::whole;
        }
        if (type == aggregation)
            return splitAggregate(payload.subspan(headerBytes), handler);
        if (type > aggregation)
            return type == contentInformation ? SplitResult::broken : SplitResult::unknown;
        handler.addNal(payload);
        return SplitResult::whole;
    }

private:
    static constexpr unsigned aggregation = 48;
    static constexpr unsigned fragmentation = 49;
    static constexpr unsigned contentInformation = 50;  // PACI, which nobody asks for

    static constexpr unsigned typeOf(std::uint8_t header) noexcept { return (header >> 1) & 0x3fU; }

    /// Forbidden bit clear, and a temporal id, which is sent plus one.
    static constexpr bool isHeader(std::span<const std::uint8_t> bytes) noexcept
    {
        return bytes.size() >= headerBytes && (bytes[0] & 0x80U) == 0 && (bytes[1] & 0x07U) != 0;
    }

    template <typename Handler>
    static SplitResult splitAggregate(std::span<const std::uint8_t> rest, Handler& handler)
    {
        if (rest.empty())
            return SplitResult::broken;
        while (!rest.empty()) {
            if (rest.size() < 2)
                return SplitResult::broken;
            const std::size_t bytes = wire::readBe16(rest.data());
            if (bytes > rest.size() - 2)
                return SplitResult::broken;
            const auto nal = rest.subspan(2, bytes);
            if (!isHeader(nal) || typeOf(nal[0]) >= aggregation)
                return SplitResult::broken;
            handler.addNal(nal);
            rest = rest.subspan(2 + bytes);
        }
        return SplitResult::whole;
    }
};
}  // namespace Tavro8::media

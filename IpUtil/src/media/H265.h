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

    /// Decoding order numbers, which packets carry where `sprop-max-don-diff` says so. Units are expected in their
    /// order: nobody sends otherwise, and a unit out of order counts as a break of the format.
    struct PacketState {
        explicit PacketState(const TrackFormat& format);
        bool follows(std::uint16_t number) noexcept;
        void restart() noexcept { anyNumber = false; }

        bool hasNumbers;
        bool anyNumber = false;
        std::uint16_t lastNumber = 0;
    };

    /// Cuts a payload into NAL units and fragments: `addNal(nal)`,
    /// `addFragment(isFirst, isLast, nalHeader, body)`. When it breaks the format, what came before the
    /// break has been handed over.
    ///
    /// Single NAL units, aggregation packets and fragmentation units. Decoding order numbers stand behind the payload
    /// header, in an aggregation packet behind the first with eight bits of difference for each further unit, in a
    /// fragmentation unit behind the FU header of the first fragment.
    ///
    ///     NAL header  |F|   Type    |  LayerId  | TID |      FU header  |S|E|  FuType   |
    template <typename Handler>
    static SplitResult split(std::span<const std::uint8_t> payload, PacketState& state, Handler& handler)
    {
        if (payload.empty())
            return SplitResult::whole;
        if (!isHeader(payload))
            return SplitResult::broken;
        const unsigned type = typeOf(payload[0]);
        if (type == fragmentation)
            return splitFragment(payload, state, handler);
        if (type == aggregation)
            return splitAggregate(payload.subspan(headerBytes), state, handler);
        if (type > aggregation)
            return type == contentInformation ? SplitResult::broken : SplitResult::unknown;
        if (!state.hasNumbers) {
            handler.addNal(payload);
            return SplitResult::whole;
        }
        if (payload.size() <= headerBytes + numberBytes || !state.follows(wire::readBe16(&payload[headerBytes])))
            return SplitResult::broken;
        // The number stands inside the unit: handed over in one fragment, which needs no second copy.
        handler.addFragment(true, true, payload.first(headerBytes), payload.subspan(headerBytes + numberBytes));
        return SplitResult::whole;
    }

private:
    static constexpr std::size_t numberBytes = 2;  // of a decoding order number
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
    static SplitResult splitFragment(std::span<const std::uint8_t> payload, PacketState& state, Handler& handler)
    {
        if (payload.size() < 4)
            return SplitResult::broken;
        const unsigned fu = payload[2];
        const bool first = (fu & 0x80U) != 0;
        if ((fu & 0x3fU) >= aggregation)
            return SplitResult::broken;
        auto body = payload.subspan(3);
        if (first && state.hasNumbers) {
            if (body.size() <= numberBytes || !state.follows(wire::readBe16(body.data())))
                return SplitResult::broken;
            body = body.subspan(numberBytes);
        }
        const std::uint8_t nalHeader[] = {static_cast<std::uint8_t>((payload[0] & 0x01U) | ((fu & 0x3fU) << 1)),
                                          payload[1]};
        handler.addFragment(first, (fu & 0x40U) != 0, std::span(nalHeader), body);
        return SplitResult::whole;
    }

    template <typename Handler>
    static SplitResult splitAggregate(std::span<const std::uint8_t> rest, PacketState& state, Handler& handler)
    {
        if (rest.empty())
            return SplitResult::broken;
        bool first = true;
        while (!rest.empty()) {
            if (state.hasNumbers) {
                const std::size_t bytes = first ? numberBytes : 1;
                if (rest.size() < bytes)
                    return SplitResult::broken;
                const auto number =
                    static_cast<std::uint16_t>(first ? wire::readBe16(rest.data()) : state.lastNumber + rest[0] + 1U);
                if (!state.follows(number))
                    return SplitResult::broken;
                rest = rest.subspan(bytes);
            }
            first = false;
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

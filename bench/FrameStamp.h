#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

namespace kelvo::bench
{
/// What the load source writes into the last bytes of every frame, so that a receiver can tell how long the frame
/// took to reach it and whether one is missing.
///
/// Each half byte travels as 0x40 to 0x4f behind a mark of letters: no byte is 0, so nothing in it can pass for a
/// start code or need an escape.
struct FrameStamp {
    std::uint32_t stream = 0;       ///< counted from 0 within the source
    std::uint32_t frame = 0;        ///< counted from 0 within the stream
    std::uint64_t sentNs = 0;       ///< monotonic clock just before the last packet was handed to the system
    std::uint64_t wireBytes = 0;    ///< of the stream up to and with this frame, RTP (and '$') headers included
    std::uint64_t wirePackets = 0;  ///< RTP packets, likewise

    static constexpr std::string_view mark = "KelvoLoad";
    static constexpr std::size_t encodedBytes = mark.size() + 2 * (4 + 4 + 8 + 8 + 8);

    void encode(std::uint8_t* out) const noexcept
    {
        std::memcpy(out, mark.data(), mark.size());
        out += mark.size();
        out = put(out, stream, 8);
        out = put(out, frame, 8);
        out = put(out, sentNs, 16);
        out = put(out, wireBytes, 16);
        put(out, wirePackets, 16);
    }

    /// Of the last bytes of a frame; nothing when they are no stamp.
    static std::optional<FrameStamp> decode(std::span<const std::uint8_t> frameBytes) noexcept
    {
        if (frameBytes.size() < encodedBytes)
            return std::nullopt;
        const std::uint8_t* at = frameBytes.data() + frameBytes.size() - encodedBytes;
        if (std::memcmp(at, mark.data(), mark.size()) != 0)
            return std::nullopt;
        at += mark.size();
        FrameStamp stamp;
        stamp.stream = static_cast<std::uint32_t>(take(at, 8));
        stamp.frame = static_cast<std::uint32_t>(take(at, 8));
        stamp.sentNs = take(at, 16);
        stamp.wireBytes = take(at, 16);
        stamp.wirePackets = take(at, 16);
        return stamp;
    }

private:
    static std::uint8_t* put(std::uint8_t* out, std::uint64_t value, unsigned digits) noexcept
    {
        for (unsigned i = digits; i-- > 0;)
            *out++ = static_cast<std::uint8_t>(0x40U | ((value >> (4 * i)) & 0xfU));
        return out;
    }
    static std::uint64_t take(const std::uint8_t*& at, unsigned digits) noexcept
    {
        std::uint64_t value = 0;
        for (unsigned i = 0; i < digits; ++i)
            value = value << 4U | (*at++ & 0xfU);
        return value;
    }
};

/// The clock of the stamps; the same for all processes of a machine.
inline std::uint64_t monotonicNs() noexcept
{
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}
}  // namespace kelvo::bench

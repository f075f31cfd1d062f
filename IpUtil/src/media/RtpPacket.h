#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace Tavro8::media
{
/// One RTP packet, as views into the caller's receive buffer: valid only as long as that buffer's content.
struct RtpPacket {
    bool marker = false;
    std::uint8_t payloadType = 0;
    std::uint16_t sequenceNumber = 0;
    std::uint32_t timestamp = 0;  ///< in units of the track's clock rate
    std::uint32_t ssrc = 0;
    std::span<const std::uint8_t> contributors;  ///< CSRC list, four bytes each
    std::uint16_t extensionProfile = 0;          ///< 16 bits "defined by profile"; 0 without an extension
    std::span<const std::uint8_t> extension;     ///< header extension without its own four-byte header
    std::span<const std::uint8_t> payload;       ///< without padding
};

/// Why bytes are no RTP packet.
enum class RtpFault : std::uint8_t {
    none,
    tooShort,            ///< less than the fixed header
    badVersion,          ///< version is not 2
    contributorsCutOff,  ///< the CSRC count reaches beyond the end
    extensionCutOff,     ///< the header extension reaches beyond the end
    badPadding,          ///< the padding count is zero or reaches into the header
};

/// A text for logs; never null.
const char* describe(RtpFault fault) noexcept;

/// Splits one RTP packet (RFC 3550 section 5.1) into `packet`. `packet` is unspecified after a fault.
///
///      0                   1                   2                   3
///      0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
///     +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
///     |V=2|P|X|  CC   |M|     PT      |       sequence number         |
///     |                           timestamp                           |
///     |                             SSRC                              |
///     |                   CC contributing sources                     |
///     |      X: defined by profile    |      X: length in words       |
///     |                   payload ...       | P: padding, count last  |
RtpFault parseRtpPacket(std::span<const std::uint8_t> bytes, RtpPacket& packet) noexcept;
}  // namespace Tavro8::media

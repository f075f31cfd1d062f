#pragma once

#include "wire/Bytes.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// RTCP packets (RFC 3550 section 6).
namespace Tavro8::wire
{
/// What a receiver says of one source (section 6.4.1).
struct RtcpReportBlock {
    std::uint32_t ssrc = 0;                        ///< the source reported on
    std::uint8_t fractionLost = 0;                 ///< since the last report, in 1/256
    std::int32_t cumulativeLost = 0;               ///< since the beginning, 24 bits signed; clamped when written
    std::uint32_t highestSequence = 0;             ///< extended by the count of cycles in the upper half
    std::uint32_t jitter = 0;                      ///< in RTP timestamp units
    std::uint32_t lastSenderReport = 0;            ///< middle 32 bits of its NTP time, 0 when none came yet
    std::uint32_t delaySinceLastSenderReport = 0;  ///< in 1/65536 s
};

struct RtcpSenderReport {
    std::uint32_t ssrc = 0;
    std::uint64_t ntpTime = 0;  ///< 32.32 fixed point, see `ntpToUnixMs`
    std::uint32_t rtpTimestamp = 0;
    std::uint32_t packetCount = 0;
    std::uint32_t octetCount = 0;
    std::vector<RtcpReportBlock> blocks;
};

struct RtcpReceiverReport {
    std::uint32_t ssrc = 0;
    std::vector<RtcpReportBlock> blocks;
};

struct RtcpSourceName {
    std::uint32_t ssrc = 0;
    std::string cname;
};

struct RtcpBye {
    std::vector<std::uint32_t> ssrcs;
    std::string reason;
};

/// All that one compound packet holds. APP and unknown packet types are passed over.
struct RtcpCompound {
    std::vector<RtcpSenderReport> senderReports;
    std::vector<RtcpReceiverReport> receiverReports;
    std::vector<RtcpSourceName> names;
    std::vector<RtcpBye> byes;
    bool complete = true;        ///< false: the input broke off or broke a rule; what came before it is here
    const char* rule = nullptr;  ///< which rule, when not complete
};
RtcpCompound parseRtcp(ByteView packet);

/// Whether a packet that came where RTP is expected is RTCP (RFC 5761 section 4): its type, 192 to 223, stands where
/// RTP has the marker and the payload type, which would be 64 to 95 and marked.
constexpr bool looksLikeRtcp(ByteView packet) noexcept
{
    return packet.size() >= 4 && (packet[0] & 0xC0) == 0x80 && packet[1] >= 192 && packet[1] <= 223;
}

/// Appends a receiver report of at most 31 blocks.
void appendReceiverReport(Bytes& to, std::uint32_t ssrc, std::span<const RtcpReportBlock> blocks);
/// Appends an SDES packet with one CNAME of at most 255 bytes.
void appendSourceName(Bytes& to, std::uint32_t ssrc, std::string_view cname);
/// Appends a BYE packet, with a reason of at most 255 bytes when there is one.
void appendBye(Bytes& to, std::uint32_t ssrc, std::string_view reason = {});

/// Milliseconds since 1970 of an NTP time. Times before 1968 are of the next era, from 2036 on (RFC 5905
/// section 6); a device without a set clock may send such values, which the caller judges.
std::int64_t ntpToUnixMs(std::uint64_t ntpTime) noexcept;
std::uint64_t unixMsToNtp(std::int64_t unixMs) noexcept;
/// The form in which `RtcpReportBlock::lastSenderReport` refers to a sender report.
constexpr std::uint32_t ntpMiddle(std::uint64_t ntpTime) noexcept
{
    return static_cast<std::uint32_t>(ntpTime >> 16);
}
}  // namespace Tavro8::wire

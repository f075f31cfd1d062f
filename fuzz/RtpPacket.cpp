#include "FuzzTarget.h"

#include "media/RtpPacket.h"

namespace Tavro8::fuzz
{
namespace
{
using media::RtpFault;

bool isInside(ByteView part, ByteView whole)
{
    return part.empty() || (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

/// The packet as its parts say it was, without padding.
Bytes rebuild(const media::RtpPacket& packet, ByteView original)
{
    const bool extended = (original[0] & 0x10U) != 0;
    Bytes bytes{static_cast<std::uint8_t>(0x80U | (extended ? 0x10U : 0U) | packet.contributors.size() / 4),
                static_cast<std::uint8_t>((packet.marker ? 0x80U : 0U) | packet.payloadType)};
    const auto append16 = [&bytes](std::size_t value) {
        bytes.push_back(static_cast<std::uint8_t>(value >> 8));
        bytes.push_back(static_cast<std::uint8_t>(value));
    };
    const auto append = [&bytes](ByteView part) { bytes.insert(bytes.end(), part.begin(), part.end()); };
    append16(packet.sequenceNumber);
    append16(packet.timestamp >> 16);
    append16(packet.timestamp);
    append16(packet.ssrc >> 16);
    append16(packet.ssrc);
    append(packet.contributors);
    if (extended) {
        append16(packet.extensionProfile);
        append16(packet.extension.size() / 4);
        append(packet.extension);
    }
    append(packet.payload);
    return bytes;
}

/// One RTP packet.
///
/// Promises: all parts lie in the packet; put together again they are the packet without its padding; each fault has
/// a text.
void feed(ByteView input)
{
    const Bytes bytes(input.begin(), input.end());
    media::RtpPacket packet;
    const RtpFault fault = media::parseRtpPacket(bytes, packet);
    require(media::describe(fault) != nullptr, "each fault has a text");
    if (fault != RtpFault::none)
        return;
    require(isInside(packet.contributors, bytes) && isInside(packet.extension, bytes) &&
                isInside(packet.payload, bytes),
            "all parts lie in the packet");
    const Bytes again = rebuild(packet, bytes);
    const bool padded = (bytes[0] & 0x20U) != 0;
    require(again.size() + (padded ? bytes.back() : 0U) == bytes.size(), "the parts and the padding are the packet");
    for (std::size_t i = 1; i < again.size(); ++i)
        require(again[i] == bytes[i], "the parts are the packet's");
    require((again[0] | 0x20U) == (bytes[0] | 0x20U), "the parts are the packet's");
}

const Target rtpPacket("rtp_packet", feed);
}  // namespace
}  // namespace Tavro8::fuzz

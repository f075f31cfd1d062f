#include "media/RtpPacket.h"

#include "wire/Bytes.h"

namespace Tavro8::media
{
namespace
{
constexpr std::size_t fixedHeaderBytes = 12;
constexpr std::size_t extensionHeaderBytes = 4;
}  // namespace

const char* describe(RtpFault fault) noexcept
{
    switch (fault) {
    case RtpFault::none:
        return "against the payload format";
    case RtpFault::tooShort:
        return "shorter than an RTP header";
    case RtpFault::badVersion:
        return "RTP version is not 2";
    case RtpFault::contributorsCutOff:
        return "RTP contributing sources are cut off";
    case RtpFault::extensionCutOff:
        return "RTP header extension is cut off";
    case RtpFault::badPadding:
        return "RTP padding does not fit the packet";
    }
    return "unknown RTP fault";
}

RtpFault parseRtpPacket(std::span<const std::uint8_t> bytes, RtpPacket& packet) noexcept
{
    if (bytes.size() < fixedHeaderBytes)
        return RtpFault::tooShort;
    const std::uint8_t* const head = bytes.data();
    if (head[0] >> 6 != 2)
        return RtpFault::badVersion;
    packet.marker = (head[1] & 0x80) != 0;
    packet.payloadType = head[1] & 0x7f;
    packet.sequenceNumber = wire::readBe16(head + 2);
    packet.timestamp = wire::readBe32(head + 4);
    packet.ssrc = wire::readBe32(head + 8);
    auto rest = bytes.subspan(fixedHeaderBytes);

    const std::size_t contributorBytes = (head[0] & 0x0fU) * 4U;
    if (contributorBytes > rest.size())
        return RtpFault::contributorsCutOff;
    packet.contributors = rest.first(contributorBytes);
    rest = rest.subspan(contributorBytes);

    packet.extensionProfile = 0;
    packet.extension = {};
    if ((head[0] & 0x10) != 0) {
        if (rest.size() < extensionHeaderBytes)
            return RtpFault::extensionCutOff;
        const std::size_t extensionBytes = std::size_t{wire::readBe16(rest.data() + 2)} * 4;
        if (extensionBytes > rest.size() - extensionHeaderBytes)
            return RtpFault::extensionCutOff;
        packet.extensionProfile = wire::readBe16(rest.data());
        packet.extension = rest.subspan(extensionHeaderBytes, extensionBytes);
        rest = rest.subspan(extensionHeaderBytes + extensionBytes);
    }

    if ((head[0] & 0x20) != 0) {
        if (rest.empty() || rest.back() == 0 || rest.back() > rest.size())
            return RtpFault::badPadding;
        rest = rest.first(rest.size() - rest.back());
    }
    packet.payload = rest;
    return RtpFault::none;
}
}  // namespace Tavro8::media

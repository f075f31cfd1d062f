#include "wire/Rtcp.h"

#include <algorithm>
#include <limits>

namespace Tavro8::wire
{
namespace
{
enum PacketType : std::uint8_t { senderReport = 200, receiverReport = 201, sourceDescription = 202, bye = 203 };

constexpr std::uint8_t version2 = 0x80;
constexpr std::uint8_t paddingBit = 0x20;
constexpr std::uint8_t countMask = 0x1f;
constexpr std::size_t maxBlocks = countMask;
constexpr std::size_t maxTextBytes = 255;
constexpr std::uint8_t cnameItem = 1;
constexpr std::int32_t maxCumulativeLost = 0x7fffff;
constexpr std::int32_t minCumulativeLost = -0x800000;

constexpr std::int64_t unixEpochInNtpSeconds = 2'208'988'800;
constexpr std::int64_t ntpEraSeconds = std::int64_t{1} << 32;

/// 24 bits, two's complement.
std::int32_t signed24(std::uint32_t value)
{
    return static_cast<std::int32_t>(value << 8) >> 8;
}

RtcpReportBlock readBlock(ByteReader& reader)
{
    RtcpReportBlock block;
    block.ssrc = reader.be32();
    block.fractionLost = reader.u8();
    block.cumulativeLost = signed24(reader.be24());
    block.highestSequence = reader.be32();
    block.jitter = reader.be32();
    block.lastSenderReport = reader.be32();
    block.delaySinceLastSenderReport = reader.be32();
    return block;
}

/// False when the packet is too short for the blocks that it announces.
bool readBlocks(ByteReader& reader, unsigned count, std::vector<RtcpReportBlock>& blocks)
{
    for (unsigned i = 0; i < count; ++i) {
        const RtcpReportBlock block = readBlock(reader);
        if (reader.failed())
            return false;
        blocks.push_back(block);
    }
    return true;
}

bool readSenderReport(ByteReader reader, unsigned count, RtcpCompound& compound)
{
    RtcpSenderReport report;
    report.ssrc = reader.be32();
    report.ntpTime = reader.be64();
    report.rtpTimestamp = reader.be32();
    report.packetCount = reader.be32();
    report.octetCount = reader.be32();
    if (reader.failed())
        return false;
    const bool whole = readBlocks(reader, count, report.blocks);
    compound.senderReports.push_back(std::move(report));
    return whole;
}

bool readReceiverReport(ByteReader reader, unsigned count, RtcpCompound& compound)
{
    RtcpReceiverReport report;
    report.ssrc = reader.be32();
    if (reader.failed())
        return false;
    const bool whole = readBlocks(reader, count, report.blocks);
    compound.receiverReports.push_back(std::move(report));
    return whole;
}

/// Each chunk: SSRC, items of type, length and text, a zero byte, filled up to 32 bits.
bool readSourceDescription(ByteReader reader, unsigned count, RtcpCompound& compound)
{
    for (unsigned chunk = 0; chunk < count; ++chunk) {
        const std::uint32_t ssrc = reader.be32();
        for (std::uint8_t item = reader.u8(); item != 0; item = reader.u8()) {
            const ByteView text = reader.bytes(reader.u8());
            if (reader.failed())
                return false;
            if (item == cnameItem)
                compound.names.push_back({ssrc, std::string(asText(text))});
        }
        if (reader.failed())
            return false;
        reader.bytes(reader.left() % 4);  // packets are multiples of 32 bits, so this is the filling
    }
    return true;
}

bool readBye(ByteReader reader, unsigned count, RtcpCompound& compound)
{
    RtcpBye end;
    for (unsigned i = 0; i < count; ++i)
        end.ssrcs.push_back(reader.be32());
    if (reader.failed())
        return false;
    if (reader.left() > 0)
        end.reason = asText(reader.bytes(reader.u8()));
    compound.byes.push_back(std::move(end));
    return !reader.failed();
}

bool readPacket(std::uint8_t type, unsigned count, ByteView body, RtcpCompound& compound)
{
    switch (type) {
    case senderReport:
        return readSenderReport(ByteReader(body), count, compound);
    case receiverReport:
        return readReceiverReport(ByteReader(body), count, compound);
    case sourceDescription:
        return readSourceDescription(ByteReader(body), count, compound);
    case bye:
        return readBye(ByteReader(body), count, compound);
    default:
        return true;
    }
}

/// Header with the length in 32-bit words minus one.
void appendHeader(Bytes& to, std::size_t count, PacketType type, std::size_t bodyBytes)
{
    appendByte(to, static_cast<std::uint8_t>(version2 | count));
    appendByte(to, type);
    appendBe16(to, static_cast<std::uint16_t>(bodyBytes / 4));
}

void appendText(Bytes& to, std::string_view text)
{
    appendByte(to, static_cast<std::uint8_t>(text.size()));
    const ByteView bytes = asBytes(text);
    to.insert(to.end(), bytes.begin(), bytes.end());
}

constexpr std::size_t roundUpTo4(std::size_t bytes)
{
    return (bytes + 3) / 4 * 4;
}
}  // namespace

RtcpCompound parseRtcp(ByteView packet)
{
    RtcpCompound compound;
    const auto broken = [&compound](const char* rule) {
        if (compound.complete)
            compound.rule = rule;
        compound.complete = false;
        return compound;
    };
    if (packet.empty())
        return broken("the packet is empty");
    while (!packet.empty()) {
        if (packet.size() < 4)
            return broken("a packet header is cut off");
        if ((packet[0] & 0xc0) != version2)
            return broken("a packet is not of version 2");
        const std::size_t packetBytes = (std::size_t{readBe16(packet.data() + 2)} + 1) * 4;
        if (packetBytes > packet.size())
            return broken("a packet is cut off");
        ByteView body = packet.subspan(4, packetBytes - 4);
        if ((packet[0] & paddingBit) != 0) {
            if (body.empty() || body.back() == 0 || body.back() > body.size())
                return broken("the padding is longer than the packet");
            body = body.first(body.size() - body.back());
        }
        if (!readPacket(packet[1], packet[0] & countMask, body, compound))
            broken("a packet is too short for what it announces");  // the ones behind it are still found
        packet = packet.subspan(packetBytes);
    }
    return compound;
}

void appendReceiverReport(Bytes& to, std::uint32_t ssrc, std::span<const RtcpReportBlock> blocks)
{
    constexpr std::size_t blockBytes = 24;
    blocks = blocks.first(std::min(blocks.size(), maxBlocks));
    appendHeader(to, blocks.size(), receiverReport, 4 + blocks.size() * blockBytes);
    appendBe32(to, ssrc);
    for (const RtcpReportBlock& block : blocks) {
        const std::int32_t lost = std::clamp(block.cumulativeLost, minCumulativeLost, maxCumulativeLost);
        appendBe32(to, block.ssrc);
        appendByte(to, block.fractionLost);
        appendBe24(to, static_cast<std::uint32_t>(lost));
        appendBe32(to, block.highestSequence);
        appendBe32(to, block.jitter);
        appendBe32(to, block.lastSenderReport);
        appendBe32(to, block.delaySinceLastSenderReport);
    }
}

void appendSourceName(Bytes& to, std::uint32_t ssrc, std::string_view cname)
{
    cname = cname.substr(0, maxTextBytes);
    const std::size_t itemBytes = 4 + 2 + cname.size();
    const std::size_t bodyBytes = roundUpTo4(itemBytes + 1);  // at least one zero byte ends the items
    appendHeader(to, 1, sourceDescription, bodyBytes);
    appendBe32(to, ssrc);
    appendByte(to, cnameItem);
    appendText(to, cname);
    to.insert(to.end(), bodyBytes - itemBytes, 0);
}

void appendBye(Bytes& to, std::uint32_t ssrc, std::string_view reason)
{
    reason = reason.substr(0, maxTextBytes);
    const std::size_t usedBytes = reason.empty() ? 4 : 4 + 1 + reason.size();
    const std::size_t bodyBytes = roundUpTo4(usedBytes);
    appendHeader(to, 1, bye, bodyBytes);
    appendBe32(to, ssrc);
    if (!reason.empty())
        appendText(to, reason);
    to.insert(to.end(), bodyBytes - usedBytes, 0);
}

std::int64_t ntpToUnixMs(std::uint64_t ntpTime) noexcept
{
    auto seconds = static_cast<std::int64_t>(ntpTime >> 32);
    if (seconds < ntpEraSeconds / 2)
        seconds += ntpEraSeconds;
    const std::uint64_t fraction = ntpTime & std::numeric_limits<std::uint32_t>::max();
    const auto milliseconds = static_cast<std::int64_t>((fraction * 1000 + (std::uint64_t{1} << 31)) >> 32);
    return (seconds - unixEpochInNtpSeconds) * 1000 + milliseconds;
}

std::uint64_t unixMsToNtp(std::int64_t unixMs) noexcept
{
    std::int64_t seconds = unixMs / 1000;
    std::int64_t milliseconds = unixMs % 1000;
    if (milliseconds < 0) {
        milliseconds += 1000;
        --seconds;
    }
    const auto ntpSeconds = static_cast<std::uint32_t>(seconds + unixEpochInNtpSeconds);  // modulo the era
    const std::uint64_t fraction = (static_cast<std::uint64_t>(milliseconds) << 32) / 1000;
    return (std::uint64_t{ntpSeconds} << 32) | fraction;
}
}  // namespace Tavro8::wire

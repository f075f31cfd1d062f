#include "FuzzTarget.h"

#include "wire/Rtcp.h"

#include <algorithm>

namespace Tavro8::fuzz
{
namespace
{
using wire::RtcpCompound;
using wire::RtcpReportBlock;

constexpr std::size_t bytesPerBlock = 24;
constexpr std::int32_t most24Bits = 0x7fffff;

bool same(const RtcpReportBlock& a, const RtcpReportBlock& b)
{
    return a.ssrc == b.ssrc && a.fractionLost == b.fractionLost && a.cumulativeLost == b.cumulativeLost &&
           a.highestSequence == b.highestSequence && a.jitter == b.jitter && a.lastSenderReport == b.lastSenderReport &&
           a.delaySinceLastSenderReport == b.delaySinceLastSenderReport;
}

/// How many values of all kinds a packet held.
std::size_t countOf(const RtcpCompound& compound)
{
    std::size_t count = compound.names.size();
    for (const auto& report : compound.senderReports)
        count += 1 + report.blocks.size();
    for (const auto& report : compound.receiverReports)
        count += 1 + report.blocks.size();
    for (const auto& bye : compound.byes)
        count += 1 + bye.ssrcs.size();
    return count;
}

void checkWriting(const wire::RtcpReceiverReport& report)
{
    Bytes packet;
    wire::appendReceiverReport(packet, report.ssrc, report.blocks);
    require(packet.size() == 8 + report.blocks.size() * bytesPerBlock, "a receiver report has the size of its blocks");
    const RtcpCompound again = wire::parseRtcp(packet);
    require(again.complete && again.receiverReports.size() == 1, "a written report can be read");
    require(again.receiverReports[0].ssrc == report.ssrc &&
                std::ranges::equal(again.receiverReports[0].blocks, report.blocks, same),
            "a written report says the same");
}

void checkReports(const RtcpCompound& compound)
{
    for (const auto& report : compound.receiverReports) {
        require(report.blocks.size() <= 31, "a report has at most 31 blocks");
        for (const RtcpReportBlock& block : report.blocks)
            require(block.cumulativeLost >= -most24Bits - 1 && block.cumulativeLost <= most24Bits, "24 bits of losses");
        checkWriting(report);
    }
    for (const auto& report : compound.senderReports) {
        require(report.blocks.size() <= 31, "a report has at most 31 blocks");
        checkWriting({report.ssrc, report.blocks});
        if (report.ntpTime >> 32 == 0x7fffffff)
            continue;  // may be rounded up across the seam of the eras
        const std::int64_t unixMs = wire::ntpToUnixMs(report.ntpTime);
        const std::int64_t again = wire::ntpToUnixMs(wire::unixMsToNtp(unixMs));
        require(again >= unixMs - 1 && again <= unixMs + 1, "a time survives its change of form");
    }
}

void checkNames(const RtcpCompound& compound)
{
    for (const auto& name : compound.names) {
        require(name.cname.size() <= 255, "a name is bounded");
        Bytes packet;
        wire::appendSourceName(packet, name.ssrc, name.cname);
        const RtcpCompound again = wire::parseRtcp(packet);
        require(again.complete && again.names.size() == 1, "a written name can be read");
        require(again.names[0].cname == name.cname && again.names[0].ssrc == name.ssrc, "a written name is the same");
    }
    for (const auto& bye : compound.byes) {
        require(bye.ssrcs.size() <= 31 && bye.reason.size() <= 255, "a farewell is bounded");
        if (bye.ssrcs.size() != 1)
            continue;
        Bytes packet;
        wire::appendBye(packet, bye.ssrcs[0], bye.reason);
        const RtcpCompound again = wire::parseRtcp(packet);
        require(again.complete && again.byes.size() == 1 && again.byes[0].reason == bye.reason,
                "a written farewell can be read");
    }
}

/// Two compound RTCP packets, the first behind a length of 16 bits.
///
/// Promises: what is found is bounded by the bytes that hold it; reports, names and farewells survive being written
/// and read; two whole packets in one give the values of both.
void feed(ByteView input)
{
    Script script(input);
    const Bytes first = script.block();
    const Bytes second = script.remaining();

    const RtcpCompound a = wire::parseRtcp(first);
    const RtcpCompound b = wire::parseRtcp(second);
    for (const auto& [compound, bytes] : {std::pair{&a, first.size()}, std::pair{&b, second.size()}}) {
        require(countOf(*compound) <= bytes, "values take bytes");
        require(compound->complete == (compound->rule == nullptr), "what is broken has a rule");
        checkReports(*compound);
        checkNames(*compound);
    }

    Bytes both(first);
    both.insert(both.end(), second.begin(), second.end());
    const RtcpCompound together = wire::parseRtcp(both);
    // An empty packet is broken, but adds nothing to another one.
    if (a.complete && (b.complete || second.empty())) {
        require(together.complete, "two whole packets are a whole one");
        require(countOf(together) == countOf(a) + countOf(b), "two packets in one give the values of both");
    }
}

const Target rtcp("rtcp", feed);
}  // namespace
}  // namespace Tavro8::fuzz

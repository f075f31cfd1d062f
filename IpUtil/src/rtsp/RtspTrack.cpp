#include "rtsp/RtspTrack.h"

#include <algorithm>
#include <random>
#include <span>
#include <utility>

namespace Tavro8::Utility
{
namespace
{
constexpr std::size_t rtpHeaderBytes = 12;
// Fewer may be the slow beginning of one frame.
constexpr std::uint64_t manyPackets = 100;
constexpr std::size_t maxInterleavedBytes = 0xFFFF;  // the length field has 16 bits

/// The header of an interleaved frame, RFC 2326 section 10.12.
std::vector<std::uint8_t> beginInterleaved(std::uint8_t channel, std::size_t payloadBytes)
{
    std::vector<std::uint8_t> bytes;
    bytes.reserve(4 + payloadBytes);
    bytes.push_back('$');
    bytes.push_back(channel);
    wire::appendBe16(bytes, static_cast<std::uint16_t>(payloadBytes));
    return bytes;
}

wire::RtcpReportBlock blockOf(const media::ReceptionReport& report)
{
    return {report.ssrc,
            report.fractionLost,
            report.cumulativeLost,
            report.extendedHighestSequence,
            report.jitter,
            report.lastSenderReport,
            report.delaySinceLastSenderReport};
}

media::SenderReport readReport(const wire::RtcpSenderReport& report) noexcept
{
    return {report.ssrc, report.ntpTime, report.rtpTimestamp};
}

/// RFC 3550 section 6.1: each compound packet begins with a report and names its source.
wire::Bytes beginCompound(std::uint32_t ownSource, std::span<const wire::RtcpReportBlock> blocks)
{
    wire::Bytes packet;
    wire::appendReceiverReport(packet, ownSource, blocks);
    wire::appendSourceName(packet, ownSource, "IpUtil");
    return packet;
}
}  // namespace

RTSPTrack::RTSPTrack(TrackInitializer initializer, const LoggerHelper& logger)
    : logger(logger), initializer(std::move(initializer))
{
    // RFC 3550 section 5.1: source and first sequence number are random.
    std::random_device random;
    sendSource = random();
    sendSequence = static_cast<std::uint16_t>(random());
}

RTSPTrack::~RTSPTrack()
{
    closePorts();
}

const char* RTSPTrack::receive(const media::TrackFormat& format, const std::shared_ptr<media::FramePool>& pool,
                               LossHandling lossHandling)
{
    if (const char* refusal = media::refusalOf(format))
        return refusal;
    media::TrackReceiver::Options options;
    options.depacketiser.lossPolicy =
        lossHandling == LossHandling::flag ? media::LossPolicy::flag : media::LossPolicy::dropUntilKeyFrame;
    receiver = media::TrackReceiver::make(format, pool, *this, options);
    for (const std::uint8_t type : format.payloadTypes)
        payloadTypes.set(type);
    setTakersMemory({});
    return receiver == nullptr ? "the format of the track is not supported" : nullptr;
}

void RTSPTrack::setTakersMemory(const media::HotMemory& takers) noexcept
{
    hotMemory = {};
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(&initializer.onFrame);
    const auto* const end = reinterpret_cast<const std::uint8_t*>(&payloadTypes);
    hotMemory.add(begin, static_cast<std::size_t>(end - begin));
    if (receiver != nullptr)
        receiver->listHotMemory(hotMemory);
    hotMemory.add(takers);
}

void RTSPTrack::establish(const wire::ChannelPair& agreed) noexcept
{
    channels = agreed;
    usesUdp = false;
    closePorts();
    ports.reset();
}

bool RTSPTrack::establishPorts(std::optional<std::uint32_t> source)
{
    if (ports == nullptr || receiver == nullptr || usesUdp)
        return false;
    usesUdp = true;
    channels.reset();
    receiver->expectDatagrams(source);
    return true;
}

void RTSPTrack::closePorts() noexcept
{
    if (ports != nullptr)
        ports->close();
}

void RTSPTrack::onRtp(wire::ByteView packet, const media::ArrivalTime& arrival)
{
    // Some devices send both to one port. A track that uses such a payload type all the same wins.
    if (wire::looksLikeRtcp(packet) && !payloadTypes[packet[1] & 0x7FU])
        onRtcp(packet, arrival);
    else
        receiver->onRtp(packet, arrival);
}

void RTSPTrack::onRtcp(wire::ByteView packet, const media::ArrivalTime& arrival)
{
    const wire::RtcpCompound compound = wire::parseRtcp(packet);
    for (const wire::RtcpSenderReport& report : compound.senderReports) {
        if (receiver != nullptr)
            receiver->onSenderReport(readReport(report), arrival);
    }
    if (compound.byes.empty())
        return;
    const auto source = receiver == nullptr ? std::nullopt : receiver->ssrc();
    const bool own = !source || std::ranges::any_of(compound.byes, [&](const wire::RtcpBye& bye) {
        return std::ranges::find(bye.ssrcs, *source) != bye.ssrcs.end();
    });
    const media::TrackReceiver::Statistics total = statistics();
    ownBye = own || (ownBye && hasSaidBye(total));
    packetsAtBye = total.packets;
}

void RTSPTrack::makeRecorded()
{
    mute();
    beginRecorded({});
}

void RTSPTrack::beginRecorded(const media::RecordedClock::Start& start, const media::RtpReceiver::FirstPacket& first)
{
    receiver->beginRecorded(start, first);
    packetsAtBye.reset();
    droppedWhileMuted = false;
}

bool RTSPTrack::agreesWith(const wire::RtcpSenderReport& report) const noexcept
{
    return receiver->ssrc() == report.ssrc && getRecordedClock().agreesWith(readReport(report));
}

void RTSPTrack::unmute()
{
    muted = false;
    if (std::exchange(droppedWhileMuted, false))
        receiver->awaitKeyFrame();
}

void RTSPTrack::onFrame(const GDRV::MediaFrame& frame)
try {
    if (muted)
        droppedWhileMuted = true;
    else
        initializer.onFrame(frame);
} catch (const std::exception& e) {
    if (!std::exchange(throwReported, true))
        logger.error("Tavro8::Utility::RTSPTrack::onFrame", e.what());
}

wire::Bytes RTSPTrack::makeReport(std::uint32_t ownSource, std::chrono::steady_clock::time_point now)
{
    if (receiver == nullptr || !isEstablished())
        return {};
    const auto report = receiver->makeReport(now);
    if (!report)
        return {};
    lastJitter = report->jitter;
    reported = true;
    const wire::RtcpReportBlock block = blockOf(*report);
    return beginCompound(ownSource, {&block, 1});
}

wire::Bytes RTSPTrack::makeEmptyReport(std::uint32_t ownSource)
{
    return beginCompound(ownSource, {});
}

wire::Bytes RTSPTrack::makeBye(std::uint32_t ownSource) const
{
    if (!reported)
        return {};
    wire::Bytes packet = beginCompound(ownSource, {});
    wire::appendBye(packet, ownSource);
    return packet;
}

std::vector<std::uint8_t> RTSPTrack::interleave(const wire::Bytes& rtcp) const
{
    auto bytes = beginInterleaved(channels->rtcp, rtcp.size());
    bytes.insert(bytes.end(), rtcp.begin(), rtcp.end());
    return bytes;
}

std::vector<std::uint8_t> RTSPTrack::makePacket(const std::vector<std::uint8_t>& payload, std::uint32_t timestamp)
{
    const std::size_t packetBytes = rtpHeaderBytes + payload.size();
    if (!channels || packetBytes > maxInterleavedBytes)
        return {};
    auto bytes = beginInterleaved(channels->rtp, packetBytes);
    const unsigned marker = sentAny ? 0x00 : 0x80;  // RFC 3551 section 4.1: the first packet of a talk spurt
    bytes.push_back(0x80);                          // version 2
    bytes.push_back(static_cast<std::uint8_t>(marker | (static_cast<unsigned>(description().payloadType) & 0x7F)));
    wire::appendBe16(bytes, sendSequence++);
    wire::appendBe32(bytes, timestamp);
    wire::appendBe32(bytes, sendSource);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    sentAny = true;
    return bytes;
}

media::TrackReceiver::Statistics RTSPTrack::statistics() const noexcept
{
    return receiver == nullptr ? media::TrackReceiver::Statistics{} : receiver->statistics();
}

void RTSPTrack::beginWatch(std::chrono::steady_clock::time_point now) noexcept
{
    lastProgress = now;
    framelessSince.reset();
    foreignSince.reset();
}

std::chrono::steady_clock::duration RTSPTrack::silence(const media::TrackReceiver::Statistics& total,
                                                       std::chrono::steady_clock::time_point now) noexcept
{
    if (std::exchange(packetsWatched, total.packets) != total.packets)
        lastProgress = now;
    return now - lastProgress;
}

bool RTSPTrack::bringsNoFrame(const media::TrackReceiver::Statistics& total, std::chrono::steady_clock::time_point now,
                              std::chrono::milliseconds limit) noexcept
{
    const bool frames = std::exchange(framesWatched, total.frames) != total.frames;
    if (frames || total.packetsSinceFrame == 0)
        framelessSince.reset();
    else if (!framelessSince)
        framelessSince = now;
    return framelessSince && now - *framelessSince >= limit && total.packetsSinceFrame >= manyPackets;
}

bool RTSPTrack::sendsOnlyForeign(const media::TrackReceiver::Statistics& total,
                                 std::chrono::steady_clock::time_point now, std::chrono::milliseconds limit) noexcept
{
    const bool own = std::exchange(packetsBefore, total.packets) != total.packets;
    const bool foreign = std::exchange(foreignBefore, total.foreignPackets) != total.foreignPackets;
    if (own || total.packets == 0)
        foreignSince.reset();
    else if (foreign && !foreignSince)
        foreignSince = now;
    return foreign && foreignSince && now - *foreignSince >= limit;
}

StreamCounters RTSPTrack::counters() const noexcept
{
    const media::TrackReceiver::Statistics total = statistics();
    StreamCounters result;
    result.frames = total.frames;
    result.keyFrames = total.keyFrames;
    result.bytes = total.frameBytes;
    result.lostPackets = total.lostPackets;
    result.malformedPackets = total.malformedPackets;
    if (description().clockRate != 0)
        result.jitterMs = static_cast<std::uint32_t>(std::uint64_t{lastJitter} * 1000 / description().clockRate);
    return result;
}
}  // namespace Tavro8::Utility

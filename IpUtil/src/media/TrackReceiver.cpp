#include "media/TrackReceiver.h"

#include <algorithm>

namespace Tavro8::media
{
namespace
{
// A longer pause between two frames is told as "unknown" rather than as a duration.
constexpr std::uint32_t maxFrameDurationMs = 60'000;

// What it takes to believe in another format: seconds of it, also where packets are few.
constexpr std::uint32_t doubtfulExcess = 100;
constexpr std::uint32_t doubtfulTimes = 8;
}  // namespace

std::unique_ptr<TrackReceiver> TrackReceiver::make(const TrackFormat& format, std::shared_ptr<FramePool> pool,
                                                   FrameSink& sink, const Options& options)
{
    if (refusalOf(format) != nullptr)
        return nullptr;
    return std::unique_ptr<TrackReceiver>(new TrackReceiver(format, std::move(pool), sink, options));
}

TrackReceiver::TrackReceiver(const TrackFormat& format, std::shared_ptr<FramePool> framePool, FrameSink& frameSink,
                             const Options& options)
    : pool(std::move(framePool)),
      clockRate(clockRateOf(format)),
      depacketiser(makeDepacketiser(format, *pool, *this, options.depacketiser)),
      sink(frameSink),
      receiver(RtpReceiver::Settings{format.payloadTypes, clockRate, options.confirmRestart}),
      clock(clockRate)
{}

void TrackReceiver::listHotMemory(HotMemory& hot) const noexcept
{
    const auto* const begin = reinterpret_cast<const std::uint8_t*>(&depacketiser);
    const auto* const end = reinterpret_cast<const std::uint8_t*>(this + 1);
    hot.add(begin, static_cast<std::size_t>(end - begin));
    depacketiser->listHotMemory(hot);
}

void TrackReceiver::expectDatagrams(std::optional<std::uint32_t> source, const ReorderBuffer::Settings& settings)
{
    receiver.expectDatagrams(source);
    reorder.emplace(settings);
}

void TrackReceiver::onRtp(std::span<const std::uint8_t> bytes, const ArrivalTime& arrival)
{
    RtpPacket packet;
    if (const RtpFault fault = parseRtpPacket(bytes, packet); fault != RtpFault::none) {
        lastFault = fault;
        ++notRtp;
        return;
    }
    switch (receiver.admit(packet, arrival)) {
    case RtpReceiver::Admission::foreign:
    case RtpReceiver::Admission::outdated:
        return;
    case RtpReceiver::Admission::suspect:
        return keepSuspect(bytes, arrival);
    case RtpReceiver::Admission::restarted:
        onRestart(packet);
        break;
    case RtpReceiver::Admission::first:
        onFirst(packet);
        break;
    case RtpReceiver::Admission::accepted:
        break;
    }
    ++totals.packets;
    totals.packetBytes += bytes.size();
    accept(packet, bytes, arrival);
}

void TrackReceiver::accept(const RtpPacket& packet, std::span<const std::uint8_t> bytes, const ArrivalTime& arrival)
{
    if (!reorder)
        return deliver(packet, arrival);
    if (reorder->push(packet.sequenceNumber, bytes, arrival) == ReorderBuffer::Verdict::pass)
        deliver(packet, arrival);
    onTick(arrival.monotonic);
}

void TrackReceiver::onTick(std::chrono::steady_clock::time_point now)
{
    if (!reorder)
        return;
    while (const auto waiting = reorder->pull(now))
        deliverWaiting(*waiting);
}

void TrackReceiver::flush()
{
    if (reorder) {
        while (const auto waiting = reorder->drain())
            deliverWaiting(*waiting);
    }
    depacketiser->flush();
}

void TrackReceiver::deliverWaiting(const ReorderBuffer::Packet& waiting)
{
    RtpPacket packet;
    if (parseRtpPacket(waiting.bytes, packet) == RtpFault::none)  // as it did when it came
        deliver(packet, waiting.arrival);
}

void TrackReceiver::beginRecorded(const RecordedClock::Start& start, const RtpReceiver::FirstPacket& first)
{
    recorded = std::make_unique<RecordedClock>(clockRate, start);
    receiver.beginAnew(first);
    if (totals.packets != 0)  // else nothing is missing in front of what comes
        depacketiser->reset();
    clock.reset();
    lastVideoTimestamp.reset();
    earlyCount = 0;
}

void TrackReceiver::onFirst(const RtpPacket& packet) noexcept
{
    if (recorded)
        recorded->onFirstPacket(packet.timestamp);
}

/// The packet that announces a restart belongs to it, and is most often the start of a key frame.
void TrackReceiver::keepSuspect(std::span<const std::uint8_t> bytes, const ArrivalTime& arrival)
{
    suspect.assign(bytes.begin(), bytes.end());
    suspectArrival = arrival;
}

void TrackReceiver::onRestart(const RtpPacket& packet)
{
    if (totals.packets != 0) {
        depacketiser->reset();
        clock.reset();
        lastVideoTimestamp.reset();
    }
    if (recorded)
        recorded->onRestart(packet.timestamp);
    if (!reorder)
        return;
    reorder->reset();
    RtpPacket before;
    if (parseRtpPacket(suspect, before) != RtpFault::none || before.ssrc != packet.ssrc)
        return;
    ++totals.packets;
    totals.packetBytes += suspect.size();
    accept(before, suspect, suspectArrival);
}

void TrackReceiver::deliver(const RtpPacket& packet, const ArrivalTime& arrival)
{
    const RtpReceiver::Continuity continuity = receiver.follow(packet.sequenceNumber);
    if (!continuity.inOrder)
        return;
    clock.onPacket(packet.timestamp, arrival);
    if (earlyCount != 0)
        useEarly(packet.ssrc);
    ++totals.packetsSinceFrame;
    const std::uint64_t misfitsBefore = depacketiser->getCounters().misfits;
    depacketiser->push(packet, continuity.lostBefore != 0);
    watchFormat(packet.timestamp, depacketiser->getCounters().misfits != misfitsBefore);
}

void TrackReceiver::watchFormat(std::uint32_t rtpTimestamp, bool misfit) noexcept
{
    if (!misfit) {
        if (doubt.excess != 0 && --doubt.excess == 0)
            doubt.times = 0;
        return;
    }
    if (doubt.times == 0 || rtpTimestamp != doubt.lastTimestamp)
        ++doubt.times;
    doubt.lastTimestamp = rtpTimestamp;
    if (doubt.excess < doubtfulExcess)
        ++doubt.excess;
}

void TrackReceiver::onSenderReport(const SenderReport& report, const ArrivalTime& arrival) noexcept
{
    if (receiver.isOutdated(report))
        return;
    if (receiver.onSenderReport(report, arrival))
        useReport(report);
    else
        keepEarly({report, arrival});
}

void TrackReceiver::useReport(const SenderReport& report) noexcept
{
    if (!recorded)
        clock.onSenderReport(report);
    else if (!recorded->onSenderReport(report))
        ++totals.ignoredReports;
}

void TrackReceiver::keepEarly(const EarlyReport& early) noexcept
{
    auto* const end = earlyReports.begin() + earlyCount;
    auto* const known = std::find_if(earlyReports.begin(), end,
                                     [&](const EarlyReport& one) { return one.report.ssrc == early.report.ssrc; });
    if (known != end) {
        *known = early;
    } else if (earlyCount < earlyReports.size()) {
        earlyReports[earlyCount++] = early;
    } else {
        std::shift_left(earlyReports.begin(), end, 1);
        earlyReports.back() = early;
    }
}

void TrackReceiver::useEarly(std::uint32_t ssrc) noexcept
{
    auto* const end = earlyReports.begin() + earlyCount;
    auto* const own =
        std::find_if(earlyReports.begin(), end, [&](const EarlyReport& one) { return one.report.ssrc == ssrc; });
    if (own == end)
        return;
    receiver.onSenderReport(own->report, own->arrival);
    useReport(own->report);
    earlyCount = 0;
}

void TrackReceiver::onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t rtpTimestamp)
{
    frame.timestampMs = recorded ? recorded->stamp(rtpTimestamp) : clock.stamp(rtpTimestamp);
    if (GDRV::isVideo(frame.codec)) {
        // Pictures in decoding order may step back in time (B pictures): no duration then.
        const auto ticks = static_cast<std::int32_t>(rtpTimestamp - lastVideoTimestamp.value_or(rtpTimestamp));
        const std::uint32_t milliseconds = ticks > 0 ? clock.ticksToMs(static_cast<std::uint32_t>(ticks)) : 0;
        frame.durationMs = milliseconds <= maxFrameDurationMs ? milliseconds : 0;
        lastVideoTimestamp = rtpTimestamp;
    }
    ++totals.frames;
    totals.keyFrames += frame.keyFrame ? 1 : 0;
    totals.frameBytes += frame.data.size();
    if (!frame.damaged) {
        totals.packetsSinceFrame = 0;
        doubt = {};
    }
    sink.onFrame(frame);
}

TrackReceiver::Statistics TrackReceiver::statistics() const noexcept
{
    const RtpReceiver::Counters& received = receiver.getCounters();
    const Depacketiser::Counters& cut = depacketiser->getCounters();
    Statistics result = totals;
    result.lostPackets = received.lost;
    result.latePackets = received.late + received.duplicate + (reorder ? reorder->getCounters().duplicate : 0);
    result.foreignPackets = received.foreign;
    result.malformedPackets = notRtp + cut.malformed;
    result.droppedFrames = cut.droppedFrames;
    result.damagedFrames = cut.damagedFrames;
    result.restarts = received.restarts;
    result.formatChanged = doubt.excess >= doubtfulExcess && doubt.times >= doubtfulTimes;
    return result;
}
}  // namespace Tavro8::media

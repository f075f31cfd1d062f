#include "media/RtpReceiver.h"

#include <algorithm>
#include <limits>

namespace Tavro8::media
{
namespace
{
// RFC 3550 A.1: a step forward below `maxDropout` is loss, a step back of at most `maxMisorder` a late
// packet, anything else a new sequence.
constexpr std::uint16_t maxDropout = 3000;
constexpr std::uint16_t maxMisorder = 100;
constexpr std::uint32_t sequenceModulus = 0x10000;

// What a device has queued when it hears of another place.
constexpr std::uint32_t maxOutdated = 1000;
constexpr std::chrono::seconds outdatedFor{1};

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

bool isJump(std::uint16_t step) noexcept
{
    return step >= maxDropout && step < sequenceModulus - maxMisorder;
}

/// A span of time in units of 1/`rate` s; split so that it cannot overflow.
std::int64_t toTicks(std::chrono::nanoseconds time, std::int64_t rate) noexcept
{
    const std::int64_t count = time.count();
    return count / nanosecondsPerSecond * rate + count % nanosecondsPerSecond * rate / nanosecondsPerSecond;
}
}  // namespace

RtpReceiver::RtpReceiver(const Settings& settings)
    : clockRate(settings.clockRate), confirmRestart(settings.confirmRestart)
{
    for (const std::uint8_t type : settings.payloadTypes) {
        if (type < payloadTypes.size())
            payloadTypes.set(type);
    }
}

void RtpReceiver::expectDatagrams(std::optional<std::uint32_t> expectedSource) noexcept
{
    confirmRestart = true;
    announcedSource = expectedSource;
}

void RtpReceiver::beginAnew(const FirstPacket& announced) noexcept
{
    awaited = Awaited{announced, started || (awaited && awaited->hasOldPlace)};
    started = false;
    following = false;
    suspecting = false;
}

bool RtpReceiver::isOfOldPlace(const RtpPacket& packet, const ArrivalTime& arrival) noexcept
{
    const auto step = static_cast<std::uint16_t>(packet.sequenceNumber - highestSequence);
    const FirstPacket& first = awaited->announced;
    if (!awaited->hasOldPlace || (!first.sequenceNumber && !first.timestamp))
        return false;
    if (packet.ssrc != source || step >= maxDropout || first.timestamp == packet.timestamp)
        return false;
    if (first.sequenceNumber && static_cast<std::uint16_t>(packet.sequenceNumber - *first.sequenceNumber) < maxDropout)
        return false;
    if (!first.sequenceNumber && isAtOrBehind(packet.timestamp, *first.timestamp))
        return false;
    if (awaited->dropped == 0)
        awaited->since = arrival.monotonic;
    if (++awaited->dropped > maxOutdated || arrival.monotonic - awaited->since > outdatedFor)
        return false;
    highestSequence = packet.sequenceNumber;
    return true;
}

bool RtpReceiver::isOutdated(const SenderReport& report) const noexcept
{
    return awaited && awaited->hasOldPlace && report.ssrc == source && awaited->announced.timestamp &&
           !isAtOrBehind(report.rtpTimestamp, *awaited->announced.timestamp);
}

/// By a minute at most.
bool RtpReceiver::isAtOrBehind(std::uint32_t timestamp, std::uint32_t first) const noexcept
{
    const auto ticks = static_cast<std::int32_t>(timestamp - first);
    return ticks >= 0 && ticks / 60 <= static_cast<std::int64_t>(clockRate);
}

RtpReceiver::Admission RtpReceiver::admit(const RtpPacket& packet, const ArrivalTime& arrival) noexcept
{
    if (!payloadTypes[packet.payloadType & 0x7f]) {
        ++counters.foreign;
        return Admission::foreign;
    }

    Admission admission = Admission::accepted;
    const auto step = static_cast<std::uint16_t>(packet.sequenceNumber - highestSequence);
    if (mayBegin(packet)) {
        if (awaited) {
            if (isOfOldPlace(packet, arrival))
                return Admission::outdated;
            awaited.reset();
            admission = Admission::first;
        }
        started = true;
        restart(packet);
    } else if (!started || packet.ssrc != source || isJump(step)) {
        if (confirmRestart && !isConfirmed(packet)) {
            ++counters.suspect;
            return Admission::suspect;
        }
        counters.restarts += started ? 1 : 0;
        started = true;
        restart(packet);
        admission = Admission::restarted;
    } else if (step < maxDropout) {
        if (packet.sequenceNumber < highestSequence)
            cycles += sequenceModulus;
        highestSequence = packet.sequenceNumber;
    }

    ++counters.received;
    ++receivedOfSource;
    updateJitter(packet.timestamp, arrival.monotonic);
    return admission;
}

RtpReceiver::Continuity RtpReceiver::follow(std::uint16_t sequenceNumber) noexcept
{
    const auto step = static_cast<std::int16_t>(static_cast<std::uint16_t>(sequenceNumber - nextSequence));
    if (following && step < 0) {
        ++(step == -1 ? counters.duplicate : counters.late);
        return {false, 0};
    }
    const std::uint32_t lost = following ? static_cast<std::uint32_t>(step) : 0;
    counters.lost += lost;
    following = true;
    nextSequence = static_cast<std::uint16_t>(sequenceNumber + 1);
    return {true, lost};
}

bool RtpReceiver::onSenderReport(const SenderReport& report, const ArrivalTime& arrival) noexcept
{
    if (!started || report.ssrc != source)
        return false;
    lastReport = LastSenderReport{static_cast<std::uint32_t>(report.ntpTimestamp >> 16), arrival.monotonic};
    return true;
}

std::optional<ReceptionReport> RtpReceiver::makeReport(std::chrono::steady_clock::time_point now) noexcept
{
    if (!started)
        return std::nullopt;
    ReceptionReport report;
    report.ssrc = source;
    const std::uint64_t extendedHighest = cycles + highestSequence;
    report.extendedHighestSequence = static_cast<std::uint32_t>(extendedHighest);
    report.jitter = static_cast<std::uint32_t>(scaledJitter >> 4);

    const std::uint64_t expected = extendedHighest - baseSequence + 1;
    const auto lost = static_cast<std::int64_t>(expected) - static_cast<std::int64_t>(receivedOfSource);
    report.cumulativeLost = static_cast<std::int32_t>(std::clamp<std::int64_t>(lost, -0x800000, 0x7fffff));

    const auto expectedInterval = static_cast<std::int64_t>(expected - expectedPrior);
    const auto lostInterval = expectedInterval - static_cast<std::int64_t>(receivedOfSource - receivedPrior);
    expectedPrior = expected;
    receivedPrior = receivedOfSource;
    if (expectedInterval > 0 && lostInterval > 0)
        report.fractionLost =
            static_cast<std::uint8_t>(std::min<std::int64_t>(lostInterval * 256 / expectedInterval, 255));

    if (lastReport) {
        report.lastSenderReport = lastReport->middleNtp;
        report.delaySinceLastSenderReport = static_cast<std::uint32_t>(std::clamp<std::int64_t>(
            toTicks(now - lastReport->arrival, 65536), 0, std::numeric_limits<std::uint32_t>::max()));
    }
    return report;
}

std::optional<std::uint32_t> RtpReceiver::ssrc() const noexcept
{
    return started ? std::optional(source) : std::nullopt;
}

bool RtpReceiver::mayBegin(const RtpPacket& packet) const noexcept
{
    return !started && (!confirmRestart || !announcedSource || packet.ssrc == *announcedSource);
}

/// Whether the previous suspect packet announced this one; remembers it otherwise.
bool RtpReceiver::isConfirmed(const RtpPacket& packet) noexcept
{
    const bool confirmed = suspecting && packet.ssrc == suspectSource && packet.sequenceNumber == suspectNext;
    suspecting = !confirmed;
    suspectSource = packet.ssrc;
    suspectNext = static_cast<std::uint16_t>(packet.sequenceNumber + 1);
    return confirmed;
}

void RtpReceiver::restart(const RtpPacket& packet) noexcept
{
    if (packet.ssrc != source)
        lastReport.reset();
    source = packet.ssrc;
    highestSequence = packet.sequenceNumber;
    baseSequence = packet.sequenceNumber;
    cycles = 0;
    receivedOfSource = 0;
    expectedPrior = 0;
    receivedPrior = 0;
    following = false;
    haveTransit = false;
    scaledJitter = 0;
}

void RtpReceiver::updateJitter(std::uint32_t timestamp, std::chrono::steady_clock::time_point arrival) noexcept
{
    const auto arrivalTicks = static_cast<std::uint32_t>(toTicks(arrival.time_since_epoch(), clockRate));
    const std::uint32_t transit = arrivalTicks - timestamp;
    if (haveTransit) {
        const auto difference = static_cast<std::int32_t>(transit - lastTransit);
        const auto distance = static_cast<std::uint64_t>(difference < 0 ? -std::int64_t{difference} : difference);
        scaledJitter += distance - ((scaledJitter + 8) >> 4);
    }
    haveTransit = true;
    lastTransit = transit;
}
}  // namespace Tavro8::media

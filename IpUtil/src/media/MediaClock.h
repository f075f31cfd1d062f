#pragma once

#include "media/RtpTime.h"

#include <cstdint>
#include <limits>

namespace Tavro8::media
{
/// Maps RTP timestamps of one source to UTC milliseconds.
///
/// Until a sender report arrives the mapping is anchored at the arrival of the first packet and follows
/// the least delayed packets since; a sender report replaces it. Results never decrease, also across
/// `reset`. How a new mapping is approached:
/// - by up to a second: gradually, at a tenth of the speed of time, so that frame intervals stay natural;
/// - more than a second ahead: at once;
/// - more than a second behind: time runs at half speed until it is reached.
///
/// Between the device's clock and ours, ours decides. A report is not believed, and frames go by arrival,
/// when it is more than ten seconds behind the mapping that holds, or more than a day off our clock: a
/// device that has lost its time of day must not draw the frames along, and from far ahead there is no way
/// back. So after a leap of the device's clock to a wrong time, and after one back to the right time, frames
/// end up right. Reports that stop coming leave the device's clock in use as it was, followed by arrival.
///
/// Timestamps are 32 bits and wrap; neighbouring ones may be at most half of that apart.
class MediaClock {
public:
    /// `clockRate` in Hz; 0 counts as 90000.
    explicit MediaClock(std::uint32_t clockRate) noexcept;

    /// Tells of every packet, in order, before a frame of that packet is stamped. Cheap for packets that
    /// repeat the timestamp of the one before.
    void onPacket(std::uint32_t rtpTimestamp, const ArrivalTime& arrival) noexcept
    {
        if (!anchored || rtpTimestamp != lastTimestamp)
            onNewTimestamp(rtpTimestamp, arrival);
    }

    /// A report of the source whose packets were told of; ignored before the first packet, and when the
    /// sender knows no wall clock: NTP timestamp 0, the time since it started, which RFC 3550 section 6.4.1 tells
    /// by a clear highest bit, or a time before 1971, where a clock stands that was never set.
    void onSenderReport(const SenderReport& report) noexcept;

    /// UTC milliseconds of a frame; not less than any result before. 0 before the first packet.
    std::int64_t stamp(std::uint32_t rtpTimestamp) noexcept;

    /// Forgets the mapping after a discontinuity; the next packet and sender report make a new one.
    void reset() noexcept;

    /// What the clock of the next connection has to know so that times neither run backwards nor jump.
    struct Carry {
        std::int64_t floorMs = std::numeric_limits<std::int64_t>::min();  ///< the last result
        std::int64_t skewUs = 0;  ///< the device's clock against ours, 0 while unknown

        /// For a new taker of frames: times may begin before those that the last one saw.
        void forgetFloor() noexcept { floorMs = std::numeric_limits<std::int64_t>::min(); }
    };
    Carry carry() const noexcept { return {floorMs, presentSkewUs()}; }

    /// Goes on where another clock ended; to be called before the first packet.
    void resume(const Carry& previous) noexcept;

    /// Length of a number of clock ticks, rounded to milliseconds.
    std::uint32_t ticksToMs(std::uint32_t ticks) const noexcept;

    bool isSenderClockUsed() const noexcept { return senderClockUsed; }

private:
    void onNewTimestamp(std::uint32_t rtpTimestamp, const ArrivalTime& arrival) noexcept;
    void anchor(std::uint32_t rtpTimestamp, const ArrivalTime& arrival) noexcept;
    void followArrival(std::int64_t mediaUs, const ArrivalTime& arrival) noexcept;
    std::int64_t presentSkewUs() const noexcept;
    bool takesEffectUnseen(std::int64_t newTargetUs) const noexcept;
    bool isBelievable(std::int64_t senderTargetUs) const noexcept;
    void goByArrival(std::int64_t newSkewUs) noexcept;
    void aimAt(std::int64_t newTargetUs) noexcept;
    void approachTarget(std::int64_t elapsedUs) noexcept;
    std::int64_t mediaTimeUs(std::int64_t ticks) const noexcept;
    std::int64_t extend(std::uint32_t rtpTimestamp) const noexcept;

    std::int64_t clockRate;

    bool anchored = false;
    std::uint32_t lastTimestamp = 0;
    std::int64_t lastTicks = 0;  // lastTimestamp without wrap
    ArrivalTime lastArrival;

    // UTC = media time + offset, all in microseconds; the offset in use approaches the target.
    std::int64_t offsetUs = 0;
    std::int64_t targetUs = 0;
    bool senderClockUsed = false;
    std::chrono::steady_clock::time_point lastReportAt{};  // by the arrival of the packet before it

    // Least delay of a packet against the target within the present window; arrival mapping only.
    std::chrono::steady_clock::time_point windowBegin{};
    std::int64_t leastDelayUs = 0;

    bool stampedSinceAnchor = false;
    std::int64_t floorMs = std::numeric_limits<std::int64_t>::min();  // the last result
    std::int64_t skewUs = 0;                                          // as known before the present mapping
};
}  // namespace Tavro8::media

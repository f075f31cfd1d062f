#pragma once

#include "media/RtpTime.h"

#include <cstdint>
#include <limits>
#include <optional>

namespace Tavro8::media
{
/// Maps RTP timestamps of a replay to the time at which it was recorded, in UTC milliseconds.
///
/// Unlike with live media no clock of ours is asked: how long ago something was recorded says nothing about it. The
/// answer to PLAY names the time of the first packet, from then on each sender report is believed as it stands. A
/// report holds for timestamps from its own on, so that a frame in front of a gap is not moved behind it.
///
/// RTP time goes on across a gap between recordings, and the report behind it leaps ahead. When the device plays
/// faster, RTP time is either that of the recording or that of playing (RFC 2326 appendix B); which, the reports show.
///
/// One for each PLAY that names a place: results never decrease within its life.
class RecordedClock {
public:
    struct Start {
        std::int64_t timeMs = 0;                    ///< when the first packet was recorded
        std::optional<std::uint32_t> rtpTimestamp;  ///< of that packet; nothing: the first that is stamped
        double scale = 1;                           ///< speed
    };

    /// `clockRate` in Hz; 0 counts as 90000.
    RecordedClock(std::uint32_t clockRate, const Start& start) noexcept;

    /// The device has said where it really begins; nothing changes once a frame was stamped or a report has come.
    void correct(const Start& start) noexcept;
    /// It goes on at another speed from here.
    void changeScale(double newScale) noexcept;

    /// Ignored when it names no time.
    void onSenderReport(const SenderReport& report) noexcept;

    std::int64_t stamp(std::uint32_t rtpTimestamp) noexcept;

private:
    /// A timestamp and the time that it stands for.
    struct Pair {
        std::uint32_t rtpTimestamp = 0;
        std::int64_t timeMs = 0;
        double speed = 1;  ///< recorded time against RTP time from here on
    };

    std::int64_t timeOf(const Pair& pair, std::uint32_t rtpTimestamp) const noexcept;
    void learnSpeed(const Pair& last, const Pair& now) noexcept;

    std::uint32_t clockRate;
    std::int64_t startMs;
    double scale;
    double speed = 1;            // of RTP time, as learnt
    bool reported = false;       // a sender report has come
    std::optional<Pair> pair;    // from the last report on, or from the start
    std::optional<Pair> before;  // for timestamps in front of it
    std::uint32_t lastStamped = 0;
    std::int64_t floorMs = std::numeric_limits<std::int64_t>::min();
};
}  // namespace Tavro8::media

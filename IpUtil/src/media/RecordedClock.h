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
/// answer to PLAY names the time of the first packet, from then on each sender report is believed that is of the
/// interval asked for, some minutes more or less. A report holds for timestamps from its own on, so that a frame in
/// front of a gap is not moved behind it.
///
/// RTP time goes on across a gap between recordings, and the report behind it leaps ahead. Where RTP time begins anew
/// without a report in front, the frames are taken as following each other until one comes. When the device plays
/// faster, RTP time is either that of the recording or that of playing (RFC 2326 appendix B); which, the reports show.
///
/// One for each PLAY that names a place. Results never decrease within its life but for one case: a leap ahead that the
/// reports behind it contradict is taken back. Where a report is a little behind, results run slower for a while.
class RecordedClock {
public:
    /// Key frames of a recording are hardly further apart, in milliseconds.
    static constexpr std::int64_t longestKeyFrameDistanceMs = 10'000;

    /// UTC milliseconds.
    struct Interval {
        std::int64_t beginMs = std::numeric_limits<std::int64_t>::min();
        std::int64_t endMs = std::numeric_limits<std::int64_t>::max();
    };
    struct Start {
        std::int64_t timeMs = 0;                    ///< when the first packet was recorded
        std::optional<std::uint32_t> rtpTimestamp;  ///< of that packet; nothing: that of the first that comes
        double scale = 1;                           ///< speed
        Interval interval = {};                     ///< what was asked for
    };
    /// What an answer to a PLAY that names no place says all the same.
    struct Continuation {
        std::optional<std::int64_t> timeMs;
        std::optional<std::uint32_t> rtpTimestamp;
        double scale = 1;
    };

    /// `clockRate` in Hz; 0 counts as 90000.
    RecordedClock(std::uint32_t clockRate, const Start& start) noexcept;

    /// The device has said where it really begins; only the speed changes once a frame was stamped or a report has
    /// come. False when what came so far cannot be of that place: nothing else changes, to be begun anew.
    bool correct(const Start& start) noexcept;
    /// It goes on at another speed from here.
    void changeScale(double newScale) noexcept;
    /// It goes on after a rest.
    void resume(const Continuation& said) noexcept;

    /// The first packet, whether or not a frame comes of it.
    void onFirstPacket(std::uint32_t rtpTimestamp) noexcept;
    /// The first packet of another source or sequence: its RTP time may begin anew.
    void onRestart(std::uint32_t rtpTimestamp) noexcept;

    /// Ignored when it names no time; false when it names one that is well outside the interval.
    bool onSenderReport(const SenderReport& report) noexcept;

    /// Whether a report says of its timestamp what is known already, within a second.
    bool agreesWith(const SenderReport& report) const noexcept;

    std::int64_t stamp(std::uint32_t rtpTimestamp) noexcept;

    /// The latest time that was given to a frame.
    std::optional<std::int64_t> lastMs() const noexcept { return stamped ? std::optional(floorMs) : std::nullopt; }
    /// How far the last two times that were given to frames are apart; 0 as long as there are none.
    std::int64_t lastStepMs() const noexcept { return stepMs; }

private:
    /// A timestamp and the time that it stands for.
    struct Pair {
        std::uint32_t rtpTimestamp = 0;
        std::int64_t timeMs = 0;
        double speed = 1;  ///< recorded time against RTP time from here on
    };
    /// A step of the results that the timestamps do not explain.
    struct Leap {
        std::int64_t fromMs = 0;
        int confirmations = 0;  ///< reports that agreed with it
    };

    std::int64_t msBetween(std::uint32_t from, std::uint32_t to) const noexcept;
    std::int64_t timeOf(const Pair& pair, std::uint32_t rtpTimestamp) const noexcept;
    bool isOfInterval(std::int64_t timeMs) const noexcept;
    /// Whether one timestamp can come behind the other, or behind the newest, in the same RTP time.
    bool continuesFrom(std::uint32_t from, std::uint32_t to) const noexcept;
    bool continues(std::uint32_t rtpTimestamp) const noexcept;
    bool jumps(std::uint32_t rtpTimestamp) const noexcept;
    bool beginsAt(std::uint32_t rtpTimestamp) const noexcept;
    std::int64_t presentMs() const noexcept { return stamped ? floorMs : startMs; }
    void beginRtpTime(std::uint32_t rtpTimestamp) noexcept;
    void anchor(std::uint32_t rtpTimestamp, std::int64_t timeMs) noexcept;
    std::int64_t timeOfNextFrame() const noexcept;
    bool hasRunAhead(const Continuation& said) const noexcept;
    void reconcile() noexcept;
    void noticeLeap(std::int64_t timeMs, std::uint32_t rtpTimestamp) noexcept;
    void learnSpeed(const Pair& now) noexcept;

    std::uint32_t clockRate;
    std::int64_t startMs = 0;
    Interval interval;
    double scale = 1;

    double speed = 1;                  // of RTP time, as learnt
    std::optional<double> speedVote;   // what the last two reports say of it
    std::optional<Pair> lastReported;  // in the present RTP time
    bool reported = false;             // a sender report has come

    std::optional<Pair> pair;             // from the last report on, or from the start
    std::optional<Pair> before;           // for timestamps in front of it
    bool guessed = true;                  // `pair` is ours, and nothing was stamped by it
    std::optional<Pair> resumed;          // what was said about where it goes on, until the next frame
    std::optional<std::uint32_t> newest;  // timestamp of a frame, packet or report

    bool stamped = false;
    std::uint32_t highestStamped = 0;
    std::int64_t floorMs = 0;
    std::int64_t stepMs = 0;
    std::int64_t aheadMs = 0;  // of the results against `pair`, becomes less as time goes on
    std::optional<Leap> leap;
};
}  // namespace Tavro8::media

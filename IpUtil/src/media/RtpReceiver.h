#pragma once

#include "media/RtpPacket.h"
#include "media/RtpTime.h"

#include <bitset>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>

namespace Tavro8::media
{
/// The fields of one report block of an RTCP receiver report (RFC 3550 section 6.4.1).
struct ReceptionReport {
    std::uint32_t ssrc = 0;                        ///< the source reported on
    std::uint8_t fractionLost = 0;                 ///< in 1/256 since the previous report
    std::int32_t cumulativeLost = 0;               ///< within 24 bits signed; negative when duplicates outweigh losses
    std::uint32_t extendedHighestSequence = 0;     ///< cycles in the upper, sequence number in the lower 16 bits
    std::uint32_t jitter = 0;                      ///< in units of the track's clock rate
    std::uint32_t lastSenderReport = 0;            ///< middle 32 bits of its NTP timestamp, 0 before the first
    std::uint32_t delaySinceLastSenderReport = 0;  ///< in 1/65536 s, 0 before the first
};

/// Receive state of one RTP source: which packets belong to the track, what is missing, what to report
/// to the sender (RFC 3550 appendix A.1, A.3, A.8).
///
/// Two steps on purpose: `admit` sees packets as they arrive, `follow` sees them in the order in which
/// they are depacketised. Over TCP both are called back to back; over UDP a reorder buffer stands between.
/// Not thread-safe: belongs to the I/O context of its stream.
class RtpReceiver {
public:
    struct Settings {
        std::span<const std::uint8_t> payloadTypes;  ///< the track's; copied, anything else is foreign
        std::uint32_t clockRate = 90000;             ///< Hz, for the jitter

        /// UDP: a packet out of sequence or with a new SSRC restarts the state only when its successor
        /// confirms it (RFC 3550 A.1). Over TCP nothing strays, so the first one is believed: it is most
        /// often the start of a key frame, which would be lost otherwise.
        bool confirmRestart = false;
    };

    enum class Admission : std::uint8_t {
        accepted,
        first,      ///< accepted, and the first since `beginAnew`
        restarted,  ///< accepted, and the first of a new sequence: forget everything about the old one
        foreign,    ///< payload type of no interest; did not touch any state
        suspect,    ///< of a source or sequence not confirmed yet; to be dropped
        outdated,   ///< of the place before `beginAnew`; to be dropped
    };

    /// What the device has announced of the packet that it begins with (`RTP-Info`).
    struct FirstPacket {
        std::optional<std::uint16_t> sequenceNumber;
        std::optional<std::uint32_t> timestamp;
    };

    struct Continuity {
        bool inOrder = true;           ///< false: duplicate or too late, to be dropped
        std::uint32_t lostBefore = 0;  ///< packets missing between the previous one and this one
    };

    struct Counters {
        std::uint64_t received = 0;   ///< admitted packets, duplicates and late ones included
        std::uint64_t lost = 0;       ///< packets never seen in order, summed over restarts
        std::uint64_t duplicate = 0;  ///< the number last followed, again
        std::uint64_t late = 0;       ///< older than what was followed last
        std::uint64_t foreign = 0;    ///< dropped for their payload type
        std::uint64_t suspect = 0;    ///< dropped while a restart was not confirmed
        std::uint64_t restarts = 0;   ///< changes of the SSRC and jumps of the sequence number
    };

    explicit RtpReceiver(const Settings& settings);

    /// Before the first packet: packets come as datagrams, so that restarts need confirmation. So does the beginning
    /// when it is not of `expectedSource`, the SSRC that the device has announced; announcements are often wrong.
    void expectDatagrams(std::optional<std::uint32_t> expectedSource) noexcept;

    /// What comes next is of another place of a recording: its numbers begin anew, nothing is missing in front of it.
    /// Packets that go on with the old numbers and are in front of the one announced are of the old place.
    /// Announcements may be wrong: not for long, and not all too many are taken for such.
    void beginAnew(const FirstPacket& announced) noexcept;

    /// Judges a packet on arrival. Some devices send packets of a payload type nobody announced, with the
    /// SSRC of the stream and the sequence number of the packet that follows: the payload type is looked
    /// at before anything else.
    Admission admit(const RtpPacket& packet, const ArrivalTime& arrival) noexcept;

    /// Judges an admitted packet in depacketising order.
    Continuity follow(std::uint16_t sequenceNumber) noexcept;

    /// Whether a report is in front of the first packet that is announced and awaited.
    bool isOutdated(const SenderReport& report) const noexcept;

    /// Ignores reports of a source other than the one whose packets are being admitted; returns whether
    /// it was that one.
    bool onSenderReport(const SenderReport& report, const ArrivalTime& arrival) noexcept;

    /// The block for the next receiver report, or nothing while no packet was admitted. Starts a new
    /// interval for the fraction lost.
    std::optional<ReceptionReport> makeReport(std::chrono::steady_clock::time_point now) noexcept;

    std::optional<std::uint32_t> ssrc() const noexcept;
    const Counters& getCounters() const noexcept { return counters; }

private:
    struct LastSenderReport {
        std::uint32_t middleNtp = 0;
        std::chrono::steady_clock::time_point arrival{};
    };

    /// The first packet of a new place, until it comes.
    struct Awaited {
        FirstPacket announced;
        bool hasOldPlace = false;
        std::uint32_t dropped = 0;
        std::chrono::steady_clock::time_point since{};  // the first that was dropped
    };

    bool isOfOldPlace(const RtpPacket& packet, const ArrivalTime& arrival) noexcept;
    bool isAtOrBehind(std::uint32_t timestamp, std::uint32_t first) const noexcept;
    bool mayBegin(const RtpPacket& packet) const noexcept;
    bool isConfirmed(const RtpPacket& packet) noexcept;
    void restart(const RtpPacket& packet) noexcept;
    void updateJitter(std::uint32_t timestamp, std::chrono::steady_clock::time_point arrival) noexcept;

    std::optional<std::uint32_t> announcedSource;
    std::optional<Awaited> awaited;

    // The packet that would confirm a restart.
    bool suspecting = false;
    std::uint32_t suspectSource = 0;
    std::uint16_t suspectNext = 0;

    // Receiver reports (RFC 3550 A.3).
    std::uint64_t expectedPrior = 0;
    std::uint64_t receivedPrior = 0;
    std::optional<LastSenderReport> lastReport;

    // From here on what each packet needs.
    std::bitset<128> payloadTypes;
    std::uint32_t clockRate;
    bool confirmRestart;
    bool started = false;
    std::uint32_t source = 0;

    // Arrival order (RFC 3550 A.1).
    std::uint16_t highestSequence = 0;
    std::uint64_t cycles = 0;  // already shifted: counts in steps of 65536; reports have room for 32 bits
    std::uint32_t baseSequence = 0;
    std::uint64_t receivedOfSource = 0;

    // Depacketising order.
    bool following = false;
    std::uint16_t nextSequence = 0;

    // Interarrival jitter (RFC 3550 A.8), scaled by 16.
    bool haveTransit = false;
    std::uint32_t lastTransit = 0;
    std::uint64_t scaledJitter = 0;

    Counters counters;
};
}  // namespace Tavro8::media

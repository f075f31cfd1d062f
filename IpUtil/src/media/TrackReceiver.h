#pragma once

#include "media/Depacketiser.h"
#include "media/FramePool.h"
#include "media/MediaClock.h"
#include "media/RecordedClock.h"
#include "media/ReorderBuffer.h"
#include "media/RtpReceiver.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace Tavro8::media
{
/// Takes the finished frames of a track, on the thread that fed the packets.
class FrameSink {
public:
    /// The frame is valid during the call; make a `GDRV::FrameReference` to keep it. The sink must not
    /// destroy the receiver that calls it, nor call back into it.
    virtual void onFrame(const GDRV::MediaFrame& frame) = 0;

protected:
    ~FrameSink() = default;
};

/// Everything between a track's packets and its frames: receive state, reorder buffer, clock, depacketiser.
///
/// Nothing is allocated for a packet or, once the pool is warm, for a frame. Not thread-safe: belongs to
/// the I/O context of its stream. Make a new one for each connection, and hand it the
/// `clockCarry` of the previous one.
class TrackReceiver final : private AccessUnitSink {
public:
    struct Options {
        DepacketiserOptions depacketiser;
        bool confirmRestart = false;  ///< for UDP; see `RtpReceiver::Settings`
    };

    struct Statistics {
        std::uint64_t packets = 0;      ///< admitted RTP packets
        std::uint64_t packetBytes = 0;  ///< their length, headers included
        std::uint64_t frames = 0;       ///< handed to the sink
        std::uint64_t keyFrames = 0;
        std::uint64_t frameBytes = 0;  ///< payload handed to the sink
        std::uint64_t lostPackets = 0;
        std::uint64_t latePackets = 0;       ///< duplicates and packets that came too late
        std::uint64_t foreignPackets = 0;    ///< of a payload type that is not the track's
        std::uint64_t malformedPackets = 0;  ///< no RTP, or against the payload format
        std::uint64_t droppedFrames = 0;     ///< held back by the loss policy
        std::uint64_t damagedFrames = 0;
        std::uint64_t restarts = 0;           ///< changes of the SSRC and jumps of the sequence
        std::uint64_t ignoredReports = 0;     ///< of recorded media: their time is outside what is played
        std::uint64_t packetsSinceFrame = 0;  ///< admitted since the last undamaged frame was handed out

        /// The payload type is the track's, but what comes is another format: without an undamaged frame in
        /// between there were a hundred more packets in which nothing was recognised than others, at eight
        /// times at least. To be answered by describing the stream anew. Never true of a stream that only
        /// waits for its key frame or loses packets: each of its packets is recognised by itself.
        bool formatChanged = false;
    };

    /// Null when there is no depacketiser for the format (`refusalOf` says why). `sink` must outlive it.
    static std::unique_ptr<TrackReceiver> make(const TrackFormat& format, std::shared_ptr<FramePool> pool,
                                               FrameSink& sink, const Options& options);
    static std::unique_ptr<TrackReceiver> make(const TrackFormat& format, std::shared_ptr<FramePool> pool,
                                               FrameSink& sink)
    {
        return make(format, std::move(pool), sink, Options{});
    }

    /// Before any packet: they come as datagrams, which the network loses, doubles and reorders. `source` is the SSRC
    /// that the device has announced, if it has.
    void expectDatagrams(std::optional<std::uint32_t> source, const ReorderBuffer::Settings& settings = {});

    /// Adds what packets need.
    void listHotMemory(HotMemory& hot) const noexcept;

    /// One RTP packet as received. The bytes are needed only during the call. Throws std::bad_alloc only.
    void onRtp(std::span<const std::uint8_t> bytes, const ArrivalTime& arrival);

    /// Now and then: gives up what has been missing for too long. Hands out frames.
    void onTick(std::chrono::steady_clock::time_point now);

    /// A datagram that was cut off on its way here.
    void onTruncated() noexcept { ++notRtp; }

    /// A sender report for this track. One that comes before the first packet of its source is kept for it.
    void onSenderReport(const SenderReport& report, const ArrivalTime& arrival) noexcept;

    /// What comes from now on is a recording from another place on than before: begins anew with its next key frame,
    /// and frames carry the time of the recording. Not for live media again. `first` is the first packet that the
    /// device has announced: what is still of the old place is dropped.
    void beginRecorded(const RecordedClock::Start& start, const RtpReceiver::FirstPacket& first = {});
    /// What the device says about it; null before `beginRecorded`.
    RecordedClock* getRecordedClock() const noexcept { return recorded.get(); }

    /// Frames were not taken: goes on with the next key frame.
    void awaitKeyFrame() { depacketiser->reset(); }

    /// Of the packets that come, once some have.
    std::optional<std::uint32_t> ssrc() const noexcept { return receiver.ssrc(); }

    /// The stream ends or pauses: hands out what only waits for other packets to come.
    void flush();

    /// For the receiver of the next connection.
    MediaClock::Carry clockCarry() const noexcept { return clock.carry(); }

    /// Goes on where the receiver of the previous connection ended: frame times neither run backwards nor
    /// jump, and the first frame tells that others are missing before it. To be called before any packet.
    void resume(const MediaClock::Carry& previous)
    {
        clock.resume(previous);
        depacketiser->reset();
    }

    /// The block for the next RTCP receiver report; nothing while no packet has come.
    std::optional<ReceptionReport> makeReport(std::chrono::steady_clock::time_point now) noexcept
    {
        return receiver.makeReport(now);
    }

    Statistics statistics() const noexcept;
    RtpFault getLastFault() const noexcept { return lastFault; }  ///< of the last packet that was no RTP

private:
    TrackReceiver(const TrackFormat& format, std::shared_ptr<FramePool> framePool, FrameSink& frameSink,
                  const Options& options);

    struct EarlyReport {
        SenderReport report;
        ArrivalTime arrival;
    };

    void keepEarly(const EarlyReport& early) noexcept;
    void useEarly(std::uint32_t ssrc) noexcept;
    void useReport(const SenderReport& report) noexcept;
    void onFirst(const RtpPacket& packet) noexcept;
    void accept(const RtpPacket& packet, std::span<const std::uint8_t> bytes, const ArrivalTime& arrival);
    void keepSuspect(std::span<const std::uint8_t> bytes, const ArrivalTime& arrival);
    void onRestart(const RtpPacket& packet);
    void deliverWaiting(const ReorderBuffer::Packet& waiting);
    void deliver(const RtpPacket& packet, const ArrivalTime& arrival);
    void watchFormat(std::uint32_t rtpTimestamp, bool misfit) noexcept;
    void onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t rtpTimestamp) override;

    std::shared_ptr<FramePool> pool;  // outlives the depacketiser, which uses it
    RtpFault lastFault = RtpFault::none;
    std::uint64_t notRtp = 0;
    const std::uint32_t clockRate;
    // The latest of two sources: where tracks share a channel, those of the other come too.
    std::array<EarlyReport, 2> earlyReports;

    // Datagrams only.
    std::vector<std::uint8_t> suspect;  // the last suspect packet; keeps its capacity
    ArrivalTime suspectArrival;
    std::optional<ReorderBuffer> reorder;

    // What each packet needs stands side by side, behind the end of the reorder buffer.
    std::unique_ptr<Depacketiser> depacketiser;
    FrameSink& sink;
    RtpReceiver receiver;
    MediaClock clock;
    std::size_t earlyCount = 0;
    std::unique_ptr<RecordedClock> recorded;          // of a replay, instead of `clock`
    std::optional<std::uint32_t> lastVideoTimestamp;  // of the last frame handed out, for durations
    Statistics totals;

    /// How much speaks for another format than the one described, since the last undamaged frame.
    struct Doubt {
        std::uint32_t excess = 0;  // of misfits over other packets
        std::uint32_t times = 0;   // distinct timestamps of misfits
        std::uint32_t lastTimestamp = 0;
    };
    Doubt doubt;
};
}  // namespace Tavro8::media

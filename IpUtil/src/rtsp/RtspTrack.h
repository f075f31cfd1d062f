#pragma once

#include "media/TrackReceiver.h"
#include "rtsp/RtpPorts.h"
#include "wire/Bytes.h"
#include "wire/Rtcp.h"
#include "wire/RtspMessage.h"

#include <IpUtil/LoggerHelper.h>
#include <IpUtil/RTSPClient.h>
#include <IpUtil/Statistics.h>
#include <bitset>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace Tavro8::Utility
{
/// One track of a session: what it receives, what is sent to it, and on which channels or ports. Belongs to its
/// client's I/O context.
class RTSPTrack final : private media::FrameSink {
public:
    RTSPTrack(TrackInitializer initializer, const LoggerHelper& logger);
    ~RTSPTrack();
    RTSPTrack(const RTSPTrack&) = delete;
    RTSPTrack& operator=(const RTSPTrack&) = delete;

    /// Makes the track one that receives; null, or why it cannot.
    const char* receive(const media::TrackFormat& format, const std::shared_ptr<media::FramePool>& pool,
                        LossHandling lossHandling);
    bool isReceiving() const noexcept { return receiver != nullptr; }

    const SdpTrack& description() const noexcept { return initializer.track; }

    /// Ports to ask the device for; they count when it agrees to them.
    void offer(std::shared_ptr<RtpPorts> opened) noexcept { ports = std::move(opened); }

    /// The device has agreed to the track, interleaved on these channels.
    void establish(const wire::ChannelPair& agreed) noexcept;
    /// The device has agreed to send to the ports offered; `source` is the SSRC that it has announced. False when it
    /// was known already.
    bool establishPorts(std::optional<std::uint32_t> source);
    bool isEstablished() const noexcept { return channels || usesUdp; }
    /// The ports in use, null for an interleaved track.
    RtpPorts* getPorts() const noexcept { return usesUdp ? ports.get() : nullptr; }
    void closePorts() noexcept;

    /// Whoever takes the frames needs this for each of them.
    void setTakersMemory(const media::HotMemory& takers) noexcept;
    /// Packets are about to be read.
    void prefetch() const noexcept { hotMemory.prefetch(); }
    /// A packet where RTP is expected; one of RTCP is told by its type.
    void onRtp(wire::ByteView packet, const media::ArrivalTime& arrival);
    void onRtcp(wire::ByteView packet, const media::ArrivalTime& arrival);
    void onTruncated() noexcept { receiver->onTruncated(); }
    /// Now and then, while the track plays; may hand out frames.
    void onTick(std::chrono::steady_clock::time_point now)
    {
        if (receiver != nullptr)
            receiver->onTick(now);
    }
    /// Nothing more comes: hands out what waits for other packets.
    void flush() { receiver->flush(); }
    /// From now on frames are dropped; allowed inside the delivery of one.
    void mute() noexcept { muted = true; }
    /// Frames are handed out again: where some were dropped meanwhile, from the next key frame on.
    void unmute();

    /// Before anything is received: the track's media are recorded, and none are due yet.
    void makeRecorded();
    bool isRecorded() const noexcept { return receiver != nullptr && receiver->getRecordedClock() != nullptr; }
    /// Only for a track that receives; see `media::TrackReceiver::beginRecorded`. A BYE so far is forgotten.
    void beginRecorded(const media::RecordedClock::Start& start, const media::RtpReceiver::FirstPacket& first = {});
    /// Only of a recorded track.
    media::RecordedClock& getRecordedClock() noexcept { return *receiver->getRecordedClock(); }
    const media::RecordedClock& getRecordedClock() const noexcept { return *receiver->getRecordedClock(); }

    /// Whether a report of its source says what is known already. Only of a recorded track.
    bool agreesWith(const wire::RtcpSenderReport& report) const noexcept;

    /// The compound RTCP packet of a receiver report; empty while nothing was received.
    wire::Bytes makeReport(std::uint32_t ownSource, std::chrono::steady_clock::time_point now);
    /// The same for one that says nothing, to a device of which nothing has been received.
    static wire::Bytes makeEmptyReport(std::uint32_t ownSource);
    /// The last report: we leave. Empty when there was none before (RFC 3550 section 6.3.7).
    wire::Bytes makeBye(std::uint32_t ownSource) const;
    /// An RTCP packet as an interleaved frame on the track's channel.
    std::vector<std::uint8_t> interleave(const wire::Bytes& rtcp) const;
    /// An interleaved frame with one RTP packet (RFC 3550 section 5.1) to the device; empty when it is too large.
    std::vector<std::uint8_t> makePacket(const std::vector<std::uint8_t>& payload, std::uint32_t timestamp);

    StreamCounters counters() const noexcept;
    media::TrackReceiver::Statistics statistics() const noexcept;
    /// Of the last packet that is no RTP; none when those that cannot be read break the payload format.
    media::RtpFault lastFault() const noexcept { return receiver->getLastFault(); }
    bool takes(std::uint8_t payloadType) const noexcept { return payloadTypes[payloadType]; }
    bool isVideo() const noexcept { return description().kind == "video"; }
    /// The time from which on silence counts.
    void beginWatch(std::chrono::steady_clock::time_point now) noexcept;
    /// To be asked at each tick: for how long no packet of the track's format has come.
    std::chrono::steady_clock::duration silence(const media::TrackReceiver::Statistics& total,
                                                std::chrono::steady_clock::time_point now) noexcept;
    /// To be asked at each tick: whether packets have come for `limit`, a hundred at least, and no frame was made of
    /// them.
    bool bringsNoFrame(const media::TrackReceiver::Statistics& total, std::chrono::steady_clock::time_point now,
                       std::chrono::milliseconds limit) noexcept;
    /// Whether the track is to come over UDP and no datagram has.
    bool awaitsFirstDatagram() const noexcept { return getPorts() != nullptr && getPorts()->rtpDatagrams() == 0; }
    /// To be asked at each tick: whether the track, having played, has brought nothing but unknown payload types for
    /// `limit`.
    bool sendsOnlyForeign(const media::TrackReceiver::Statistics& total, std::chrono::steady_clock::time_point now,
                          std::chrono::milliseconds limit) noexcept;
    /// The device has said BYE and nothing has come since.
    bool hasSaidBye(const media::TrackReceiver::Statistics& total) const noexcept
    {
        return packetsAtBye == total.packets;
    }
    /// Whether it was the BYE of the track's own source, as far as that is known.
    bool wasOwnBye() const noexcept { return ownBye; }

    media::MediaClock::Carry clockCarry() const noexcept { return receiver->clockCarry(); }
    void resumeClock(const media::MediaClock::Carry& carry) { receiver->resume(carry); }

private:
    void onFrame(const GDRV::MediaFrame& frame) override;

    LoggerHelper logger;
    TrackInitializer initializer;                    // from its handler to the payload types: what each frame needs
    std::unique_ptr<media::TrackReceiver> receiver;  // null for a track that is only sent to
    bool muted = false;
    bool droppedWhileMuted = false;
    bool usesUdp = false;
    std::bitset<256> payloadTypes;  // of the format that is received
    media::HotMemory hotMemory;
    std::optional<wire::ChannelPair> channels;
    std::shared_ptr<RtpPorts> ports;  // offered or in use
    bool reported = false;
    std::optional<std::uint64_t> packetsAtBye;
    bool ownBye = false;
    bool throwReported = false;
    std::uint32_t lastJitter = 0;  // of the last report, in units of the clock rate

    // As of the last tick.
    std::uint64_t packetsWatched = 0;
    std::chrono::steady_clock::time_point lastProgress;
    std::uint64_t framesWatched = 0;
    std::optional<std::chrono::steady_clock::time_point> framelessSince;
    std::uint64_t packetsBefore = 0;
    std::uint64_t foreignBefore = 0;
    std::optional<std::chrono::steady_clock::time_point> foreignSince;

    // The sending side.
    std::uint32_t sendSource;
    std::uint16_t sendSequence;
    bool sentAny = false;
};
}  // namespace Tavro8::Utility

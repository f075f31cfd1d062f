#pragma once

#include "media/TrackReceiver.h"
#include "wire/Bytes.h"
#include "wire/RtspMessage.h"

#include <IpUtil/LoggerHelper.h>
#include <IpUtil/RTSPClient.h>
#include <IpUtil/Statistics.h>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace Tavro8::Utility
{
/// One track of a session: what it receives, what is sent to it. Belongs to its client's I/O context.
class RTSPTrack final : private media::FrameSink {
public:
    RTSPTrack(TrackInitializer initializer, const LoggerHelper& logger);

    /// Makes the track one that receives; null, or why it cannot.
    const char* receive(const media::TrackFormat& format, const std::shared_ptr<media::FramePool>& pool,
                        LossHandling lossHandling);
    bool isReceiving() const noexcept { return receiver != nullptr; }

    const SdpTrack& description() const noexcept { return initializer.track; }

    /// The device has agreed to the track, on these interleaved channels.
    void establish(const wire::ChannelPair& agreed) noexcept;
    bool isEstablished() const noexcept { return channels.has_value(); }
    const wire::ChannelPair& getChannels() const noexcept { return *channels; }

    void onRtp(wire::ByteView packet, const media::ArrivalTime& arrival) { receiver->onRtp(packet, arrival); }
    void onRtcp(wire::ByteView packet, const media::ArrivalTime& arrival);
    /// From now on frames are dropped; allowed inside the delivery of one.
    void mute() noexcept { muted = true; }

    /// An interleaved frame with the compound RTCP packet of a receiver report; empty while nothing was received.
    std::vector<std::uint8_t> makeReport(std::uint32_t ownSource, std::chrono::steady_clock::time_point now);
    /// An interleaved frame with one RTP packet (RFC 3550 section 5.1) to the device; empty when it is too large.
    std::vector<std::uint8_t> makePacket(const std::vector<std::uint8_t>& payload, std::uint32_t timestamp);

    StreamCounters counters() const noexcept;
    media::TrackReceiver::Statistics statistics() const noexcept;
    /// To be asked at each tick: whether the track, having played, has brought nothing but unknown payload types for
    /// `limit`.
    bool sendsOnlyForeign(const media::TrackReceiver::Statistics& total, std::chrono::steady_clock::time_point now,
                          std::chrono::milliseconds limit) noexcept;
    /// The device has said BYE and nothing has come since.
    bool hasSaidBye(const media::TrackReceiver::Statistics& total) const noexcept
    {
        return packetsAtBye == total.packets;
    }

    media::MediaClock::Carry clockCarry() const noexcept { return receiver->clockCarry(); }
    void resumeClock(const media::MediaClock::Carry& carry) { receiver->resume(carry); }

private:
    void onFrame(const GDRV::MediaFrame& frame) override;

    TrackInitializer initializer;
    LoggerHelper logger;
    std::unique_ptr<media::TrackReceiver> receiver;  // null for a track that is only sent to
    std::optional<wire::ChannelPair> channels;
    bool muted = false;
    std::optional<std::uint64_t> packetsAtBye;
    bool throwReported = false;
    std::uint32_t lastJitter = 0;  // of the last report, in units of the clock rate

    // As of the last tick.
    std::uint64_t packetsBefore = 0;
    std::uint64_t foreignBefore = 0;
    std::optional<std::chrono::steady_clock::time_point> foreignSince;

    // The sending side.
    std::uint32_t sendSource;
    std::uint16_t sendSequence;
    bool sentAny = false;
};
}  // namespace Tavro8::Utility

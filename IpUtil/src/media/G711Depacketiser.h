#pragma once

#include "media/Depacketiser.h"
#include "media/FramePool.h"

namespace Tavro8::media
{
/// G.711 (RFC 3551 section 4.5.14): a packet is a frame, one byte a sample, channels interleaved.
class G711Depacketiser final : public Depacketiser {
public:
    G711Depacketiser(const TrackFormat& format, FramePool& framePool, AccessUnitSink& accessUnitSink);

    void push(const RtpPacket& packet, bool lostBefore) override;
    void flush() override {}
    void reset() override { lossToTell = true; }

private:
    GDRV::MediaCodec codec;
    std::uint32_t sampleRate;
    std::uint32_t channelCount;
    FramePool& pool;
    AccessUnitSink& sink;
    bool lossToTell = false;  // since the last frame handed out
};
}  // namespace Tavro8::media

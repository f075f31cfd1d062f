#include "media/G711Depacketiser.h"

#include <cstring>

namespace Tavro8::media
{
G711Depacketiser::G711Depacketiser(const TrackFormat& format, FramePool& framePool, AccessUnitSink& accessUnitSink)
    : codec(format.codec),
      sampleRate(clockRateOf(format)),
      channelCount(format.channelCount == 0 ? 1 : format.channelCount),
      pool(framePool),
      sink(accessUnitSink)
{}

void G711Depacketiser::push(const RtpPacket& packet, bool lostBefore)
{
    lossToTell = lossToTell || lostBefore;
    if (packet.payload.empty())
        return;
    if (packet.payload.size() % channelCount != 0) {
        ++counters.malformed;
        ++counters.misfits;
        lossToTell = true;
        return;
    }
    FrameBuffer& buffer = pool.acquire(packet.payload.size());
    std::memcpy(buffer.data(), packet.payload.data(), packet.payload.size());

    GDRV::MediaFrame frame;
    frame.codec = codec;
    frame.keyFrame = true;
    frame.lostPacketsBefore = lossToTell;
    frame.sampleRate = sampleRate;
    frame.channelCount = channelCount;
    frame.sampleCount = static_cast<std::uint32_t>(packet.payload.size() / channelCount);
    frame.durationMs =
        static_cast<std::uint32_t>((std::uint64_t{frame.sampleCount} * 1000 + sampleRate / 2) / sampleRate);
    frame.data = {buffer.data(), packet.payload.size()};
    frame.buffer = &buffer;
    lossToTell = false;
    sink.onAccessUnit(frame, packet.timestamp);
    buffer.Release();
}
}  // namespace Tavro8::media

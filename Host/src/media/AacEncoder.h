#pragma once

#include "media/Ffmpeg.h"
#include "media/MediaFormat.h"

#include <functional>
#include <vector>

namespace Host
{
/// Turns G.711 or plain samples into AAC, since players expect no G.711 in an MP4 file.
class AacEncoder {
public:
    /// Takes each packet as it is made, in units of the sample rate.
    using Sink = std::function<void(AVPacket&)>;

    /// `globalHeader`: the file format keeps the decoder's parameters in its own header.
    AacEncoder(const AudioFormat& source, bool globalHeader);

    const AVCodecContext& getContext() const noexcept { return *encoder; }

    /// `begin` is the time of the first sample. A jump ahead of the samples so far becomes a gap.
    void encode(std::span<const std::uint8_t> data, std::int64_t begin, const Sink& sink);

    /// Encodes what waits for a whole frame, filled up with silence, and what the encoder holds back.
    void finish(const Sink& sink);

private:
    void take(const AVFrame& decoded);
    void encodeWholeFrames(const Sink& sink);
    void fillUp(const Sink& sink);
    void drain(const Sink& sink);
    std::size_t waitingSamples() const noexcept;

    CodecContextPtr decoder;
    CodecContextPtr encoder;
    std::vector<float> waiting;   // samples of all channels in turn, less than one encoder frame
    std::int64_t nextSample = 0;  // time of the first of them
};
}  // namespace Host

#include "media/AacEncoder.h"

#include "media/Picture.h"

#include <algorithm>

namespace Host
{
namespace
{
constexpr std::int64_t bitRatePerChannel(std::uint32_t sampleRate) noexcept
{
    // Speech of telephone bandwidth gains nothing from more, and AAC allows 6 bits a sample.
    return sampleRate <= 16000 ? 32000 : 64000;
}

CodecContextPtr openPcmDecoder(const AudioFormat& format)
{
    CodecContextPtr decoder = makeDecoder(ffmpegCodec(format.codec));
    decoder->sample_rate = static_cast<int>(format.sampleRate);
    av_channel_layout_default(&decoder->ch_layout, static_cast<int>(format.channelCount));
    checkFfmpeg(avcodec_open2(decoder.get(), decoder->codec, nullptr), "sound decoder");
    return decoder;
}

CodecContextPtr openAacEncoder(const AudioFormat& format, bool globalHeader)
{
    CodecContextPtr encoder = makeEncoder(AV_CODEC_ID_AAC);
    encoder->sample_rate = static_cast<int>(format.sampleRate);
    encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    encoder->time_base = {1, encoder->sample_rate};
    encoder->bit_rate = bitRatePerChannel(format.sampleRate) * format.channelCount;
    av_channel_layout_default(&encoder->ch_layout, static_cast<int>(format.channelCount));
    if (globalHeader)
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    checkFfmpeg(avcodec_open2(encoder.get(), encoder->codec, nullptr), "sound encoder");
    return encoder;
}
}  // namespace

AacEncoder::AacEncoder(const AudioFormat& source, bool globalHeader)
    : decoder(openPcmDecoder(source)), encoder(openAacEncoder(source, globalHeader))
{}

std::size_t AacEncoder::waitingSamples() const noexcept
{
    return waiting.size() / static_cast<std::size_t>(encoder->ch_layout.nb_channels);
}

void AacEncoder::encode(std::span<const std::uint8_t> data, std::int64_t begin, const Sink& sink)
{
    if (begin > nextSample + static_cast<std::int64_t>(waitingSamples())) {
        fillUp(sink);
        nextSample = std::max(nextSample, begin);
    }
    const PacketPtr packet = makePacket(data);
    checkFfmpeg(avcodec_send_packet(decoder.get(), packet.get()), "sound");
    const FramePtr decoded = makeFrame();
    while (avcodec_receive_frame(decoder.get(), decoded.get()) >= 0)
        take(*decoded);
    encodeWholeFrames(sink);
}

void AacEncoder::take(const AVFrame& decoded)
{
    // All decoders in question give interleaved 16-bit samples.
    constexpr float scale = 1.0F / 32768.0F;
    const auto* samples = reinterpret_cast<const std::int16_t*>(decoded.data[0]);
    const auto count =
        static_cast<std::size_t>(decoded.nb_samples) * static_cast<std::size_t>(encoder->ch_layout.nb_channels);
    std::transform(samples, samples + count, std::back_inserter(waiting),
                   [](std::int16_t sample) { return static_cast<float>(sample) * scale; });
}

void AacEncoder::encodeWholeFrames(const Sink& sink)
{
    const auto channels = static_cast<std::size_t>(encoder->ch_layout.nb_channels);
    const auto frameSamples = static_cast<std::size_t>(encoder->frame_size);
    while (waitingSamples() >= frameSamples) {
        const FramePtr frame = makeFrame();
        frame->nb_samples = encoder->frame_size;
        frame->format = encoder->sample_fmt;
        frame->sample_rate = encoder->sample_rate;
        frame->pts = nextSample;
        checkFfmpeg(av_channel_layout_copy(&frame->ch_layout, &encoder->ch_layout), "sound");
        checkFfmpeg(av_frame_get_buffer(frame.get(), 0), "sound");
        for (std::size_t i = 0; i < frameSamples * channels; ++i)
            reinterpret_cast<float*>(frame->extended_data[i % channels])[i / channels] = waiting[i];
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(frameSamples * channels));
        nextSample += encoder->frame_size;
        checkFfmpeg(avcodec_send_frame(encoder.get(), frame.get()), "sound encoder");
        drain(sink);
    }
}

void AacEncoder::fillUp(const Sink& sink)
{
    if (waiting.empty())
        return;
    waiting.resize(static_cast<std::size_t>(encoder->frame_size) *
                   static_cast<std::size_t>(encoder->ch_layout.nb_channels));
    encodeWholeFrames(sink);
}

void AacEncoder::drain(const Sink& sink)
{
    const PacketPtr packet = makePacket();
    while (avcodec_receive_packet(encoder.get(), packet.get()) >= 0)
        sink(*packet);
}

void AacEncoder::finish(const Sink& sink)
{
    fillUp(sink);
    checkFfmpeg(avcodec_send_frame(encoder.get(), nullptr), "sound encoder");
    drain(sink);
}
}  // namespace Host

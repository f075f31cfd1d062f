#include "media/MediaFile.h"

#include "PathText.h"
#include "media/AacEncoder.h"
#include "media/AudioClock.h"
#include "media/Picture.h"
#include "media/VideoClock.h"

#include <cstring>
#include <new>

namespace Host
{
namespace fs = std::filesystem;
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;
namespace
{
constexpr AVRational milliseconds{1, 1000};

struct OutputDeleter {
    void operator()(AVFormatContext* context) const noexcept
    {
        avio_closep(&context->pb);
        avformat_free_context(context);
    }
};
using OutputPtr = std::unique_ptr<AVFormatContext, OutputDeleter>;

OutputPtr openOutput(const fs::path& path)
{
    const bool matroska = lowerCaseEnding(path) == ".mkv";
    AVFormatContext* context = nullptr;
    const std::string name = pathText(path);
    checkFfmpeg(avformat_alloc_output_context2(&context, nullptr, matroska ? "matroska" : "mp4", name.c_str()), name);
    OutputPtr output(context);
    // "file:" keeps FFmpeg from reading a protocol into a name with a colon.
    checkFfmpeg(avio_open(&output->pb, ("file:" + name).c_str(), AVIO_FLAG_WRITE), "cannot write " + name);
    return output;
}

AVStream& addStream(AVFormatContext& output)
{
    AVStream* stream = avformat_new_stream(&output, nullptr);
    if (stream == nullptr)
        throw std::bad_alloc();
    return *stream;
}

void setExtraData(AVCodecParameters& parameters, const std::vector<std::uint8_t>& bytes)
{
    if (bytes.empty())
        return;
    parameters.extradata = static_cast<std::uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (parameters.extradata == nullptr)
        throw std::bad_alloc();
    std::memcpy(parameters.extradata, bytes.data(), bytes.size());
    parameters.extradata_size = static_cast<int>(bytes.size());
}

AVStream& addVideo(AVFormatContext& output, const VideoFormat& format)
{
    AVStream& stream = addStream(output);
    stream.time_base = {1, 90000};
    AVCodecParameters& parameters = *stream.codecpar;
    parameters.codec_type = AVMEDIA_TYPE_VIDEO;
    parameters.codec_id = ffmpegCodec(format.codec);
    parameters.width = static_cast<int>(format.width);
    parameters.height = static_cast<int>(format.height);
    // Some players take H.265 in MP4 under this name only.
    if (format.codec == MediaCodec::h265 && std::strcmp(output.oformat->name, "mp4") == 0)
        parameters.codec_tag = MKTAG('h', 'v', 'c', '1');
    setExtraData(parameters, format.parameterSets);
    return stream;
}

AVStream& addAudioAsReceived(AVFormatContext& output, const AudioFormat& format)
{
    AVStream& stream = addStream(output);
    stream.time_base = {1, static_cast<int>(format.sampleRate)};
    AVCodecParameters& parameters = *stream.codecpar;
    parameters.codec_type = AVMEDIA_TYPE_AUDIO;
    parameters.codec_id = ffmpegCodec(format.codec);
    parameters.sample_rate = static_cast<int>(format.sampleRate);
    av_channel_layout_default(&parameters.ch_layout, static_cast<int>(format.channelCount));
    parameters.bits_per_coded_sample = av_get_bits_per_sample(parameters.codec_id);
    parameters.block_align = parameters.bits_per_coded_sample / 8 * static_cast<int>(format.channelCount);
    setExtraData(parameters, format.config);
    return stream;
}

AVStream& addAudioAsEncoded(AVFormatContext& output, const AacEncoder& encoder)
{
    AVStream& stream = addStream(output);
    stream.time_base = encoder.getContext().time_base;
    checkFfmpeg(avcodec_parameters_from_context(stream.codecpar, &encoder.getContext()), "sound");
    return stream;
}
}  // namespace

bool isMediaFile(const fs::path& path)
{
    const std::string ending = lowerCaseEnding(path);
    return ending == ".mp4" || ending == ".mkv";
}

struct MediaFile::State {
    State(const fs::path& path, const VideoFormat& videoFormat, const std::optional<AudioFormat>& audioFormat,
          std::int64_t origin)
        : name(pathText(path)), output(openOutput(path)), originMs(origin), video(addVideo(*output, videoFormat))
    {
        if (audioFormat)
            addAudio(*audioFormat);
        check(avformat_write_header(output.get(), nullptr));
    }

    void addAudio(const AudioFormat& format)
    {
        sampleRate = static_cast<int>(format.sampleRate);
        audioClock.emplace(format.sampleRate);
        if (format.codec == MediaCodec::aac || std::strcmp(output->oformat->name, "mp4") != 0) {
            audio = &addAudioAsReceived(*output, format);
            return;
        }
        encoder.emplace(format, (output->oformat->flags & AVFMT_GLOBALHEADER) != 0);
        audio = &addAudioAsEncoded(*output, *encoder);
    }

    void check(int result) const { checkFfmpeg(result, "cannot write " + name); }

    /// `packet` has its times in `base`; the muxer has chosen the stream's own.
    void write(AVPacket& packet, const AVStream& stream, AVRational base) const
    {
        av_packet_rescale_ts(&packet, base, stream.time_base);
        packet.stream_index = stream.index;
        check(av_interleaved_write_frame(output.get(), &packet));
        check(output->pb->error);  // a full disk shows here first, since writing is buffered
    }

    void writeSound(AVPacket& packet) const { write(packet, *audio, {1, sampleRate}); }

    const std::string name;
    const OutputPtr output;
    const std::int64_t originMs;
    VideoClock videoClock;
    AVStream& video;                    // belongs to output
    AVStream* audio = nullptr;          // belongs to output; null in a file without sound
    std::optional<AacEncoder> encoder;  // empty when the sound is kept as received
    std::optional<AudioClock> audioClock;
    int sampleRate = 0;
};

MediaFile::MediaFile(const fs::path& path, const VideoFormat& video, const std::optional<AudioFormat>& audio,
                     std::int64_t originMs)
    : state(std::make_unique<State>(path, video, audio, originMs))
{}

MediaFile::~MediaFile() = default;

void MediaFile::writeVideo(const MediaFrame& frame)
{
    const PacketPtr packet = makePacket(frame.data);
    packet->pts = packet->dts = state->videoClock.advance(frame.timestampMs - state->originMs, frame.durationMs);
    packet->duration = frame.durationMs;
    if (frame.keyFrame)
        packet->flags |= AV_PKT_FLAG_KEY;
    state->write(*packet, state->video, milliseconds);
}

void MediaFile::writeAudio(const MediaFrame& frame)
{
    const std::int64_t timeMs = frame.timestampMs - state->originMs;
    if (state->audio == nullptr || timeMs < 0)
        return;
    const std::int64_t begin = state->audioClock->advance(timeMs, frame.sampleCount);
    if (state->encoder) {
        state->encoder->encode(frame.data, begin, [this](AVPacket& packet) { state->writeSound(packet); });
        return;
    }
    const PacketPtr packet = makePacket(frame.data);
    packet->pts = packet->dts = begin;
    packet->duration = frame.sampleCount;
    packet->flags |= AV_PKT_FLAG_KEY;
    state->writeSound(*packet);
}

void MediaFile::finish()
{
    if (state->encoder)
        state->encoder->finish([this](AVPacket& packet) { state->writeSound(packet); });
    state->check(av_write_trailer(state->output.get()));
    avio_flush(state->output->pb);
    state->check(state->output->pb->error);
    state->check(avio_closep(&state->output->pb));
}
}  // namespace Host

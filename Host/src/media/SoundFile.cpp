#include "media/SoundFile.h"

#include "ExitStatus.h"
#include "PathText.h"
#include "media/Ffmpeg.h"

#include <algorithm>
#include <utility>
#include <vector>

extern "C" {
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace Host
{
namespace fs = std::filesystem;
namespace
{
constexpr int wantedRate = static_cast<int>(SoundFile::sampleRate);

struct InputDeleter {
    void operator()(AVFormatContext* context) const noexcept { avformat_close_input(&context); }
};
using InputPtr = std::unique_ptr<AVFormatContext, InputDeleter>;

struct ResamplerDeleter {
    void operator()(SwrContext* context) const noexcept { swr_free(&context); }
};
using ResamplerPtr = std::unique_ptr<SwrContext, ResamplerDeleter>;

struct DictionaryOwner {
    DictionaryOwner() = default;
    ~DictionaryOwner() { av_dict_free(&entries); }
    DictionaryOwner(const DictionaryOwner&) = delete;
    DictionaryOwner& operator=(const DictionaryOwner&) = delete;

    AVDictionary* entries = nullptr;
};

[[noreturn]] void refuse(const std::string& sentence)
{
    throw Failure(ExitStatus::usage, sentence);
}

/// What FFmpeg's own words would not make clear.
void requireFile(const fs::path& path, const std::string& name)
{
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (error)
        refuse("cannot read " + name + ": " + error.message());
    if (fs::is_directory(status))
        refuse("cannot read " + name + ": it is a directory");
    if (fs::is_regular_file(status) && fs::file_size(path, error) == 0 && !error)
        refuse("there is no sound in " + name + ": the file is empty");
}

InputPtr openInput(const std::string& name)
{
    AVFormatContext* context = nullptr;
    DictionaryOwner options;
    // Play lists must not lead out of the machine.
    av_dict_set(&options.entries, "protocol_whitelist", "file", 0);
    // "file:" keeps FFmpeg from reading a protocol into a name with a colon.
    const int result = avformat_open_input(&context, ("file:" + name).c_str(), nullptr, &options.entries);
    if (result == AVERROR_INVALIDDATA)
        refuse("there is no sound in " + name + ": the file is of no kind that FFmpeg reads");
    if (result < 0)
        refuse("cannot read " + name + ": " + ffmpegErrorText(result));
    InputPtr input(context);
    if (const int found = avformat_find_stream_info(input.get(), nullptr); found < 0)
        refuse("cannot read " + name + ": " + ffmpegErrorText(found));
    return input;
}

AVStream& soundOf(AVFormatContext& input, const std::string& name)
{
    const int index = av_find_best_stream(&input, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (index < 0)
        refuse("there is no sound in " + name);
    return *input.streams[index];
}

CodecContextPtr openDecoder(const AVStream& stream, const std::string& name)
{
    try {
        CodecContextPtr decoder = makeDecoder(stream.codecpar->codec_id);
        checkFfmpeg(avcodec_parameters_to_context(decoder.get(), stream.codecpar), "parameters");
        decoder->pkt_timebase = stream.time_base;
        decoder->thread_count = 1;
        checkFfmpeg(avcodec_open2(decoder.get(), decoder->codec, nullptr), avcodec_get_name(decoder->codec_id));
        return decoder;
    } catch (const std::runtime_error& e) {
        refuse("the sound in " + name + " cannot be decoded: " + e.what());
    }
}

/// Turns decoded sound into ours; made anew when the sound changes its form in the middle of a file.
class Resampler {
public:
    void convert(const AVFrame& frame, std::vector<std::int16_t>& output)
    {
        if (!context || frame.sample_rate != rate || frame.format != format ||
            frame.ch_layout.nb_channels != channels) {
            finish(output);
            open(frame);
        }
        run(const_cast<const std::uint8_t**>(frame.extended_data), frame.nb_samples, output);
    }

    /// Hands out what the filter holds back.
    void finish(std::vector<std::int16_t>& output)
    {
        if (context)
            run(nullptr, 0, output);
        context.reset();
    }

private:
    void open(const AVFrame& frame)
    {
        rate = frame.sample_rate;
        format = frame.format;
        channels = frame.ch_layout.nb_channels;
        AVChannelLayout source = frame.ch_layout;  // not freed: it is the frame's, or has nothing to free
        if (source.order == AV_CHANNEL_ORDER_UNSPEC)
            av_channel_layout_default(&source, channels);
        AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
        SwrContext* made = nullptr;
        const int result = swr_alloc_set_opts2(&made, &mono, AV_SAMPLE_FMT_S16, wantedRate, &source,
                                               static_cast<AVSampleFormat>(format), rate, 0, nullptr);
        context.reset(made);
        checkFfmpeg(result, "sound conversion");
        checkFfmpeg(swr_init(context.get()), "sound conversion");
    }

    void run(const std::uint8_t** input, int count, std::vector<std::int16_t>& output) const
    {
        const int most = checkFfmpeg(swr_get_out_samples(context.get(), count), "sound conversion");
        const std::size_t before = output.size();
        output.resize(before + static_cast<std::size_t>(most));
        auto* target = reinterpret_cast<std::uint8_t*>(output.data() + before);
        const int made = checkFfmpeg(swr_convert(context.get(), &target, most, input, count), "sound conversion");
        output.resize(before + static_cast<std::size_t>(made));
    }

    ResamplerPtr context;
    int rate = 0;
    int format = -1;
    int channels = 0;
};
}  // namespace

struct SoundFile::State {
    explicit State(const fs::path& path)
        : name(pathText(path)),
          input(openInput(name)),
          stream(soundOf(*input, name)),
          decoder(openDecoder(stream, name))
    {}

    std::size_t waiting() const noexcept { return samples.size() - taken; }

    /// Decodes until there are so many samples, or all of the file.
    void fill(std::size_t count)
    {
        while (!ended && waiting() < count) {
            samples.erase(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(std::exchange(taken, 0)));
            decodePacket();
        }
    }

    void decodePacket()
    {
        const PacketPtr packet = makePacket();
        const int result = av_read_frame(input.get(), packet.get());
        if (result == AVERROR_EOF) {
            decode(nullptr);
            resampler.finish(samples);
            ended = true;
        } else if (checkFfmpeg(result, "cannot read on in " + name); packet->stream_index == stream.index) {
            decode(packet.get());
        }
    }

    /// Null: the last packet has come.
    void decode(const AVPacket* packet)
    {
        if (avcodec_send_packet(decoder.get(), packet) < 0)
            ++damaged;
        const FramePtr frame = makeFrame();
        int result = 0;
        while ((result = avcodec_receive_frame(decoder.get(), frame.get())) >= 0)
            resampler.convert(*frame, samples);
        if (result != AVERROR(EAGAIN) && result != AVERROR_EOF)
            ++damaged;
    }

    const std::string name;
    const InputPtr input;
    const AVStream& stream;  // belongs to input
    const CodecContextPtr decoder;
    Resampler resampler;
    std::vector<std::int16_t> samples;  // decoded; the first `taken` of them were handed out
    std::size_t taken = 0;
    std::uint64_t damaged = 0;
    bool ended = false;
};

SoundFile::SoundFile(const fs::path& path)
{
    const std::string name = pathText(path);
    requireFile(path, name);
    state = std::make_unique<State>(path);
    try {
        state->fill(1);
    } catch (const std::runtime_error& e) {
        refuse(e.what());
    }
    if (state->waiting() == 0)
        refuse("there is no sound in " + name + " that can be decoded");
}

SoundFile::~SoundFile() = default;

std::size_t SoundFile::read(std::span<std::int16_t> samples)
{
    state->fill(samples.size());
    const std::size_t count = std::min(samples.size(), state->waiting());
    std::copy_n(state->samples.begin() + static_cast<std::ptrdiff_t>(state->taken), count, samples.begin());
    state->taken += count;
    return count;
}

std::optional<double> SoundFile::getSeconds() const
{
    const std::int64_t length = state->input->duration;
    return length > 0 ? std::optional(static_cast<double>(length) / AV_TIME_BASE) : std::nullopt;
}

std::uint64_t SoundFile::getDamaged() const noexcept
{
    return state->damaged;
}
}  // namespace Host

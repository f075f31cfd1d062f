#include "media/MediaWriter.h"

#include "PathText.h"
#include "media/MediaNames.h"

#include <utility>

namespace Host
{
using Tavro8::GDRV::FrameReference;
using Tavro8::GDRV::MediaCodec;
namespace
{
constexpr std::int64_t longestWaitForSoundMs = 2000;
constexpr std::size_t mostFramesWaiting = 500;  // when the timestamps stand still

std::string describe(const VideoFormat& format)
{
    return std::string(codecName(format.codec)) + ' ' + std::to_string(format.width) + 'x' +
           std::to_string(format.height);
}
}  // namespace

MediaWriter::MediaWriter(std::filesystem::path firstFile, ExpectedSound sound, Notice noticeUser, PartBegun onPart)
    : path(std::move(firstFile)), expectedSound(sound), notice(std::move(noticeUser)), partBegun(std::move(onPart))
{}

MediaWriter::~MediaWriter() = default;

void MediaWriter::write(const FrameReference& frame)
{
    if (isVideo(frame->codec))
        writeVideo(frame);
    else
        writeAudio(frame);
}

void MediaWriter::writeVideo(const FrameReference& frame)
{
    if (frame->keyFrame)
        considerKeyFrame(frame);
    if (!video || frame->codec != video->codec)
        return;  // of a new codec, but not decodable without the key frame that is still to come
    if (file) {
        writePicture(*frame);
    } else {
        pending.push_back(frame);
        if (mayBegin())
            begin();
    }
}

void MediaWriter::considerKeyFrame(const FrameReference& frame)
{
    std::optional<VideoFormat> format = videoFormatOf(*frame);
    if (!format)
        return;  // cannot be understood alone: the present file goes on, or waits for the next key frame
    const bool sameVideo = video && video->continues(*format);
    const bool sameFile = sameVideo && audio == audioInFile;
    video = std::move(format);
    if (!file && !sameVideo)
        pending.clear();  // a file cannot begin with two formats
    if (!file || sameFile)
        return;
    file->finish();
    beginPart(frame->timestampMs);
    notice((sameVideo ? std::string("the sound changed") : "the stream changed to " + describe(*video)) +
           "; the recording goes on in " + pathText(parts.back().file));
}

void MediaWriter::writeAudio(const FrameReference& frame)
{
    AudioFormat format = audioFormatOf(*frame, audio.value_or(AudioFormat{}));
    if (format.codec == MediaCodec::aac && format.config.empty())
        return;  // no decoder could be told how to begin
    audio = std::move(format);
    if (!file && video)
        pending.push_back(frame);
    else if (file && audio == audioInFile)
        file->writeAudio(*frame);
    // Sound of another format than the file's waits for the next key frame, where a new part begins.
}

bool MediaWriter::mayBegin() const
{
    const std::int64_t waitedMs = pending.back()->timestampMs - pending.front()->timestampMs;
    return expectedSound == ExpectedSound::none || audio || waitedMs >= longestWaitForSoundMs ||
           pending.size() >= mostFramesWaiting;
}

void MediaWriter::begin()
{
    beginPart(pending.front()->timestampMs);
    if (expectedSound == ExpectedSound::certain && !audio)
        notice("no sound has arrived, so " + pathText(parts.back().file) + " begins without");
    for (const FrameReference& frame : std::exchange(pending, {})) {
        if (isVideo(frame->codec))
            writePicture(*frame);
        else
            file->writeAudio(*frame);
    }
}

void MediaWriter::writePicture(const Tavro8::GDRV::MediaFrame& frame)
{
    file->writeVideo(frame);
    ++parts.back().pictures;
}

void MediaWriter::beginPart(std::int64_t originMs)
{
    const std::filesystem::path partFile = partPath(path, parts.size() + 1);
    file.reset();
    file = std::make_unique<MediaFile>(partFile, *video, audio, originMs);
    audioInFile = audio;
    parts.push_back({partFile, *video, audio});
    if (partBegun)
        partBegun(parts.back());
}

void MediaWriter::finish()
{
    if (!file && !pending.empty())
        begin();
    if (file)
        file->finish();
    file.reset();
}
}  // namespace Host

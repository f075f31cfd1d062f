#include "Archive.h"

#include "Clip.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <utility>

namespace Sample
{
namespace GDRV = Tavro8::GDRV;
using GDRV::DateTimeRange;
using Tavro8::ResultCode;
using Tavro8::toResult;
namespace
{
constexpr std::uint64_t picturesUntilBreak = 10;

class Range final : public GDRV::Storage::IRecordingRange {
public:
    explicit Range(const DateTimeRange& ofRange) : range(ofRange) {}
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<GDRV::Storage::IRecordingRange, Tavro8::IContract>(this, name);
    }
    DateTimeRange GetRange() const noexcept override { return range; }

private:
    const DateTimeRange range;
};

/// A recording that does not say what tracks it has.
class Recording final : public GDRV::Storage::IRecordingInfo {
public:
    Recording(std::uint32_t ofChannel, const DateTimeRange& ofRange) : channel(ofChannel), range(ofRange) {}
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<GDRV::Storage::IRecordingInfo, Tavro8::IContract>(this, name);
    }
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }
    GDRV::Storage::IRecordingRange* GetRange() const noexcept override { return &range; }
    std::uint32_t GetTrackCount() const noexcept override { return 0; }
    GDRV::Storage::ITrackInfo* GetTrack(std::uint32_t) const noexcept override { return nullptr; }

private:
    const std::uint32_t channel;
    mutable Range range;  // the contract hands it out of a constant operation
};

void logLine(Tavro8::ILogger* logger, const char* place, const std::string& message)
{
    if (logger != nullptr && Tavro8::wants(logger->GetLevel(), Tavro8::LogSeverity::info))
        logger->Log(Tavro8::LogSeverity::info, place, "Archive", __LINE__, message.c_str());
}
}  // namespace

std::optional<DateTimeRange> Archive::recordingAt(std::uint64_t moment, std::uint64_t end) const noexcept
{
    if (periodMs == 0)
        return std::nullopt;
    std::uint64_t begin = moment / periodMs * periodMs;
    if (moment >= begin + recordedMs)
        begin += periodMs;
    return begin < end ? std::optional(DateTimeRange{begin, begin + recordedMs}) : std::nullopt;
}

void* RecordingSearch::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::IRecordingSearch, Tavro8::IContract>(this, name);
}

void RecordingSearch::Destroy() noexcept
{
    loop.forget(this);
    logLine(logger, "Sample::RecordingSearch", searching ? "destroyed while searching" : "destroyed");
    delete this;
}

std::int32_t RecordingSearch::FindRecordings(std::uint32_t channel, const DateTimeRange& interval,
                                             GDRV::IRecordingSearchHandler* searchHandler) noexcept
{
    if (searchHandler == nullptr)
        return toResult(ResultCode::invalidArgument);
    if (channel >= manners.channelCount)
        return toResult(ResultCode::notFound);
    if (searching.exchange(true))
        return toResult(ResultCode::invalidState);
    loop.post(this, [this, channel, interval, searchHandler] {
        handler = searchHandler;
        logLine(logger, "Sample::RecordingSearch", "searching channel " + std::to_string(channel));
        find(channel, interval);
    });
    return toResult(ResultCode::success);
}

void RecordingSearch::find(std::uint32_t channel, const DateTimeRange& interval)
{
    if (!manners.answers)
        return;
    if (manners.refusal != 0)
        return complete(manners.refusal);
    const Archive archive = channel == 0 ? manners.archive : Archive{0, 0};
    for (auto found = archive.recordingAt(interval.begin, interval.end); found;
         found = archive.recordingAt(found->end, interval.end)) {
        Recording recording(channel, {std::max(found->begin, interval.begin), found->end});
        handler->RecordingFound(this, &recording);
    }
    complete(toResult(ResultCode::success));
}

void RecordingSearch::Cancel() noexcept
{
    loop.post(this, [this] {
        if (searching)
            complete(toResult(ResultCode::cancelled));
    });
}

void RecordingSearch::complete(std::int32_t result)
{
    searching = false;
    handler->SearchCompleted(this, result);
}

RecordingPlayback::RecordingPlayback(Loop& deviceLoop, std::uint32_t channelIndex,
                                     GDRV::IRecordingPlaybackHandler* playbackHandler,
                                     GDRV::IMediaFrameHandler* frameHandler, Tavro8::ILogger* hostLogger,
                                     Manners playbackManners)
    : loop(deviceLoop),
      channel(channelIndex),
      handler(playbackHandler),
      frames(frameHandler),
      logger(hostLogger),
      manners(std::move(playbackManners))
{}

void* RecordingPlayback::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::IRecordingPlayback, GDRV::IDeviceChannel, Tavro8::IContract>(this, name);
}

void RecordingPlayback::Destroy() noexcept
{
    loop.forget(this);
    delete this;
}

void RecordingPlayback::log(const std::string& message) const
{
    logLine(logger, "Sample::RecordingPlayback", "channel " + std::to_string(channel) + ": " + message);
}

std::int32_t RecordingPlayback::Open(const DateTimeRange& wanted) noexcept
{
    loop.post(this, [this, wanted] {
        log("opened");
        interval = wanted;
        position = wanted.begin;
        if (manners.answers)
            handler->Opened(this, manners.refusal);
    });
    return toResult(ResultCode::success);
}

std::int32_t RecordingPlayback::Play() noexcept
{
    loop.post(this, [this] { begin(); });
    return toResult(ResultCode::success);
}

void RecordingPlayback::begin()
{
    log("played");
    knownForOneSpeed = knownForOneSpeed || speedRefused;
    const std::int32_t speedResult = toResult(speedRefused ? ResultCode::notSupported : ResultCode::success);
    playing = manners.playRefusal == 0;
    if (playing)
        loop.post(this, [this] { tick(); });
    frames->OnStreamState(this, playing ? speedResult : manners.playRefusal);
}

std::int32_t RecordingPlayback::Pause() noexcept
{
    loop.post(this, [this] { playing = false; });
    return toResult(ResultCode::success);
}

std::int32_t RecordingPlayback::Seek(std::uint64_t timestampMs) noexcept
{
    loop.post(this, [this, timestampMs] {
        position = timestampMs;
        recording.reset();
    });
    return toResult(ResultCode::success);
}

std::int32_t RecordingPlayback::SetSpeed(std::uint32_t factor, bool onlyKeyFrames) noexcept
{
    if (knownForOneSpeed && (factor != 1 || onlyKeyFrames))
        return toResult(ResultCode::notSupported);
    loop.post(this, [this, factor, onlyKeyFrames] {
        log("speed " + std::to_string(factor) + (onlyKeyFrames ? ", key frames only" : ""));
        speedRefused = !manners.offersSpeed && (factor != 1 || onlyKeyFrames);
        keyFramesOnly = onlyKeyFrames && manners.offersSpeed;
    });
    return toResult(ResultCode::success);
}

void RecordingPlayback::Close() noexcept
{
    loop.post(this, [this] {
        log("closed");
        end(toResult(ResultCode::success));
    });
}

void RecordingPlayback::end(std::int32_t result)
{
    playing = false;
    handler->Closed(this, result);
}

/// One picture and its sound, then the next task of the loop has its turn.
void RecordingPlayback::tick()
{
    if (!playing)
        return;
    if (!enterRecording()) {
        playing = false;
        handler->EndReached(this);
        return;
    }
    loop.post(this, [this] { tick(); });
    if (picture % spacing() == 0)
        deliverPicture();
    if (manners.hasSound && !keyFramesOnly)
        deliverSound();
    ++picture;
    position += frameMs;
    if (manners.breaks && pictures == picturesUntilBreak)
        end(toResult(ResultCode::connectionLost));
}

/// From one picture to the next, in places.
std::uint64_t RecordingPlayback::spacing() const noexcept
{
    return keyFramesOnly ? smallClip().keyFrameInterval : manners.pictureEach;
}

/// False at the end of the interval.
bool RecordingPlayback::enterRecording()
{
    const std::uint64_t end = interval.end + manners.overrunMs;
    if (position >= end)
        return false;
    if (recording && position < recording->end)
        return true;
    recording = manners.archive.recordingAt(position, end);
    if (!recording)
        return false;
    picture = 0;
    if (const std::uint64_t from = std::exchange(position, std::max(position, recording->begin)); from < position)
        handler->GapReached(this, {from, position});
    return true;
}

void RecordingPlayback::deliverPicture()
{
    GDRV::MediaFrame frame;
    frame.durationMs = frameMs * static_cast<std::uint32_t>(spacing());
    const std::vector<std::uint8_t> payload = manners.pictures(picture, frame);
    ++pictures;
    deliver(frame, payload);
}

void RecordingPlayback::deliverSound()
{
    GDRV::MediaFrame frame;
    frame.durationMs = frameMs;
    const std::vector<std::uint8_t> payload = testTone()(picture, frame);
    deliver(frame, payload);
}

void RecordingPlayback::deliver(GDRV::MediaFrame& frame, std::span<const std::uint8_t> payload)
{
    const FrameMemory* memory = FrameMemory::make(payload);
    frame.timestampMs = static_cast<std::int64_t>(position);
    frame.data = memory->bytes();
    frame.buffer = memory;
    frames->OnFrame(this, frame);
    memory->Release();
}
}  // namespace Sample

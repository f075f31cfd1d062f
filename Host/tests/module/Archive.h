#pragma once

#include "Loop.h"
#include "Sources.h"

#include <Tavro8/GDRV/IRecordingPlayback.h>
#include <Tavro8/ILogger.h>
#include <optional>

namespace Sample
{
/// What a channel has recorded: the first `recordedMs` of every `periodMs` since 1970; 0 for nothing.
struct Archive {
    std::uint64_t periodMs;
    std::uint64_t recordedMs;

    /// The recording that holds `moment` or comes next; nothing unless it begins in front of `end`.
    std::optional<Tavro8::GDRV::DateTimeRange> recordingAt(std::uint64_t moment, std::uint64_t end) const noexcept;
};

/// Finds what a channel has recorded, all at once.
class RecordingSearch final : public Tavro8::GDRV::IRecordingSearch {
public:
    struct Manners {
        std::uint32_t channelCount;
        bool answers;          ///< without it a search ends only by being cancelled
        std::int32_t refusal;  ///< unless 0, how every search ends
        Archive archive;       ///< of channel 0; the others have recorded nothing
    };

    RecordingSearch(Loop& deviceLoop, Tavro8::ILogger* hostLogger, const Manners& searchManners)
        : loop(deviceLoop), logger(hostLogger), manners(searchManners)
    {}

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    std::int32_t FindRecordings(std::uint32_t channel, const Tavro8::GDRV::DateTimeRange& interval,
                                Tavro8::GDRV::IRecordingSearchHandler* searchHandler) noexcept override;
    void Cancel() noexcept override;

private:
    ~RecordingSearch() override = default;
    void find(std::uint32_t channel, const Tavro8::GDRV::DateTimeRange& interval);
    void complete(std::int32_t result);

    Loop& loop;  // the device's, which outlives it
    Tavro8::ILogger* const logger;
    const Manners manners;
    std::atomic<bool> searching{false};

    // The loop's thread.
    Tavro8::GDRV::IRecordingSearchHandler* handler = nullptr;
};

/// Plays what a channel has recorded, as fast as the host takes it. What it is asked is a line of severity "info" in
/// the log.
class RecordingPlayback final : public Tavro8::GDRV::IRecordingPlayback {
public:
    struct Manners {
        bool answers;               ///< without it the host is told nothing
        std::int32_t refusal;       ///< unless 0, how every `Open` ends
        std::int32_t playRefusal;   ///< unless 0, how every `Play` ends
        bool offersSpeed;           ///< without it no other speed and no key frames alone
        bool breaks;                ///< the connection is lost at the tenth picture, with 257
        std::uint64_t pictureEach;  ///< so many of its places there is a picture: 1 for all
        std::uint64_t overrunMs;    ///< so long it plays on behind the end of the interval
        bool hasSound;              ///< beside the pictures
        Archive archive;
        Stream::Produce pictures;  ///< counted from 0 in each recording
    };

    RecordingPlayback(Loop& deviceLoop, std::uint32_t channelIndex,
                      Tavro8::GDRV::IRecordingPlaybackHandler* playbackHandler,
                      Tavro8::GDRV::IMediaFrameHandler* frameHandler, Tavro8::ILogger* hostLogger,
                      Manners playbackManners);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }
    std::int32_t Open(const Tavro8::GDRV::DateTimeRange& wanted) noexcept override;
    std::int32_t Play() noexcept override;
    std::int32_t Pause() noexcept override;
    std::int32_t Seek(std::uint64_t timestampMs) noexcept override;
    std::int32_t SetSpeed(std::uint32_t factor, bool keyFramesOnly) noexcept override;
    void Close() noexcept override;

private:
    ~RecordingPlayback() override = default;
    void begin();
    void tick();
    std::uint64_t spacing() const noexcept;
    bool enterRecording();
    void deliverPicture();
    void deliverSound();
    void deliver(Tavro8::GDRV::MediaFrame& frame, std::span<const std::uint8_t> payload);
    void end(std::int32_t result);
    void log(const std::string& message) const;

    Loop& loop;  // the device's, which outlives it
    const std::uint32_t channel;
    Tavro8::GDRV::IRecordingPlaybackHandler* const handler;
    Tavro8::GDRV::IMediaFrameHandler* const frames;
    Tavro8::ILogger* const logger;
    const Manners manners;
    std::atomic<bool> knownForOneSpeed{false};  ///< the host has been told

    // The loop's thread.
    Tavro8::GDRV::DateTimeRange interval;
    bool playing = false;
    bool keyFramesOnly = false;
    bool speedRefused = false;
    std::uint64_t position = 0;                            // of the next picture
    std::optional<Tavro8::GDRV::DateTimeRange> recording;  // that is played
    std::uint64_t picture = 0;                             // in the recording, counting its places
    std::uint64_t pictures = 0;                            // delivered in all
};
}  // namespace Sample

#pragma once

#include "GapCutter.h"
#include "MediaReceiver.h"

#include <Tavro8/GDRV/IDevice.h>
#include <functional>
#include <mutex>
#include <optional>

namespace Host
{
class FrameQueue;

/// What has come of a playback.
struct PlayedMedia {
    std::optional<Tavro8::GDRV::DateTimeRange> recorded;  ///< times of the first and of the last frame
    std::uint64_t gaps = 0;                               ///< told by the module
    std::uint64_t gapMs = 0;                              ///< their length
    std::uint64_t losses = 0;                             ///< frames in front of which packets are missing
    std::uint64_t soundLeftOut = 0;                       ///< frames that no picture followed to tell their place
};

/// The host's end of one playback: counts what comes and passes it on. Destroying it ends the module's object; no
/// callback is running then. Used by the command's thread; what the module tells is guarded by the monitor.
class PlaybackStream final : private Tavro8::GDRV::IRecordingPlaybackHandler, private Tavro8::GDRV::IMediaFrameHandler {
public:
    /// Run on the module's thread; they do not throw, and call no operation of the stream.
    struct Callbacks {
        std::function<void(const Tavro8::GDRV::DateTimeRange& gap)> gap;
    };

    /// How it stands; results are the module's.
    struct State {
        std::optional<std::int32_t> opened;
        std::int32_t refusal = 0;   ///< why the device does not play
        bool speedRefused = false;  ///< the device does not offer exactly what `setSpeed` asked for
        bool ended = false;         ///< the interval was played
        std::optional<std::int32_t> closed;

        /// The result with which the connection broke; nothing while it stands or after everything was played.
        std::optional<std::int32_t> getBreak() const
        {
            return ended || closed.value_or(0) == 0 ? std::nullopt : closed;
        }
    };

    /// `queue` (may be null) gets every frame, moved together over gaps. When it is full the device waits. Throws
    /// `Failure` when the module makes no such object.
    PlaybackStream(Tavro8::GDRV::IDevice& device, std::uint32_t channel, Monitor& sharedMonitor, FrameQueue* frameQueue,
                   Callbacks streamCallbacks);
    ~PlaybackStream();
    PlaybackStream(const PlaybackStream&) = delete;
    PlaybackStream& operator=(const PlaybackStream&) = delete;

    /// The module's result; 0 says that `State::opened` will be told. Once. Devices may begin in front of the interval,
    /// with the key frame that its first pictures need, which is kept; what they send from its end on is left out.
    std::int32_t open(const Tavro8::GDRV::DateTimeRange& interval) noexcept;
    /// Before or after `play`. The module's result. Whether the device offers it shows when it plays: from
    /// `State::speedRefused` on the result is 8 for what it does not, and changes nothing.
    std::int32_t setSpeed(std::uint32_t factor, bool keyFramesOnly) noexcept;
    std::int32_t play() noexcept { return playback->Play(); }
    void close() noexcept { playback->Close(); }

    const State& getState() const noexcept { return state; }  ///< call under the monitor's lock
    bool hasFrames() const { return video.hasFrames() || audio.hasFrames(); }
    std::optional<Monitor::Clock::time_point> getFirstFrame() const;  ///< when it arrived
    ReceivedMedia getVideo() const { return video.getReceived(); }
    ReceivedMedia getAudio() const { return audio.getReceived(); }
    PlayedMedia getPlayed() const;

    void* FindContract(const char* name) noexcept override;

private:
    void Opened(Tavro8::GDRV::IRecordingPlayback* source, std::int32_t result) noexcept override;
    void GapReached(Tavro8::GDRV::IRecordingPlayback* source, const Tavro8::GDRV::DateTimeRange& gap) noexcept override;
    void EndReached(Tavro8::GDRV::IRecordingPlayback* source) noexcept override;
    void Closed(Tavro8::GDRV::IRecordingPlayback* source, std::int32_t result) noexcept override;
    void OnFrame(Tavro8::IContract* source, const Tavro8::GDRV::MediaFrame& frame) noexcept override;
    void OnStreamState(Tavro8::IContract* source, std::int32_t result) noexcept override;
    void count(const Tavro8::GDRV::MediaFrame& frame);
    void noteRefusedSpeed() noexcept;

    Monitor& monitor;
    FrameQueue* const queue;
    const Callbacks callbacks;
    MediaReceiver video;
    MediaReceiver audio;
    State state;             // guarded by the monitor
    std::int64_t endMs = 0;  // of the interval
    GapCutter cutter;        // the module's thread

    mutable std::mutex mutex;  // guards played; taken alone
    PlayedMedia played;
    Tavro8::GDRV::IRecordingPlayback* playback = nullptr;  // released with Destroy
};
}  // namespace Host

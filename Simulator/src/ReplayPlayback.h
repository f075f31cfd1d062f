#pragma once

#include "ReplayPipeline.h"
#include "ReplayTrack.h"

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace simulator
{

/// Plays a timeline: decides when which packet is due. No socket and no clock: the time is passed in. One thread.
class ReplayPlayback {
public:
    using Clock = std::chrono::steady_clock;

    std::array<std::optional<ReplayTrack>, replayTracks> tracks;  ///< those that the client has set up

    /// Begins a timeline, in place of what was played. `onMore` as ReplayPipeline has it. Throws what that throws.
    void start(const PictureSettings& picture, std::shared_ptr<const ReplayTimeline> timeline, bool keyFramesOnly,
               std::function<void()> onMore);
    /// From `now` on at a speed.
    void run(unsigned scale, Clock::time_point now);
    void pause() { running = false; }
    /// Forgets what was played.
    void stop();

    /// There is something to go on with.
    bool isLoaded() const { return pipeline != nullptr; }
    bool isRunning() const { return running; }
    bool playsKeyFramesOnly() const { return onlyKeyFrames; }
    /// The place at which it goes on; needs that it is loaded.
    std::chrono::nanoseconds position() const;
    const ReplayTimeline& getTimeline() const { return *timeline; }
    std::uint64_t sentFrames() const { return frames; }
    std::uint64_t sentPackets() const { return packets; }

    enum class Next {
        more,     ///< there is more to collect at once
        later,    ///< not before `due`
        waiting,  ///< for `onMore`
        ended,    ///< and said so; nothing is loaded any more
        failed,
    };
    struct Collected {
        Next next = Next::waiting;
        Clock::time_point due{};
    };
    /// Appends what is due, to a few packets more than 64 KiB; only while it is running.
    Collected collect(std::string& out, Clock::time_point now);

private:
    /// The track whose packet comes first; nothing while one of them is not there.
    std::optional<std::size_t> firstTrack();
    void append(std::size_t track, Clock::time_point now, std::string& out);
    Collected finish(std::string& out);

    std::unique_ptr<ReplayPipeline> pipeline;
    std::shared_ptr<const ReplayTimeline> timeline;
    bool onlyKeyFrames = false;
    bool running = false;
    unsigned scale = 1;
    Clock::time_point anchor{};  ///< when `anchorPosition` is due
    std::chrono::nanoseconds anchorPosition{0};
    std::chrono::nanoseconds latest{0};  ///< position of what was sent last
    struct Head {
        std::optional<ReplayPacket> packet;   ///< the next one
        std::optional<std::size_t> reported;  ///< the span that the latest report is of
        Clock::time_point reportDue{};
    };
    std::array<Head, replayTracks> heads;
    std::uint64_t frames = 0;
    std::uint64_t packets = 0;
};

}  // namespace simulator

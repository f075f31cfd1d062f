#pragma once

#include "MediaPipeline.h"
#include "ReplayTimeline.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace simulator
{

/// A replay has pictures and sound, in this order.
inline constexpr std::size_t replayTracks = 2;

/// An RTP packet whose sequence number, timestamp and source the sender has to fill in.
struct ReplayPacket {
    std::vector<std::uint8_t> bytes;
    std::chrono::nanoseconds position{0};  ///< within the timeline
    bool keyFrame = false;
    bool endsFrame = false;
};

/// Encodes what a channel has recorded: a test picture that shows channel and recorded time, and the tone. It runs as
/// fast as its packets are taken and no further than a few frames ahead. One thread but for `onMore`.
class ReplayPipeline {
public:
    struct Settings {
        PictureSettings picture;
        std::array<bool, replayTracks> wanted{true, true};
    };
    /// `onMore` is called on GStreamer's threads whenever `next` may have become different, never after the pipeline
    /// has gone. Throws std::runtime_error when GStreamer lacks something.
    ReplayPipeline(const Settings& settings, std::shared_ptr<const ReplayTimeline> timeline,
                   std::function<void()> onMore);
    ~ReplayPipeline();
    ReplayPipeline(const ReplayPipeline&) = delete;
    ReplayPipeline& operator=(const ReplayPipeline&) = delete;

    /// The next packet of a track; nothing when it is not there yet.
    std::optional<ReplayPacket> next(std::size_t track);
    /// Something went wrong: nothing will come any more.
    bool hasFailed() const;

    /// What all replays with these settings have in common.
    struct Track {
        std::string description;  ///< of SDP, from "m=" on, without "a=control"
        unsigned clockRate = 90'000;
    };
    /// The wanted tracks; waits until the first packets have been made.
    std::vector<Track> describe();

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace simulator

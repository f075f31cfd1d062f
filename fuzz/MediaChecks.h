#pragma once

#include "FuzzTarget.h"

#include "Tavro8/GDRV/MediaFrame.h"
#include "media/TrackReceiver.h"

#include <cstdint>
#include <deque>
#include <vector>

/// What every frame that a track hands out has to keep to. Shares no code with what it judges.
namespace Tavro8::fuzz
{
/// A NAL unit of an Annex B stream, without its start code.
using Nal = std::vector<std::uint8_t>;

/// Cuts at the start codes of four bytes; the stream begins with one.
std::vector<Nal> splitAnnexB(ByteView stream);

/// Checks each frame by itself, against those before it, and once more when it is let go.
class FrameJudge final : public media::FrameSink {
public:
    struct Rules {
        std::size_t maxFrameBytes = 0;
        bool damagedAllowed = false;
    };
    explicit FrameJudge(const Rules& rulesToKeep) : rules(rulesToKeep) {}
    ~FrameJudge() { letGo(0); }
    FrameJudge(const FrameJudge&) = delete;
    FrameJudge& operator=(const FrameJudge&) = delete;

    void onFrame(const GDRV::MediaFrame& frame) override;

    std::uint64_t count() const noexcept { return frames; }
    std::uint64_t keyCount() const noexcept { return keyFrames; }
    /// Frames whose memory is still in use: the newest few, as a host with a queue keeps them.
    std::size_t heldCount() const noexcept { return held.size(); }

private:
    struct Held {
        GDRV::FrameReference frame;
        std::uint32_t checksum;
    };

    void checkVideo(const GDRV::MediaFrame& frame) const;
    void checkSound(const GDRV::MediaFrame& frame) const;
    void letGo(std::size_t kept);

    Rules rules;
    std::uint64_t frames = 0;
    std::uint64_t keyFrames = 0;
    std::int64_t lastMs = 0;
    std::deque<Held> held;
};
}  // namespace Tavro8::fuzz

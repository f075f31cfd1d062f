#pragma once

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <Tavro8/GDRV/MediaFrame.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>

namespace Host
{
/// Moves the frames of a playback together, so that stretches in which nothing is recorded leave no dead time in a
/// file.
///
/// The first picture behind a gap stands where the gap began. Gaps are told with the pictures, which may come seconds
/// apart, while a sound track never goes back: so sound that leaps ahead of the pictures, as it does over a gap, is
/// held until a picture or the gap itself tells where it belongs. Sound that goes on without a leap waits for nothing.
/// One thread.
class GapCutter {
public:
    using Sink = std::function<void(const Tavro8::GDRV::MediaFrame& placed)>;

    /// Sound that is held; a picture that is longer overdue than this will not come.
    static constexpr std::size_t mostHeld = 4096;

    /// `placedFrames` gets every frame in its place, at once or later.
    explicit GapCutter(Sink placedFrames) : sink(std::move(placedFrames)) {}

    /// Nothing is recorded in `gap`; the next picture comes from behind it.
    void cut(const Tavro8::GDRV::DateTimeRange& gap) noexcept;

    void take(const Tavro8::GDRV::MediaFrame& frame) noexcept;

    /// Frames of sound whose place is not known yet, or that were left out since too many waited for theirs.
    std::uint64_t getWithheld() const noexcept { return leftOut + held.size(); }

private:
    bool isUndecided(const Tavro8::GDRV::MediaFrame& sound) const noexcept;
    void hold(const Tavro8::GDRV::MediaFrame& sound) noexcept;
    void takeBack(std::int64_t timestampMs) noexcept;
    void reach(std::int64_t timestampMs) noexcept;
    void release() noexcept;
    void pass(const Tavro8::GDRV::MediaFrame& frame) noexcept;
    std::int64_t placeOf(std::int64_t timestampMs) const noexcept;

    const Sink sink;
    std::int64_t cutBeforeMs = 0;  // by all gaps but the last
    std::int64_t lastBeginMs = 0;
    std::int64_t lastEndMs = 0;
    bool fresh = false;                      // no picture has come since the gap
    std::optional<std::int64_t> reachedMs;   // by the pictures and the gaps that were told
    std::optional<std::int64_t> soundEndMs;  // of what has its place
    std::deque<Tavro8::GDRV::FrameReference> held;
    std::uint64_t leftOut = 0;
};
}  // namespace Host

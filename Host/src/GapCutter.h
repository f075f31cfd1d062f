#pragma once

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <Tavro8/GDRV/MediaFrame.h>
#include <algorithm>
#include <cstdint>
#include <optional>

namespace Host
{
/// Moves the frames of a playback together, so that stretches in which nothing is recorded leave no dead time in a
/// file.
///
/// The first picture behind a gap stands where the gap began. Sound must not run ahead over a gap that has not been
/// told yet, since a sound track never goes back: it is left out until the pictures follow. One thread.
class GapCutter {
public:
    /// Nothing is recorded in `gap`; the next picture comes from behind it.
    void cut(const Tavro8::GDRV::DateTimeRange& gap) noexcept
    {
        cutBeforeMs += lastEndMs - lastBeginMs;
        lastBeginMs = static_cast<std::int64_t>(gap.begin);
        lastEndMs = std::max(static_cast<std::int64_t>(gap.end), lastBeginMs);
        fresh = true;
    }

    /// Gives `frame` its place. False for one to be left out.
    bool place(Tavro8::GDRV::MediaFrame& frame) noexcept
    {
        if (isVideo(frame.codec)) {
            newestPictureMs = frame.timestampMs;
            // The time since the picture before may hold the gap.
            if (fresh)
                frame.durationMs = 0;
            fresh = false;
        } else if (newestPictureMs && frame.timestampMs > *newestPictureMs + longestLeadMs) {
            return false;
        }
        frame.timestampMs = placeOf(frame.timestampMs);
        return true;
    }

private:
    static constexpr std::int64_t longestLeadMs = 2000;  // of sound; gaps are not shorter

    std::int64_t placeOf(std::int64_t timestampMs) const noexcept
    {
        const std::int64_t lastMs = lastEndMs - lastBeginMs;
        const std::int64_t joined =
            timestampMs >= lastEndMs ? timestampMs - lastMs : std::min(timestampMs, lastBeginMs);
        return joined - cutBeforeMs;
    }

    std::int64_t cutBeforeMs = 0;  // by all gaps but the last
    std::int64_t lastBeginMs = 0;
    std::int64_t lastEndMs = 0;
    bool fresh = false;  // no picture has come since the gap
    std::optional<std::int64_t> newestPictureMs;
};
}  // namespace Host

#pragma once

#include <Tavro8/GDRV/ILiveSource.h>
#include <Tavro8/GDRV/IRecordingSearch.h>

namespace Tavro8::GDRV
{
class IRecordingPlayback;

/// Hears how a playback goes, on the device's I/O thread.
class IRecordingPlaybackHandler : public IContract {
public:
    virtual void Opened(IRecordingPlayback* playback, std::int32_t result) noexcept = 0;  ///< slot 3: once per `Open`
    /// Slot 4. Nothing is recorded in `gap`; media goes on behind it.
    virtual void GapReached(IRecordingPlayback* playback, const DateTimeRange& gap) noexcept = 0;
    /// Slot 5. The interval was played to its end; once each time.
    virtual void EndReached(IRecordingPlayback* playback) noexcept = 0;
    /// Slot 6. The last call for this `Open`: after `Close` (result 0) or when the device gave up.
    virtual void Closed(IRecordingPlayback* playback, std::int32_t result) noexcept = 0;
};

/// Plays what a device has recorded on one channel. Frames carry the recording's own absolute time.
/// All operations return at once; any thread.
class IRecordingPlayback : public IDeviceChannel {
public:
    /// Slot 5. Prepares `interval`; playing begins at `interval.begin` with `Play`.
    virtual std::int32_t Open(const DateTimeRange& interval) noexcept = 0;
    virtual std::int32_t Play() noexcept = 0;                           ///< slot 6
    virtual std::int32_t Pause() noexcept = 0;                          ///< slot 7
    virtual std::int32_t Seek(std::uint64_t timestampMs) noexcept = 0;  ///< slot 8
    /// Slot 9. Forward 1, 2, 4 or 8 times; 6 for another factor. Whether the device offers a speed, or key frames only,
    /// shows when it plays: `OnStreamState` tells 8 where it does not, and from then on this returns 8 at once.
    virtual std::int32_t SetSpeed(std::uint32_t factor, bool keyFramesOnly) noexcept = 0;
    virtual void Close() noexcept = 0;  ///< slot 10
};
}  // namespace Tavro8::GDRV

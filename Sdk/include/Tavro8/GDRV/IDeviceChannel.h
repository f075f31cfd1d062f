#pragma once

#include <Tavro8/IContract.h>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Tavro8::GDRV
{
/// Base of the objects that serve one channel of a device.
class IDeviceChannel : public IContract {
public:
    /// Slot 3. Releases the object. Legal at any time, also from inside a callback and before a stop was
    /// reported; after it has returned nothing more reaches the object's handlers (when called from inside
    /// a callback: after that callback has returned). It waits for a callback that is under way on another
    /// thread, so do not hold a lock that a handler needs.
    virtual void Destroy() noexcept = 0;

    /// Slot 4. The host's channel number, counted from 0. Any thread.
    virtual std::uint32_t GetChannelIndex() const noexcept = 0;
};

/// How a live or recorded stream does; sent about once a second while it runs.
struct StreamStatistics {
    std::uint64_t bitsPerSecond = 0;     ///< payload received in the last interval
    double framesPerSecond = 0;          ///< frames handed over in the last interval
    std::uint64_t frames = 0;            ///< since the start
    std::uint64_t keyFrames = 0;         ///< since the start
    std::uint64_t bytes = 0;             ///< payload bytes since the start
    std::uint64_t lostPackets = 0;       ///< since the start
    std::uint64_t malformedPackets = 0;  ///< dropped because they break their format, since the start
    std::uint32_t connects = 0;          ///< connections begun since the start
    std::uint32_t reconnects = 0;        ///< connections begun after the first one
    std::uint32_t jitterMs = 0;          ///< interarrival jitter (RFC 3550 section 6.4.1)

    /// Further counters as name and value.
    std::vector<std::pair<std::string, std::string>> named;
};

/// What the host hears of a channel object. Called on the device's I/O thread unless an operation says
/// otherwise, never under a lock. The object must live until `Destroy` of the channel object has returned.
class IAsyncDeviceChannelHandler : public IContract {
public:
    /// Slot 3. The source runs; media follows when the device delivers it. Called on the thread of `Start`; when
    /// `Stop` is called meanwhile on another thread, `Stopped` may overtake it. Objects that report events tell it on
    /// the device's I/O thread, in turns with `Stopped`.
    virtual void Started(IContract* source) noexcept = 0;

    /// Slot 4. The source has really stopped: no frame and no event follows.
    virtual void Stopped(IContract* source) noexcept = 0;

    /// Slot 5. Counters of the running source. The structure is the caller's.
    virtual void StatisticsUpdated(IContract* source, const StreamStatistics& statistics) noexcept = 0;

    /// Slot 6. One settings resource was applied (result 0), refused or could not be read. `resource` names
    /// the group: "stream", "exposure", ...
    virtual void SettingsApplied(IContract* source, const char* resource, std::int32_t result) noexcept = 0;
};
}  // namespace Tavro8::GDRV

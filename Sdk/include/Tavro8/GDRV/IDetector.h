#pragma once

#include <Tavro8/GDRV/IDeviceChannel.h>
#include <Tavro8/ParameterMap.h>

namespace Tavro8::GDRV
{
class IDetector;

enum class DetectorState : std::uint32_t {
    begin = 0,      ///< the condition began
    end = 1,        ///< the condition ended
    momentary = 2,  ///< something happened that has no end
};

/// One event of a detector. The texts and the map belong to the caller of `IDetectorHandler::DetectorEvent`.
struct DetectorEventInfo {
    const char* detectionType = "";  ///< the `detectionType` the detector was made with
    const char* alarmType = "";      ///< the device's own name of the event
    DetectorState state = DetectorState::momentary;
    std::uint32_t channel = 0;      ///< counted from 0
    std::int64_t deviceTimeMs = 0;  ///< the device's clock, UTC milliseconds; 0 when the device sent none

    /// The notification's own fields: texts (UTF-8), integers, flags and fractions; an integer beyond an `int` is a
    /// fraction. Never null when the host is called.
    const ParameterMap* fields = nullptr;
};

class IDetectorHandler : public IAsyncDeviceChannelHandler {
public:
    /// Slot 7. Called on the thread on which the device's notification arrived.
    virtual void DetectorEvent(IDetector* detector, const DetectorEventInfo& event) noexcept = 0;
};

/// A detector that runs inside the device. Begin and end are reported in turns, a begin first; what the device sends
/// out of turn is left out.
class IDetector : public IDeviceChannel {
public:
    /// Slot 5. Begins to report. What had begun before a stop is forgotten: its end is not reported.
    virtual void Start() noexcept = 0;
    virtual void Stop() noexcept = 0;  ///< slot 6: no end is invented for what has begun
};
}  // namespace Tavro8::GDRV

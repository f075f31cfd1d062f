#include "EventWatch.h"

#include "DeviceSession.h"

#include <utility>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
IoWatch::IoWatch(GDRV::IDevice& device, std::uint32_t channel, Callbacks watchCallbacks)
    : callbacks(std::move(watchCallbacks))
{
    const std::int32_t result = device.CreateIODevice(channel, this, &io);
    requireMade(io, "the module offers no inputs and relays here", result);
}

IoWatch::~IoWatch()
{
    io->Stop();
    io->Destroy();
}

void IoWatch::InputStateChanged(GDRV::IIODevice*, std::uint32_t input, bool state) noexcept
{
    if (callbacks.input)
        callbacks.input(input, state);
}

void IoWatch::RelaySwitched(GDRV::IIODevice*, std::uint32_t relay, std::int32_t result) noexcept
{
    if (callbacks.relay)
        callbacks.relay(relay, result);
}

DetectorWatch::DetectorWatch(GDRV::IDevice& device, std::uint32_t channel, const std::string& detectionType,
                             Callback onEvent)
    : callback(std::move(onEvent))
{
    const std::int32_t result = device.CreateDetector(channel, {{"detectionType", detectionType}}, this, &detector);
    requireMade(detector, "channel " + std::to_string(channel) + " has no detector \"" + detectionType + '"', result);
}

DetectorWatch::~DetectorWatch()
{
    detector->Stop();
    detector->Destroy();
}

void DetectorWatch::DetectorEvent(GDRV::IDetector*, const GDRV::DetectorEventInfo& event) noexcept
{
    callback(event);
}
}  // namespace Host

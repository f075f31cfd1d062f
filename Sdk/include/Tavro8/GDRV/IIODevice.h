#pragma once

#include <Tavro8/GDRV/IDeviceChannel.h>

namespace Tavro8::GDRV
{
class IIODevice;

/// What the host hears of inputs and relays.
class IIODeviceHandler : public IAsyncDeviceChannelHandler {
public:
    /// Slot 7, the eighth operation. Input `input` (counted from 0) is now on or off. Called on the thread
    /// on which the device's notification arrived.
    virtual void InputStateChanged(IIODevice* device, std::uint32_t input, bool state) noexcept = 0;

    /// Slot 8. How a `SetRelayStatus` that was taken ended; 0 is success.
    virtual void RelaySwitched(IIODevice* device, std::uint32_t relay, std::int32_t result) noexcept = 0;
};

/// Alarm inputs and relay outputs of a device.
class IIODevice : public IDeviceChannel {
public:
    virtual void Start() noexcept = 0;  ///< slot 5: begins to report inputs
    virtual void Stop() noexcept = 0;   ///< slot 6

    /// Slot 7. Switches relay `relayIndex` (counted from 0); `state` 0 is off, anything else on. Returns at
    /// once: 0 when the request is on its way (see `RelaySwitched`), 6 when there is no such relay.
    virtual std::int32_t SetRelayStatus(std::uint32_t relayIndex, std::uint8_t state) noexcept = 0;
};
}  // namespace Tavro8::GDRV

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

    /// Slot 8. How a `SetRelayStatus` that was taken ended; 0 is success. Called on the device's I/O thread.
    virtual void RelaySwitched(IIODevice* device, std::uint32_t relay, std::int32_t result) noexcept = 0;
};

/// Alarm inputs and relay outputs of a device.
class IIODevice : public IDeviceChannel {
public:
    /// Slot 5. Begins to report inputs. The first notification of an input is always reported, from then on each
    /// change; what is known of the inputs outlives a stop. Relays need no start.
    virtual void Start() noexcept = 0;
    virtual void Stop() noexcept = 0;  ///< slot 6

    /// Slot 7. Switches relay `relayIndex` (counted from 0); `state` 0 is off, anything else on. Returns at
    /// once: 0 when the request is on its way (see `RelaySwitched`), 6 when there is no such relay, 2 before the device
    /// has connected for the first time. A command that is on its way is carried out even if the object is destroyed.
    virtual std::int32_t SetRelayStatus(std::uint32_t relayIndex, std::uint8_t state) noexcept = 0;
};
}  // namespace Tavro8::GDRV

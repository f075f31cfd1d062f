#pragma once

#include "EventChannel.h"
#include "EventSubscriber.h"
#include "InputEvents.h"

#include <IpUtil/Http.h>
#include <Tavro8/GDRV/IIODevice.h>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace Uniview
{
class Device;
namespace lapi
{
struct Reply;
}

/// Alarm inputs and relay outputs of a device. Inputs are not polled: the device tells each change.
///
/// Host threads call the `IIODevice` operations; the device's I/O context starts and stops, and learns how a relay was
/// switched; the TCP server's thread delivers notifications and alone touches `inputStates`. `mutex` guards the
/// commands under way and is never held while the host is called. Input states outlive a stop: what changed meanwhile
/// is told with the next notification of that input.
class IODevice final : public Tavro8::GDRV::IIODevice,
                       public IEventSubscriber,
                       public std::enable_shared_from_this<IODevice> {
public:
    /// More inputs or relays than a device can have; a configuration that says so is wrong.
    static constexpr int maxCount = 4096;
    /// How long relay commands may go on after `Destroy`, since they keep `finiModule` waiting.
    static constexpr std::chrono::milliseconds defaultFarewell{1000};

    /// Makes an object that the host releases with `Destroy`. Arguments as in `IDevice::CreateIODevice`; `device`
    /// outlives the object. Raises the cast error when a count in the model parameters is no integer, and
    /// `std::out_of_range` when it is negative or above `maxCount`.
    static Tavro8::GDRV::IIODevice* create(Device* device, std::uint32_t channelIndex,
                                           Tavro8::GDRV::IIODeviceHandler* handler,
                                           std::chrono::milliseconds farewell = defaultFarewell);

    /// Used by `create`.
    IODevice(Tavro8::GDRV::IIODeviceHandler* handler, std::uint32_t channelIndex, Device* device,
             std::chrono::milliseconds farewell);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    std::uint32_t GetChannelIndex() const noexcept override { return channelIndex; }
    void Start() noexcept override { channel.start(shared_from_this()); }
    void Stop() noexcept override { channel.stop(shared_from_this()); }
    /// A command that is under way when the object is destroyed is carried out all the same, unless the device leaves
    /// it unanswered for longer than the farewell lasts.
    std::int32_t SetRelayStatus(std::uint32_t relayIndex, std::uint8_t state) noexcept override;

    bool handleTriggerInfo(const Json::Value& alarmInfo) override;

private:
    std::int32_t switchRelay(std::uint32_t relayIndex, bool state);
    void onRelayReply(std::uint32_t relayIndex, const lapi::Reply& reply);
    void endCommand(std::uint64_t command);
    void sayFarewell();
    void cancelCommands();
    bool handle(const Json::Value& alarmInfo);

    Device* const device;              // not owned
    const std::uint32_t channelIndex;  // the set of model parameters that holds the counts
    const std::uint32_t rayCount;      // alarm inputs
    const std::uint32_t relayCount;
    Tavro8::GDRV::IIODeviceHandler* const handler;  // the host's, may be null
    std::vector<InputState> inputStates;            // one for each input
    EventChannel channel;

    std::mutex mutex;
    std::map<std::uint64_t, Tavro8::http::CancellationPtr> commands;  // guarded by `mutex`; those without a reply
    std::uint64_t lastCommand = 0;                                    // guarded by `mutex`
    const std::chrono::milliseconds farewell;
    boost::asio::steady_timer farewellTimer;  // the I/O context's
};
}  // namespace Uniview

#pragma once

#include "DetectorEvents.h"
#include "EventChannel.h"
#include "EventSubscriber.h"

#include <Tavro8/GDRV/IDetector.h>
#include <cstdint>
#include <memory>

namespace Uniview
{
class Device;

/// One detector of a device's channel: tells the host the events of its type.
///
/// Host threads call the `IDetector` operations; the device's I/O context starts and stops; the TCP server's thread
/// delivers notifications and touches `events`, and so does the I/O context while the detector is not registered. An
/// event is left to whoever registered later, since several detectors may be made of the same events.
class Detector final : public Tavro8::GDRV::IDetector,
                       public IEventSubscriber,
                       public std::enable_shared_from_this<Detector> {
public:
    /// Makes a detector that the host releases with `Destroy`. `device` outlives it; `handler` may be null.
    static Tavro8::GDRV::IDetector* create(Device* device, std::uint32_t channelIndex, const DetectorType& type,
                                           Tavro8::GDRV::IDetectorHandler* handler);

    /// Used by `create`.
    Detector(Tavro8::GDRV::IDetectorHandler* handler, std::uint32_t channelIndex, const DetectorType& type,
             Device* device);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override { channel.destroy(); }
    std::uint32_t GetChannelIndex() const noexcept override { return channelIndex; }
    /// Begins anew: what had begun before a stop has no end any more.
    void Start() noexcept override { channel.start(shared_from_this()); }
    void Stop() noexcept override { channel.stop(shared_from_this()); }

    bool handleTriggerInfo(const Json::Value& alarmInfo) override;

private:
    void handle(const Json::Value& alarmInfo);
    void report(const DetectorDecision& decision);
    bool takesEverySource() const noexcept;

    Device* const device;  // not owned
    const std::uint32_t channelIndex;
    Tavro8::GDRV::IDetectorHandler* const handler;  // the host's, may be null
    DetectorEvents events;
    EventChannel channel;
};
}  // namespace Uniview

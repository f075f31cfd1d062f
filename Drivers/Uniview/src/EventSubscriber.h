#pragma once

#include <json/forwards.h>

namespace Uniview
{
/// Takes part in the notifications that a device pushes: detectors and the alarm inputs. Registered with
/// `Device::addSubscriber`, not owned and never deleted by whoever delivers.
class IEventSubscriber {
public:
    /// Offered the "AlarmInfo" of one notification, of whatever shape the device has sent. True when the event was this
    /// subscriber's own: those that registered later are not asked then. Runs on the TCP server's thread, which serves
    /// the devices of the whole process: do not block. May end its own registration. What it throws ends this
    /// notification and is logged.
    virtual bool handleTriggerInfo(const Json::Value& alarmInfo) = 0;

protected:
    ~IEventSubscriber() = default;
};
}  // namespace Uniview

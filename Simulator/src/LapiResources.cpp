#include "LapiResources.h"

#include "Replies.h"

namespace simulator
{

void addLapiResources(Router& router, const DeviceState& state, bool pluralPorts)
{
    router.add("GET", pluralPorts ? "/LAPI/V1.0/Network/Ports" : "/LAPI/V1.0/Network/Port",
               [&state](const Call&) { return withData(state.portInformation()); });
    router.add("GET", "/LAPI/V1.0/System/DeviceInfo",
               [&state](const Call&) { return withData(state.deviceInformation()); });
}

}  // namespace simulator

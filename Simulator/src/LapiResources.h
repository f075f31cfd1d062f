#pragma once

#include "DeviceState.h"
#include "Router.h"

namespace simulator
{

/// Adds the LAPI resources that this kind of device has. `state` is not owned and outlives the router.
void addLapiResources(Router& router, DeviceState& state, bool pluralPorts);

}  // namespace simulator

#pragma once

#include "DeviceState.h"
#include "Router.h"

namespace simulator
{

/// Adds the resources that tell what the device is. `state` is not owned and outlives the router.
void addLapiResources(Router& router, const DeviceState& state, bool pluralPorts);

}  // namespace simulator

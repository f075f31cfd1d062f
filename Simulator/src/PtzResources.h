#pragma once

#include "DeviceState.h"
#include "PtzHeads.h"
#include "Router.h"

namespace simulator
{

/// Adds the LAPI resources of the heads. Nothing is owned; everything outlives the router.
void addPtzResources(Router& router, const DeviceState& state, PtzHeads& heads);

}  // namespace simulator

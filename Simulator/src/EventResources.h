#pragma once

#include "DeviceEvents.h"
#include "IoState.h"
#include "Router.h"

namespace simulator
{

/// Adds the LAPI resources of event push, inputs and relays. Nothing is owned; everything outlives the router.
void addEventResources(Router& router, DeviceEvents& events, IoState& io);

/// Adds what the administration may do with them, which `--help` describes.
void addEventAdministration(Router& router, DeviceEvents& events, const IoState& io);

}  // namespace simulator

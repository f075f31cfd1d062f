#pragma once

#include "Archive.h"
#include "DeviceState.h"
#include "Fault.h"
#include "Router.h"

namespace simulator
{

/// Adds the record lists of all channels. Nothing is owned; everything outlives the router.
void addRecordResources(Router& router, const DeviceState& state, Archive& archive, const FaultTable& faults);

}  // namespace simulator

#pragma once

#include "DeviceState.h"
#include "Replies.h"
#include "Router.h"

namespace simulator
{

/// A handler that runs `handle` with the index of the channel that the path's first captured element names. `state` is
/// not owned and outlives the handler.
template <typename Handle>
Handler forChannel(const DeviceState& state, Handle handle)
{
    return [&state, handle](const Call& call) {
        const auto channel = state.channelIndex(call.captures.at(0));
        return channel ? handle(call, *channel) : unknownPath("Channel does not exist");
    };
}

}  // namespace simulator

#pragma once

#include "PtzHead.h"

#include <json/value.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace simulator
{

/// The heads of all channels, with their clock. The I/O context commands them while GStreamer's threads ask where they
/// look.
class PtzHeads {
public:
    using Clock = std::function<PtzTime()>;

    /// The clock never goes back.
    explicit PtzHeads(unsigned channels, Clock clockToUse = std::chrono::steady_clock::now)
        : clock(std::move(clockToUse)), heads(channels)
    {}

    /// Returns what `use` makes of the head and the time; no other thread comes to the heads meanwhile.
    template <typename Use>
    auto with(unsigned channel, Use&& use)
    {
        const std::lock_guard lock(mutex);
        return use(heads.at(channel), clock());
    }

    /// The lines that the picture shows: "pan 30.00", "tilt 10.00", "zoom 2.00". Any thread.
    std::string caption(unsigned channel) const;

    /// For the administration: an array with what each head says of itself.
    Json::Value state() const;

private:
    const Clock clock;
    mutable std::mutex mutex;  ///< guards `heads`
    std::vector<PtzHead> heads;
};

}  // namespace simulator

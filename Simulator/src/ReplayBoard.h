#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace simulator
{

/// A replay as a client has set it up.
struct ReplayStatus {
    unsigned channel = 0;  ///< from 0
    std::uint32_t begin = 0;
    std::uint32_t end = 0;
    const char* state = "ready";  ///< "playing", "paused", "ended" or "closed"
    unsigned scale = 1;
    bool keyFramesOnly = false;
    std::int64_t timeMs = 0;  ///< recorded, of the latest packet; UTC
    unsigned ends = 0;        ///< how often everything was sent, and RTCP BYE
    unsigned plays = 0;       ///< PLAY requests that were obeyed
    std::uint64_t frames = 0;
    std::uint64_t packets = 0;
};

/// What the administration tells of replays. Any thread.
class ReplayBoard {
public:
    void countConnection();
    void countRequest(const std::string& method);
    /// Replaces what is known of a replay. The oldest of many are forgotten.
    void update(std::uint64_t replay, const ReplayStatus& status);
    void clearCounters();

    /// The newest replays, by the order of their coming.
    Json::Value replays() const;
    /// {"connections", "requests": {"PLAY": n...}}
    Json::Value counters() const;

private:
    mutable std::mutex mutex;  ///< guards what follows
    std::map<std::uint64_t, ReplayStatus> known;
    std::map<std::string, unsigned> requests;
    unsigned connections = 0;
};

}  // namespace simulator

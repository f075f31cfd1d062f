#pragma once

#include <chrono>
#include <future>
#include <thread>

namespace simulator
{

/// Ends the whole process, with a sentence and status 1, unless it is destroyed in time. A program that stops waits for
/// threads of GStreamer, and what those wait for in turn is not in our hands.
class StopDeadline {
public:
    explicit StopDeadline(std::chrono::milliseconds limit);
    ~StopDeadline();
    StopDeadline(const StopDeadline&) = delete;
    StopDeadline& operator=(const StopDeadline&) = delete;

private:
    std::promise<void> stopped;
    std::thread watch;
};

}  // namespace simulator

#pragma once

#include "Activity.h"
#include "Fault.h"
#include "Router.h"

#include <chrono>
#include <functional>

namespace simulator
{

class Archive;
class DeviceEvents;
class DeviceSettings;
class MediaServer;
class PtzHeads;
class ReplayServer;
class TalkBack;

/// What the administration may do to the simulator. Nothing is owned; everything outlives the router.
struct Administered {
    Activity& activity;
    FaultTable& faults;
    MediaServer& media;
    DeviceEvents& events;
    PtzHeads& heads;
    DeviceSettings& settings;
    const TalkBack& talkBack;
    Archive& archive;
    ReplayServer* replays;  ///< null when nothing is recorded
    std::function<void()> dropRtspConnections;
    std::function<void()> openRtspPort;
    std::function<void()> closeRtspPort;  ///< and its connections
    std::function<void(std::chrono::milliseconds)> reboot;
};

/// Adds the administration's resources, which `--help` describes.
void addAdminResources(Router& router, Administered administered);

}  // namespace simulator

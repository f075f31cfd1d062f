#pragma once

#include <cstdint>
#include <string>

namespace Uniview
{
/// Names of a device's objects in log lines. Any thread.
std::string videoObjectName(std::uint32_t channel, std::uint32_t stream);  ///< "vs 0.1"
std::string audioObjectName(std::uint32_t channel);                        ///< "chan 0"
/// "io: yard, 0" with the device's name, "io: 0" for a device without one.
std::string ioObjectName(const std::string& deviceName, std::uint32_t channelIndex);
std::string detectorObjectName(const char* detectionType, std::uint32_t channel);  ///< "detector motion.0"
std::string destinationObjectName(std::uint32_t channel);                          ///< "ad 0"
std::string telemetryObjectName(std::uint32_t channel);                            ///< "tc 0"
std::string playbackObjectName(std::uint32_t channel);                             ///< "rp 0"
}  // namespace Uniview

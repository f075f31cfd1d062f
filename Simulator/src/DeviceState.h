#pragma once

#include "Options.h"

#include <json/value.h>

#include <optional>
#include <string_view>

namespace simulator
{

/// The device's MAC address, which is also the realm of its authentication in both protocols. Locally administered:
/// no real device has it.
inline constexpr const char* macAddress = "02A1B2C3D4E5";

/// What the device is: its kind, channels, identity and ports, and the documents that tell of them.
/// The I/O context is the only one to use it.
class DeviceState {
public:
    explicit DeviceState(const Options& options);

    Kind kind() const { return deviceKind; }
    unsigned channelCount() const { return channels; }

    /// Zero-based index for a channel number of a LAPI path: a camera calls its channel 0, the others count from 1.
    std::optional<unsigned> channelIndex(std::string_view number) const;

    /// Filled in once the listeners know their ports.
    struct Ports {
        unsigned http = 0;
        unsigned https = 0;  ///< 0: switched off
        unsigned rtsp = 0;
    };
    void setPorts(const Ports& ports);

    /// "Data" of each resource.
    Json::Value portInformation() const;
    Json::Value deviceInformation() const;

private:
    Kind deviceKind;
    unsigned channels;
    Ports ports;
};

}  // namespace simulator

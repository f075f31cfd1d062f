#pragma once

#include "Options.h"

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simulator
{

/// The device's MAC address, which is also the realm of its authentication in both protocols. Locally administered:
/// no real device has it.
inline constexpr const char* macAddress = "02A1B2C3D4E5";

/// What the device is and how it is set up: its kind, identity, ports, and the documents that its resources serve.
/// The I/O context is the only one to use it.
class DeviceState {
public:
    explicit DeviceState(const Options& options);

    Kind kind() const { return deviceKind; }
    unsigned channelCount() const { return static_cast<unsigned>(channels.size()); }

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
    const Json::Value& videoStreams(unsigned channel) const { return channels.at(channel).videoStreams; }
    const Json::Value& audioInput(unsigned channel) const { return channels.at(channel).audioInput; }

    /// Takes over the members that `change` holds and keeps the others. Returns what is wrong, or nothing; a change
    /// that is refused leaves the document as it was.
    std::optional<std::string> changeAudioInput(unsigned channel, const Json::Value& change);

    bool microphoneMuted(unsigned channel) const;

private:
    struct Channel {
        Json::Value videoStreams;
        Json::Value audioInput;
    };

    Kind deviceKind;
    Ports ports;
    std::vector<Channel> channels;
};

}  // namespace simulator

#include "DeviceState.h"

#include "Numbers.h"

#include <string>

namespace simulator
{
namespace
{

const char* modelOf(Kind kind)
{
    switch (kind) {
    case Kind::camera:
        return "SIM-IPC1";
    case Kind::multichannel:
        return "SIM-IPC4";
    case Kind::recorder:
        return "SIM-NVR";
    }
    return "";
}

}  // namespace

DeviceState::DeviceState(const Options& options) : deviceKind(options.kind), channels(options.channels) {}

std::optional<unsigned> DeviceState::channelIndex(std::string_view number) const
{
    const auto value = parseNumber(number);
    const unsigned first = deviceKind == Kind::camera ? 0 : 1;
    if (!value || *value < first || *value - first >= channelCount())
        return std::nullopt;
    return *value - first;
}

void DeviceState::setPorts(const Ports& portsInUse)
{
    ports = portsInUse;
}

Json::Value DeviceState::portInformation() const
{
    Json::Value data(Json::objectValue);
    data["HTTPPort"] = ports.http;
    data["HTTPSPort"] = ports.https;
    data["RTSPPort"] = ports.rtsp;
    return data;
}

Json::Value DeviceState::deviceInformation() const
{
    Json::Value data(Json::objectValue);
    data["DeviceName"] = "Simulator";
    data["DeviceModel"] = modelOf(deviceKind);
    data["SerialNumber"] = std::string("SIM") + macAddress;
    data["FirmwareVersion"] = "SIM-1.0.0";
    // A camera with several channels says 0 as well: only the host's description tells it from a single one.
    data["DeviceType"] = deviceKind == Kind::recorder ? 1 : 0;
    return data;
}

}  // namespace simulator

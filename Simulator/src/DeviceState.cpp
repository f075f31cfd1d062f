#include "DeviceState.h"

#include "Numbers.h"

#include <algorithm>

namespace simulator
{
namespace
{

// "EncodeFormat" of the LAPI documents.
int encodeFormatOf(Codec codec)
{
    switch (codec) {
    case Codec::mjpeg:
        return 0;
    case Codec::h264:
        return 1;
    case Codec::h265:
        return 2;
    }
    return 1;
}

Json::Value videoStream(unsigned id, bool enabled, Codec codec, const Size& size, unsigned framesPerSecond,
                        unsigned bitrateKbit)
{
    Json::Value encode(Json::objectValue);
    encode["EncodeFormat"] = encodeFormatOf(codec);
    encode["Resolution"]["Width"] = size.width;
    encode["Resolution"]["Height"] = size.height;
    encode["BitRate"] = bitrateKbit;
    encode["BitRateType"] = 0;
    encode["FrameRate"] = framesPerSecond;
    encode["GOPType"] = 0;
    encode["IFrameInterval"] = framesPerSecond;
    encode["ImageQuality"] = 5;
    encode["SmoothLevel"] = 1;
    encode["SVCMode"] = 0;
    encode["SmartEncodeMode"] = 0;

    Json::Value stream(Json::objectValue);
    stream["ID"] = id;
    stream["Enabled"] = enabled ? 1 : 0;
    stream["VideoEncodeInfo"] = encode;
    return stream;
}

Json::Value videoStreams(const Options& options)
{
    Json::Value list(Json::arrayValue);
    list.append(videoStream(0, true, options.codec, options.size, options.framesPerSecond, options.bitrateKbit));
    list.append(videoStream(1, true, options.codec, options.subSize, options.framesPerSecond,
                            std::max(options.bitrateKbit / 4, 32u)));
    list.append(videoStream(2, false, options.codec, {352, 288}, options.framesPerSecond, 128));

    Json::Value data(Json::objectValue);
    data["Num"] = list.size();
    data["VideoStreamInfos"] = list;
    return data;
}

Json::Value audioInput(bool audio)
{
    Json::Value input(Json::objectValue);
    input["ID"] = 1;
    input["Enabled"] = 1;
    input["Mode"] = 0;

    Json::Value data(Json::objectValue);
    data["IsMute"] = audio ? 0 : 1;
    data["InputGain"] = 180;
    data["NoiseReduction"]["Enabled"] = 0;
    data["AudioInputNum"] = 1;
    data["AudioInputList"].append(input);
    return data;
}

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

DeviceState::DeviceState(const Options& options) : deviceKind(options.kind)
{
    channels.assign(options.channels, Channel{simulator::videoStreams(options), simulator::audioInput(options.audio)});
}

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

std::optional<std::string> DeviceState::changeAudioInput(unsigned channel, const Json::Value& change)
{
    if (!change.isObject())
        return "the body is no JSON object";
    if (const Json::Value& mute = change["IsMute"]; !mute.isNull() && !(mute.isInt() && (mute == 0 || mute == 1)))
        return "\"IsMute\" is neither 0 nor 1";
    Json::Value& document = channels.at(channel).audioInput;
    for (const std::string& name : change.getMemberNames())
        document[name] = change[name];
    return std::nullopt;
}

bool DeviceState::microphoneMuted(unsigned channel) const
{
    return channels.at(channel).audioInput["IsMute"].asInt() != 0;
}

}  // namespace simulator

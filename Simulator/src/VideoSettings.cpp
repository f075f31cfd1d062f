#include "VideoSettings.h"

#include <span>

namespace simulator
{
namespace
{

/// What the two generations of firmware call the same thing.
struct Names {
    const char* codec;
    const char* bitRateControl;
    const char* keyFrameInterval;
    struct {
        Codec codec;
        int number;
    } codecs[3];
};

constexpr Names oldNames{"EncodeFmt", "EncMode", "IInterval", {{Codec::h264, 6}, {Codec::mjpeg, 3}, {Codec::h265, 13}}};
constexpr Names newNames{
    "EncodeFormat", "BitRateType", "IFrameInterval", {{Codec::h264, 1}, {Codec::mjpeg, 0}, {Codec::h265, 2}}};

const Names& namesOf(Dialect dialect)
{
    return dialect == Dialect::oldFirmware ? oldNames : newNames;
}

int codecNumber(const Names& names, Codec codec)
{
    for (const auto& entry : names.codecs)
        if (entry.codec == codec)
            return entry.number;
    return -1;
}

std::optional<Codec> codecOf(const Names& names, const Json::Value& number)
{
    for (const auto& entry : names.codecs)
        if (number.asInt() == entry.number)
            return entry.codec;
    return std::nullopt;
}

#define SIMULATOR_ENCODE "VideoStreamInfos[].VideoEncodeInfo."
constexpr SettingRule rules[] = {
    {"Num", 1, describedStreams, SettingRule::Type::count},
    {"VideoStreamInfos[].Enabled", 0, 1, SettingRule::Type::flag},
    {SIMULATOR_ENCODE "EncodeFmt", 3, 13},
    {SIMULATOR_ENCODE "EncodeFormat", 0, 2},
    {SIMULATOR_ENCODE "Resolution.Width", 64, 8192},
    {SIMULATOR_ENCODE "Resolution.Height", 64, 8192},
    {SIMULATOR_ENCODE "BitRate", 32, 100'000},
    {SIMULATOR_ENCODE "BitRateType", 0, 1},
    {SIMULATOR_ENCODE "EncMode", 0, 1},
    {SIMULATOR_ENCODE "FrameRate", 1, 120},
    {SIMULATOR_ENCODE "GOPType", 0, 3},
    {SIMULATOR_ENCODE "IInterval", 1, 1000},
    {SIMULATOR_ENCODE "IFrameInterval", 1, 1000},
    {SIMULATOR_ENCODE "ImageQuality", 1, 9},
    {SIMULATOR_ENCODE "SmoothLevel", 1, 9},
    {SIMULATOR_ENCODE "SmartEncodeMode", 0, 2},
    {SIMULATOR_ENCODE "SVCMode", 0, 3},
    {SIMULATOR_ENCODE "VideoSvcCfg.Mode", 0, 3},
};
#undef SIMULATOR_ENCODE

Json::Value streamDocument(const Options& options, unsigned id)
{
    const Names& names = namesOf(options.dialect);
    const StreamEncoding encoding = initialEncoding(options, id);
    Json::Value encode(Json::objectValue);
    encode[names.codec] = codecNumber(names, encoding.codec);
    encode["Resolution"]["Width"] = encoding.size.width;
    encode["Resolution"]["Height"] = encoding.size.height;
    encode["BitRate"] = encoding.bitrateKbit;
    encode[names.bitRateControl] = 0;
    encode["FrameRate"] = encoding.framesPerSecond;
    encode["GOPType"] = 0;
    encode[names.keyFrameInterval] = encoding.keyFrameInterval;
    encode["ImageQuality"] = 5;
    encode["SmoothLevel"] = 1;
    if (options.dialect == Dialect::oldFirmware)
        encode["VideoSvcCfg"]["Mode"] = 0;
    else
        encode["SVCMode"] = 0;
    encode["SmartEncodeMode"] = 0;
    encode["QPFactor"] = 25.4;
    encode["RegionOfInterest"] = Json::Value();

    Json::Value stream(Json::objectValue);
    stream["ID"] = id;
    stream["Enabled"] = id < servedStreams ? 1 : 0;
    stream["Tag"] = Json::Int64{9'007'199'254'740'993} + id;  // a double would round it
    stream["VideoEncodeInfo"] = encode;
    return stream;
}

Json::Value streamsDocument(const Options& options)
{
    Json::Value data(Json::objectValue);
    data["Num"] = describedStreams;
    data["EncoderProfile"] = "sim-main";
    for (unsigned id = 0; id < describedStreams; ++id)
        data["VideoStreamInfos"].append(streamDocument(options, id));
    return data;
}

}  // namespace

VideoSettings::VideoSettings(const Options& options)
    : dialect(options.dialect), document(streamsDocument(options), rules)
{}

StreamEncoding VideoSettings::encoding(unsigned stream) const
{
    return encodingIn(document.data(), stream);
}

StreamEncoding VideoSettings::encodingIn(const Json::Value& data, unsigned stream) const
{
    const Names& names = namesOf(dialect);
    const Json::Value& encode = data["VideoStreamInfos"][stream]["VideoEncodeInfo"];
    StreamEncoding encoding;
    encoding.codec = codecOf(names, encode[names.codec]).value_or(Codec::h264);
    encoding.size = {encode["Resolution"]["Width"].asUInt(), encode["Resolution"]["Height"].asUInt()};
    encoding.framesPerSecond = encode["FrameRate"].asUInt();
    encoding.bitrateKbit = encode["BitRate"].asUInt();
    encoding.keyFrameInterval = encode[names.keyFrameInterval].asUInt();
    return encoding;
}

std::optional<std::string> VideoSettings::write(const Json::Value& body, const Check& check)
{
    return document.write(body, SettingsDocument::Extent::whole,
                          [&](const Json::Value& data) -> std::optional<std::string> {
                              const auto count = body["VideoStreamInfos"].size();
                              if (count == 0 || body["Num"].asUInt() != count)
                                  return "\"Num\" is not the number of \"VideoStreamInfos\"";
                              return judge(data, check);
                          });
}

std::optional<std::string> VideoSettings::judge(const Json::Value& data, const Check& check) const
{
    const Names& names = namesOf(dialect);
    for (unsigned stream = 0; stream < describedStreams; ++stream) {
        if (!codecOf(names, data["VideoStreamInfos"][stream]["VideoEncodeInfo"][names.codec]))
            return std::string(1, '"') + names.codec + "\" is the number of no codec";
        const StreamEncoding changed = encodingIn(data, stream);
        if (changed.size.width % 2 != 0 || changed.size.height % 2 != 0)
            return "\"Resolution\" has an odd side";
        if (check && changed != encoding(stream))
            if (auto why = check(stream, changed))
                return why;
    }
    return std::nullopt;
}

void VideoSettings::change(unsigned stream, Codec codec, const Size& size)
{
    const Names& names = namesOf(dialect);
    Json::Value& encode = document.own()["VideoStreamInfos"][stream]["VideoEncodeInfo"];
    encode[names.codec] = codecNumber(names, codec);
    encode["Resolution"]["Width"] = size.width;
    encode["Resolution"]["Height"] = size.height;
}

}  // namespace simulator

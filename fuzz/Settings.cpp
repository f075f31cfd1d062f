#include "FuzzTarget.h"

#include "ImageSettings.h"
#include "Lapi.h"
#include "StreamSettings.h"

#include <algorithm>
#include <iterator>
#include <locale>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
namespace lapi = Uniview::lapi;
namespace settings = Uniview::settings;
using settings::Group;

constexpr const char* names[] = {
    "codec",
    "resolution",
    "fps",
    "bitRate",
    "bitrateControl",
    "quality",
    "smoothing",
    "smartEncodeMode",
    "svcMode",
    "keyFrameInterval",
    "captureMode",
    "exposureMode",
    "slowShutterEnable",
    "maxGain",
    "dayNightMode",
    "WDR",
    "AntiFlicker",
    "HoldTime",
    "smartIlluminationEnable",
    "smartIlluminationMode",
    "redGain",
    "defog",
    "LDC",
    "ldcLevel",
    "brightness",
    "noiseReduction3D",
    "unknown",
};

boost::any valueOf(Script& script)
{
    switch (script.u8() % 6) {
    case 0:
        return static_cast<int>(script.u32());
    case 1:
        return script.u8() % 2 == 0;
    case 2:
        return static_cast<double>(static_cast<std::int32_t>(script.u32())) / 256;
    case 3:
        return std::string(script.u8() % 2 == 0 ? "H.264" : "H.265");
    case 4:
        return boost::any();
    default: {
        const Bytes text = script.bytes(script.u8() % 32);
        return std::string(textOf(text));
    }
    }
}

ParameterMap parametersOf(Script& script)
{
    ParameterMap given;
    for (unsigned left = script.u8() % 6U; left > 0; --left) {
        const char* const name = names[script.u8() % std::size(names)];
        given[name] = valueOf(script);
    }
    return given;
}

bool concerns(Group group, const ParameterMap& given)
{
    return group == Group::stream ? settings::concernsStream(given) : settings::concernsImage(group, given);
}

/// What a device gets is JSON that it reads as we do.
void checkBody(const Json::Value& data)
{
    const std::string body = lapi::writeJson(data);
    Json::Value read;
    std::string error;
    // The greatest number there is would be read as one beyond, when it is rounded to fifteen digits.
    const bool isRead = lapi::parseJson(body, read, error);
    require(isRead || body.find("e+308") != std::string::npos, "what is written can be read");
    require(!isRead || lapi::writeJson(read) == body, "and says the same");
}

void checkStream(const Json::Value& data, std::uint32_t stream)
{
    const Json::Value& list = data["VideoStreamInfos"];
    require(data["Num"] == 1 && !list.empty(), "one stream is written");
    for (const Json::Value& entry : list)
        require(entry["ID"].asUInt() == stream, "and it is the source's own");
    require(list[0]["VideoEncodeInfo"].isObject(), "with its encoding");
}

/// The group, the stream's number and caps, values of the host, then the data of a device's reply.
///
/// Promises: nothing throws; data are written only when a value is for them and none is refused; a refusal has a reason
/// and a result; the stream is the source's own; members that no value is for stay; what is written can be read.
void feed(ByteView input)
{
    Script script(input);
    const auto group = static_cast<Group>(script.u8() % settings::groupCount);
    const std::uint32_t stream = script.u8() % 4;
    const TextMap caps = script.u8() % 2 == 0 ? TextMap{} : TextMap{{"H.264", "15"}, {"H.265", "any"}, {"MJPEG", "x"}};
    const ParameterMap given = parametersOf(script);
    Json::Value before;
    std::string error;
    const Bytes reply = script.remaining();
    if (!lapi::parseJson(textOf(reply), before, error))
        return;

    Json::Value data = before;
    const settings::Edit edit = group == Group::stream ? settings::editStream(data, given, stream, caps)
                                                       : settings::editImage(group, data, given);
    require((edit.result != 0) == !edit.message.empty(), "a refusal has a reason");
    require(!edit || edit.result == 0, "what is refused is not written");
    require(!edit || concerns(group, given), "only values that are for the resource are written");
    if (!edit)
        return;
    for (const std::string& name : before.getMemberNames())
        require(data.isMember(name), "every member stays");
    if (group == Group::stream)
        checkStream(data, stream);
    checkBody(data);
}

const Target settingsTarget("settings", feed);
}  // namespace
}  // namespace Tavro8::fuzz

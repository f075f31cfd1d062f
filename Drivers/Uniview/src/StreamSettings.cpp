#include "StreamSettings.h"

#include "SettingsGroup.h"

#include <IpUtil/Numbers.h>
#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

namespace Uniview::settings
{
namespace
{
using Tavro8::ResultCode;
using Tavro8::TextMap;

constexpr std::array parameterNames{"codec",          "resolution",      "fps",       "bitRate",
                                    "bitrateControl", "quality",         "smoothing", "smartEncodeMode",
                                    "svcMode",        "keyFrameInterval"};

/// The numbers of a codec in the two dialects of the firmware.
struct Codec {
    const char* name;
    int encodeFmt;
    int encodeFormat;
};
constexpr Codec codecs[] = {{"H.264", 6, 1}, {"MJPEG", 3, 0}, {"H.265", 13, 2}};

/// Where the firmware may have a number, by the member that an older one has in its stead.
struct NumberRow {
    const char* parameter;
    const char* preferred;  ///< used when it is there; may be null
    const char* object;     ///< where `key` is; null: beside the others
    const char* key;
};
constexpr NumberRow numberRows[] = {
    {"bitRate", nullptr, nullptr, "BitRate"},       {"quality", nullptr, nullptr, "ImageQuality"},
    {"smoothing", nullptr, nullptr, "SmoothLevel"}, {"smartEncodeMode", nullptr, nullptr, "SmartEncodeMode"},
    {"svcMode", "SVCMode", "VideoSvcCfg", "Mode"},  {"keyFrameInterval", "IInterval", nullptr, "IFrameInterval"},
};

std::optional<std::uint32_t> numberOf(const Json::Value& entry)
{
    if (!entry.isObject() || !entry["ID"].isUInt())
        return {};
    return entry["ID"].asUInt();
}

/// Leaves nothing but the stream of that number in the list, as often as it is there; null when it is not.
Json::Value* keepOnly(Json::Value& list, std::uint32_t stream)
{
    Json::Value kept(Json::arrayValue);
    for (Json::Value& entry : list) {
        if (numberOf(entry) == stream)
            kept.append(std::move(entry));
    }
    list.swap(kept);
    return list.empty() ? nullptr : &list[0];
}

/// What it means that the stream is not at its place: that a camera with other streams has none of that number, or that
/// the reply holds nothing.
ResultCode reasonWithout(const Json::Value& list, std::uint32_t stream)
{
    if (!list.isArray())
        return ResultCode::emptyReply;
    bool hasOthers = false;
    for (const Json::Value& entry : list) {
        const auto number = numberOf(entry);
        if (number == stream)
            return ResultCode::emptyReply;
        hasOthers |= number.has_value();
    }
    return hasOthers ? ResultCode::notFound : ResultCode::emptyReply;
}

/// Which dialect the firmware speaks.
struct CodecMember {
    const char* key;
    int Codec::*number;
};
CodecMember codecMember(const Json::Value& encoding)
{
    if (encoding.isMember("EncodeFmt"))
        return {"EncodeFmt", &Codec::encodeFmt};
    return {"EncodeFormat", &Codec::encodeFormat};
}

/// The codec that the host wants, else the one that the camera has; null when that is none of ours.
const Codec* chosenCodec(const Json::Value& encoding, const std::optional<std::string>& wanted)
{
    const auto [key, number] = codecMember(encoding);
    const Json::Value& present = encoding[key];
    const auto found = std::ranges::find_if(codecs, [&, number = number](const Codec& codec) {
        return wanted ? *wanted == codec.name : present.isInt() && present.asInt() == codec.*number;
    });
    return found == std::end(codecs) ? nullptr : found;
}

bool writeCodec(Json::Value& encoding, const std::optional<std::string>& wanted, const Codec* codec)
{
    if (!wanted)
        return false;
    if (codec == nullptr)
        throw Refusal(ResultCode::invalidArgument, "there is no such codec, parameter:codec");
    const auto [key, number] = codecMember(encoding);
    encoding[key] = codec->*number;
    return true;
}

/// How many pictures a second the model allows of the wanted ones; nothing when it does not know the codec.
std::optional<int> cappedFps(int wanted, const Codec* codec, const TextMap& maxFpsForCodec, std::string& note)
{
    if (maxFpsForCodec.empty())
        return wanted;
    const auto cap = codec == nullptr ? maxFpsForCodec.end() : maxFpsForCodec.find(codec->name);
    if (cap == maxFpsForCodec.end()) {
        note = std::string("fps is left as the device has it: maxFpsForCodec does not know ") +
               (codec == nullptr ? "its codec" : codec->name);
        return {};
    }
    if (cap->second == "any")
        return wanted;
    const int most = positive(cap->second, "maxFpsForCodec");
    if (wanted > most) {
        note = "fps " + std::to_string(wanted) + " is more than " + codec->name +
               " allows, maxFpsForCodec:" + std::to_string(most);
    }
    return std::min(wanted, most);
}

bool writeFps(Json::Value& encoding, const Given& given, const Codec* codec, const TextMap& maxFpsForCodec,
              std::string& note)
{
    const auto wanted = given.number("fps");
    const auto fps = wanted ? cappedFps(*wanted, codec, maxFpsForCodec, note) : std::nullopt;
    if (fps)
        encoding["FrameRate"] = *fps;
    return fps.has_value();
}

bool writeResolution(Json::Value& encoding, const Given& given)
{
    const auto wanted = given.text("resolution");
    if (!wanted)
        return false;
    const auto parts = splitAtX(*wanted);
    if (parts.size() != 2)
        throw Refusal(ResultCode::invalidArgument, "Can't parse resolution value");
    setResolution(encoding, positive(parts[0], "resolution"), positive(parts[1], "resolution"));
    return true;
}

bool writeBitrateControl(Json::Value& encoding, const Given& given)
{
    const auto wanted = given.text("bitrateControl");
    if (wanted)
        encoding[encoding.isMember("EncMode") ? "EncMode" : "BitRateType"] = *wanted == "CBR" ? 0 : 1;
    return wanted.has_value();
}

bool writeNumber(Json::Value& encoding, const Given& given, const NumberRow& row)
{
    const auto wanted = given.number(row.parameter);
    if (!wanted)
        return false;
    if (row.preferred != nullptr && encoding.isMember(row.preferred))
        encoding[row.preferred] = *wanted;
    else
        (row.object == nullptr ? encoding : subObject(encoding, row.object))[row.key] = *wanted;
    return true;
}

/// `note` says which value is not followed to the letter.
bool writeEncoding(Json::Value& encoding, const Given& given, const TextMap& maxFpsForCodec, std::string& note)
{
    const auto codecName = given.text("codec");
    const Codec* const codec = chosenCodec(encoding, codecName);
    bool changed = writeCodec(encoding, codecName, codec);
    changed |= writeFps(encoding, given, codec, maxFpsForCodec, note);
    changed |= writeResolution(encoding, given);
    changed |= writeBitrateControl(encoding, given);
    for (const NumberRow& row : numberRows)
        changed |= writeNumber(encoding, given, row);
    return changed;
}
}  // namespace

bool concernsStream(const Tavro8::ParameterMap& given)
{
    const Given values(given);
    return std::ranges::any_of(parameterNames, [&](const char* name) { return values.has(name); });
}

bool canBeWritten(const Tavro8::ParameterMap& given, const TextMap& maxFpsForCodec)
{
    Json::Value encoding(Json::objectValue);  // of a device that has nothing
    std::string note;
    return edit([&] { return writeEncoding(encoding, Given(given), maxFpsForCodec, note); }).result == 0;
}

Edit editStream(Json::Value& data, const Tavro8::ParameterMap& given, std::uint32_t stream,
                const TextMap& maxFpsForCodec)
{
    std::string note;
    Edit result = edit([&] {
        const char* const empty = traitsOf(Group::stream).empty;
        if (!data.isObject())
            throw Refusal(ResultCode::emptyReply, empty);
        Json::Value& list = data["VideoStreamInfos"];
        const Refusal missing(reasonWithout(list, stream), empty);
        if (!list.isArray() || list.size() <= stream)
            throw missing;
        data["Num"] = 1;
        Json::Value* const entry = keepOnly(list, stream);
        if (entry == nullptr)
            throw missing;
        if (entry->isMember("Enabled"))
            (*entry)["Enabled"] = 1;
        Json::Value& encoding = (*entry)["VideoEncodeInfo"];
        if (!encoding.isObject())
            throw Refusal(ResultCode::malformedReply, "\"VideoEncodeInfo\" is not an object");
        const bool changed = writeEncoding(encoding, Given(given), maxFpsForCodec, note);
        if (!changed && !note.empty())  // nothing else was given, so there is nothing to call a success
            throw Refusal(ResultCode::notSupported, note);
        return changed;
    });
    if (result.result == 0)
        result.note = std::move(note);
    return result;
}
}  // namespace Uniview::settings

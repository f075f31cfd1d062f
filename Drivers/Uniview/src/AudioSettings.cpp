#include "AudioSettings.h"

#include <Tavro8/ResultCode.h>
#include <boost/any.hpp>
#include <string>

namespace Uniview::settings
{
namespace
{
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::GDRV::MediaCodec;

std::string textOf(const ParameterMap& given, const char* name)
{
    const auto found = given.find(name);
    const auto* const text = found == given.end() ? nullptr : boost::any_cast<std::string>(&found->second);
    return text == nullptr ? std::string() : *text;
}

/// Firmware that has a flag there keeps it. Says whether the member has changed.
bool put(Json::Value& member, int value)
{
    Json::Value wanted = member.isBool() ? Json::Value(value != 0) : Json::Value(value);
    if (member == wanted)
        return false;
    member.swap(wanted);
    return true;
}

Json::Value& microphone(Json::Value& data, int number)
{
    Json::Value& list = data["AudioInputList"];
    if (list.isArray()) {
        for (Json::Value& entry : list) {
            if (entry.isObject() && entry["ID"].isInt() && entry["ID"].asInt() == number)
                return entry;
        }
    }
    throw Refusal(ResultCode::notFound, "The device has no microphone " + std::to_string(number));
}

/// Says whether anything has changed.
bool putAll(Json::Value& data, const AudioInputValues& values)
{
    if (!data.isObject())
        throw Refusal(ResultCode::malformedReply, "\"Data\" is not an object");
    bool changed = false;
    if (values.micNumber) {
        Json::Value& chosen = microphone(data, *values.micNumber);
        changed |= put(chosen["Enabled"], 1);
        if (values.micMode)
            changed |= put(chosen["Mode"], *values.micMode);
    }
    if (values.noiseReduce)
        changed |= put(subObject(data, "NoiseReduction")["Enabled"], *values.noiseReduce);
    if (values.volume)
        changed |= put(data["InputGain"], *values.volume);
    return changed;
}
}  // namespace

AudioInputValues readAudioInput(const ParameterMap& parameters)
{
    const Given given(parameters);
    return {given.number("volume"), given.number("noiseReduce"), given.number("micNumber"), given.number("micMode")};
}

Edit editAudioInput(Json::Value& data, const AudioInputValues& values)
{
    return edit([&] { return putAll(data, values); });
}

void checkAudioSink(const ParameterMap& parameters)
{
    const Given given(parameters);
    static_cast<void>(given.text("encoding"));
    static_cast<void>(given.text("algorithm"));
    static_cast<void>(given.integer("samplerate"));
}

Tavro8::Utility::AudioSinkParams readAudioSink(const ParameterMap& parameters)
{
    Tavro8::Utility::AudioSinkParams sink;
    const std::string encoding = textOf(parameters, "encoding");
    const std::string algorithm = textOf(parameters, "algorithm");
    if (encoding == "u-law" || (encoding == "G.711" && algorithm == "u-law"))
        sink.expectedCodec = MediaCodec::g711U;
    else if (encoding == "G.711" && !algorithm.empty())
        sink.expectedCodec = MediaCodec::g711A;
    const auto rate = parameters.find("samplerate");
    const int* const hertz = rate == parameters.end() ? nullptr : boost::any_cast<int>(&rate->second);
    if (hertz != nullptr && *hertz > 0)
        sink.sampleRate = static_cast<std::uint32_t>(*hertz);
    return sink;
}
}  // namespace Uniview::settings

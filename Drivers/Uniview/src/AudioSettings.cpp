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

constexpr const char* volumeKey = "volume";
constexpr const char* noiseReduceKey = "noiseReduce";
constexpr const char* micNumberKey = "micNumber";
constexpr const char* micModeKey = "micMode";

/// Firmware that has a flag there keeps it.
void put(Json::Value& member, int value)
{
    member = member.isBool() ? Json::Value(value != 0) : Json::Value(value);
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

/// Which microphone is chosen, or given a mode.
std::optional<int> microphoneOf(const AudioInputValues& values, const ParameterMap& written)
{
    if (values.micNumber || !values.micMode)
        return values.micNumber;
    const auto before = Given(written).number(micNumberKey);
    if (!before)
        throw Refusal(ResultCode::invalidArgument, "There is no microphone for the mode, parameter:micMode");
    return before;
}

/// Says whether there is anything to be written.
bool putAll(Json::Value& data, const AudioInputValues& values, const ParameterMap& written)
{
    if (!data.isObject())
        throw Refusal(ResultCode::malformedReply, "\"Data\" is not an object");
    if (const auto number = microphoneOf(values, written)) {
        Json::Value& chosen = microphone(data, *number);
        put(chosen["Enabled"], 1);
        if (values.micMode)
            put(chosen["Mode"], *values.micMode);
    }
    if (values.noiseReduce)
        put(subObject(data, "NoiseReduction")["Enabled"], *values.noiseReduce);
    if (values.volume)
        put(data["InputGain"], *values.volume);
    return values.any();
}
}  // namespace

bool isAudioInput(std::string_view name) noexcept
{
    return name == volumeKey || name == noiseReduceKey || name == micNumberKey || name == micModeKey;
}

AudioInputValues readAudioInput(const ParameterMap& parameters)
{
    const Given given(parameters);
    return {given.number(volumeKey), given.number(noiseReduceKey), given.number(micNumberKey),
            given.number(micModeKey)};
}

Edit editAudioInput(Json::Value& data, const AudioInputValues& values, const ParameterMap& written)
{
    return edit([&] { return putAll(data, values, written); });
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
    const bool isG711 = encoding == "G.711";
    if (encoding == "u-law" || (isG711 && (algorithm.empty() || algorithm == "u-law")))
        sink.expectedCodec = MediaCodec::g711U;
    else if (isG711)
        sink.expectedCodec = MediaCodec::g711A;
    if (isG711 && algorithm.empty())
        sink.alternateCodec = MediaCodec::g711A;
    const auto rate = parameters.find("samplerate");
    const int* const hertz = rate == parameters.end() ? nullptr : boost::any_cast<int>(&rate->second);
    if (hertz != nullptr && *hertz > 0)
        sink.sampleRate = static_cast<std::uint32_t>(*hertz);
    return sink;
}
}  // namespace Uniview::settings

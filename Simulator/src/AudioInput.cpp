#include "AudioInput.h"

#include "LapiEnvelope.h"

namespace simulator
{
namespace
{

constexpr double neutralGain = 180;  ///< of "InputGain": the tone is as loud as it is made

constexpr SettingRule rules[] = {
    {"IsMute", 0, 1},
    {"InputGain", 0, 255},
    {"NoiseReduction.Enabled", 0, 1, SettingRule::Type::flag},
    {"AudioInputList[].Enabled", 0, 1, SettingRule::Type::flag},
    {"AudioInputList[].Mode", 0, 3},
};

constexpr const char* initial =
    R"({"IsMute": 0, "InputGain": 180,
        "NoiseReduction": {"Enabled": 0, "Threshold": -42.5},
        "AudioInputNum": 2,
        "AudioInputList": [{"ID": 1, "Enabled": 1, "Mode": 0, "Plug": "line"},
                           {"ID": 2, "Enabled": 0, "Mode": 1, "Plug": null}],
        "EncoderTag": 9007199254740993})";

Json::Value initialDocument(bool muted)
{
    Json::Value data = parseJson(initial).value();
    data["IsMute"] = muted ? 1 : 0;
    return data;
}

}  // namespace

AudioInput::AudioInput(bool muted) : document(initialDocument(muted), rules) {}

std::optional<std::string> AudioInput::write(const Json::Value& body)
{
    const bool isSwitch = body.isObject() && body.size() == 1 && body.isMember("IsMute");
    return document.write(body, isSwitch ? SettingsDocument::Extent::part : SettingsDocument::Extent::whole);
}

Microphone AudioInput::microphone() const
{
    return {data()["IsMute"].asInt() != 0, data()["InputGain"].asDouble() / neutralGain};
}

}  // namespace simulator

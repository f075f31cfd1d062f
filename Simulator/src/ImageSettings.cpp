#include "ImageSettings.h"

#include "LapiEnvelope.h"

#include <array>

namespace simulator
{
namespace
{

using Type = SettingRule::Type;

constexpr SettingRule modeRules[] = {
    {"Resolution.Width", 64, 8192},
    {"Resolution.Height", 64, 8192},
    {"FrameRate", 1, 120},
};

constexpr SettingRule exposureRules[] = {
    {"Mode", 0, 9},
    {"CompensationLevel", -100, 100},
    {"ShutterInfo.Shutter", 0, 100'000},
    {"ShutterInfo.MinShutter", 0, 100'000},
    {"ShutterInfo.MaxShutter", 0, 100'000},
    {"ShutterInfo.IsEnableSlowShutter", 0, 1, Type::flag},
    {"ShutterInfo.SlowestShutter", 0, 100'000},
    {"GainInfo.MinGain", 0, 100},
    {"GainInfo.MaxGain", 0, 100},
    {"DayNight.Mode", 0, 3},
    {"DayNight.Sensitivity", 1, 9},
    {"DayNight.Time", 3, 120},
    {"WideDynamic.Mode", 0, 2},
    {"WideDynamic.Level", 1, 9},
    {"WideDynamic.OpenSensitivity", 1, 9},
    {"WideDynamic.CloseSensitivity", 1, 9},
    {"AntiFlicker", 0, 3, Type::flag},
    {"Metering.Mode", 0, 3},
    {"Metering.RefBrightness", 0, 255},
    {"Metering.HoldTime", 0, 3600},
};

constexpr SettingRule lampRules[] = {
    {"Enabled", 0, 1, Type::flag},
    {"Mode", 0, 7},
    {"NearLevel", 0, 1000},
    {"FarLevel", 0, 1000},
};

constexpr SettingRule whiteBalanceRules[] = {
    {"Mode", 0, 9},
    {"RedOffset", -63, 63},
    {"BlueOffset", -63, 63},
};

constexpr SettingRule defogRules[] = {
    {"Mode", 0, 3},
    {"Level", 1, 9},
};

constexpr SettingRule distortionRules[] = {
    {"Enable", 0, 1, Type::flag},
    {"Grade", 0, 100},
};

constexpr SettingRule enhanceRules[] = {
    {"Brightness", 0, 255},  {"Contrast", 0, 255},      {"Saturation", 0, 255},    {"Sharpness", 0, 255},
    {"ImageRotation", 0, 3}, {"2DNoiseReduce", 0, 255}, {"3DNoiseReduce", 0, 255},
};

struct Resource {
    std::string_view path;
    std::span<const SettingRule> rules;
    std::string_view document;
};

/// Beside what clients know, each has members that only come back unchanged from a client that touches nothing else.
constexpr std::array<Resource, 7> table{{
    {"Media/VideoInMode", modeRules,
     R"({"Resolution": {"Width": 1920, "Height": 1080}, "FrameRate": 30,
         "Standard": "PAL", "Clock": 27000000.5, "Modes": ["1920x1080@30", "1280x720@60"]})"},
    {"Image/Advanced/Exposure", exposureRules,
     R"({"Mode": 0, "CompensationLevel": 0,
         "ShutterInfo": {"Shutter": 100, "MinShutter": 1, "MaxShutter": 100000, "IsEnableSlowShutter": 0,
                         "SlowestShutter": 12, "ExactShutter": 33.333},
         "GainInfo": {"MinGain": 1, "MaxGain": 50, "Gain": 12, "IrisNumber": 1.8},
         "DayNight": {"Mode": 0, "Sensitivity": 5, "Time": 3, "Schedule": null},
         "WideDynamic": {"Mode": 0, "Level": 5, "OpenSensitivity": 5, "CloseSensitivity": 5},
         "AntiFlicker": 1,
         "Metering": {"Mode": 0, "RefBrightness": 128, "HoldTime": 60,
                      "Area": {"Left": 0, "Top": 0, "Right": 10000, "Bottom": 10000}},
         "SensorID": 9007199254740993})"},
    {"Image/LampCtrl", lampRules,
     R"({"Enabled": 1, "Mode": 0, "NearLevel": 500, "FarLevel": 500,
         "LampType": "infrared", "Current": 0.35, "Window": null})"},
    {"Image/WhiteBalance/Video", whiteBalanceRules,
     R"({"Mode": 0, "RedOffset": 0, "BlueOffset": 0, "Kelvin": 5600.25, "Illuminant": "D55", "Locked": false})"},
    {"Image/Defog/Video", defogRules,
     R"({"Mode": 0, "Level": 5, "Density": 0.125, "Method": "optical", "Seed": 4294967297})"},
    {"Image/LDC", distortionRules, R"({"Enable": 0, "Grade": 50, "Centre": [0.5, 0.5], "Lens": "2.8mm", "Map": null})"},
    {ImageSettings::enhance, enhanceRules,
     R"({"Brightness": 128, "Contrast": 128, "Saturation": 128, "Sharpness": 128, "ImageRotation": 0,
         "2DNoiseReduce": 128, "3DNoiseReduce": 128,
         "Gamma": 0.45, "SceneID": 9007199254740993, "Curve": null, "Style": "standard"})"},
}};

/// 128 is the middle of the scale of 0..255, which leaves the picture as it is.
double factor(const Json::Value& level)
{
    return level.asDouble() / 128;
}

}  // namespace

std::span<const std::string_view> ImageSettings::resources()
{
    static const auto paths = [] {
        std::array<std::string_view, table.size()> all;
        for (std::size_t i = 0; i < table.size(); ++i)
            all[i] = table[i].path;
        return all;
    }();
    return paths;
}

ImageSettings::ImageSettings()
{
    for (const Resource& resource : table)
        documents.emplace(resource.path, SettingsDocument(parseJson(resource.document).value(), resource.rules));
}

std::optional<std::string> ImageSettings::write(std::string_view resource, const Json::Value& body)
{
    return documents.find(resource)->second.write(body);
}

PictureLook ImageSettings::look() const
{
    constexpr int vertically = 1;  // values of "ImageRotation"
    constexpr int horizontally = 2;
    const Json::Value& values = data(enhance);
    const int rotation = values["ImageRotation"].asInt();
    PictureLook look;
    look.brightness = factor(values["Brightness"]) - 1;
    look.contrast = factor(values["Contrast"]);
    look.saturation = factor(values["Saturation"]);
    look.flipped = (rotation & vertically) != 0;
    look.mirrored = (rotation & horizontally) != 0;
    return look;
}

Json::Value ImageSettings::state() const
{
    Json::Value state(Json::objectValue);
    for (const auto& [path, document] : documents)
        state[std::string(path)] = document.state();
    return state;
}

}  // namespace simulator

#include "ImageSettings.h"

#include <algorithm>

namespace Uniview::settings
{
namespace
{
using Tavro8::ResultCode;

constexpr const char* captureModeName = "captureMode";

enum class Type { integer, asGiven };

/// One value of the host and the member of the reply that it replaces.
struct Row {
    Group group;
    const char* parameter;
    const char* object;  ///< of the data, in which the member is; null: in the data themselves
    const char* key;
    Type type = Type::integer;
};

constexpr Row rows[] = {
    {Group::exposure, "exposureMode", nullptr, "Mode"},
    {Group::exposure, "exposureCompensation", nullptr, "CompensationLevel"},
    {Group::exposure, "shutterLevel", "ShutterInfo", "Shutter"},
    {Group::exposure, "minShutterLevel", "ShutterInfo", "MinShutter"},
    {Group::exposure, "maxShutterLevel", "ShutterInfo", "MaxShutter"},
    {Group::exposure, "slowShutterEnable", "ShutterInfo", "IsEnableSlowShutter", Type::asGiven},
    {Group::exposure, "slowShutter", "ShutterInfo", "SlowestShutter"},
    {Group::exposure, "minGain", "GainInfo", "MinGain"},
    {Group::exposure, "maxGain", "GainInfo", "MaxGain"},
    {Group::exposure, "dayNightMode", "DayNight", "Mode"},
    {Group::exposure, "dayNightSensitivity", "DayNight", "Sensitivity"},
    {Group::exposure, "dayNightSwitch", "DayNight", "Time"},
    {Group::exposure, "wdrMode", "WideDynamic", "Mode"},
    {Group::exposure, "WDR", "WideDynamic", "Level"},
    {Group::exposure, "OpenSensitivity", "WideDynamic", "OpenSensitivity"},
    {Group::exposure, "CloseSensitivity", "WideDynamic", "CloseSensitivity"},
    {Group::exposure, "AntiFlicker", nullptr, "AntiFlicker", Type::asGiven},
    {Group::exposure, "meteringMode", "Metering", "Mode"},
    {Group::exposure, "RefBrightness", "Metering", "RefBrightness"},
    {Group::exposure, "HoldTime", "Metering", "HoldTime"},

    {Group::illumination, "smartIlluminationEnable", nullptr, "Enabled", Type::asGiven},
    {Group::illumination, "smartIlluminationMode", nullptr, "Mode"},
    {Group::illumination, "smartIlluminationLevel", nullptr, "NearLevel"},
    {Group::illumination, "smartIlluminationFarLevel", nullptr, "FarLevel"},

    {Group::whiteBalance, "whiteBalance", nullptr, "Mode"},
    {Group::whiteBalance, "redGain", nullptr, "RedOffset"},
    {Group::whiteBalance, "blueGain", nullptr, "BlueOffset"},

    {Group::defog, "defog", nullptr, "Mode"},
    {Group::defog, "defogLevel", nullptr, "Level"},

    {Group::ldc, "LDC", nullptr, "Enable"},
    {Group::ldc, "ldcLevel", nullptr, "Grade"},

    {Group::imageEnhance, "brightness", nullptr, "Brightness"},
    {Group::imageEnhance, "contrast", nullptr, "Contrast"},
    {Group::imageEnhance, "saturation", nullptr, "Saturation"},
    {Group::imageEnhance, "sharpness", nullptr, "Sharpness"},
    {Group::imageEnhance, "imageMirror", nullptr, "ImageRotation"},
    {Group::imageEnhance, "noiseReduction2D", nullptr, "2DNoiseReduce"},
    {Group::imageEnhance, "noiseReduction3D", nullptr, "3DNoiseReduce"},
};

bool writeRow(Json::Value& data, const Given& given, const Row& row)
{
    std::optional<Json::Value> value;
    if (row.type == Type::asGiven)
        value = given.asGiven(row.parameter);
    else if (const auto number = given.integer(row.parameter))
        value = *number;
    if (value)
        (row.object == nullptr ? data : subObject(data, row.object))[row.key] = std::move(*value);
    return value.has_value();
}

bool writeRows(Group group, Json::Value& data, const Given& given)
{
    bool changed = false;
    for (const Row& row : rows)
        changed |= row.group == group && writeRow(data, given, row);
    return changed;
}

/// "1920x1080x25": width, height and frame rate.
bool writeCaptureMode(Json::Value& data, const Given& given)
{
    const auto mode = given.text(captureModeName);
    if (!mode)
        return false;
    const auto parts = splitAtX(*mode);
    if (parts.size() != 3)
        throw Refusal(ResultCode::invalidArgument, "Can't parse capture mode values");
    const int frameRate = positive(parts[2], captureModeName);
    setResolution(data, positive(parts[0], captureModeName), positive(parts[1], captureModeName));
    data["FrameRate"] = frameRate;
    return true;
}
}  // namespace

bool concernsImage(Group group, const Tavro8::ParameterMap& given)
{
    const Given values(given);
    if (group == Group::captureMode)
        return values.has(captureModeName);
    return std::ranges::any_of(rows, [&](const Row& row) { return row.group == group && values.has(row.parameter); });
}

Edit editImage(Group group, Json::Value& data, const Tavro8::ParameterMap& given)
{
    return edit([&] {
        if (data.isNull())
            throw Refusal(ResultCode::emptyReply, traitsOf(group).empty);
        if (!data.isObject())
            throw Refusal(ResultCode::malformedReply, "\"Data\" is not an object");
        const Given values(given);
        return group == Group::captureMode ? writeCaptureMode(data, values) : writeRows(group, data, values);
    });
}
}  // namespace Uniview::settings

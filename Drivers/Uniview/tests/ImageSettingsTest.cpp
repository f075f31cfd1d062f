#include "ImageSettings.h"

#include "GroupingLocale.h"
#include "SettingsText.h"

#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using settings::Group;
using Tavro8::ParameterMap;

using Text = std::string;

constexpr Group imageGroups[] = {Group::captureMode, Group::exposure, Group::illumination, Group::whiteBalance,
                                 Group::defog,       Group::ldc,      Group::imageEnhance};

Text edit(Group group, const ParameterMap& given, const Text& data = "{}")
{
    return edited(data, [&](Json::Value& value) { return settings::editImage(group, value, given); });
}

struct Placement {
    Group group;
    const char* parameter;
    const char* written;  ///< for the value 7 into empty data
};
constexpr Placement placements[] = {
    {Group::exposure, "exposureMode", R"({"Mode":7})"},
    {Group::exposure, "exposureCompensation", R"({"CompensationLevel":7})"},
    {Group::exposure, "shutterLevel", R"({"ShutterInfo":{"Shutter":7}})"},
    {Group::exposure, "minShutterLevel", R"({"ShutterInfo":{"MinShutter":7}})"},
    {Group::exposure, "maxShutterLevel", R"({"ShutterInfo":{"MaxShutter":7}})"},
    {Group::exposure, "slowShutterEnable", R"({"ShutterInfo":{"IsEnableSlowShutter":7}})"},
    {Group::exposure, "slowShutter", R"({"ShutterInfo":{"SlowestShutter":7}})"},
    {Group::exposure, "minGain", R"({"GainInfo":{"MinGain":7}})"},
    {Group::exposure, "maxGain", R"({"GainInfo":{"MaxGain":7}})"},
    {Group::exposure, "dayNightMode", R"({"DayNight":{"Mode":7}})"},
    {Group::exposure, "dayNightSensitivity", R"({"DayNight":{"Sensitivity":7}})"},
    {Group::exposure, "dayNightSwitch", R"({"DayNight":{"Time":7}})"},
    {Group::exposure, "wdrMode", R"({"WideDynamic":{"Mode":7}})"},
    {Group::exposure, "WDR", R"({"WideDynamic":{"Level":7}})"},
    {Group::exposure, "OpenSensitivity", R"({"WideDynamic":{"OpenSensitivity":7}})"},
    {Group::exposure, "CloseSensitivity", R"({"WideDynamic":{"CloseSensitivity":7}})"},
    {Group::exposure, "AntiFlicker", R"({"AntiFlicker":7})"},
    {Group::exposure, "meteringMode", R"({"Metering":{"Mode":7}})"},
    {Group::exposure, "RefBrightness", R"({"Metering":{"RefBrightness":7}})"},
    {Group::exposure, "HoldTime", R"({"Metering":{"HoldTime":7}})"},
    {Group::illumination, "smartIlluminationEnable", R"({"Enabled":7})"},
    {Group::illumination, "smartIlluminationMode", R"({"Mode":7})"},
    {Group::illumination, "smartIlluminationLevel", R"({"NearLevel":7})"},
    {Group::illumination, "smartIlluminationFarLevel", R"({"FarLevel":7})"},
    {Group::whiteBalance, "whiteBalance", R"({"Mode":7})"},
    {Group::whiteBalance, "redGain", R"({"RedOffset":7})"},
    {Group::whiteBalance, "blueGain", R"({"BlueOffset":7})"},
    {Group::defog, "defog", R"({"Mode":7})"},
    {Group::defog, "defogLevel", R"({"Level":7})"},
    {Group::ldc, "LDC", R"({"Enable":7})"},
    {Group::ldc, "ldcLevel", R"({"Grade":7})"},
    {Group::imageEnhance, "brightness", R"({"Brightness":7})"},
    {Group::imageEnhance, "contrast", R"({"Contrast":7})"},
    {Group::imageEnhance, "saturation", R"({"Saturation":7})"},
    {Group::imageEnhance, "sharpness", R"({"Sharpness":7})"},
    {Group::imageEnhance, "imageMirror", R"({"ImageRotation":7})"},
    {Group::imageEnhance, "noiseReduction2D", R"({"2DNoiseReduce":7})"},
    {Group::imageEnhance, "noiseReduction3D", R"({"3DNoiseReduce":7})"},
};

TEST(ImageSettings, eachValueGoesToItsMemberOfItsResource)
{
    for (const auto& c : placements) {
        SCOPED_TRACE(c.parameter);
        for (const Group group : imageGroups) {
            EXPECT_EQ(edit(group, {{c.parameter, 7}}), group == c.group ? c.written : "-");
            EXPECT_EQ(settings::concernsImage(group, {{c.parameter, 7}}), group == c.group);
        }
    }
}

TEST(ImageSettings, replacesOnlyWhatWasGiven)
{
    EXPECT_EQ(edit(Group::whiteBalance, {{"redGain", 12}}, R"({"Mode":3,"RedOffset":1,"BlueOffset":-4})"),
              R"({"BlueOffset":-4,"Mode":3,"RedOffset":12})");
    EXPECT_EQ(edit(Group::exposure, {{"maxGain", 80}, {"WDR", 2}, {"HoldTime", 5}},
                   R"({"Mode":1,"GainInfo":{"MinGain":1,"MaxGain":100,"Unit":"dB"},"WideDynamic":{"Mode":0,"Level":5},)"
                   R"("Metering":{"Mode":1,"HoldTime":0},"Iris":{"F":1.0}})"),
              R"({"GainInfo":{"MaxGain":80,"MinGain":1,"Unit":"dB"},"Iris":{"F":1.0},)"
              R"("Metering":{"HoldTime":5,"Mode":1},"Mode":1,"WideDynamic":{"Level":2,"Mode":0}})");
}

TEST(ImageSettings, namesDifferingInCaseAreDifferentValues)
{
    EXPECT_EQ(edit(Group::ldc, {{"LDC", 1}, {"ldcLevel", 40}}, R"({"Enable":0,"Grade":50})"),
              R"({"Enable":1,"Grade":40})");
    EXPECT_EQ(edit(Group::ldc, {{"ldc", 1}, {"LDCLevel", 40}}, R"({"Enable":0,"Grade":50})"), "-");
}

TEST(ImageSettings, withoutAValueNothingIsWritten)
{
    for (const Group group : imageGroups) {
        EXPECT_EQ(edit(group, {}), "-");
        EXPECT_EQ(edit(group, {{"fps", 25}, {"unknown", Text("x")}}), "-");
    }
}

TEST(ImageSettings, threeValuesAreCopiedAsTheHostGivesThem)
{
    const struct {
        Group group;
        const char* parameter;
        const char* before;
        const char* after;
    } cases[] = {
        {Group::illumination, "smartIlluminationEnable", R"({"Enabled":)", "}"},
        {Group::exposure, "slowShutterEnable", R"({"ShutterInfo":{"IsEnableSlowShutter":)", "}}"},
        {Group::exposure, "AntiFlicker", R"({"AntiFlicker":)", "}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.parameter);
        const auto written = [&](const boost::any& value) { return edit(c.group, {{c.parameter, value}}); };
        const auto expected = [&](const char* value) { return c.before + Text(value) + c.after; };
        EXPECT_EQ(written(1), expected("1"));
        EXPECT_EQ(written(true), expected("true"));
        EXPECT_EQ(written(1.0), expected("1.0"));
        EXPECT_EQ(written(Text("50Hz")), expected(R"("50Hz")"));
        const Text refusal = Text(", parameter:") + c.parameter;
        EXPECT_EQ(written(1U), "3 boost::bad_any_cast: failed conversion using boost::any_cast" + refusal);
        EXPECT_EQ(written(std::numeric_limits<double>::quiet_NaN()), "3 the value is not finite" + refusal);
    }
}

TEST(ImageSettings, wrongTypeEndsTheResource)
{
    for (const auto& c : placements) {
        const Text name = c.parameter;
        if (name == "AntiFlicker" || name == "slowShutterEnable" || name == "smartIlluminationEnable")
            continue;  // copied as given
        for (const boost::any& wrong : {boost::any(Text("7")), boost::any(7.0), boost::any(true), boost::any(7U)})
            EXPECT_EQ(edit(c.group, {{name, wrong}}),
                      "3 boost::bad_any_cast: failed conversion using boost::any_cast, parameter:" + name);
    }
    EXPECT_EQ(edit(Group::defog, {{"defog", 1}, {"defogLevel", Text("high")}}),
              "3 boost::bad_any_cast: failed conversion using boost::any_cast, parameter:defogLevel");
}

TEST(ImageSettings, captureModeHasThreeFields)
{
    EXPECT_EQ(edit(Group::captureMode, {{"captureMode", Text("1920x1080x25")}},
                   R"({"Resolution":{"Width":1280,"Height":720},"FrameRate":30,"Mode":2})"),
              R"({"FrameRate":25,"Mode":2,"Resolution":{"Height":1080,"Width":1920}})");
    EXPECT_EQ(edit(Group::captureMode, {{"captureMode", Text("1x2x3")}}),
              R"({"FrameRate":3,"Resolution":{"Height":2,"Width":1}})");
    const struct {
        const char* text;
        const char* refusal;
    } cases[] = {
        {"", "3 Can't parse capture mode values"},
        {"1920", "3 Can't parse capture mode values"},
        {"1920x1080", "3 Can't parse capture mode values"},
        {"1920x1080x25x1", "3 Can't parse capture mode values"},
        {"1920X1080X25", "3 Can't parse capture mode values"},
        {"1920x1080x", "3 invalid stoi argument, parameter:captureMode"},
        {"xx", "3 invalid stoi argument, parameter:captureMode"},
        {"x1080x25", "3 invalid stoi argument, parameter:captureMode"},
        {"1920x-1080x25", "6 the value is not positive, parameter:captureMode"},
        {"1920x1080x2147483648", "6 stoi argument out of range, parameter:captureMode"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(edit(Group::captureMode, {{"captureMode", Text(c.text)}}), c.refusal) << c.text;
    EXPECT_EQ(edit(Group::captureMode, {{"captureMode", 1080}}),
              "3 boost::bad_any_cast: failed conversion using boost::any_cast, parameter:captureMode");
}

TEST(ImageSettings, missingDataAreSaidToBeEmpty)
{
    const struct {
        Group group;
        const char* message;
    } cases[] = {
        {Group::captureMode, "Capture mode settings is empty"},
        {Group::exposure, "Exposure settings is empty"},
        {Group::illumination, "Illumination settings is empty"},
        {Group::whiteBalance, "White balance settings is empty"},
        {Group::defog, "Defog settings is empty"},
        {Group::ldc, "Ldc settings is empty"},
        {Group::imageEnhance, "Image enhance settings is empty"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(edit(c.group, {}, "null"), "768 " + Text(c.message));
}

TEST(ImageSettings, dataOfAnotherShapeAreRefused)
{
    for (const Group group : imageGroups) {
        for (const char* const data : {"[]", "7", R"("x")", "false"})
            EXPECT_EQ(edit(group, {}, data), R"(769 "Data" is not an object)") << data;
    }
    EXPECT_EQ(edit(Group::exposure, {{"minGain", 1}}, R"({"GainInfo":[1]})"), R"(769 "GainInfo" is not an object)");
    EXPECT_EQ(edit(Group::exposure, {{"minGain", 1}}, R"({"GainInfo":null})"), R"({"GainInfo":{"MinGain":1}})");
    EXPECT_EQ(edit(Group::captureMode, {{"captureMode", Text("1x2x3")}}, R"({"Resolution":"1920x1080"})"),
              R"(769 "Resolution" is not an object)");
}

TEST(ImageSettings, numbersStayWhatTheyAreUnderAHostsLocale)
{
    const kelvo::test::GroupingLocale host;
    EXPECT_EQ(edit(Group::imageEnhance, {{"brightness", 128000}}, R"({"Gamma":1.0,"Scale":1234.5,"Max":1000000})"),
              R"({"Brightness":128000,"Gamma":1.0,"Max":1000000,"Scale":1234.5})");
}
}  // namespace

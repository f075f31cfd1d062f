#include "TelemetryCommands.h"

#include "GroupingLocale.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>

namespace
{
using namespace Uniview::telemetry;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr std::int32_t mostNegative = std::numeric_limits<std::int32_t>::min();

std::string areaBody(double x, double y, double width, double height)
{
    const auto command = areaZoom({x, y, width, height});
    return command ? std::string(command->resource) + ' ' + command->body : "none";
}

std::string pointBody(double x, double y)
{
    const auto command = pointMove({x, y});
    return command ? std::string(command->resource) + ' ' + command->body : "none";
}

Json::Value entry(const Json::Value& id)
{
    Json::Value value(Json::objectValue);
    value["ID"] = id;
    return value;
}

TEST(TelemetryCommands, aMovementIsChosenByTheSignsOfBothSpeeds)
{
    const struct {
        std::int32_t pan;
        std::int32_t tilt;
        unsigned command;
    } cases[] = {
        {0, 0, 2305},  {0, 5, 1026},   {0, -5, 1028}, {3, 0, 1282},  {-3, 0, 1284},
        {-3, 5, 1794}, {-3, -5, 1796}, {3, 5, 2050},  {3, -5, 2052}, {mostNegative, mostNegative, 1796},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.pan << ',' << c.tilt);
        EXPECT_EQ(static_cast<unsigned>(moveCommand(c.pan, c.tilt)), c.command);
    }
}

TEST(TelemetryCommands, theLensIsTurnedByTheSignOfTheSpeed)
{
    EXPECT_EQ(static_cast<unsigned>(zoomCommand(1)), 770U);
    EXPECT_EQ(static_cast<unsigned>(zoomCommand(-1)), 772U);
    EXPECT_EQ(static_cast<unsigned>(focusCommand(1)), 516U);
    EXPECT_EQ(static_cast<unsigned>(focusCommand(-1)), 514U);
    EXPECT_EQ(static_cast<unsigned>(irisCommand(1)), 258U);
    EXPECT_EQ(static_cast<unsigned>(irisCommand(-1)), 260U);
    for (const auto command : {zoomCommand(0), focusCommand(0), irisCommand(0)})
        EXPECT_EQ(static_cast<unsigned>(command), 2305U);
}

TEST(TelemetryCommands, theMostNegativeSpeedHasAMagnitude)
{
    EXPECT_EQ(magnitude(mostNegative), 2147483648U);
    EXPECT_EQ(magnitude(std::numeric_limits<std::int32_t>::max()), 2147483647U);
    EXPECT_EQ(magnitude(-1), 1U);
    EXPECT_EQ(magnitude(0), 0U);
}

TEST(TelemetryCommands, onlyTheControlPathDiffersBetweenCamerasAndRecorders)
{
    EXPECT_EQ(controlPath(false, 0), "/LAPI/V1.0/Channel/0/PTZ/");
    EXPECT_EQ(controlPath(true, 12), "/LAPI/V1.0/Channels/12/PTZ/");
    EXPECT_EQ(resourcePath(3), "/LAPI/V1.0/Channels/3/PTZ/");
}

TEST(TelemetryCommands, bodiesAreWrittenToTheLastBlank)
{
    EXPECT_EQ(controlBody(Command::leftUp, 3, 5), R"({"PTZCmd":1794,"Para1":3,"Para2":5,"Para3":0})");
    EXPECT_EQ(controlBody(Command::zoomPositive), R"({"PTZCmd":770,"Para1":0,"Para2":0,"Para3":0})");
    EXPECT_EQ(absoluteMoveBody(30, 10, 9), R"({ "Longitude":30, "Latitude":10, "MoveSpeed":9})");
    EXPECT_EQ(absoluteZoomBody(2, 4), R"({ "ZoomRatio":2, "ZoomSpeed":4 })");
    EXPECT_EQ(presetBody(3), R"({ "ID":3, "Name":"Preset3" })");
    EXPECT_EQ(areaBody(0.25, 0.25, 0.5, 0.5),
              R"(AreaZoomIn { "CenterPointx":960, "CenterPointY":540, "LengthX":960, "LengthY":540, )"
              R"("Width":1920, "Height":1080 })");
    EXPECT_EQ(pointBody(0.5, 0.25), R"(AreaZoomIn { "CenterPointx":960, "CenterPointY":270, "LengthX":0, "LengthY":0, )"
                                    R"("Width":1920, "Height":1080 })");
}

TEST(TelemetryCommands, fractionsHaveSixDigitsAndNoZerosBehind)
{
    EXPECT_EQ(absoluteMoveBody(359.99, 0.5, 0), R"({ "Longitude":359.99, "Latitude":0.5, "MoveSpeed":0})");
    EXPECT_EQ(absoluteMoveBody(123.4567, -10.25, 0), R"({ "Longitude":123.457, "Latitude":-10.25, "MoveSpeed":0})");
    EXPECT_EQ(absoluteMoveBody(25.4, 42949672.95, 0), R"({ "Longitude":25.4, "Latitude":4.29497e+07, "MoveSpeed":0})");
}

TEST(TelemetryCommands, bodiesAreTheSameUnderTheHostsLocale)
{
    const kelvo::test::GroupingLocale locale;
    EXPECT_EQ(controlBody(Command::rightUp, 1000000, 2000),
              R"({"PTZCmd":2050,"Para1":1000000,"Para2":2000,"Para3":0})");
    EXPECT_EQ(absoluteMoveBody(359.99, 1234.5, 9), R"({ "Longitude":359.99, "Latitude":1234.5, "MoveSpeed":9})");
    EXPECT_EQ(presetBody(1234), R"({ "ID":1234, "Name":"Preset1234" })");
    EXPECT_EQ(controlPath(true, 1234), "/LAPI/V1.0/Channels/1234/PTZ/");
    EXPECT_EQ(areaBody(0, 0, 0.333, 0.333),
              R"(AreaZoomIn { "CenterPointx":319, "CenterPointY":179, "LengthX":639.36, "LengthY":359.64, )"
              R"("Width":1920, "Height":1080 })");
    EXPECT_EQ(tourBody(1, {}, {{1, 10000, 5}}),
              R"({"ID":1,"Num":1,"Actions":[{"ID":0,"Type":1538,"Para1":5,"Para2":5,"PresetID":1,"Duration":10000}]})");
}

TEST(TelemetryCommands, anAreaLargerThanThePictureZoomsOut)
{
    EXPECT_EQ(areaBody(0.1, 0.2, 2.0, 0.5),
              R"(AreaZoomOut { "CenterPointx":2112, "CenterPointY":486, "LengthX":960, "LengthY":2160, )"
              R"("Width":1920, "Height":1080 })");
    EXPECT_EQ(areaBody(0, 0, 0.5, 1.5).substr(0, 11), "AreaZoomOut");
    EXPECT_EQ(areaBody(0, 0, 1.0, 1.0).substr(0, 11), "AreaZoomIn ");
    // No size in one direction.
    EXPECT_EQ(areaBody(0, 0, 2.0, 0),
              R"(AreaZoomOut { "CenterPointx":1920, "CenterPointY":0, "LengthX":960, "LengthY":0, )"
              R"("Width":1920, "Height":1080 })");
    EXPECT_EQ(areaBody(0, 0, -1, 4),
              R"(AreaZoomOut { "CenterPointx":-960, "CenterPointY":2160, "LengthX":0, "LengthY":270, )"
              R"("Width":1920, "Height":1080 })");
}

TEST(TelemetryCommands, pixelsAreTruncatedTowardsZero)
{
    EXPECT_EQ(pointBody(0.9999, -0.0001),
              R"(AreaZoomIn { "CenterPointx":1919, "CenterPointY":0, "LengthX":0, "LengthY":0, )"
              R"("Width":1920, "Height":1080 })");
    EXPECT_EQ(pointBody(-0.5, 0), R"(AreaZoomIn { "CenterPointx":-960, "CenterPointY":0, "LengthX":0, "LengthY":0, )"
                                  R"("Width":1920, "Height":1080 })");
}

TEST(TelemetryCommands, areasThatAreNoNumbersOrTooLargeAreNone)
{
    for (const double wrong : {nan, infinity, -infinity, 1e300, -1e300, 1e18, 1e7}) {
        SCOPED_TRACE(wrong);
        EXPECT_EQ(areaBody(wrong, 0, 0.5, 0.5), "none");
        EXPECT_EQ(areaBody(0, wrong, 0.5, 0.5), "none");
        EXPECT_EQ(areaBody(0, 0, wrong, 0.5), "none");
        EXPECT_EQ(areaBody(0, 0, 0.5, wrong), "none");
        EXPECT_EQ(pointBody(wrong, 0), "none");
        EXPECT_EQ(pointBody(0, wrong), "none");
    }
    EXPECT_EQ(areaBody(0, 0, 2, std::numeric_limits<double>::denorm_min()), "none");  // would zoom out infinitely
}

TEST(TelemetryCommands, hundredthsAreTruncatedAndNegativeOnesWrap)
{
    EXPECT_EQ(hundredths(359.999), 35999U);
    EXPECT_EQ(hundredths(0), 0U);
    EXPECT_EQ(hundredths(-10.0), static_cast<std::uint32_t>(-1000));
    EXPECT_EQ(hundredths(-0.019), static_cast<std::uint32_t>(-1));
    EXPECT_EQ(hundredths(-0.009), 0U);
    // Decimal fractions that the binary ones only come near to lose a hundredth.
    EXPECT_EQ(hundredths(0.29), 28U);
    EXPECT_EQ(hundredths(1.15), 114U);
    EXPECT_EQ(hundredths(2.3), 229U);
    EXPECT_EQ(hundredths(-0.29), static_cast<std::uint32_t>(-28));
    EXPECT_EQ(hundredths(42949672.95), 4294967295U);
    EXPECT_EQ(hundredths(-21474836.48), 2147483648U);
}

TEST(TelemetryCommands, positionsBeyond32BitsAreNone)
{
    for (const double wrong : {nan, infinity, -infinity, 42949673.0, -21474836.5, 1e300, 1e308, -1e308}) {
        SCOPED_TRACE(wrong);
        EXPECT_FALSE(hundredths(wrong));
    }
}

TEST(TelemetryCommands, aPositionReadAndSetAgainIsAtMostAHundredthNearerToZero)
{
    for (const double angle : {0.0, -10.0, -90.0, 179.5})
        EXPECT_EQ(degrees(*hundredths(angle)), angle);
    EXPECT_EQ(degrees(*hundredths(0.29)), 0.28);
    EXPECT_EQ(degrees(*hundredths(2.3)), 2.29);
    for (int i = -36'000; i <= 36'000; ++i) {
        const double angle = i / 100.0;
        const double lost = std::abs(angle) - std::abs(degrees(*hundredths(angle)));
        ASSERT_TRUE(lost > -1e-9 && lost < 0.01 + 1e-9) << angle;
    }
}

TEST(TelemetryCommands, numbersAreFoundWhateverTheyAreWrittenAs)
{
    Json::Value data(Json::objectValue);
    data["Whole"] = 30;
    data["Fraction"] = 10.5;
    data["Large"] = Json::Value::maxUInt64;
    data["Text"] = "30";
    data["Flag"] = true;
    data["Nothing"] = Json::nullValue;
    data["List"].append(1);
    EXPECT_EQ(findNumber(data, "Whole"), 30.0);
    EXPECT_EQ(findNumber(data, "Fraction"), 10.5);
    EXPECT_TRUE(findNumber(data, "Large"));
    for (const char* const name : {"Text", "Flag", "Nothing", "List", "Missing"})
        EXPECT_FALSE(findNumber(data, name)) << name;
    EXPECT_FALSE(findNumber(Json::Value(), "Whole"));
    EXPECT_FALSE(findNumber(Json::Value("text"), "Whole"));
    EXPECT_FALSE(findNumber(Json::Value(Json::arrayValue), "Whole"));
}

TEST(TelemetryCommands, entriesAreFoundByTheirNumber)
{
    Json::Value data(Json::objectValue);
    data["Infos"].append(entry(1));
    data["Infos"].append("text");
    data["Infos"].append(entry("2"));
    data["Infos"].append(entry(-3));
    data["Infos"].append(entry(4.5));
    data["Infos"].append(entry(256));
    EXPECT_EQ(findEntry(data, "Infos", 1), &data["Infos"][0]);
    EXPECT_EQ(findEntry(data, "Infos", 256), &data["Infos"][5]);
    for (const std::uint32_t missing : {0U, 2U, 3U, 4U, 4294967293U})
        EXPECT_EQ(findEntry(data, "Infos", missing), nullptr) << missing;
    EXPECT_EQ(findEntry(data, "Others", 1), nullptr);
    for (const Json::Value& other : {Json::Value(), Json::Value(1), Json::Value("x"), Json::Value(Json::arrayValue)})
        EXPECT_EQ(findEntry(other, "Infos", 1), nullptr);
}

TEST(TelemetryCommands, aMissingListIsAnEmptyOneButAnotherShapeIsNone)
{
    Json::Value data(Json::objectValue);
    EXPECT_TRUE(mayHoldList(Json::Value(), "Infos"));
    EXPECT_TRUE(mayHoldList(data, "Infos"));
    data["Infos"] = Json::Value(Json::arrayValue);
    EXPECT_TRUE(mayHoldList(data, "Infos"));
    data["Infos"] = "text";
    EXPECT_FALSE(mayHoldList(data, "Infos"));
    EXPECT_FALSE(mayHoldList(Json::Value(Json::arrayValue), "Infos"));
    EXPECT_FALSE(mayHoldList(Json::Value(1), "Infos"));
}

TEST(TelemetryCommands, aTourNamesItsPointsInTheirOrder)
{
    EXPECT_EQ(tourBody(0, {}, {}), R"({"ID":0,"Num":0,"Actions":[]})");
    EXPECT_EQ(tourBody(1, "Night \"round\"", {{1, 10000, 5}, {256, 0, 4294967295}}),
              R"({"ID":1,"Num":2,"Name":"Night \"round\"","Actions":[)"
              R"({"ID":0,"Type":1538,"Para1":5,"Para2":5,"PresetID":1,"Duration":10000},)"
              R"({"ID":1,"Type":1538,"Para1":4294967295,"Para2":4294967295,"PresetID":256,"Duration":0}]})");
}
}  // namespace

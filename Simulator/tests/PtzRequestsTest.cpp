#include "PtzRequests.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

/// Adds a failure and returns an empty request when the body was refused.
template <typename Request>
Request accepted(const std::variant<Request, std::string>& parsed)
{
    if (const auto* const why = std::get_if<std::string>(&parsed)) {
        ADD_FAILURE() << *why;
        return {};
    }
    return std::get<Request>(parsed);
}

template <typename Request>
std::string refused(const std::variant<Request, std::string>& parsed)
{
    const auto* const why = std::get_if<std::string>(&parsed);
    return why != nullptr ? *why : "accepted";
}

PtzDrive drive(unsigned command, unsigned first = 0, unsigned second = 0)
{
    return accepted(parsePtzDrive("{\"PTZCmd\":" + std::to_string(command) + ",\"Para1\":" + std::to_string(first) +
                                  ",\"Para2\":" + std::to_string(second) + ",\"Para3\":0}"));
}

TEST(PtzDrive, knowsTheNineDirections)
{
    const struct {
        unsigned command;
        double pan;
        double tilt;
    } cases[] = {
        {1026, 0, 10},   {1028, 0, -10}, {1282, 6, 0},   {1284, -6, 0}, {1794, -6, 10},
        {1796, -6, -10}, {2050, 6, 10},  {2052, 6, -10}, {2305, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        const PtzDrive request = drive(c.command, 3, 5);
        EXPECT_EQ(request.pan, c.pan);
        EXPECT_EQ(request.tilt, c.tilt);
        EXPECT_EQ(request.zoom.has_value(), c.command == 2305) << "only a stop reaches the lens as well";
    }
}

TEST(PtzDrive, drivesTheLensWhateverItsParameters)
{
    EXPECT_GT(drive(770).zoom, 0.0);
    EXPECT_LT(drive(772).zoom, 0.0);
    EXPECT_GT(drive(516).focus, 0.0);
    EXPECT_LT(drive(514).focus, 0.0);
    EXPECT_GT(drive(258).iris, 0.0);
    EXPECT_LT(drive(260).iris, 0.0);
    EXPECT_FALSE(drive(770).pan);
    EXPECT_FALSE(drive(770).focus);
    EXPECT_FALSE(drive(258).zoom);
    for (const auto& axis : {drive(2305).pan, drive(2305).tilt, drive(2305).zoom, drive(2305).focus, drive(2305).iris})
        EXPECT_EQ(axis, 0.0);
}

TEST(PtzDrive, refusesNonsense)
{
    const struct {
        const char* body;
        const char* part;
    } cases[] = {
        {"", "no JSON"},
        {"[2305]", "no JSON object"},
        {"{}", "\"PTZCmd\" is missing"},
        {R"({"PTZCmd":1026,"Para1":1})", "\"Para2\" is missing"},
        {R"({"PTZCmd":1027,"Para1":1,"Para2":1})", "no command of this device"},
        {R"({"PTZCmd":"1026","Para1":1,"Para2":1})", "\"PTZCmd\""},
        {R"({"PTZCmd":1026,"Para1":-1,"Para2":1})", "\"Para1\""},
        {R"({"PTZCmd":1026,"Para1":1,"Para2":101})", "\"Para2\""},
        {R"({"PTZCmd":1026,"Para1":1,"Para2":1.5})", "\"Para2\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        const std::string why = refused(parsePtzDrive(c.body));
        EXPECT_NE(why.find(c.part), std::string::npos) << why;
    }
}

TEST(PtzAbsoluteMove, takesAPositionAndASpeed)
{
    const auto move = accepted(parsePtzAbsoluteMove(R"({ "Longitude":30.25, "Latitude":-10, "MoveSpeed":4})"));
    EXPECT_EQ(move.pan, 30.25);
    EXPECT_EQ(move.tilt, -10);
    EXPECT_EQ(move.speed, 4u);
    for (const char* fastest : {R"({"Longitude":0,"Latitude":0})", R"({"Longitude":0,"Latitude":0,"MoveSpeed":0})"})
        EXPECT_EQ(accepted(parsePtzAbsoluteMove(fastest)).speed, 9u);
}

TEST(PtzAbsoluteMove, refusesWhatIsBeyondItsReach)
{
    for (const char* body : {
             "x",
             "{}",
             R"({"Longitude":1})",
             R"({"Latitude":1})",
             R"({"Longitude":361,"Latitude":0})",
             R"({"Longitude":-361,"Latitude":0})",
             R"({"Longitude":0,"Latitude":90.01})",
             R"({"Longitude":0,"Latitude":4.29497e+07})",
             R"({"Longitude":"0","Latitude":0})",
             R"({"Longitude":true,"Latitude":0})",
             R"({"Longitude":nan,"Latitude":0})",
             R"({"Longitude":0,"Latitude":0,"MoveSpeed":10})",
         })
        EXPECT_NE(refused(parsePtzAbsoluteMove(body)), "accepted") << body;
}

TEST(PtzAbsoluteZoom, takesARatioWithinTheLimits)
{
    const auto zoom = accepted(parsePtzAbsoluteZoom(R"({ "ZoomRatio":2.5, "ZoomSpeed":7 })"));
    EXPECT_EQ(zoom.ratio, 2.5);
    EXPECT_EQ(zoom.speed, 7u);
    for (const char* body : {"", "{}", R"({"ZoomRatio":0.99})", R"({"ZoomRatio":30.01})", R"({"ZoomRatio":"2"})",
                             R"({"ZoomRatio":2,"ZoomSpeed":10})"})
        EXPECT_NE(refused(parsePtzAbsoluteZoom(body)), "accepted") << body;
}

std::string areaBody(const std::string& x, const std::string& y, const std::string& lengthX, const std::string& lengthY)
{
    return "{ \"CenterPointx\":" + x + ", \"CenterPointY\":" + y + ", \"LengthX\":" + lengthX +
           ", \"LengthY\":" + lengthY + ", \"Width\":1920, \"Height\":1080 }";
}

TEST(PtzArea, isSeenFromTheMiddleOfThePicture)
{
    const auto area = accepted(parsePtzArea(areaBody("1440", "270", "480", "540"), PtzAreaZoom::in));
    EXPECT_DOUBLE_EQ(area.right, 0.25);
    EXPECT_DOUBLE_EQ(area.down, -0.25);
    EXPECT_DOUBLE_EQ(area.scale, 2) << "the whole rectangle stays in sight";
}

TEST(PtzArea, withoutSizeMovesOnly)
{
    for (const auto direction : {PtzAreaZoom::in, PtzAreaZoom::out})
        EXPECT_EQ(accepted(parsePtzArea(areaBody("960", "540", "0", "0"), direction)).scale, 1);
    EXPECT_DOUBLE_EQ(accepted(parsePtzArea(areaBody("960", "540", "480", "0"), PtzAreaZoom::in)).scale, 4);
    EXPECT_DOUBLE_EQ(accepted(parsePtzArea(areaBody("960", "540", "0", "270"), PtzAreaZoom::out)).scale, 0.25);
}

TEST(PtzArea, shrinksThePictureIntoTheRectangleWhenZoomingOut)
{
    EXPECT_DOUBLE_EQ(accepted(parsePtzArea(areaBody("960", "540", "960", "2160"), PtzAreaZoom::out)).scale, 0.5);
    EXPECT_DOUBLE_EQ(accepted(parsePtzArea(areaBody("960", "540", "3840", "2160"), PtzAreaZoom::out)).scale, 1);
    EXPECT_NE(refused(parsePtzArea(areaBody("960", "540", "3840", "540"), PtzAreaZoom::in)), "accepted");
}

TEST(PtzArea, refusesNonsense)
{
    for (const auto& body :
         {std::string("{}"), areaBody("-1", "0", "1", "1"), areaBody("1921", "0", "1", "1"),
          areaBody("0", "1081", "1", "1"), areaBody("0", "0", "-1", "1"), areaBody("\"0\"", "0", "1", "1")})
        EXPECT_NE(refused(parsePtzArea(body, PtzAreaZoom::in)), "accepted") << body;
    // The device's own key has a lower-case x; and a picture has a size.
    EXPECT_EQ(refused(parsePtzArea(
                  R"({"CenterPointX":0,"CenterPointY":0,"LengthX":0,"LengthY":0,"Width":1920,"Height":1080})",
                  PtzAreaZoom::in)),
              "\"CenterPointx\" is missing");
    EXPECT_NE(
        refused(parsePtzArea(R"({"CenterPointx":0,"CenterPointY":0,"LengthX":0,"LengthY":0,"Width":0,"Height":1080})",
                             PtzAreaZoom::in)),
        "accepted");
}

TEST(PtzPreset, hasANumberAndAName)
{
    const auto preset = accepted(parsePtzPreset(R"({ "ID":3, "Name":"Preset3" })"));
    EXPECT_EQ(preset.id, 3u);
    EXPECT_EQ(preset.name, "Preset3");
    EXPECT_EQ(accepted(parsePtzPreset(R"({"ID":256})")).name, "");
    for (const char* body :
         {"", "[]", "{}", R"({"Name":"x"})", R"({"ID":0})", R"({"ID":257})", R"({"ID":"1"})", R"({"ID":1,"Name":1})"})
        EXPECT_NE(refused(parsePtzPreset(body)), "accepted") << body;
    EXPECT_NE(refused(parsePtzPreset(R"({"ID":1,"Name":")" + std::string(65, 'x') + "\"}")), "accepted");
}

constexpr const char* patrolBody =
    R"({"Actions":[{"Duration":3000,"ID":0,"Para1":5,"Para2":5,"PresetID":1,"Type":1538},
                   {"Duration":0,"ID":1,"Para1":0,"Para2":0,"PresetID":2,"Type":1538}],"ID":1,"Num":2})";

TEST(PtzPatrol, isAListOfPresetsWithDwellTimes)
{
    const auto patrol = accepted(parsePtzPatrol(patrolBody));
    EXPECT_EQ(patrol.id, 1u);
    ASSERT_EQ(patrol.points.size(), 2u);
    EXPECT_EQ(patrol.points[0].preset, 1u);
    EXPECT_EQ(patrol.points[0].speed, 5u);
    EXPECT_EQ(patrol.points[0].dwell, std::chrono::seconds(3));
    EXPECT_EQ(patrol.points[1].speed, 9u) << "the device's own";
    EXPECT_EQ(patrol.document["Num"], 2);
    EXPECT_TRUE(accepted(parsePtzPatrol(R"({"ID":0,"Num":0,"Actions":[]})")).points.empty());
    const char* const last = R"({"ID":0,"Num":1,"Actions":[{"Type":1538,"Para1":1,"PresetID":256,"Duration":1}]})";
    EXPECT_EQ(accepted(parsePtzPatrol(last)).points[0].preset, 256u);
}

TEST(PtzPatrol, refusesNonsense)
{
    const struct {
        const char* body;
        const char* part;
    } cases[] = {
        {"", "no JSON"},
        {R"({"Num":0,"Actions":[]})", "\"ID\" is missing"},
        {R"({"ID":16,"Num":0,"Actions":[]})", "\"ID\""},
        {R"({"ID":0,"Num":1,"Actions":[]})", "no list of \"Num\" actions"},
        {R"({"ID":0,"Num":1,"Actions":{"0":1}})", "no list of \"Num\" actions"},
        {R"({"ID":0,"Num":65,"Actions":[]})", "\"Num\""},
        {R"({"ID":0,"Num":1,"Actions":[1]})", "\"Actions\": this is no JSON object"},
        {R"({"ID":0,"Num":1,"Actions":[{"Type":1538,"Para1":1,"Duration":1}]})", "\"PresetID\" is missing"},
        {R"({"ID":0,"Num":1,"Actions":[{"Type":1,"Para1":1,"PresetID":1,"Duration":1}]})", "\"Type\""},
        {R"({"ID":0,"Num":1,"Actions":[{"Type":1538,"Para1":10,"PresetID":1,"Duration":1}]})", "\"Para1\""},
        {R"({"ID":0,"Num":1,"Actions":[{"Type":1538,"Para1":1,"PresetID":0,"Duration":1}]})", "\"PresetID\""},
        {R"({"ID":0,"Num":1,"Actions":[{"Type":1538,"Para1":1,"PresetID":257,"Duration":1}]})", "\"PresetID\""},
        {R"({"ID":0,"Num":1,"Actions":[{"Type":1538,"Para1":1,"PresetID":1,"Duration":-1}]})", "\"Duration\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        const std::string why = refused(parsePtzPatrol(c.body));
        EXPECT_NE(why.find(c.part), std::string::npos) << why;
    }
}

}  // namespace
}  // namespace simulator

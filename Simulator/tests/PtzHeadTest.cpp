#include "PtzHead.h"

#include <gtest/gtest.h>

#include <cmath>

namespace simulator
{
namespace
{

using std::chrono::milliseconds;

class PtzHeadTest : public testing::Test {
protected:
    void pass(milliseconds time) { now += time; }
    PtzView view() const { return head.view(now); }
    /// Looks there at once.
    void look(double pan, double tilt = 0, double zoom = 1)
    {
        head.goTo({pan, tilt, 9}, now);
        head.zoomTo({zoom, 9}, now);
        pass(std::chrono::minutes(1));
    }
    void storePatrol(unsigned id, std::vector<PtzPatrol::Point> points)
    {
        PtzPatrol patrol;
        patrol.id = id;
        patrol.points = std::move(points);
        EXPECT_EQ(head.storePatrol(patrol), std::nullopt);
    }

    PtzHead head;
    PtzTime now{std::chrono::hours(1)};
};

TEST_F(PtzHeadTest, drivesOneAxisAndLeavesTheOthers)
{
    head.drive({.pan = 10, .tilt = -5}, now);
    head.drive({.zoom = 2}, now);
    pass(milliseconds(1000));
    EXPECT_TRUE(head.moving(now));
    EXPECT_NEAR(view().pan, 10, 1e-6);
    EXPECT_NEAR(view().tilt, -5, 1e-6);
    EXPECT_NEAR(view().zoom, 3, 1e-6);
    EXPECT_TRUE(head.state(now)["target"].isNull()) << "it turns without end";
    head.drive({.pan = 0, .tilt = 0, .zoom = 0, .focus = 0, .iris = 0}, now);
    EXPECT_FALSE(head.moving(now));
    EXPECT_EQ(head.state(now)["target"], head.state(now)["position"]);
}

TEST_F(PtzHeadTest, movesAndZoomsAtTheSameTime)
{
    head.goTo({90, 0, 1}, now);
    head.zoomTo({3, 1}, now);
    pass(milliseconds(500));
    EXPECT_NEAR(view().pan, 10, 1e-6);
    EXPECT_NEAR(view().zoom, 2, 1e-6);
    EXPECT_EQ(head.state(now)["target"]["pan"], 90.0);
    EXPECT_EQ(head.state(now)["target"]["zoom"], 3.0);
    pass(milliseconds(4000));
    EXPECT_FALSE(head.moving(now));
    EXPECT_EQ(view().pan, 90);
    EXPECT_EQ(view().zoom, 3);
}

TEST_F(PtzHeadTest, showsAnAreaByWhatThePictureHolds)
{
    look(100, 20, 2);  // the picture is 30 degrees wide and 16.875 high
    head.show({.right = 0.25, .down = 0.2, .scale = 4}, now);
    pass(std::chrono::minutes(1));
    EXPECT_NEAR(view().pan, 107.5, 1e-6);
    EXPECT_NEAR(view().tilt, 16.625, 1e-6);
    EXPECT_NEAR(view().zoom, 8, 1e-6);
    head.show({.right = 0, .down = 0, .scale = 0.25}, now);
    pass(std::chrono::minutes(1));
    EXPECT_NEAR(view().zoom, 2, 1e-6);
}

TEST_F(PtzHeadTest, showsAnAreaAsFarAsItsLimitsAllow)
{
    look(0, 85, 20);
    head.show({.right = -0.5, .down = -0.5, .scale = 4}, now);
    pass(std::chrono::minutes(1));
    EXPECT_NEAR(view().pan, 358.5, 1e-6);
    EXPECT_EQ(view().zoom, 30);
    head.show({.right = 0, .down = 0, .scale = 0.001}, now);
    pass(std::chrono::minutes(1));
    EXPECT_EQ(view().zoom, 1);
    head.show({.right = 0, .down = -0.5, .scale = 1}, now);
    pass(std::chrono::minutes(1));
    EXPECT_EQ(view().tilt, 90);
}

TEST_F(PtzHeadTest, keepsTheViewOfTheMomentAsAPreset)
{
    look(40, 5, 3);
    head.storePreset({3, "Preset3"}, now);
    head.drive({.pan = 10}, now);
    pass(milliseconds(1000));
    head.storePreset({4, "on the way"}, now);
    look(200, -30, 1);

    head.goToPreset(3, now);
    EXPECT_TRUE(head.moving(now));
    pass(std::chrono::minutes(1));
    EXPECT_EQ(view().pan, 40);
    EXPECT_EQ(view().tilt, 5);
    EXPECT_EQ(view().zoom, 3);
    head.goToPreset(4, now);
    pass(std::chrono::minutes(1));
    EXPECT_NEAR(view().pan, 50, 1e-6);

    const Json::Value data = head.presetInformation();
    EXPECT_EQ(data["Nums"], 2u);
    EXPECT_EQ(data["PresetInfos"][0]["ID"], 3u);
    EXPECT_EQ(data["PresetInfos"][0]["Name"], "Preset3");
    EXPECT_EQ(head.state(now)["presets"][0]["pan"], 40.0);
    head.removePreset(3);
    EXPECT_FALSE(head.hasPreset(3));
    EXPECT_EQ(head.presetInformation()["Nums"], 1u);
}

TEST_F(PtzHeadTest, replacesAPreset)
{
    head.storePreset({1, "old"}, now);
    look(70);
    head.storePreset({1, "new"}, now);
    look(0);
    head.goToPreset(1, now);
    pass(std::chrono::minutes(1));
    EXPECT_EQ(view().pan, 70);
    EXPECT_EQ(head.presetInformation()["PresetInfos"][0]["Name"], "new");
}

TEST_F(PtzHeadTest, playsAPatrolUntilTheNextCommand)
{
    look(0);
    head.storePreset({1, ""}, now);
    look(40);
    head.storePreset({2, ""}, now);
    storePatrol(1, {{1, 9, milliseconds(1000)}, {2, 1, milliseconds(1000)}});
    look(0);

    EXPECT_EQ(head.startPatrol(1, now), std::nullopt);
    EXPECT_EQ(head.state(now)["patrol"], 1u);
    pass(milliseconds(2000));  // a second at preset 1, and a second of the two that the way takes
    EXPECT_NEAR(view().pan, 20, 1e-3);
    EXPECT_EQ(head.state(now)["target"]["pan"], 40.0);
    pass(milliseconds(1500));
    EXPECT_EQ(view().pan, 40);
    EXPECT_FALSE(head.moving(now)) << "it dwells";

    head.drive({.tilt = 10}, now);
    EXPECT_TRUE(head.state(now)["patrol"].isNull());
    pass(milliseconds(1000));
    EXPECT_EQ(view().pan, 40);
    EXPECT_NEAR(view().tilt, 10, 1e-6);
}

TEST_F(PtzHeadTest, stopsThePatrolThatPlaysWhereItIs)
{
    look(40);
    head.storePreset({2, ""}, now);
    storePatrol(0, {{2, 1, milliseconds(0)}});
    storePatrol(1, {{2, 1, milliseconds(0)}});
    look(0);
    head.startPatrol(0, now);
    pass(milliseconds(1000));
    head.stopPatrol(1, now);
    EXPECT_TRUE(head.moving(now)) << "another one plays";
    head.stopPatrol(0, now);
    EXPECT_FALSE(head.moving(now));
    pass(milliseconds(1000));
    EXPECT_NEAR(view().pan, 20, 1e-6);
    head.stopPatrol(0, now);  // which does not play any more
    EXPECT_NEAR(view().pan, 20, 1e-6);
}

TEST_F(PtzHeadTest, listsPatrolsAsTheyWereWritten)
{
    head.storePreset({1, ""}, now);
    auto patrol = std::get<PtzPatrol>(parsePtzPatrol(
        R"({"ID":1,"Num":1,"Actions":[{"ID":0,"Type":1538,"Para1":5,"Para2":5,"PresetID":1,"Duration":3000}]})"));
    EXPECT_EQ(head.storePatrol(patrol), std::nullopt);
    const Json::Value data = head.patrolInformation();
    EXPECT_EQ(data["Nums"], 1u);
    EXPECT_EQ(data["PatrolInfos"][0], patrol.document);
    EXPECT_EQ(head.state(now)["patrols"][0]["ID"], 1);
}

TEST_F(PtzHeadTest, refusesPatrolsThatLeadNowhere)
{
    PtzPatrol patrol;
    patrol.points = {{7, 9, milliseconds(0)}};
    EXPECT_EQ(head.storePatrol(patrol), "there is no preset 7");
    EXPECT_FALSE(head.hasPatrol(0));

    storePatrol(0, {});
    EXPECT_EQ(head.startPatrol(0, now), "the patrol has no points");
    head.storePreset({7, ""}, now);
    head.storePatrol(patrol);
    EXPECT_EQ(head.startPatrol(0, now), std::nullopt);
    head.removePreset(7);
    EXPECT_NE(head.startPatrol(0, now), std::nullopt) << "its only preset is gone";
}

TEST_F(PtzHeadTest, tellsItsPositionWithTwoDecimals)
{
    look(0.004, -0.004, 1.239);
    EXPECT_EQ(head.moveInformation(now)["Longitude"], 0.0);
    EXPECT_FALSE(std::signbit(head.moveInformation(now)["Latitude"].asDouble()));
    EXPECT_EQ(head.zoomInformation(now)["ZoomRatio"], 1.24);
    look(359.999);
    EXPECT_EQ(head.moveInformation(now)["Longitude"], 0.0) << "never 360";
    look(-30);
    EXPECT_EQ(head.moveInformation(now)["Longitude"], 330.0);
}

}  // namespace
}  // namespace simulator

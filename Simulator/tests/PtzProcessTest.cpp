#include "Eventually.h"
#include "JsonText.h"
#include "PictureCaption.h"
#include "Programs.h"
#include "SimulatorProcess.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

Json::Value ptz(const SimulatorProcess& simulator, unsigned channel = 0)
{
    return simulator.admin("GET", "state")["ptz"][channel];
}

/// Sends a request to ".../PTZ/" + `resource` of a camera; "Response" of the envelope.
Json::Value ask(const SimulatorProcess& simulator, const std::string& method, const std::string& resource,
                const std::string& body = {})
{
    const ProgramResult result =
        simulator.lapi("/LAPI/V1.0/Channels/0/PTZ/" + resource, {"--request", method, "--data", body});
    return parseJson(result.output.substr(0, result.output.rfind('\n')))["Response"];
}

void look(const SimulatorProcess& simulator, const std::string& pan, const std::string& tilt, const std::string& zoom)
{
    ask(simulator, "PUT", "AbsoluteMove", "{ \"Longitude\":" + pan + ", \"Latitude\":" + tilt + ", \"MoveSpeed\":9}");
    ask(simulator, "PUT", "AbsoluteZoom", "{ \"ZoomRatio\":" + zoom + ", \"ZoomSpeed\":9 }");
    ASSERT_TRUE(eventually([&] { return !ptz(simulator)["moving"].asBool(); }));
}

TEST(Ptz, movesToWhereItIsSentAndSaysSo)
{
    const SimulatorProcess simulator;
    look(simulator, "30", "10", "2");
    EXPECT_EQ(ask(simulator, "GET", "AbsoluteMove")["Data"]["Longitude"], 30.0);
    EXPECT_EQ(ask(simulator, "GET", "AbsoluteMove")["Data"]["Latitude"], 10.0);
    EXPECT_EQ(ask(simulator, "GET", "AbsoluteZoom")["Data"]["ZoomRatio"], 2.0);
    const Json::Value state = ptz(simulator);
    EXPECT_EQ(state["position"]["pan"], 30.0);
    EXPECT_EQ(state["commands"], 2);
    EXPECT_EQ(simulator.admin("GET", "state")["ptz"].size(), 1u);
}

TEST(Ptz, movesWhileTheCommandLasts)
{
    const SimulatorProcess simulator;
    EXPECT_EQ(ask(simulator, "PUT", "PTZCtrl", R"({"PTZCmd":1026,"Para1":0,"Para2":100,"Para3":0})")["ResponseCode"],
              0);
    EXPECT_TRUE(eventually([&] { return ptz(simulator)["position"]["tilt"] == 90.0; })) << "where its limit is";
    ask(simulator, "PUT", "PTZCtrl", R"({"PTZCmd":1284,"Para1":50,"Para2":0,"Para3":0})");
    EXPECT_EQ(ptz(simulator)["moving"], true);
    ask(simulator, "PUT", "PTZCtrl", R"({"PTZCmd":2305,"Para1":0,"Para2":0,"Para3":0})");
    const Json::Value rest = ptz(simulator);
    EXPECT_EQ(rest["moving"], false);
    EXPECT_EQ(ptz(simulator)["position"], rest["position"]);
}

TEST(Ptz, refusesThroughTheEnvelope)
{
    const SimulatorProcess simulator;
    EXPECT_EQ(ask(simulator, "PUT", "PTZCtrl", "{}")["ResponseCode"], 2);
    EXPECT_EQ(ask(simulator, "PUT", "Presets/9/goto")["ResponseCode"], 1);
    EXPECT_EQ(ptz(simulator)["commands"], 0);
}

/// The size in which the place of the caption is known.
std::vector<std::string> smallPicture(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--size", "320x240", "--sub-size", "160x120", "--no-audio"});
    return more;
}

std::vector<Caption> captionsOf(const SimulatorProcess& simulator, std::size_t frames)
{
    return kelvo::test::captionsOf({"-rtsp_transport", "tcp", "-i", simulator.rtspUrl("/media/video1")}, frames);
}

/// The largest difference to the first of them.
double variation(const std::vector<Caption>& captions)
{
    double most = 0;
    for (const Caption& caption : captions)
        most = std::max(most, difference(captions.front(), caption));
    return most;
}

TEST(PtzPicture, showsWhereTheHeadLooks)
{
    const SimulatorProcess simulator(smallPicture());
    look(simulator, "30", "10", "2");
    const Caption there = captionsOf(simulator, 1)[0];
    look(simulator, "147.25", "-86", "4.5");
    const Caption elsewhere = captionsOf(simulator, 1)[0];
    look(simulator, "30", "10", "2");
    const Caption thereAgain = captionsOf(simulator, 1)[0];
    EXPECT_GT(difference(there, elsewhere), 0.3);
    EXPECT_LT(difference(there, thereAgain), 0.1) << "the clock has gone on, but not in this corner";
}

TEST(PtzPicture, followsTheHeadWhileItMoves)
{
    const SimulatorProcess simulator(smallPicture());
    EXPECT_LT(variation(captionsOf(simulator, 10)), 0.05);
    ask(simulator, "PUT", "PTZCtrl", R"({"PTZCmd":1282,"Para1":60,"Para2":0,"Para3":0})");
    EXPECT_GT(variation(captionsOf(simulator, 10)), 0.1);
}

}  // namespace
}  // namespace simulator::test

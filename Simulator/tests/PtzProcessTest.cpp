#include "Eventually.h"
#include "JsonText.h"
#include "Programs.h"
#include "SimulatorProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

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

/// A simulator with a picture of 320 x 240, so that the place of its caption is known.
std::vector<std::string> smallPicture(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--size", "320x240", "--sub-size", "160x120", "--no-audio"});
    return more;
}

/// One mark for each pixel.
using Letters = std::string;

/// The letters that tell where the head looks, in so many frames of the main stream. They are white on a shade that
/// keeps everything behind them darker.
std::vector<Letters> captionsOf(const SimulatorProcess& simulator, std::size_t frames)
{
    constexpr std::size_t captionBytes = 110 * 48;
    constexpr unsigned char white = 190;
    const ProgramResult result =
        runProgram({"ffmpeg", "-v", "error", "-analyzeduration", "100000", "-rtsp_transport", "tcp", "-i",
                    simulator.rtspUrl("/media/video1"), "-frames:v", std::to_string(frames), "-vf", "crop=110:48:19:40",
                    "-pix_fmt", "gray", "-f", "rawvideo", "-"});
    EXPECT_EQ(result.status, 0) << result.errors;
    std::vector<Letters> captions;
    for (std::size_t at = 0; at + captionBytes <= result.output.size(); at += captionBytes) {
        captions.push_back(result.output.substr(at, captionBytes));
        for (char& pixel : captions.back())
            pixel = static_cast<unsigned char>(pixel) > white ? '#' : ' ';
    }
    EXPECT_EQ(captions.size(), frames);
    captions.resize(frames);
    return captions;
}

/// In how many pixels two captions differ, as a share of the white ones of the first.
double difference(const Letters& one, const Letters& other)
{
    const auto different = std::inner_product(one.begin(), one.end(), other.begin(), 0, std::plus<>(),
                                              [](char a, char b) { return a == b ? 0 : 1; });
    return different / static_cast<double>(std::ranges::count(one, '#'));
}

/// The largest difference to the first of them.
double variation(const std::vector<Letters>& captions)
{
    double most = 0;
    for (const Letters& caption : captions)
        most = std::max(most, difference(captions.front(), caption));
    return most;
}

TEST(PtzPicture, showsWhereTheHeadLooks)
{
    const SimulatorProcess simulator(smallPicture());
    look(simulator, "30", "10", "2");
    const Letters there = captionsOf(simulator, 1)[0];
    EXPECT_GT(std::ranges::count(there, '#'), 100);
    look(simulator, "147.25", "-86", "19.5");
    const Letters elsewhere = captionsOf(simulator, 1)[0];
    look(simulator, "30", "10", "2");
    const Letters thereAgain = captionsOf(simulator, 1)[0];
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

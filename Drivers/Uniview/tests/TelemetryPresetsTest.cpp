#include "TelemetryFixture.h"

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using Tavro8::LogSeverity;
using Tavro8::ResultCode;
using Tavro8::toResult;

constexpr std::int32_t outOfRange = 6;
constexpr std::int32_t notSupported = 8;
constexpr std::int32_t noTourBeingFilled = 2818;

// What a camera's only channel is addressed by.
const std::string presets = "/LAPI/V1.0/Channels/0/PTZ/Presets";
const std::string patrols = "/LAPI/V1.0/Channels/0/PTZ/Patrols";
const std::string recorderPresets = "/LAPI/V1.0/Channels/2/PTZ/Presets";
const std::string recorderPatrols = "/LAPI/V1.0/Channels/2/PTZ/Patrols";

class TelemetryPresetsTest : public TelemetryFixture {
protected:
    /// A camera that knows the presets 1 and 3 and the tour 1.
    void connectWilling()
    {
        peer.answer("GET " + presets, 200,
                    reply(R"({"Nums":2,"PresetInfos":[{"ID":1,"Name":"Gate"},{"ID":3,"Name":"Yard"}]})"));
        peer.answer("POST " + presets, 200, "");
        peer.answer("PUT " + presets, 200, "");
        peer.answer("GET " + patrols, 200, reply(R"({"Nums":1,"PatrolInfos":[{"ID":1,"Name":"Night"}]})"));
        peer.answer("POST " + patrols, 200, reply("{}"));
        peer.answer("PUT " + patrols + "/1", 200, reply("{}"));
        for (const char* const tour : {"/0", "/1"}) {
            for (const char* const action : {"/Start", "/Stop"})
                peer.answer(patrols + tour + action, 200, "");
        }
        connect();
    }
    void connectRecorder() { connect(Kind::recorder, 1); }
};

TEST_F(TelemetryPresetsTest, storesAPresetThatTheCameraDoesNotKnow)
{
    connectWilling();
    EXPECT_EQ(adjuster->SetPreset(1), 0);
    EXPECT_EQ(sent(), (Lines{"GET " + presets, "POST " + presets + R"( { "ID":2, "Name":"Preset2" })"}));
}

TEST_F(TelemetryPresetsTest, overwritesAPresetThatTheCameraKnows)
{
    connectWilling();
    EXPECT_EQ(adjuster->SetPreset(2), 0);
    EXPECT_EQ(sent(), (Lines{"GET " + presets, "PUT " + presets + R"( { "ID":3, "Name":"Preset3" })"}));
}

TEST_F(TelemetryPresetsTest, storesAPresetOfARecorderWithoutAsking)
{
    peer.answer("PUT " + recorderPresets + "/3", 200, "");
    connectRecorder();
    EXPECT_EQ(adjuster->SetPreset(2), 0);
    EXPECT_EQ(sent(), Lines{"PUT " + recorderPresets + R"(/3 { "ID":3, "Name":"Preset3" })"});
}

TEST_F(TelemetryPresetsTest, asksAMultichannelCameraToo)
{
    peer.answer("GET " + recorderPresets, 200, reply("{}"));
    peer.answer("POST " + recorderPresets, 200, "");
    connect(Kind::multichannelCamera, 1);
    EXPECT_EQ(adjuster->SetPreset(0), 0);
    EXPECT_EQ(sent(),
              (Lines{"GET " + recorderPresets, "POST " + recorderPresets + R"( { "ID":1, "Name":"Preset1" })"}));
}

TEST_F(TelemetryPresetsTest, acceptsTheIndexThatEqualsTheCount)
{
    connectWilling();
    EXPECT_EQ(adjuster->SetPreset(255), 0);
    EXPECT_EQ(takeSent().back(), "POST " + presets + R"( { "ID":256, "Name":"Preset256" })");
    EXPECT_EQ(adjuster->SetPreset(256), outOfRange);
    EXPECT_EQ(telemetry->GoToPreset(256), outOfRange);
    EXPECT_EQ(adjuster->RemovePreset(256), outOfRange);
    EXPECT_EQ(adjuster->SetPreset(4294967295U), outOfRange);
    EXPECT_EQ(sent(), Lines{});
    EXPECT_EQ(logger.count("tc 0: Error: preset value out of range"), 4U);
    EXPECT_EQ(logger.find("Error: preset value").severity, LogSeverity::error);
    EXPECT_EQ(logger.find("Error: preset value").function, "Uniview::TelemetryChannel::presetValueOutOfRange");
}

TEST_F(TelemetryPresetsTest, goesToPresetsAndRemovesThemInTheSingularOnCameras)
{
    const std::string preset = "/LAPI/V1.0/Channel/0/PTZ/Presets/6";
    peer.answer("PUT " + preset + "/goto", 200, "");
    peer.answer("DELETE " + preset, 200, "");
    connect();
    EXPECT_EQ(telemetry->GoToPreset(5), 0);
    EXPECT_EQ(adjuster->RemovePreset(5), 0);
    EXPECT_EQ(sent(), (Lines{"PUT " + preset + "/goto", "DELETE " + preset}));
}

TEST_F(TelemetryPresetsTest, goesToPresetsAndRemovesThemInThePluralOnRecorders)
{
    connectRecorder();
    EXPECT_EQ(telemetry->GoToPreset(255), toResult(ResultCode::resourceNotFound));
    EXPECT_EQ(adjuster->RemovePreset(0), toResult(ResultCode::resourceNotFound));
    EXPECT_EQ(sent(), (Lines{"PUT " + recorderPresets + "/256/goto", "DELETE " + recorderPresets + "/1"}));
}

TEST_F(TelemetryPresetsTest, goesToPresetsAndRemovesThemInTheSingularOnMultichannelCamerasToo)
{
    const std::string preset = "/LAPI/V1.0/Channel/2/PTZ/Presets/6";
    peer.answer("PUT " + preset + "/goto", 200, "");
    peer.answer("DELETE " + preset, 200, "");
    connect(Kind::multichannelCamera, 1);
    EXPECT_EQ(telemetry->GoToPreset(5), 0);
    EXPECT_EQ(adjuster->RemovePreset(5), 0);
    EXPECT_EQ(sent(),
              (Lines{"PUT /LAPI/V1.0/Channel/2/PTZ/Presets/6/goto", "DELETE /LAPI/V1.0/Channel/2/PTZ/Presets/6"}));
}

TEST_F(TelemetryPresetsTest, tracesPresetsWhenTheModelSaysSo)
{
    general["trackLog"] = true;
    connectWilling();
    adjuster->SetPreset(2);
    const auto line = logger.find("tc 0: TRACE: preset-3");
    EXPECT_EQ(line.function, "Uniview::TelemetryChannel::SetPreset");
    EXPECT_EQ(line.severity, LogSeverity::info);
}

TEST_F(TelemetryPresetsTest, storesNoPresetWhenTheListCannotBeRead)
{
    const struct {
        unsigned status;
        std::string body;
        ResultCode result;
    } cases[] = {
        {403, "", ResultCode::accessDenied},
        {200, "", ResultCode::emptyReply},
        {200, "nonsense", ResultCode::malformedReply},
        {200, reply("[]"), ResultCode::malformedReply},
        {200, reply("7"), ResultCode::malformedReply},
        {200, reply(R"({"PresetInfos":{"ID":1}})"), ResultCode::malformedReply},
        {200, R"({"Response":{"ResponseCode":3}})", ResultCode::apiError},
    };
    connectWilling();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        peer.answer("GET " + presets, c.status, c.body);
        EXPECT_EQ(adjuster->SetPreset(0), toResult(c.result));
        EXPECT_EQ(takeSent(), Lines{"GET " + presets});
    }
    EXPECT_EQ(logger.count("tc 0: Failed to get existing presets!"), std::size(cases));
    EXPECT_EQ(logger.find("Failed to get existing presets!").function,
              "Uniview::TelemetryChannel::invokeSetPresetCommand");
    EXPECT_EQ(logger.find("Failed to get existing presets!").severity, LogSeverity::error);
}

TEST_F(TelemetryPresetsTest, aPresetThatTheDeviceDoesNotTakeIsAResultAndALine)
{
    connectWilling();
    peer.answer("POST " + presets, 503, "");
    EXPECT_EQ(adjuster->SetPreset(1), toResult(ResultCode::deviceBusy));
    auto line = logger.find("tc 0: [collapsed 1] HTTP response has error: Scripted, request: " + presets);
    EXPECT_EQ(line.severity, LogSeverity::error);
    EXPECT_EQ(line.function, "Uniview::TelemetryChannel::sendPostRequest");
    peer.answer("PUT " + presets, 403, "");
    EXPECT_EQ(adjuster->SetPreset(2), toResult(ResultCode::accessDenied));
    EXPECT_EQ(sent().size(), 4U) << "nothing is tried again in another way";
    EXPECT_FALSE(logger.contains("Failed to get existing presets!"));

    EXPECT_EQ(adjuster->RemovePreset(0), toResult(ResultCode::resourceNotFound));
    EXPECT_EQ(logger.find("/Channel/0/PTZ/Presets/1").function, "Uniview::TelemetryChannel::sendDeleteRequest");
}

TEST_F(TelemetryPresetsTest, aPresetThatARecorderDoesNotTakeIsAResult)
{
    peer.answer("PUT " + recorderPresets + "/3", 500, "");
    connectRecorder();
    EXPECT_EQ(adjuster->SetPreset(2), toResult(ResultCode::deviceError));
    EXPECT_EQ(logger.find("tc 1: [collapsed 1] HTTP response has error: ").function,
              "Uniview::TelemetryChannel::sendPutRequest");
}

TEST_F(TelemetryPresetsTest, takesAListThatIsLeftOutForAnEmptyOne)
{
    connectWilling();
    for (const char* const data : {"null", "{}", R"({"Nums":0,"PresetInfos":[]})", R"({"PresetInfos":null})",
                                   R"({"PresetInfos":[7,"x",{"ID":"1"},{"Name":"1"},{"ID":-1}]})"}) {
        SCOPED_TRACE(data);
        peer.answer("GET " + presets, 200, reply(data));
        EXPECT_EQ(adjuster->SetPreset(0), 0);
        EXPECT_EQ(takeSent().back(), "POST " + presets + R"( { "ID":1, "Name":"Preset1" })");
    }
}

TEST_F(TelemetryPresetsTest, playsAndStopsATour)
{
    connectWilling();
    EXPECT_EQ(telemetry->PlayTour(1), 0);
    EXPECT_EQ(takeSent(), Lines{"PUT " + patrols + "/1/Start"});
    EXPECT_EQ(logger.find("tc 0: Play tour with index '1'").function, "Uniview::TelemetryChannel::PlayTour");
    EXPECT_EQ(logger.find("tc 0: Play tour with index '1'").severity, LogSeverity::info);
    EXPECT_EQ(telemetry->StopTour(), 0);
    EXPECT_EQ(takeSent(), Lines{"PUT " + patrols + "/1/Stop"});
    EXPECT_EQ(logger.find("tc 0: Stop tour").function, "Uniview::TelemetryChannel::StopTour");
    EXPECT_EQ(logger.find("tc 0: Stop tour").severity, LogSeverity::info);

    EXPECT_EQ(telemetry->StopTour(), toResult(ResultCode::invalidState));  // it has been stopped
    EXPECT_EQ(logger.find("tc 0: No active tour to stop").function, "Uniview::TelemetryChannel::StopTour");
    EXPECT_EQ(logger.find("tc 0: No active tour to stop").severity, LogSeverity::error);
    EXPECT_EQ(telemetry->PlayTour(0), 0);
    EXPECT_EQ(telemetry->PlayTour(1), 0);
    EXPECT_EQ(telemetry->StopTour(), 0);  // the one that was begun last
    EXPECT_EQ(sent(),
              (Lines{"PUT " + patrols + "/0/Start", "PUT " + patrols + "/1/Start", "PUT " + patrols + "/1/Stop"}));
}

/// What is addressed alike on recorders and on cameras with several channels.
class TelemetryPresetsOfChannels : public TelemetryPresetsTest, public testing::WithParamInterface<bool> {
protected:
    void connectSecondChannel() { connect(GetParam() ? Kind::recorder : Kind::multichannelCamera, 1); }
};
INSTANTIATE_TEST_SUITE_P(Kinds, TelemetryPresetsOfChannels, testing::Bool(),
                         [](const auto& test) { return test.param ? "recorder" : "multichannel"; });

TEST_P(TelemetryPresetsOfChannels, playsAndStopsToursUnderTheNumberOfTheChannel)
{
    peer.answer("PUT /LAPI/V1.0/Channels/2/PTZ/Patrols/1/Start", 200, "");
    peer.answer("PUT /LAPI/V1.0/Channels/2/PTZ/Patrols/1/Stop", 200, "");
    connectSecondChannel();
    EXPECT_EQ(telemetry->PlayTour(1), 0);
    EXPECT_EQ(telemetry->StopTour(), 0);
    EXPECT_EQ(sent(),
              (Lines{"PUT /LAPI/V1.0/Channels/2/PTZ/Patrols/1/Start", "PUT /LAPI/V1.0/Channels/2/PTZ/Patrols/1/Stop"}));
}

TEST_F(TelemetryPresetsTest, playsAndFillsTheFirstTwoToursOnly)
{
    connectWilling();
    EXPECT_EQ(telemetry->PlayTour(2), outOfRange);
    EXPECT_TRUE(logger.contains("tc 0: Play tour with index '2'"));
    EXPECT_EQ(telemetry->PlayTour(4294967295U), outOfRange);
    EXPECT_EQ(adjuster->StartFillTour(2), outOfRange);
    EXPECT_EQ(logger.count("tc 0: Tour number out of range"), 3U);
    EXPECT_EQ(logger.find("Tour number out of range").function, "Uniview::TelemetryChannel::PlayTour");
    EXPECT_EQ(logger.find("Tour number out of range").severity, LogSeverity::error);
    EXPECT_EQ(telemetry->StopTour(), toResult(ResultCode::invalidState));
    EXPECT_EQ(adjuster->StopFillTour(), noTourBeingFilled);
    EXPECT_EQ(sent(), Lines{});
}

TEST_F(TelemetryPresetsTest, canStopATourWhoseStartOrStopFailed)
{
    connectWilling();
    peer.answer(patrols + "/1/Start", 500, "");
    EXPECT_EQ(telemetry->PlayTour(1), toResult(ResultCode::deviceError));
    peer.answer(patrols + "/1/Stop", 503, "");
    EXPECT_EQ(telemetry->StopTour(), toResult(ResultCode::deviceBusy));
    peer.answer(patrols + "/1/Stop", 200, "");
    EXPECT_EQ(telemetry->StopTour(), 0);
    EXPECT_EQ(sent().size(), 3U);
}

TEST_F(TelemetryPresetsTest, storesATourThatTheCameraDoesNotKnow)
{
    connectWilling();
    EXPECT_EQ(adjuster->StartFillTour(0), 0);
    EXPECT_EQ(logger.find("tc 0: Start filling tour with index '0'").function,
              "Uniview::TelemetryChannel::StartFillTour");
    EXPECT_EQ(logger.find("tc 0: Start filling tour with index '0'").severity, LogSeverity::info);
    EXPECT_EQ(adjuster->SetPoint(5, 0, 10), 0);
    EXPECT_EQ(logger.find("tc 0: Setting tour point with index '0', speed '5', dwell time '10'").function,
              "Uniview::TelemetryChannel::SetPoint");
    EXPECT_EQ(adjuster->SetPoint(7, 254, 0), 0);
    EXPECT_EQ(adjuster->StopFillTour(), 0);
    for (const char* const text : {"tc 0: StopFillTour with index '0'", "tc 0: Stop fill tour"}) {
        EXPECT_EQ(logger.find(text).function, "Uniview::TelemetryChannel::StopFillTour") << text;
        EXPECT_EQ(logger.find(text).severity, LogSeverity::info) << text;
    }
    EXPECT_EQ(sent(), (Lines{"GET " + patrols,
                             "POST " + patrols +
                                 R"( {"ID":0,"Num":2,"Actions":[)"
                                 R"({"ID":0,"Type":1538,"Para1":5,"Para2":5,"PresetID":1,"Duration":10000},)"
                                 R"({"ID":1,"Type":1538,"Para1":7,"Para2":7,"PresetID":255,"Duration":0}]})"}));
    EXPECT_EQ(adjuster->StopFillTour(), noTourBeingFilled);
    EXPECT_EQ(logger.find("No active tour to stop").function, "Uniview::TelemetryChannel::StopFillTour");
    EXPECT_EQ(adjuster->SetPoint(1, 1, 1), noTourBeingFilled);
}

TEST_F(TelemetryPresetsTest, updatesATourThatTheCameraKnowsUnderItsName)
{
    connectWilling();
    EXPECT_EQ(adjuster->StartFillTour(1), 0);
    EXPECT_EQ(adjuster->StopFillTour(), 0);
    EXPECT_EQ(sent().back(), "PUT " + patrols + R"(/1 {"ID":1,"Num":0,"Name":"Night","Actions":[]})");
}

TEST_F(TelemetryPresetsTest, updatesEveryTourOfARecorder)
{
    peer.answer("GET " + recorderPatrols, 200, reply("{}"));
    peer.answer("PUT " + recorderPatrols + "/0", 200, reply("{}"));
    connectRecorder();
    EXPECT_EQ(adjuster->StartFillTour(0), 0);
    EXPECT_EQ(adjuster->StopFillTour(), 0);
    EXPECT_EQ(sent().back(), "PUT " + recorderPatrols + R"(/0 {"ID":0,"Num":0,"Actions":[]})");
}

TEST_F(TelemetryPresetsTest, setsNoPointBeforeATourIsBegun)
{
    connectWilling();
    EXPECT_EQ(adjuster->SetPoint(5, 0, 10), noTourBeingFilled);
    EXPECT_TRUE(logger.contains("tc 0: Setting tour point with index '0', speed '5', dwell time '10'"));
    const auto line = logger.find("tc 0: Trying to set tour point without starting filling tour!");
    EXPECT_EQ(line.function, "Uniview::TelemetryChannel::SetPoint");
    EXPECT_EQ(line.severity, LogSeverity::error);
    EXPECT_EQ(sent(), Lines{});
}

TEST_F(TelemetryPresetsTest, refusesPointsThatDoNotFit)
{
    connectWilling();
    ASSERT_EQ(adjuster->StartFillTour(0), 0);
    EXPECT_EQ(adjuster->SetPoint(1, 4294967295U, 1), outOfRange);
    EXPECT_EQ(adjuster->SetPoint(1, 0, 4294968), outOfRange);
    EXPECT_EQ(adjuster->SetPoint(1, 4294967294U, 4294967), 0);
    EXPECT_EQ(adjuster->StopFillTour(), 0);
    EXPECT_NE(sent().back().find(R"("PresetID":4294967295,"Duration":4294967000})"), std::string::npos);

    ASSERT_EQ(adjuster->StartFillTour(0), 0);
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(adjuster->SetPoint(1, 0, 1), 0);
    EXPECT_EQ(adjuster->SetPoint(1, 0, 1), outOfRange);
}

TEST_F(TelemetryPresetsTest, aNewFillingDropsThePointsOfAnUnfinishedOne)
{
    connectWilling();
    EXPECT_EQ(adjuster->StartFillTour(1), 0);
    EXPECT_EQ(adjuster->SetPoint(5, 0, 10), 0);
    EXPECT_EQ(adjuster->StartFillTour(0), 0);
    EXPECT_EQ(adjuster->StopFillTour(), 0);
    EXPECT_EQ(sent().back(), "POST " + patrols + R"( {"ID":0,"Num":0,"Actions":[]})");
}

TEST_F(TelemetryPresetsTest, aFillingThatCannotBeginKeepsThePointsOfTheUnfinishedOne)
{
    connectWilling();
    EXPECT_EQ(adjuster->StartFillTour(1), 0);
    EXPECT_EQ(adjuster->SetPoint(5, 0, 10), 0);
    for (const auto& body : {std::string(), std::string("nonsense"), reply("[]"), reply(R"({"PatrolInfos":1})")}) {
        peer.answer("GET " + patrols, 200, body);
        EXPECT_NE(adjuster->StartFillTour(0), 0) << body;
    }
    EXPECT_EQ(logger.count("tc 0: Failed to get existing tours!"), 4U);
    EXPECT_EQ(logger.find("Failed to get existing tours!").function, "Uniview::TelemetryChannel::StartFillTour");
    EXPECT_EQ(logger.find("Failed to get existing tours!").severity, LogSeverity::error);
    EXPECT_EQ(adjuster->StopFillTour(), 0);
    EXPECT_EQ(sent().back(), "POST " + patrols +
                                 R"( {"ID":1,"Num":1,"Name":"Night","Actions":[)"
                                 R"({"ID":0,"Type":1538,"Para1":5,"Para2":5,"PresetID":1,"Duration":10000}]})")
        << "whether it exists has become unknown";
}

TEST_F(TelemetryPresetsTest, aTourNumberOutOfRangeLeavesTheUnfinishedOneAsItIs)
{
    connectWilling();
    EXPECT_EQ(adjuster->StartFillTour(1), 0);
    EXPECT_EQ(adjuster->StartFillTour(2), outOfRange);
    EXPECT_EQ(adjuster->StopFillTour(), 0);
    EXPECT_EQ(sent().back(), "PUT " + patrols + R"(/1 {"ID":1,"Num":0,"Name":"Night","Actions":[]})");
}

TEST_F(TelemetryPresetsTest, aTourIsStoredOnlyWhenTheDeviceSaysSoInItsReply)
{
    const struct {
        unsigned status;
        std::string body;
        ResultCode result;
    } cases[] = {
        {500, "", ResultCode::deviceError},
        {200, "", ResultCode::emptyReply},
        {200, "nonsense", ResultCode::malformedReply},
        {200, R"({"Response":{"ResponseCode":3}})", ResultCode::apiError},
    };
    connectWilling();
    ASSERT_EQ(adjuster->StartFillTour(0), 0);
    ASSERT_EQ(adjuster->SetPoint(5, 0, 10), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        peer.answer("POST " + patrols, c.status, c.body);
        EXPECT_EQ(adjuster->StopFillTour(), toResult(c.result));
    }
    EXPECT_FALSE(logger.contains("Stop fill tour"));
    peer.answer("POST " + patrols, 200, reply("{}"));
    EXPECT_EQ(adjuster->StopFillTour(), 0);  // the points were kept
    EXPECT_NE(sent().back().find(R"("Num":1)"), std::string::npos);
}

TEST_F(TelemetryPresetsTest, aModelWithoutToursHasNone)
{
    model["supportsPresetTour"] = false;
    connectWilling();
    EXPECT_EQ(telemetry->PlayTour(2), notSupported);
    EXPECT_EQ(telemetry->StopTour(), notSupported);
    EXPECT_EQ(adjuster->StartFillTour(2), notSupported);
    EXPECT_EQ(adjuster->SetPoint(1, 1, 1), notSupported);
    EXPECT_EQ(adjuster->StopFillTour(), notSupported);
    EXPECT_EQ(sent(), Lines{});
    EXPECT_EQ(adjuster->SetPreset(0), 0);  // presets need no tours
}
}  // namespace

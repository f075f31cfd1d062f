#include "TelemetryChannel.h"

#include "GroupingLocale.h"
#include "TelemetryFixture.h"

#include <limits>
#include <set>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using namespace Tavro8::GDRV;
using Tavro8::LogSeverity;
using Tavro8::queryContract;
using Tavro8::ResultCode;
using Tavro8::toResult;

constexpr std::int32_t outOfRange = 6;
constexpr std::int32_t notSupported = 8;
constexpr std::int32_t mostNegative = std::numeric_limits<std::int32_t>::min();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr double infinity = std::numeric_limits<double>::infinity();

// What a camera's only channel is addressed by.
const std::string control = "/LAPI/V1.0/Channel/0/PTZ/PTZCtrl";
const std::string absoluteMove = "/LAPI/V1.0/Channels/0/PTZ/AbsoluteMove";
const std::string absoluteZoom = "/LAPI/V1.0/Channels/0/PTZ/AbsoluteZoom";
const std::string areaZoomIn = "/LAPI/V1.0/Channels/0/PTZ/AreaZoomIn";
const std::string areaZoomOut = "/LAPI/V1.0/Channels/0/PTZ/AreaZoomOut";

std::string command(int code, std::uint32_t pan = 0, std::uint32_t tilt = 0)
{
    return "PUT " + control + R"( {"PTZCmd":)" + std::to_string(code) + R"(,"Para1":)" + std::to_string(pan) +
           R"(,"Para2":)" + std::to_string(tilt) + R"(,"Para3":0})";
}

class TelemetryChannelTest : public TelemetryFixture {
protected:
    /// A camera that accepts everything and looks at 359.999, -10.5 through a ratio of 2.5.
    void connectWilling()
    {
        peer.answer(control, 200, "");
        peer.answer("PUT " + absoluteMove, 200, "");
        peer.answer("PUT " + absoluteZoom, 200, "");
        peer.answer(areaZoomIn, 200, "");
        peer.answer(areaZoomOut, 200, "");
        peer.answer("GET " + absoluteMove, 200, reply(R"({"Longitude":359.999,"Latitude":-10.5})"));
        peer.answer("GET " + absoluteZoom, 200, reply(R"({"ZoomRatio":2.5})"));
        connect();
    }
    std::int32_t readPosition() { return absolute->GetPositionParams(pan, tilt, zoom); }

    std::uint32_t pan = 1;
    std::uint32_t tilt = 2;
    std::uint32_t zoom = 3;
};

TEST_F(TelemetryChannelTest, moves)
{
    const struct {
        std::int32_t pan;
        std::int32_t tilt;
        std::string sent;
    } cases[] = {
        {0, 0, command(2305)},         {0, 5, command(1026, 0, 5)}, {0, -5, command(1028, 0, 5)},
        {3, 0, command(1282, 3)},      {-3, 0, command(1284, 3)},   {-3, 5, command(1794, 3, 5)},
        {-3, -5, command(1796, 3, 5)}, {3, 5, command(2050, 3, 5)}, {9, -8, command(2052, 9, 8)},
    };
    connectWilling();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sent);
        telemetry->MoveContinuous(c.pan, c.tilt);
        EXPECT_EQ(takeSent(), Lines{c.sent});
    }
    EXPECT_EQ(logger.errorCount(), 0U);
}

TEST_F(TelemetryChannelTest, turnsItsLens)
{
    connectWilling();
    telemetry->ZoomContinuous(7);
    telemetry->ZoomContinuous(-1);
    telemetry->ZoomContinuous(0);
    telemetry->FocusContinuous(6);
    telemetry->FocusContinuous(-1);
    telemetry->FocusContinuous(0);
    telemetry->IrisContinuous(6);
    telemetry->IrisContinuous(-1);
    telemetry->IrisContinuous(0);
    EXPECT_EQ(sent(), (Lines{command(770), command(772), command(2305), command(516), command(514), command(2305),
                             command(258), command(260), command(2305)}));
}

TEST_F(TelemetryChannelTest, sendsNoSpeedBeyondTheModels)
{
    connectWilling();
    for (const auto& [tooFastPan, tooFastTilt] : {std::pair{10, 0},
                                                  {-10, 0},
                                                  {0, 9},
                                                  {0, -9},
                                                  {mostNegative, 0},
                                                  {0, mostNegative},
                                                  {mostNegative, mostNegative}})
        telemetry->MoveContinuous(tooFastPan, tooFastTilt);
    EXPECT_EQ(logger.count("tc 0: Error: pan or tilt speed value out of range"), 7U);
    telemetry->ZoomContinuous(8);
    telemetry->ZoomContinuous(mostNegative);
    EXPECT_EQ(logger.count("tc 0: Error: zoom speed value out of range"), 2U);
    telemetry->FocusContinuous(7);
    telemetry->FocusContinuous(mostNegative);
    EXPECT_EQ(logger.count("tc 0: Error: focus speed value out of range"), 2U);
    telemetry->IrisContinuous(7);  // within the iris limit, beyond the focus limit
    telemetry->IrisContinuous(mostNegative);
    EXPECT_EQ(logger.count("tc 0: Error: focus speed value out of range"), 4U);
    EXPECT_EQ(sent(), Lines{});
    const auto line = logger.find("Error: pan or tilt");
    EXPECT_EQ(line.severity, LogSeverity::error);
    EXPECT_EQ(line.function, "Uniview::TelemetryChannel::MoveContinuous");
    EXPECT_EQ(line.file, "Drivers/Uniview/src/TelemetryChannel");
}

TEST_F(TelemetryChannelTest, anUnknownModelCanDoNothingButStop)
{
    model.clear();
    connectWilling();
    telemetry->MoveContinuous(0, 1);
    telemetry->MoveContinuous(1, 0);
    telemetry->ZoomContinuous(1);
    telemetry->FocusContinuous(1);
    telemetry->IrisContinuous(1);
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 0, 0, 0, 0, 7), notSupported);
    EXPECT_EQ(pointClick->AreaZoom({0, 0, 1, 1}), notSupported);
    EXPECT_EQ(pointClick->AreaZoom({nan, 0, 1, 1}), notSupported);
    EXPECT_EQ(pointClick->PointMove({0, 0}), notSupported);
    EXPECT_EQ(sent(), Lines{});
    telemetry->MoveContinuous(0, 0);
    EXPECT_EQ(sent(), Lines{command(2305)});
}

TEST_F(TelemetryChannelTest, tracesMovementsWhenTheModelSaysSo)
{
    general["trackLog"] = true;
    connectWilling();
    telemetry->MoveContinuous(3, -5);
    telemetry->ZoomContinuous(-2);
    telemetry->FocusContinuous(3);
    telemetry->IrisContinuous(99);  // traced before it is refused
    EXPECT_EQ(logger.find("tc 0: TRACE: ps-3,ts--5").function, "Uniview::TelemetryChannel::MoveContinuous");
    EXPECT_EQ(logger.find("TRACE: ps-3,ts--5").severity, LogSeverity::info);
    EXPECT_EQ(logger.find("TRACE: zs--2").severity, LogSeverity::info);
    EXPECT_EQ(logger.find("TRACE: zs--2").function, "Uniview::TelemetryChannel::ZoomContinuous");
    EXPECT_EQ(logger.find("TRACE: zs-3").function, "Uniview::TelemetryChannel::FocusContinuous");
    EXPECT_EQ(logger.find("TRACE: zs-99").function, "Uniview::TelemetryChannel::IrisContinuous");
}

TEST_F(TelemetryChannelTest, tracesNothingOtherwise)
{
    model["trackLog"] = true;  // among the channel's parameters it means nothing
    connectWilling();
    telemetry->MoveContinuous(3, -5);
    EXPECT_FALSE(logger.contains("TRACE"));
}

TEST_F(TelemetryChannelTest, addressesRecordersFromOneAndInThePlural)
{
    connect(Kind::recorder, 2);
    telemetry->MoveContinuous(0, 0);
    pointClick->PointMove({0, 0});
    const Lines lines = sent();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].starts_with("PUT /LAPI/V1.0/Channels/3/PTZ/PTZCtrl {")) << lines[0];
    EXPECT_TRUE(lines[1].starts_with("PUT /LAPI/V1.0/Channels/3/PTZ/AreaZoomIn {")) << lines[1];
}

TEST_F(TelemetryChannelTest, addressesMultichannelCamerasFromOneAndMovesThemInTheSingular)
{
    connect(Kind::multichannelCamera, 1);
    telemetry->MoveContinuous(0, 0);
    pointClick->PointMove({0, 0});
    const Lines lines = sent();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_TRUE(lines[0].starts_with("PUT /LAPI/V1.0/Channel/2/PTZ/PTZCtrl {")) << lines[0];
    EXPECT_TRUE(lines[1].starts_with("PUT /LAPI/V1.0/Channels/2/PTZ/AreaZoomIn {")) << lines[1];
}

TEST_F(TelemetryChannelTest, positionsOfARecorderAreUnderTheNumberOfTheChannel)
{
    const std::string ptz = "/LAPI/V1.0/Channels/3/PTZ/";
    peer.answer("GET " + ptz + "AbsoluteMove", 200, reply(R"({"Longitude":1,"Latitude":2})"));
    peer.answer("GET " + ptz + "AbsoluteZoom", 200, reply(R"({"ZoomRatio":3})"));
    peer.answer("PUT " + ptz + "AbsoluteMove", 200, "");
    peer.answer("PUT " + ptz + "AbsoluteZoom", 200, "");
    connect(Kind::recorder, 2);
    EXPECT_EQ(absolute->AbsoluteMoveEx(3000, 1, 0, 1, 250, 4, absolutePan | Tavro8::GDRV::absoluteZoom), 0);
    EXPECT_EQ(takeSent(), (Lines{"GET /LAPI/V1.0/Channels/3/PTZ/AbsoluteMove",
                                 "PUT /LAPI/V1.0/Channels/3/PTZ/AbsoluteMove"
                                 R"( { "Longitude":30, "Latitude":2, "MoveSpeed":1})",
                                 "PUT /LAPI/V1.0/Channels/3/PTZ/AbsoluteZoom"
                                 R"( { "ZoomRatio":2.5, "ZoomSpeed":4 })"}));
    EXPECT_EQ(readPosition(), 0);
    EXPECT_EQ(sent(),
              (Lines{"GET /LAPI/V1.0/Channels/3/PTZ/AbsoluteMove", "GET /LAPI/V1.0/Channels/3/PTZ/AbsoluteZoom"}));
}

TEST_F(TelemetryChannelTest, addressesACameraFromOneWhenItsModelSaysSo)
{
    general["channelNumbering"] = 0;
    connect();
    telemetry->MoveContinuous(0, 0);
    ASSERT_EQ(sent().size(), 1U);
    EXPECT_TRUE(sent()[0].starts_with("PUT /LAPI/V1.0/Channel/1/PTZ/PTZCtrl {")) << sent()[0];
}

TEST_F(TelemetryChannelTest, movesToAPositionThatIsGivenWhole)
{
    connectWilling();
    EXPECT_EQ(absolute->AbsoluteMoveEx(3000, 5, 1025, 9, 0, 0, absolutePan | absoluteTilt), 0);
    EXPECT_EQ(sent(), Lines{"PUT " + absoluteMove + R"( { "Longitude":30, "Latitude":10.25, "MoveSpeed":9})"});
}

TEST_F(TelemetryChannelTest, movesAndZooms)
{
    connectWilling();
    EXPECT_EQ(absolute->AbsoluteMoveEx(3000, 1, 1000, 2, 250, 4, 7), 0);
    EXPECT_EQ(sent(), (Lines{"PUT " + absoluteMove + R"( { "Longitude":30, "Latitude":10, "MoveSpeed":2})",
                             "PUT " + absoluteZoom + R"( { "ZoomRatio":2.5, "ZoomSpeed":4 })"}));
}

TEST_F(TelemetryChannelTest, keepsTheAxesThatAreNotGiven)
{
    connectWilling();
    const std::string get = "GET " + absoluteMove;
    const std::string put = "PUT " + absoluteMove;
    EXPECT_EQ(absolute->AbsoluteMoveEx(3000, 1, 77, 1, 0, 0, absolutePan), 0);
    EXPECT_EQ(takeSent(), (Lines{get, put + R"( { "Longitude":30, "Latitude":-10.5, "MoveSpeed":1})"}));
    EXPECT_EQ(absolute->AbsoluteMoveEx(77, 1, 1000, 1, 0, 0, absoluteTilt), 0);
    EXPECT_EQ(takeSent(), (Lines{get, put + R"( { "Longitude":359.999, "Latitude":10, "MoveSpeed":1})"}));
    EXPECT_EQ(absolute->AbsoluteMoveEx(77, 1, 77, 1, 100, 3, Tavro8::GDRV::absoluteZoom), 0);
    EXPECT_EQ(takeSent(), (Lines{get, put + R"( { "Longitude":359.999, "Latitude":-10.5, "MoveSpeed":1})",
                                 "PUT " + ::absoluteZoom + R"( { "ZoomRatio":1, "ZoomSpeed":3 })"}));
}

TEST_F(TelemetryChannelTest, takesANegativeAngleAsItGivesOne)
{
    connectWilling();
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, static_cast<std::uint32_t>(-1050), 0, 0, 0, 6), 0);
    EXPECT_EQ(sent(), Lines{"PUT " + absoluteMove + R"( { "Longitude":0, "Latitude":-10.5, "MoveSpeed":0})"});
}

TEST_F(TelemetryChannelTest, refusesAnAbsoluteMoveThatIsTooFast)
{
    connectWilling();
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 9, 0, 10, 0, 0, 7), outOfRange);
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 10, 0, 9, 0, 0, 0), outOfRange);
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 0, 4294967295U, 0, 0, 6), outOfRange);
    EXPECT_EQ(logger.count("tc 0: Pan or tilt speed value out of range"), 3U);
    EXPECT_EQ(sent(), Lines{});
}

TEST_F(TelemetryChannelTest, oneOfTheTwoDirectAbilitiesIsEnough)
{
    model["supportsDirectMove"] = false;
    connectWilling();
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 0, 0, 0, 0, 6), 0);
    EXPECT_EQ(sent().size(), 1U);
}

TEST_F(TelemetryChannelTest, tellsWhichStepOfAnAbsoluteMoveFailed)
{
    connectWilling();
    peer.answer("PUT " + ::absoluteZoom, 503, "");
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 0, 0, 100, 0, 7), toResult(ResultCode::deviceBusy));
    EXPECT_EQ(logger.find("tc 0: Failed to set current zoom").function, "Uniview::TelemetryChannel::AbsoluteMoveEx");
    EXPECT_EQ(logger.find("Failed to set current zoom").severity, LogSeverity::error);

    peer.answer("PUT " + absoluteMove, 500, "");
    takeSent();
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 0, 0, 100, 0, 7), toResult(ResultCode::deviceError));
    EXPECT_EQ(takeSent().size(), 1U);  // nothing is zoomed then
    EXPECT_EQ(logger.find("tc 0: Failed to set current absolute position").severity, LogSeverity::error);

    peer.answer("GET " + absoluteMove, 403, "");
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 0, 0, 100, 0, 1), toResult(ResultCode::accessDenied));
    EXPECT_EQ(takeSent().size(), 1U);  // nothing is moved then
    EXPECT_EQ(logger.find("tc 0: Failed to get current absolute position").severity, LogSeverity::error);
}

TEST_F(TelemetryChannelTest, readsThePosition)
{
    connectWilling();
    EXPECT_EQ(readPosition(), 0);
    EXPECT_EQ(pan, 35999U);
    EXPECT_EQ(tilt, static_cast<std::uint32_t>(-1050));
    EXPECT_EQ(zoom, 250U);
    EXPECT_EQ(sent(), (Lines{"GET " + absoluteMove, "GET " + absoluteZoom}));
}

TEST_F(TelemetryChannelTest, readsAndWritesPositionsAlikeUnderTheHostsLocale)
{
    connectWilling();
    const kelvo::test::GroupingLocale locale;
    EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 123456, 0, 0, 0, absoluteTilt), 0);
    EXPECT_EQ(sent().back(), "PUT " + absoluteMove + R"( { "Longitude":359.999, "Latitude":1234.56, "MoveSpeed":0})");
    EXPECT_EQ(readPosition(), 0);
    EXPECT_EQ(pan, 35999U);
}

TEST_F(TelemetryChannelTest, positionsOfOtherShapesAreRefusedAndMoveNothing)
{
    connectWilling();
    for (const char* const data :
         {"null", "[]", "1", "\"x\"", "{}", R"({"Longitude":1})", R"({"Longitude":"1","Latitude":2})",
          R"({"Longitude":null,"Latitude":2})", R"({"Longitude":1,"Latitude":true})"}) {
        SCOPED_TRACE(data);
        peer.answer("GET " + absoluteMove, 200, reply(data));
        takeSent();
        EXPECT_EQ(readPosition(), toResult(ResultCode::malformedReply));
        EXPECT_EQ(absolute->AbsoluteMoveEx(0, 0, 0, 0, 0, 0, absolutePan), toResult(ResultCode::malformedReply));
        EXPECT_EQ(takeSent().size(), 2U);
    }
    EXPECT_EQ(logger.count("Failed to get current absolute position"), 18U);
    peer.answer("GET " + absoluteMove, 200, reply(R"({"Longitude":1,"Latitude":2})"));
    peer.answer("GET " + ::absoluteZoom, 200, reply("{}"));
    EXPECT_EQ(readPosition(), toResult(ResultCode::malformedReply));
    EXPECT_EQ(logger.find("Failed to get current absolute zoom").function,
              "Uniview::TelemetryChannel::GetPositionParams");
    EXPECT_EQ(pan, 1U);
    EXPECT_EQ(tilt, 2U);
    EXPECT_EQ(zoom, 3U);
}

TEST_F(TelemetryChannelTest, positionsBeyond32BitsAreOutOfRange)
{
    connectWilling();
    for (const char* const data : {R"({"Longitude":1e10,"Latitude":0})", R"({"Longitude":0,"Latitude":-1e10})",
                                   R"({"Longitude":1e308,"Latitude":0})", R"({"Longitude":0,"Latitude":-1e308})"}) {
        peer.answer("GET " + absoluteMove, 200, reply(data));
        EXPECT_EQ(readPosition(), outOfRange) << data;
    }
    peer.answer("GET " + absoluteMove, 200, reply(R"({"Longitude":1e999,"Latitude":0})"));
    EXPECT_EQ(readPosition(), toResult(ResultCode::malformedReply));
    EXPECT_EQ(pan, 1U);
}

TEST_F(TelemetryChannelTest, zoomsIntoAnAreaAndOut)
{
    connectWilling();
    EXPECT_EQ(pointClick->AreaZoom({0.25, 0.25, 0.5, 0.5}), 0);
    EXPECT_EQ(pointClick->AreaZoom({0, 0, 2.0, 0.5}), 0);
    EXPECT_EQ(pointClick->PointMove({0.5, 0.5}), 0);
    EXPECT_EQ(sent(), (Lines{"PUT " + areaZoomIn +
                                 R"( { "CenterPointx":960, "CenterPointY":540, "LengthX":960, "LengthY":540, )"
                                 R"("Width":1920, "Height":1080 })",
                             "PUT " + areaZoomOut +
                                 R"( { "CenterPointx":1920, "CenterPointY":270, "LengthX":960, "LengthY":2160, )"
                                 R"("Width":1920, "Height":1080 })",
                             "PUT " + areaZoomIn +
                                 R"( { "CenterPointx":960, "CenterPointY":540, "LengthX":0, "LengthY":0, )"
                                 R"("Width":1920, "Height":1080 })"}));
}

TEST_F(TelemetryChannelTest, refusesAreasAndPointsThatAreNoNumbers)
{
    connectWilling();
    for (const double wrong : {nan, infinity, -infinity, 1e300}) {
        EXPECT_EQ(pointClick->AreaZoom({wrong, 0, 0.5, 0.5}), outOfRange);
        EXPECT_EQ(pointClick->AreaZoom({0, 0, 0.5, wrong}), outOfRange);
        EXPECT_EQ(pointClick->PointMove({0, wrong}), outOfRange);
    }
    EXPECT_EQ(sent(), Lines{});
}

TEST_F(TelemetryChannelTest, tellsThatAnAreaOrPointWasRefused)
{
    connect();  // the peer knows none of the paths
    EXPECT_EQ(pointClick->AreaZoom({0, 0, 0.5, 0.5}), toResult(ResultCode::resourceNotFound));
    EXPECT_EQ(logger.find("tc 0: Failed to set area zoom position").function, "Uniview::TelemetryChannel::AreaZoom");
    EXPECT_EQ(pointClick->PointMove({0, 0}), toResult(ResultCode::resourceNotFound));
    EXPECT_EQ(logger.find("tc 0: Failed to set point click position").function, "Uniview::TelemetryChannel::PointMove");
}

TEST_F(TelemetryChannelTest, acceptsARedirectAndWhateverBodyComesWithAnAcceptedWrite)
{
    connect();
    for (const char* const body : {"", "nonsense", R"({"Response":{"ResponseCode":7}})"}) {
        for (const unsigned status : {200U, 204U, 299U, 302U}) {
            peer.answer(areaZoomIn, status, status == 204 ? "" : body);
            EXPECT_EQ(pointClick->PointMove({0, 0}), 0) << status << body;
        }
    }
    for (const unsigned status : {300U, 301U, 303U, 400U, 599U}) {
        peer.answer(areaZoomIn, status, "");
        EXPECT_NE(pointClick->PointMove({0, 0}), 0) << status;
    }
}

TEST_F(TelemetryChannelTest, wordsEachFailure)
{
    const struct {
        unsigned status;
        std::string body;
        std::int32_t result;
        std::string line;
    } cases[] = {
        {404, "", 514, "[collapsed 1] HTTP response has error: Scripted, request: " + absoluteMove},
        {200, "", 768, "[collapsed 1]HTTP responce is empty, request: " + absoluteMove},
        {200, R"({"Response":{"ResponseCode":7,"ResponseString":"R","StatusString":"S"}})", 770,
         "[collapsed 1]HTTP response has error code: 7, reason: R, message: S"},
        {200, "<html>", 769, "[collapsed 1]HTTP response cannot be read, request: " + absoluteMove},
        {200, "[]", 769, ""},
        {200, "{}", 769, ""},
        {200, R"({"Response":{"ResponseCode":"0"}})", 769, ""},
    };
    connectWilling();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        peer.answer("GET " + absoluteMove, c.status, c.body);
        EXPECT_EQ(readPosition(), c.result);
        if (!c.line.empty()) {  // the others repeat the line before them, which is folded
            EXPECT_TRUE(logger.contains("tc 0: " + c.line)) << logger.text();
        }
    }
    peer.answerRaw("GET " + absoluteMove, "SSH-2.0-OpenSSH_9.2\r\n");
    EXPECT_EQ(readPosition(), toResult(ResultCode::malformedResponse));
    const auto line = logger.find(" HTTP request is finished with error: ");
    EXPECT_NE(line.message.find("tc 0: [collapsed 1] HTTP request is finished with error: the answer does not follow "
                                "the protocol, request: " +
                                absoluteMove),
              std::string::npos)
        << line;
    EXPECT_EQ(line.severity, LogSeverity::error);
    EXPECT_EQ(line.function, "Uniview::TelemetryChannel::sendGetRequest");
    EXPECT_EQ(line.file, "Drivers/Uniview/src/TelemetryChannel");
}

TEST_F(TelemetryChannelTest, foldsFailuresWhoseTextsVaryToo)
{
    connect();
    for (int i = 0; i < 150; ++i) {
        const std::string text = std::to_string(i);
        peer.answer("GET " + absoluteMove, 200,
                    R"({"Response":{"ResponseCode":7,"ResponseString":")" + text + R"(","StatusString":"S"}})");
        EXPECT_EQ(readPosition(), 770);
    }
    EXPECT_LE(logger.count("HTTP response has error code: 7"), 36U);  // 32 texts are known; then every fiftieth
    EXPECT_TRUE(logger.contains("[collapsed 50]HTTP response has error code: 7"));
}

TEST_F(TelemetryChannelTest, foldsFailuresThatRepeat)
{
    connect();
    const std::string failure = " HTTP response has error: Scripted, request: ";
    for (int i = 0; i < 50; ++i)
        telemetry->MoveContinuous(0, 0);
    EXPECT_EQ(logger.count(failure), 1U);
    EXPECT_TRUE(logger.contains("tc 0: [collapsed 1]" + failure + control));
    telemetry->MoveContinuous(0, 0);
    EXPECT_EQ(logger.count(failure), 2U);
    EXPECT_TRUE(logger.contains("tc 0: [collapsed 50]" + failure + control));
    pointClick->PointMove({0, 0});  // another request fails in another way
    EXPECT_TRUE(logger.contains("tc 0: [collapsed 1]" + failure + areaZoomIn));
    for (int i = 0; i < 49; ++i)
        telemetry->MoveContinuous(0, 0);
    EXPECT_EQ(logger.count(failure + control), 2U) << "after the hundredth";
    telemetry->MoveContinuous(0, 0);
    EXPECT_EQ(logger.count(failure + control), 3U);
    EXPECT_EQ(logger.count("tc 0: [collapsed 50]" + failure + control), 2U);
    EXPECT_EQ(sent().size(), 102U);
}

TEST_F(TelemetryChannelTest, offersEachOfItsBases)
{
    make();
    createTelemetry();
    auto* const channel = static_cast<TelemetryChannel*>(telemetry);
    ASSERT_NE(adjuster, nullptr);
    ASSERT_NE(pointClick, nullptr);
    ASSERT_NE(absolute, nullptr);
    Tavro8::IContract* const views[] = {telemetry, adjuster, pointClick, absolute};
    for (Tavro8::IContract* const view : views) {
        EXPECT_EQ(queryContract<ITelemetry>(view), static_cast<ITelemetry*>(channel));
        EXPECT_EQ(queryContract<ITelemetryAdjuster>(view), static_cast<ITelemetryAdjuster*>(channel));
        EXPECT_EQ(queryContract<ITelemetryPointClick>(view), static_cast<ITelemetryPointClick*>(channel));
        EXPECT_EQ(queryContract<IAbsoluteTelemetry>(view), static_cast<IAbsoluteTelemetry*>(channel));
        EXPECT_EQ(queryContract<Tavro8::Utility::TelemetryBase>(view),
                  static_cast<Tavro8::Utility::TelemetryBase*>(channel));
        EXPECT_EQ(queryContract<IDeviceChannel>(view), static_cast<IDeviceChannel*>(channel));
        EXPECT_EQ(queryContract<Tavro8::IContract>(view), static_cast<Tavro8::IContract*>(telemetry));
        EXPECT_EQ(queryContract<Tavro8::LoggerOwner>(view), static_cast<Tavro8::LoggerOwner*>(channel));
        EXPECT_EQ(queryContract<Tavro8::LoggerDetail::LogCollapserMaker>(view),
                  static_cast<Tavro8::LoggerDetail::LogCollapserMaker*>(channel));
        EXPECT_EQ(queryContract<IDevice>(view), nullptr);
        EXPECT_EQ(view->QueryContract(nullptr), nullptr);
        EXPECT_EQ(view->QueryContract(""), nullptr);
    }
}

TEST_F(TelemetryChannelTest, laysItsBasesOutInTheirOrder)
{
    make();
    createTelemetry();
    auto* const channel = static_cast<TelemetryChannel*>(telemetry);
    const auto address = [](const void* base) { return reinterpret_cast<std::uintptr_t>(base); };
    const std::uintptr_t bases[] = {
        address(static_cast<Tavro8::Utility::TelemetryBase*>(channel)),
        address(static_cast<ITelemetryAdjuster*>(channel)),
        address(static_cast<ITelemetryPointClick*>(channel)),
        address(static_cast<IAbsoluteTelemetry*>(channel)),
        address(static_cast<Tavro8::LoggerOwner*>(channel)),
        address(static_cast<Tavro8::LoggerDetail::LogCollapserMaker*>(channel)),
    };
    EXPECT_EQ(address(telemetry), bases[0]);
    EXPECT_TRUE(std::is_sorted(std::begin(bases), std::end(bases)));
}

TEST_F(TelemetryChannelTest, doesNotSupportTheOtherOperations)
{
    connectWilling();
    EXPECT_EQ(telemetry->MoveRelative(1, 1), notSupported);
    EXPECT_EQ(telemetry->MoveAbsolute(1, 1), notSupported);
    EXPECT_EQ(telemetry->ZoomRelative(1), notSupported);
    EXPECT_EQ(telemetry->ZoomAbsolute(1), notSupported);
    EXPECT_EQ(telemetry->FocusRelative(1), notSupported);
    EXPECT_EQ(telemetry->FocusAbsolute(1), notSupported);
    EXPECT_EQ(telemetry->FocusAuto(), notSupported);
    EXPECT_EQ(telemetry->IrisRelative(1), notSupported);
    EXPECT_EQ(telemetry->IrisAbsolute(1), notSupported);
    EXPECT_EQ(telemetry->IrisAuto(), notSupported);
    EXPECT_EQ(telemetry->SetAuxiliary(0, true), notSupported);
    EXPECT_EQ(telemetry->Calibrate(), notSupported);
    EXPECT_EQ(adjuster->RemoveTour(0), notSupported);
    EXPECT_EQ(adjuster->RenamePreset(0, "x"), notSupported);
    EXPECT_EQ(sent(), Lines{});
}

TEST_F(TelemetryChannelTest, logsItsLifeWithItsName)
{
    make(Kind::recorder);
    createTelemetry(3);
    EXPECT_EQ(telemetry->GetChannelIndex(), 3U);
    EXPECT_EQ(logger.find("tc 3: Created").function, "Uniview::TelemetryChannel::TelemetryChannel");
    EXPECT_EQ(logger.find("tc 3: Created").severity, LogSeverity::info);
    telemetry->Destroy();
    telemetry = nullptr;
    EXPECT_EQ(logger.find("tc 3: Destroyed").function, "Uniview::TelemetryChannel::~TelemetryChannel");
    EXPECT_EQ(logger.find("tc 3: Destroyed").severity, LogSeverity::info);
}

TEST_F(TelemetryChannelTest, itsLoggerOwnerHoldsTheLoggerWithTheName)
{
    make(Kind::recorder);
    createTelemetry(3);
    auto* const owner = queryContract<Tavro8::LoggerOwner>(telemetry);
    ASSERT_NE(owner, nullptr);
    ASSERT_NE(owner->get(), nullptr);
    EXPECT_EQ(owner->get()->GetLevel(), logger.GetLevel());
    owner->get()->Log(LogSeverity::error, "operation", "file", 7, "text");
    const auto line = logger.find("text");
    EXPECT_TRUE(line.message.ends_with("tc 3: text")) << line;
    EXPECT_EQ(line.function, "operation");
    EXPECT_EQ(line.file, "file");
    EXPECT_EQ(line.severity, LogSeverity::error);
}

TEST_F(TelemetryChannelTest, isMadeForChannelsThatExist)
{
    make(Kind::recorder);
    EXPECT_EQ(device->CreateTelemetry(4, &telemetry), toResult(ResultCode::notFound));
    EXPECT_EQ(telemetry, nullptr);
    EXPECT_EQ(device->CreateTelemetry(4294967295U, &telemetry), toResult(ResultCode::notFound));
    EXPECT_EQ(device->CreateTelemetry(0, nullptr), toResult(ResultCode::invalidArgument));
}

TEST_F(TelemetryChannelTest, isNotMadeFromParametersOfTheWrongType)
{
    const struct {
        const char* key;
        boost::any value;
    } cases[] = {{"panSpeed", std::string("9")}, {"presetCount", -1}, {"irisSpeed", true}, {"supportsAreaZoom", 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        auto description = std::make_shared<DeviceTraits>();
        description->videoChannelCount = 1;
        description->channelModelParameters.assign(1, {{c.key, c.value}});
        const auto other = Device::create(nullptr, &logger, description, *service);
        EXPECT_EQ(other->CreateTelemetry(0, &telemetry), toResult(ResultCode::unexpected));
        EXPECT_EQ(telemetry, nullptr);
        EXPECT_TRUE(logger.contains(std::string("model parameter \"") + c.key + '"'));
        other->Destroy();
    }
}
}  // namespace

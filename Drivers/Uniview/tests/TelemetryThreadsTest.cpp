#include "TelemetryFixture.h"
#include "TelemetryRequests.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <future>
#include <set>
#include <thread>

// What calls of several threads, slow devices and the device's life do to telemetry.
namespace
{
using namespace Uniview;
using namespace Uniview::test;
using kelvo::test::patience;
using kelvo::test::ScriptedHttpPeer;
using Tavro8::ResultCode;
using Tavro8::toResult;
using namespace Tavro8::http;

const std::string control = "/LAPI/V1.0/Channel/0/PTZ/PTZCtrl";
const std::string areaZoomIn = "/LAPI/V1.0/Channels/0/PTZ/AreaZoomIn";
const std::string areaZoomOut = "/LAPI/V1.0/Channels/0/PTZ/AreaZoomOut";
const std::string patrols = "/LAPI/V1.0/Channels/0/PTZ/Patrols";

constexpr std::int32_t invalidState = 2;

class TelemetryThreadsTest : public TelemetryFixture {
protected:
    /// An operation with a result, on a thread of its own, whose request is never answered.
    std::future<std::int32_t> hang()
    {
        peer.staySilent(areaZoomOut);
        return std::async(std::launch::async, [this] { return pointClick->AreaZoom({0, 0, 2, 2}); });
    }
};

TEST_F(TelemetryThreadsTest, cannotDoAnythingBeforeTheDeviceHasConnected)
{
    make();
    createTelemetry();
    EXPECT_EQ(pointClick->PointMove({0, 0}), invalidState);
    EXPECT_EQ(adjuster->SetPreset(0), invalidState);
    telemetry->MoveContinuous(0, 0);
    EXPECT_EQ(peer.requests(), Lines{});
    EXPECT_TRUE(logger.contains("tc 0: [collapsed 1] The device has not been connected, request: " + control));
}

TEST_F(TelemetryThreadsTest, cannotDoAnythingAfterTheDeviceWasClosed)
{
    peer.answer(areaZoomIn, 200, "");
    connect();
    EXPECT_EQ(pointClick->PointMove({0, 0}), 0);
    device->Close();
    takeSent();
    EXPECT_EQ(pointClick->PointMove({0, 0}), invalidState);
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(pointClick->PointMove({0, 0}), invalidState);
    EXPECT_EQ(sent(), Lines{});
    ASSERT_EQ(device->Open(peer.address().c_str()), 0);
    ASSERT_TRUE(handler.waitConnected(2));
    EXPECT_EQ(pointClick->PointMove({0, 0}), 0);
}

TEST_F(TelemetryThreadsTest, survivesADeviceThatIsDestroyedFirst)
{
    connect();
    device->Destroy();
    device = nullptr;
    EXPECT_EQ(pointClick->PointMove({0, 0}), invalidState);
    telemetry->MoveContinuous(0, 0);
    telemetry->Destroy();
    telemetry = nullptr;
    service->barrier();
}

TEST_F(TelemetryThreadsTest, goesOnTryingADeviceThatIsLost)
{
    peer.answer(control, 200, "");
    peer.answerRaw(areaZoomIn, "SSH-2.0-OpenSSH_9.2\r\n");
    connect();
    peer.answer(portPath, 500, "");  // the module cannot connect again
    EXPECT_EQ(pointClick->PointMove({0, 0}), toResult(ResultCode::malformedResponse));
    EXPECT_EQ(pointClick->PointMove({0, 0}), toResult(ResultCode::malformedResponse));
    EXPECT_TRUE(handler.waitLost());  // two exchanges in a row have failed
    EXPECT_TRUE(handler.waitFailed());
    telemetry->MoveContinuous(0, 0);
    EXPECT_TRUE(peer.waitForRequest("PUT " + control));
}

TEST_F(TelemetryThreadsTest, aJoystickHeldWhileTheDeviceIsDownFillsNoLog)
{
    auto camera = std::make_unique<ScriptedHttpPeer>();
    camera->answer(portPath, 200, R"({"Response":{"Data":{"RTSPPort":	8554}}})");
    camera->answer(infoPath, 200, deviceInfo(0));
    make();
    ASSERT_EQ(device->Open(camera->address().c_str()), 0);
    ASSERT_TRUE(handler.waitConnected());
    createTelemetry();
    camera.reset();  // nothing listens on its port any more
    for (int i = 0; i < 100; ++i)
        telemetry->MoveContinuous(1, 1);
    EXPECT_TRUE(handler.waitLost());
    EXPECT_EQ(handler.lostTotal(), 1);
    EXPECT_EQ(logger.count("tc 0: [collapsed 1] HTTP request is finished with error: "), 1U);
    EXPECT_EQ(logger.count("tc 0: [collapsed 50] HTTP request is finished with error: "), 1U);
    EXPECT_EQ(logger.count("tc 0: "), 3U) << "with \"Created\"";
    EXPECT_EQ(logger.count("Connection to the device is lost"), 1U);
}

TEST_F(TelemetryThreadsTest, aCommandWhoseAnswerIsLostIsNotRepeated)
{
    peer.answerRaw(control, "HTTP/1.1 200");  // and the connection is closed
    connect();
    peer.answer(portPath, 500, "");  // the module cannot connect again
    for (int i = 0; i < 100; ++i)
        telemetry->MoveContinuous(1, 1);
    EXPECT_TRUE(handler.waitLost());
    EXPECT_EQ(handler.lostTotal(), 1);
    const Lines requests = peer.requests();  // of one connection each
    EXPECT_EQ(std::ranges::count(requests, "PUT " + control), 100);
    EXPECT_EQ(logger.count("Connection to the device is lost"), 1U);
    EXPECT_EQ(logger.count("tc 0: [collapsed 50] HTTP request is finished with error: "), 1U);
}

TEST_F(TelemetryThreadsTest, aDeviceThatDoesNotAnswerInTimeIsAResultAndALine)
{
    peer.staySilent("GET /LAPI/V1.0/Channels/0/PTZ/AbsoluteMove");
    peer.staySilent(areaZoomIn);
    connect();
    // Descriptions are constant for those who share them; nobody else has a request under way now.
    std::const_pointer_cast<Tavro8::asio::ConnectionInfo>(device->getHttpConnectionInfo())->requestTimeout =
        std::chrono::milliseconds(50);
    std::uint32_t untouched = 7;
    EXPECT_EQ(absolute->GetPositionParams(untouched, untouched, untouched), toResult(ResultCode::timedOut));
    EXPECT_EQ(toResult(ResultCode::timedOut), 258);
    EXPECT_EQ(untouched, 7U);
    EXPECT_TRUE(logger.contains("tc 0: [collapsed 1] HTTP request is finished with error: the device did not answer in "
                                "time, request: /LAPI/V1.0/Channels/0/PTZ/AbsoluteMove"));
    EXPECT_EQ(logger.find("tc 0: Failed to get current absolute position").severity, Tavro8::LogSeverity::error);
    EXPECT_EQ(pointClick->PointMove({0, 0}), 258);
    EXPECT_TRUE(logger.contains("tc 0: [collapsed 1] HTTP request is finished with error: the device did not answer in "
                                "time, request: " +
                                areaZoomIn));
}

TEST_F(TelemetryThreadsTest, isNotHeldUpByOtherRequestsNorByOtherCalls)
{
    peer.answer(control, 200, "");
    peer.staySilent("/slow");
    connect();
    // All connections that the device's own requests may have are taken.
    constexpr std::size_t slowRequests = 6;
    std::vector<CancellationPtr> slow;
    for (std::size_t i = 0; i < slowRequests; ++i) {
        slow.push_back(asyncGetEx(device->getHttpConnectionInfo(), "/slow", device->service(),
                                  [](const auto&, const auto&, const auto&) {}));
    }
    EXPECT_TRUE(peer.waitForRequest("GET /slow", 4));
    std::vector<std::future<std::int32_t>> hanging;
    for (int i = 0; i < 6; ++i)
        hanging.push_back(hang());
    EXPECT_TRUE(peer.waitForRequest("PUT " + areaZoomOut, 6));

    telemetry->MoveContinuous(0, 0);
    EXPECT_EQ(sent().back().substr(0, 4 + control.size()), "PUT " + control);
    telemetry->Destroy();
    telemetry = nullptr;
    for (auto& call : hanging)
        EXPECT_EQ(call.get(), toResult(ResultCode::cancelled));
    for (const auto& request : slow)
        request->cancel();
    service->barrier();
}

TEST_F(TelemetryThreadsTest, destroyEndsACallThatWaitsForTheDevice)
{
    connect();
    auto call = hang();
    ASSERT_TRUE(peer.waitForRequest("PUT " + areaZoomOut));
    telemetry->Destroy();  // returns when the call has left
    telemetry = nullptr;
    EXPECT_EQ(call.wait_for(patience), std::future_status::ready);
    EXPECT_EQ(call.get(), toResult(ResultCode::cancelled));
    EXPECT_TRUE(logger.contains("Destroyed"));
    EXPECT_EQ(handler.lostTotal(), 0);
}

TEST_F(TelemetryThreadsTest, aCommandCostsOneExchangeOnceTheDeviceIsKnown)
{
    peer.requireAuthorization();
    peer.answer(control, 200, "");
    peer.answer(areaZoomIn, 200, "");
    connect();
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 2; ++thread) {
        threads.emplace_back([this] {
            for (int i = 0; i < 20; ++i) {
                telemetry->MoveContinuous(1, 1);
                EXPECT_EQ(pointClick->PointMove({0, 0}), 0);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(sent().size(), 80U);

    std::set<std::string> counts;
    std::size_t unauthorized = 0;
    for (const std::string& request : peer.wholeRequests()) {
        const auto at = request.find("nc=");
        if (at == std::string::npos)
            ++unauthorized;
        else
            counts.insert(request.substr(at + 3, 8));
    }
    EXPECT_EQ(unauthorized, 1U);  // the very first request to the device
    EXPECT_EQ(counts.size(), peer.requests().size() - 1);
}

TEST_F(TelemetryThreadsTest, toursMayBeUsedOnSeveralThreads)
{
    peer.answer("GET " + patrols, 200, reply(R"({"PatrolInfos":[{"ID":1,"Name":"Night"}]})"));
    peer.answer("POST " + patrols, 200, reply("{}"));
    peer.answer("PUT " + patrols + "/1", 200, reply("{}"));
    for (const char* const request : {"/0/Start", "/0/Stop", "/1/Start", "/1/Stop"})
        peer.answer(patrols + request, 200, "");
    connect();
    const auto isOneOf = [](std::int32_t result, std::int32_t other) { return result == 0 || result == other; };
    std::vector<std::thread> threads;
    for (std::uint32_t tour = 0; tour < 2; ++tour) {
        threads.emplace_back([this, tour, isOneOf] {
            for (int i = 0; i < 10; ++i) {
                EXPECT_EQ(adjuster->StartFillTour(tour), 0);
                EXPECT_TRUE(isOneOf(adjuster->SetPoint(1, tour, 1), toResult(ResultCode::noTourBeingFilled)));
                EXPECT_TRUE(isOneOf(adjuster->StopFillTour(), toResult(ResultCode::noTourBeingFilled)));
                EXPECT_EQ(telemetry->PlayTour(tour), 0);
                EXPECT_TRUE(isOneOf(telemetry->StopTour(), invalidState));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    // Whatever the threads did last, nothing plays after a stop that was accepted.
    EXPECT_TRUE(isOneOf(telemetry->StopTour(), invalidState));
    EXPECT_EQ(telemetry->StopTour(), invalidState);
}

TEST_F(TelemetryThreadsTest, aTourBegunWhileAnotherIsStoppedCanBeStopped)
{
    peer.answer(patrols + "/0/Start", 200, "");
    peer.answer(patrols + "/1/Start", 200, "");
    peer.staySilent(patrols + "/0/Stop");
    connect();
    ASSERT_EQ(telemetry->PlayTour(0), 0);
    auto stopping = std::async(std::launch::async, [this] { return telemetry->StopTour(); });
    ASSERT_TRUE(peer.waitForRequest("PUT " + patrols + "/0/Stop"));
    EXPECT_EQ(telemetry->PlayTour(1), 0);
    peer.answer(patrols + "/1/Stop", 200, "");
    EXPECT_EQ(telemetry->StopTour(), 0);
    EXPECT_EQ(sent().back(), "PUT " + patrols + "/1/Stop");
    telemetry->Destroy();
    telemetry = nullptr;
    EXPECT_EQ(stopping.get(), toResult(ResultCode::cancelled));
}

TEST_F(TelemetryThreadsTest, aTourBegunAgainWhileItIsStoppedIsPlaying)
{
    peer.answer(patrols + "/0/Start", 200, "");
    peer.staySilent(patrols + "/0/Stop");
    connect();
    ASSERT_EQ(telemetry->PlayTour(0), 0);
    auto stopping = std::async(std::launch::async, [this] { return telemetry->StopTour(); });
    ASSERT_TRUE(peer.waitForRequest("PUT " + patrols + "/0/Stop"));
    EXPECT_EQ(telemetry->PlayTour(0), 0);
    peer.breakSilence(200, "");
    EXPECT_EQ(stopping.get(), 0);
    peer.answer(patrols + "/0/Stop", 200, "");
    EXPECT_EQ(telemetry->StopTour(), 0);
    EXPECT_EQ(telemetry->StopTour(), invalidState);
}

TEST_F(TelemetryThreadsTest, aFillingBegunWhileAnotherIsStoredGoesOn)
{
    peer.answer("GET " + patrols, 200, reply("{}"));
    peer.staySilent("POST " + patrols);
    connect();
    ASSERT_EQ(adjuster->StartFillTour(0), 0);
    auto storing = std::async(std::launch::async, [this] { return adjuster->StopFillTour(); });
    ASSERT_TRUE(peer.waitForRequest("POST " + patrols));
    EXPECT_EQ(adjuster->StartFillTour(1), 0);
    peer.breakSilence(200, reply("{}"));
    EXPECT_EQ(storing.get(), 0);
    EXPECT_EQ(adjuster->SetPoint(1, 1, 1), 0);
}

/// The description of a peer that may take a moment for a reply.
ConnectionInfoPtr impatient(const ScriptedHttpPeer& peer)
{
    const auto info = Tavro8::asio::parseConnectionInfo(peer.address());
    info->requestTimeout = std::chrono::milliseconds(50);
    return info;
}

TEST(TelemetryRequests, aSilentDeviceGivesTheTimeOutsResultForEachMethod)
{
    ScriptedHttpPeer peer;
    peer.staySilent("/path");
    const auto info = impatient(peer);
    TelemetryRequests requests;
    const TelemetryRequests::Start starts[] = {
        [&](auto& context, auto handler) { return asyncGetEx(info, "/path", context, handler); },
        [&](auto& context, auto handler) { return asyncPutEx(info, "/path", "{}", context, handler); },
        [&](auto& context, auto handler) { return asyncPostEx(info, "/path", "{}", context, handler); },
        [&](auto& context, auto handler) { return asyncDeleteEx(info, "/path", context, handler); },
    };
    for (const auto& start : starts) {
        const lapi::Reply reply = requests.run(start, lapi::Expect::success);
        EXPECT_EQ(reply.failure, lapi::Failure::transport);
        EXPECT_EQ(reply.result, toResult(ResultCode::timedOut));
        EXPECT_EQ(lapi::describe(reply, "/path", lapi::Wording::telemetry),
                  " HTTP request is finished with error: the device did not answer in time, request: /path");
    }
    EXPECT_EQ(peer.requests(), (Lines{"GET /path", "PUT /path", "POST /path", "DELETE /path"}));
}

TEST(TelemetryRequests, areTakenBackOnceTheyHaveEnded)
{
    ScriptedHttpPeer peer;
    peer.staySilent("/path");
    const auto info = Tavro8::asio::parseConnectionInfo(peer.address());
    TelemetryRequests requests;
    requests.end();
    const auto reply =
        requests.run([&](auto& context, auto handler) { return asyncGetEx(info, "/path", context, handler); },
                     lapi::Expect::success);
    EXPECT_EQ(reply.result, toResult(ResultCode::cancelled));
}

TEST(TelemetryRequests, aContextThatTheSystemRefusesIsAResult)
{
    TelemetryRequests requests;
    const auto reply = requests.run(
        [](auto&, auto) -> CancellationPtr {
            throw boost::system::system_error(make_error_code(boost::system::errc::too_many_files_open));
        },
        lapi::Expect::status);
    EXPECT_EQ(reply.failure, lapi::Failure::transport);
    EXPECT_EQ(reply.result, toResult(ResultCode::noResources));
}
}  // namespace

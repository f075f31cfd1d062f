#include <utility>

#include "Player.h"
#include "UdpEnd.h"

#include <IpUtil/ParametersContainer.h>
#include <algorithm>
#include <atomic>
#include <boost/asio/ip/udp.hpp>
#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t videoSource = 0x11223344;
constexpr const char* refusedUdp = "the device refuses UDP";
constexpr const char* silentUdp = "nothing arrives over UDP";

/// A device that sends the tracks it is asked for over UDP, and a player that asks for that. The test sends the
/// datagrams itself.
struct Scene {
    using Tune = std::function<void(StreamTiming&)>;

    explicit Scene(const Tune& tune) : Scene(videoSdp, tune) {}
    explicit Scene(const char* sdp = videoSdp, const Tune& tune = {}) : loop(tunedLoop(tune)), player(loop)
    {
        camera.sdp = sdp;
        camera.transport = [this](std::size_t track, const std::string& asked) {
            return isInterleaved(asked) ? asked : (track == 0 ? video : audio).accept(asked);
        };
        player.client->setTransport(RtspTransport::udp);
    }

    /// A client takes over the waiting times when it is made.
    static Loop tunedLoop(const Tune& tune)
    {
        Loop loop;
        loop.timing().firstDatagramLimit = milliseconds(8000);
        if (tune)
            tune(loop.timing());
        return loop;
    }

    static bool isInterleaved(const std::string& asked) { return asked.find("interleaved") != std::string::npos; }

    /// Refuses what the device is asked for unless `accepts` says so.
    void refuse(std::function<bool(const std::string& asked)> accepts)
    {
        camera.intercept = [accepts = std::move(accepts)](ScriptedPeer::Connection& connection,
                                                          const ScriptedPeer::Request& request) {
            if (request.method != "SETUP" || accepts(request.headers.at("transport")))
                return false;
            connection.reply(request, 461);
            return true;
        };
    }

    void start()
    {
        peer.emplace(camera.script());
        player.start(addressOf(*peer));
    }

    bool play()
    {
        start();
        return loop.runUntil([&] { return player.isPlaying(); });
    }

    bool awaitPictures(std::size_t count)
    {
        return loop.runUntil([&] { return player.video.size() >= count; });
    }

    StreamCounters counters() { return player.client->counters(player.videoTrack); }

    Camera camera;
    UdpEnd video;
    UdpEnd audio;
    VideoSender sender;
    Loop loop;
    std::optional<ScriptedPeer> peer;
    Player player;
};

TEST(RtpOverUdp, playsVideoAndAudio)
{
    Scene scene(videoAndAudioSdp);
    ASSERT_TRUE(scene.play()) << scene.player.log.text();
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    scene.video.sendRtp(scene.sender.pictureRtp());
    scene.audio.sendRtp(rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.video.size() == 2 && scene.player.audio.size() == 1; }));
    EXPECT_EQ(scene.player.video[0], annexB({spsNal(), ppsNal(), idrNal()}));
    EXPECT_EQ(scene.player.video[1], annexB({pictureNal()}));
    EXPECT_EQ(scene.player.audio[0], Bytes(160, 0x55));
    EXPECT_EQ(scene.counters().lostPackets, 0U);
    EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::udp);
    EXPECT_EQ(scene.player.log.errorCount(), 0U);
    EXPECT_THAT(scene.player.log.text(), HasSubstr("over UDP"));

    std::vector<std::string> asked;
    for (const auto& request : scene.peer->requests()) {
        if (request.method == "SETUP")
            asked.push_back(request.headers.at("transport"));
    }
    ASSERT_EQ(asked.size(), 2U);
    const int port = scene.video.clientRtpPort();
    EXPECT_EQ(asked[0], "RTP/AVP;unicast;client_port=" + std::to_string(port) + '-' + std::to_string(port + 1));
    EXPECT_NE(asked[0], asked[1]);
}

TEST(RtpOverUdp, takesMediaThatComesBeforeTheAnswerToPlay)
{
    Scene scene;
    scene.camera.beforePlayAnswer = [&](ScriptedPeer::Connection&) { scene.video.sendRtp(scene.sender.keyFrameRtp()); };
    ASSERT_TRUE(scene.play());
    EXPECT_TRUE(scene.awaitPictures(1));
}

TEST(RtpOverUdp, bringsDatagramsIntoOrder)
{
    Scene scene;
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    auto packets = scene.sender.keyFrameRtp();
    packets.push_back(scene.sender.pictureRtp());
    std::ranges::reverse(packets);
    packets.push_back(packets[1]);  // and one comes twice
    scene.video.sendRtp(packets);
    ASSERT_TRUE(scene.awaitPictures(3));
    EXPECT_EQ(scene.player.video[1], annexB({spsNal(), ppsNal(), idrNal()}));
    EXPECT_EQ(scene.player.video[2], annexB({pictureNal()}));
    EXPECT_EQ(scene.counters().lostPackets, 0U);
}

TEST(RtpOverUdp, goesOnBehindALostDatagramAndDropsItWhenItComesLate)
{
    Scene scene;
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    const Bytes late = scene.sender.pictureRtp();
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    ASSERT_TRUE(scene.awaitPictures(2)) << "a tick gives the gap up";
    scene.video.sendRtp(late);
    scene.video.sendRtp(scene.sender.pictureRtp());
    ASSERT_TRUE(scene.awaitPictures(3));
    EXPECT_EQ(scene.player.video[1], annexB({spsNal(), ppsNal(), idrNal()}));
    EXPECT_EQ(scene.player.video[2], annexB({pictureNal()}));
    EXPECT_EQ(scene.counters().lostPackets, 1U);
}

TEST(RtpOverUdp, ignoresOtherSendersAndSaysSoOnce)
{
    Scene scene;
    UdpEnd stranger("127.0.0.2");
    ASSERT_TRUE(scene.play());
    const auto port = std::to_string(scene.video.clientRtpPort());
    stranger.acceptSilently("client_port=" + port + '-' + port);
    VideoSender forged = scene.sender;
    stranger.sendRtp(forged.keyFrameRtp());
    stranger.sendRtp(forged.keyFrameRtp());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    ASSERT_TRUE(scene.awaitPictures(1));
    const std::string words = "datagrams that do not come from the device";
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.log.text().find(words) != std::string::npos; }));
    stranger.sendRtp(forged.keyFrameRtp());
    scene.video.sendRtp(scene.sender.pictureRtp());
    ASSERT_TRUE(scene.awaitPictures(2));
    EXPECT_EQ(scene.player.video.size(), 2U);
    const std::string text = scene.player.log.text();
    EXPECT_EQ(text.find(words), text.rfind(words));
}

TEST(RtpOverUdp, countsGarbageAndGoesOn)
{
    Scene scene;
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    scene.video.sendRtp(Bytes{});
    scene.video.sendRtp(Bytes(3, 0x80));
    scene.video.sendRtp(Bytes(1000, 0xFF));
    scene.video.sendRtcp(Bytes(1000, 0xFF));
    scene.video.sendRtcp(Bytes{});
    scene.video.sendRtp(rtp(50, scene.sender.sequence, 1, true, Bytes(20, 1)));
    scene.video.sendRtp(rtp(96, 33, 44, true, Bytes(20, 1), 0x77));  // one packet of another source
    scene.video.sendRtp(scene.sender.pictureRtp());
    ASSERT_TRUE(scene.awaitPictures(2));
    EXPECT_EQ(scene.counters().malformedPackets, 3U);
    EXPECT_EQ(scene.counters().lostPackets, 0U);
}

TEST(RtpOverUdp, takesTheLongestDatagrams)
{
    Scene scene;
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    scene.video.sendRtp(rtp(96, scene.sender.sequence, scene.sender.timestamp, true, pictureNal(65000)));
    ASSERT_TRUE(scene.awaitPictures(2));
    EXPECT_EQ(scene.player.video[1], annexB({pictureNal(65000)}));
}

TEST(RtpOverUdp, timesFramesByTheSenderReportOnEitherPort)
{
    // A device whose clock is three hours ahead of ours.
    const auto ours =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
    const std::int64_t utcMs = (ours.count() + 3 * 3600) * 1000;
    const std::uint64_t ntp = (static_cast<std::uint64_t>(utcMs / 1000) + 2'208'988'800U) << 32;
    for (const bool onRtpPort : {false, true}) {
        SCOPED_TRACE(onRtpPort);
        Scene scene;
        ASSERT_TRUE(scene.play());
        const Bytes report = senderReport(videoSource, ntp, scene.sender.timestamp);
        if (onRtpPort)
            scene.video.sendRtp(report);
        else
            scene.video.sendRtcp(report);
        // The two ports are read in any order, so it counts for one of the next pictures.
        scene.video.sendRtp(scene.sender.keyFrameRtp());
        std::size_t pictures = 1;
        ASSERT_TRUE(scene.loop.runUntil([&] {
            if (scene.player.video.size() == pictures) {
                scene.video.sendRtp(scene.sender.pictureRtp());
                ++pictures;
            }
            return scene.player.lastTimestampMs >= utcMs;
        }));
        EXPECT_NEAR(static_cast<double>(scene.player.lastTimestampMs - utcMs), 0, 2000);
        EXPECT_EQ(scene.counters().malformedPackets, 0U);
    }
}

TEST(RtpOverUdp, endsWhenTheDeviceSaysBye)
{
    Scene scene([](StreamTiming& timing) { timing.silenceAfterBye = milliseconds(10); });
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    ASSERT_TRUE(scene.awaitPictures(1));
    scene.video.sendRtcp(byePacket(videoSource));
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.closed.has_value(); }));
    EXPECT_EQ(scene.player.closed, make_error_code(ResultCode::connectionLost));
}

TEST(RtpOverUdp, reportsToTheDevicesRtcpPortAndSaysByeAtTheEnd)
{
    Scene scene([](StreamTiming& timing) { timing.reportInterval = milliseconds(10); });
    ASSERT_TRUE(scene.play());
    EXPECT_EQ(scene.video.takeRtp().size(), 1U) << "a packet that opens the way";
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    std::vector<Bytes> reports;
    const auto receiveReports = [&](std::size_t count) {
        return scene.loop.runUntil([&] {
            std::ranges::move(scene.video.takeRtcp(), std::back_inserter(reports));
            return reports.size() >= count;
        });
    };
    ASSERT_TRUE(receiveReports(2));
    EXPECT_EQ(reports[0].size(), 28U) << "opens the way: a report of nothing, and the name";
    const Bytes& report = reports[1];
    ASSERT_EQ(report.size(), 52U);
    EXPECT_EQ(report[0], 0x81);
    EXPECT_EQ(report[1], 201);
    EXPECT_EQ(Bytes(report.begin() + 8, report.begin() + 12), (Bytes{0x11, 0x22, 0x33, 0x44}));
    EXPECT_EQ(report[19], 102) << "highest sequence number";
    EXPECT_EQ(report[33], 202) << "each compound packet names its source";

    reports.clear();
    scene.player.client->teardown();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.peer->count("TEARDOWN") == 1; }));
    ASSERT_TRUE(receiveReports(1));
    const Bytes& bye = reports.back();
    ASSERT_EQ(bye.size(), 36U);
    EXPECT_EQ(bye[1], 201);
    EXPECT_EQ(bye[9], 202);
    EXPECT_EQ(bye[29], 203);
    EXPECT_EQ(Bytes(bye.begin() + 32, bye.end()), Bytes(bye.begin() + 4, bye.begin() + 8)) << "of the same source";
}

TEST(RtpOverUdp, believesTheAnnouncedSourceFirst)
{
    Scene scene;
    scene.camera.transport = [&](std::size_t, const std::string& asked) {
        return scene.video.accept(asked) + ";ssrc=11223344";
    };
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(rtp(96, 9000, 44, true, idrNal(), 0x77));  // left over from an earlier session
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    scene.video.sendRtp(scene.sender.pictureRtp());
    ASSERT_TRUE(scene.awaitPictures(2));
    EXPECT_EQ(scene.player.video[0], annexB({spsNal(), ppsNal(), idrNal()}));
}

TEST(RtpOverUdp, keepsTheSessionAliveOverTheConnection)
{
    Scene scene([](StreamTiming& timing) { timing.keepAliveInterval = milliseconds(5); });
    ASSERT_TRUE(scene.play());
    EXPECT_TRUE(scene.loop.runUntil([&] { return scene.peer->count("GET_PARAMETER") >= 2; }));
}

TEST(RtpOverUdp, endsWithItsConnection)
{
    Scene scene;
    std::promise<void> release;
    scene.camera.afterPlay = [go = release.get_future().share()](ScriptedPeer::Connection& connection) {
        go.wait();
        connection.close();
    };
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    ASSERT_TRUE(scene.awaitPictures(1));
    release.set_value();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.closed.has_value(); }));
    EXPECT_EQ(scene.player.closed, make_error_code(ResultCode::connectionLost));
    EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::udp);
}

TEST(RtpOverUdp, stallsWhenDatagramsCeaseToCome)
{
    Scene scene;
    scene.player.client->setStallTimeout(milliseconds(50));
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.closed.has_value(); }));
    EXPECT_EQ(scene.player.closed, make_error_code(ResultCode::timedOut));
    EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::udp) << "it did work";
    EXPECT_EQ(scene.player.log.errorCount(), 1U);
}

TEST(RtpOverUdp, givesUpWhenNothingGetsThrough)
{
    Scene scene([](StreamTiming& timing) { timing.firstDatagramLimit = milliseconds(30); });
    scene.player.client->setStallTimeout(milliseconds(10));  // it is not a stall yet
    scene.start();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.closed.has_value(); }));
    EXPECT_EQ(scene.player.closed, make_error_code(ResultCode::timedOut));
    EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::tcp);
    EXPECT_EQ(scene.peer->count("TEARDOWN"), 1U) << "ended in good order before anybody is told";
    EXPECT_EQ(scene.player.log.errorCount(), 0U);
    EXPECT_THAT(scene.player.log.text(), HasSubstr(silentUdp));
}

TEST(RtpOverUdp, givesUpWhenSoundGetsThroughAndPicturesDoNot)
{
    Scene scene(videoAndAudioSdp, [](StreamTiming& timing) { timing.firstDatagramLimit = milliseconds(30); });
    scene.camera.beforePlayAnswer = [&](ScriptedPeer::Connection&) {
        scene.audio.sendRtp(rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
    };
    scene.start();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.closed.has_value(); }));
    EXPECT_EQ(scene.player.closed, make_error_code(ResultCode::timedOut));
    EXPECT_EQ(scene.player.audio.size(), 1U);
    EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::tcp);
    EXPECT_THAT(scene.player.log.text(), HasSubstr(silentUdp));
}

TEST(RtpOverUdp, givesUpWhenSoundTakesTheConnectionAndPicturesDoNotGetThrough)
{
    const struct {
        const char* name;
        bool refuses;  // and does not just answer with channels
    } cases[] = {{"refused", true}, {"answered with channels", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Scene scene(videoAndAudioSdp, [](StreamTiming& timing) { timing.firstDatagramLimit = milliseconds(30); });
        scene.camera.transport = [&](std::size_t track, const std::string& asked) {
            if (track == 0)
                return scene.video.accept(asked);
            return std::string("RTP/AVP/TCP;unicast;interleaved=2-3");
        };
        if (c.refuses)
            scene.refuse([setups = std::make_shared<int>(0)](const std::string&) { return ++*setups != 2; });
        scene.camera.afterPlay = [](ScriptedPeer::Connection& connection) {
            for (std::uint16_t i = 0; !connection.hasMore(); ++i) {
                connection.sendFrame(2, rtp(0, i, 160U * i, false, Bytes(160, 0x55), 0x99));
                std::this_thread::yield();
            }
        };
        scene.start();
        ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.closed.has_value(); }));
        EXPECT_EQ(scene.player.closed, make_error_code(ResultCode::timedOut));
        EXPECT_GE(scene.player.audio.size(), 1U);
        EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::tcp);
        EXPECT_THAT(scene.player.log.text(), HasSubstr(silentUdp));
    }
}

TEST(RtpOverUdp, isKeptWhenPicturesGetThroughAndSoundDoesNot)
{
    Scene scene(videoAndAudioSdp, [](StreamTiming& timing) { timing.firstDatagramLimit = milliseconds(20); });
    scene.player.client->setStallTimeout(milliseconds(800));
    ASSERT_TRUE(scene.play());
    ASSERT_TRUE(scene.loop.runUntil([&] {
        scene.video.sendRtp(scene.sender.keyFrameRtp());
        return scene.player.log.text().find("no sound comes") != std::string::npos;
    }));
    EXPECT_FALSE(scene.player.closed);
}

TEST(RtpOverUdp, tellsNobodyOfGivingUpAfterATeardown)
{
    Scene scene([](StreamTiming& timing) {
        timing.firstDatagramLimit = milliseconds(10);
        timing.teardownTimeout = milliseconds(50);
    });
    scene.camera.intercept = [](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
        return request.method == "TEARDOWN";  // never answered
    };
    scene.start();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.peer->count("TEARDOWN") == 1; }));
    bool done = false;
    scene.player.client->teardown([&](const error_code&) { done = true; });
    ASSERT_TRUE(scene.loop.runUntil([&] { return done; }));
    EXPECT_FALSE(scene.player.closed);
}

TEST(RtpOverUdp, isNotGivenUpWhenStrayPayloadTypesGetThrough)
{
    Scene scene([](StreamTiming& timing) { timing.firstDatagramLimit = milliseconds(20); });
    scene.player.client->setStallTimeout(milliseconds(40));
    scene.camera.beforePlayAnswer = [&](ScriptedPeer::Connection&) {
        scene.video.sendRtp(rtp(97, 1, 1, true, idrNal()));
    };
    ASSERT_TRUE(scene.play());
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.closed.has_value(); }));
    EXPECT_EQ(scene.player.closed, make_error_code(ResultCode::unsupportedMedia));
}

TEST(RtpOverUdp, takesTheConnectionWhenTheDeviceRefusesUdp)
{
    Scene scene(videoAndAudioSdp);
    scene.refuse(Scene::isInterleaved);
    scene.camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender().sendKeyFrame(connection);
        connection.sendFrame(2, rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
    };
    ASSERT_TRUE(scene.play()) << scene.player.log.text();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.video.size() == 1 && scene.player.audio.size() == 1; }));
    EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::tcp);
    EXPECT_EQ(scene.peer->connectionCount(), 1U);
    EXPECT_EQ(scene.peer->count("DESCRIBE"), 1U);
    EXPECT_EQ(scene.peer->count("SETUP"), 3U) << "the second track is asked for in the way that the first has shown";
    const std::string text = scene.player.log.text();
    EXPECT_THAT(text, HasSubstr(refusedUdp));
    EXPECT_EQ(text.find(refusedUdp), text.rfind(refusedUdp));
}

TEST(RtpOverUdp, takesTheConnectionWhenTheDeviceAnswersWithChannels)
{
    Scene scene;
    scene.camera.transport = [](std::size_t, const std::string&) { return "RTP/AVP/TCP;unicast;interleaved=4-5"; };
    scene.camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender(4).sendKeyFrame(connection); };
    ASSERT_TRUE(scene.play());
    EXPECT_TRUE(scene.awaitPictures(1));
    EXPECT_EQ(scene.player.client->getWorkingTransport(), RtspTransport::tcp);
}

TEST(RtpOverUdp, isAskedForByAutoOnlyWhenTheConnectionIsRefused)
{
    Scene easy;
    easy.player.client->setTransport(RtspTransport::automatic);
    easy.camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender().sendKeyFrame(connection); };
    ASSERT_TRUE(easy.play());
    ASSERT_TRUE(easy.awaitPictures(1));
    EXPECT_FALSE(easy.video.isAccepted());
    EXPECT_EQ(easy.player.client->getWorkingTransport(), RtspTransport::automatic);

    Scene hard;
    hard.player.client->setTransport(RtspTransport::automatic);
    hard.refuse([](const std::string& asked) { return !Scene::isInterleaved(asked); });
    ASSERT_TRUE(hard.play()) << hard.player.log.text();
    hard.video.sendRtp(hard.sender.keyFrameRtp());
    ASSERT_TRUE(hard.awaitPictures(1));
    EXPECT_EQ(hard.player.client->getWorkingTransport(), RtspTransport::udp);
    EXPECT_THAT(hard.player.log.text(), HasSubstr("refuses media over the RTSP connection"));
}

TEST(RtpOverUdp, isChosenByTheParameter)
{
    const struct {
        const char* value;
        RtspTransport expected;
    } cases[] = {
        {"tcp", RtspTransport::tcp},
        {" UDP ", RtspTransport::udp},
        {"Auto", RtspTransport::automatic},
        {"pigeon", RtspTransport::tcp},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        Loop loop;
        const auto client = RTSPClient::create(*loop.io, nullptr);
        ParametersContainer parameters;
        parameters.setPersistentParam("transport", std::string(c.value));
        initializeRTSPClientFromParams(*client, parameters);
        EXPECT_EQ(client->getTransport(), c.expected);
        EXPECT_EQ(client->getWorkingTransport(), c.expected);
    }
}

TEST(RtpOverUdp, isNeverAskedForByTcp)
{
    Scene scene;
    scene.player.client->setTransport(RtspTransport::tcp);
    scene.refuse([](const std::string&) { return false; });
    scene.start();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.failure().has_value(); }));
    EXPECT_EQ(scene.player.failure(), make_error_code(ResultCode::streamRefused));
    EXPECT_EQ(scene.peer->count("SETUP"), 1U);
}

TEST(RtpOverUdp, failsWhenTheDeviceRefusesBoth)
{
    Scene scene;
    scene.refuse([](const std::string&) { return false; });
    scene.start();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.player.failure().has_value(); }));
    EXPECT_EQ(scene.player.failure(), make_error_code(ResultCode::streamRefused));
    EXPECT_EQ(scene.peer->count("SETUP"), 2U);
    EXPECT_EQ(scene.player.log.errorCount(), 1U);
}

TEST(RtpOverUdp, leavesBackChannelsOnTheConnection)
{
    const std::string sdp = std::string(videoSdp) + "m=audio 0 RTP/AVP 0\r\na=control:back\r\na=sendonly\r\n";
    Scene scene(sdp.c_str());
    ASSERT_TRUE(scene.play());
    bool written = false;
    scene.player.client->sendPacket(scene.player.sendTrack, Bytes(160, 0x2A), 0,
                                    [&](const error_code& ec) { written = !ec; });
    EXPECT_TRUE(scene.loop.runUntil([&] { return written; }));
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    EXPECT_TRUE(scene.awaitPictures(1));
}

TEST(RtpOverUdp, survivesAnAuthorizationOfPlay)
{
    Scene scene;
    bool challenged = false;
    scene.camera.intercept = [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method != "PLAY" || std::exchange(challenged, true))
            return false;
        connection.reply(request, 401, "WWW-Authenticate: Digest realm=\"camera\", nonce=\"n\"\r\n");
        return true;
    };
    ASSERT_TRUE(scene.play()) << scene.player.log.text();
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    EXPECT_TRUE(scene.awaitPictures(1));
}

TEST(RtpOverUdp, mayBeTornDownInsideAFrame)
{
    Scene scene;
    ASSERT_TRUE(scene.play());
    scene.player.eachFrame = [&] { scene.player.client->teardown(); };
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    scene.video.sendRtp(scene.sender.pictureRtp());
    ASSERT_TRUE(scene.awaitPictures(1));
    scene.loop.io->restart();
    scene.loop.io->run();  // until nothing is left: the client keeps nothing going
    EXPECT_EQ(scene.player.video.size(), 1U);
}

TEST(RtpOverUdp, givesItsPortsBack)
{
    Scene scene;
    ASSERT_TRUE(scene.play());
    const std::uint16_t port = scene.video.clientRtpPort();
    bool done = false;
    scene.player.client->teardown([&](const error_code&) { done = true; });
    ASSERT_TRUE(scene.loop.runUntil([&] { return done; }));
    using boost::asio::ip::udp;
    EXPECT_NO_THROW(udp::socket(*scene.loop.io, udp::endpoint(boost::asio::ip::address_v4::loopback(), port)));
}

TEST(RtpOverUdp, mayOutliveItsContext)
{
    Scene scene;
    ASSERT_TRUE(scene.play());
    scene.video.sendRtp(scene.sender.keyFrameRtp());
    ASSERT_TRUE(scene.awaitPictures(1));
    scene.video.sendRtp(scene.sender.pictureRtp());
    scene.loop.io.reset();
    EXPECT_FALSE(scene.player.closed);
}

TEST(RtpOverUdp, tellsOnceOfASmallReceiveBuffer)
{
    const std::string line = "bytes of 1073741824 asked for";
    Scene scene(videoAndAudioSdp);
    StreamContext::of(*scene.loop.io).datagramBufferBytes = 1 << 30;  // more than any system gives
    ASSERT_TRUE(scene.play());
    EXPECT_EQ(scene.player.log.count(line), 1U) << scene.player.log.text();

    Scene modest;
    StreamContext::of(*modest.loop.io).datagramBufferBytes = 8 * 1024;
    ASSERT_TRUE(modest.play());
    EXPECT_EQ(modest.player.log.count("asked for"), 0U) << modest.player.log.text();
}

// ---- streams --------------------------------------------------------------------------------------------------

class Viewer final : public RTSPReceiver {
public:
    MediaKind mediaKind() const noexcept override { return MediaKind::video; }
    void initializeClient(RTSPClient& client) override
    {
        client.setTransport(transport);
        client.setStallTimeout(stallTimeout);
    }
    void onConnectionStart() override { ++starts; }
    void onFrame(const GDRV::MediaFrame&) noexcept override { ++frames; }
    void onStreamState(const error_code& ec) override { failed = failed || ec; }

    RtspTransport transport = RtspTransport::udp;
    milliseconds stallTimeout{5000};
    int starts = 0;
    std::size_t frames = 0;
    bool failed = false;
};

/// A stream of a device to which UDP does not get through; over the connection it sends a key frame.
struct Blocked {
    Blocked()
    {
        camera.sdp = videoSdp;
        camera.transport = [this](std::size_t, const std::string& asked) {
            if (Scene::isInterleaved(asked))
                return asked;
            ++udpRequests;
            return nowhere.accept(asked);
        };
        camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender().sendKeyFrame(connection); };
        loop.timing().firstDatagramLimit = milliseconds(20);
    }

    void start()
    {
        peer.emplace(camera.script());
        RTSPStream::Hooks hooks;
        hooks.connectionInfo = [info = addressOf(*peer)] { return std::shared_ptr<const asio::ConnectionInfo>(info); };
        hooks.path = [] { return "/media/video1"; };
        hooks.onLost = [this] { ++losses; };
        stream = std::make_shared<RTSPStream>(*loop.io, &log, std::move(hooks));
        stream->regReceiver(viewer);
    }

    bool awaitFrames(std::size_t count)
    {
        return loop.runUntil([&] { return viewer->frames >= count; });
    }

    std::size_t warnings() const
    {
        const std::string text = log.text();
        std::size_t count = 0;
        for (std::size_t at = text.find(silentUdp); at != std::string::npos; at = text.find(silentUdp, at + 1))
            ++count;
        return count;
    }

    Camera camera;
    UdpEnd nowhere;
    std::atomic<int> udpRequests{0};
    std::optional<ScriptedPeer> peer;
    Loop loop;
    RecordingLogger log;
    int losses = 0;
    std::shared_ptr<Viewer> viewer = std::make_shared<Viewer>();
    std::shared_ptr<RTSPStream> stream;
};

TEST(StreamTransport, fallsBackAndRemembersItOverReconnections)
{
    Blocked scene;
    scene.start();
    ASSERT_TRUE(scene.awaitFrames(1));
    EXPECT_EQ(scene.viewer->starts, 2);
    for (std::size_t i = 2; i <= 4; ++i) {
        scene.stream->restart();
        ASSERT_TRUE(scene.awaitFrames(i));
    }
    EXPECT_EQ(scene.udpRequests, 1);
    EXPECT_EQ(scene.warnings(), 1U) << scene.log.text();
    EXPECT_EQ(scene.losses, 0);
    EXPECT_FALSE(scene.viewer->failed) << "nothing was lost";
}

TEST(StreamTransport, triesAgainWhenTheDeviceIsConnectedAnew)
{
    Blocked scene;
    scene.start();
    ASSERT_TRUE(scene.awaitFrames(1));
    scene.stream->deviceClosed();
    scene.stream->deviceConnected();
    ASSERT_TRUE(scene.awaitFrames(2));
    EXPECT_EQ(scene.udpRequests, 2);
}

TEST(StreamTransport, triesAgainWhenTheParameterHasChanged)
{
    Blocked scene;
    scene.start();
    ASSERT_TRUE(scene.awaitFrames(1));
    for (const auto transport : {RtspTransport::tcp, RtspTransport::udp}) {
        const std::size_t before = scene.viewer->frames;
        scene.viewer->transport = transport;
        scene.stream->restart();
        ASSERT_TRUE(scene.awaitFrames(before + 1));
    }
    EXPECT_EQ(scene.udpRequests, 2);
}

TEST(StreamTransport, remembersARefusal)
{
    Blocked scene;
    std::atomic<int> refusals{0};
    scene.camera.intercept = [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method != "SETUP" || Scene::isInterleaved(request.headers.at("transport")))
            return false;
        ++refusals;
        connection.reply(request, 461);
        return true;
    };
    scene.start();
    ASSERT_TRUE(scene.awaitFrames(1));
    scene.stream->restart();
    ASSERT_TRUE(scene.awaitFrames(2));
    EXPECT_EQ(refusals, 1);
    EXPECT_EQ(scene.viewer->starts, 2);
    EXPECT_THAT(scene.log.text(), HasSubstr(refusedUdp));
}

TEST(StreamTransport, isNotForgottenWhenAnotherReceiverComesBeforeTheDescription)
{
    Blocked scene;
    std::promise<void> joined;
    scene.camera.intercept = [&, waits = joined.get_future().share()](ScriptedPeer::Connection& connection,
                                                                      const ScriptedPeer::Request& request) {
        if (request.method == "DESCRIBE" && connection.number == 2)
            waits.wait();
        return false;
    };
    scene.start();
    ASSERT_TRUE(scene.awaitFrames(1));
    scene.stream->restart();
    EXPECT_TRUE(scene.loop.runUntil([&] { return scene.peer->count("DESCRIBE") == 3; }));
    const auto second = std::make_shared<Viewer>();
    scene.stream->regReceiver(second);
    EXPECT_TRUE(scene.loop.runUntil([&] { return second->starts == 1; }));
    joined.set_value();
    ASSERT_TRUE(scene.loop.runUntil([&] { return second->frames == 1; }));
    EXPECT_EQ(scene.udpRequests, 1);
    EXPECT_EQ(scene.warnings(), 1U) << scene.log.text();
}

TEST(StreamTransport, goesRoundAgainWhenBothWaysHaveFailed)
{
    Blocked scene;
    scene.viewer->transport = RtspTransport::automatic;
    scene.viewer->stallTimeout = milliseconds(20);
    std::atomic<int> refusals{0};
    scene.camera.intercept = [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        // It refuses media over the connection until it has done so often enough, and UDP never gets through.
        if (request.method != "SETUP" || !Scene::isInterleaved(request.headers.at("transport")) || refusals == 4)
            return false;
        ++refusals;
        connection.reply(request, 461);
        return true;
    };
    scene.start();
    ASSERT_TRUE(scene.awaitFrames(1)) << scene.log.text();
    EXPECT_EQ(refusals, 4);
    EXPECT_GE(scene.udpRequests, 2) << "both ways in turn";
}

TEST(StreamTransport, doesNotWaitForADeviceThatWillNotEndTheSession)
{
    Blocked scene;
    scene.loop.timing().teardownTimeout = milliseconds(20);
    scene.camera.intercept = [](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
        return request.method == "TEARDOWN";
    };
    scene.start();
    EXPECT_TRUE(scene.awaitFrames(1));
}

TEST(StreamTransport, mayLoseItsReceiverWhileItFallsBack)
{
    Blocked scene;
    scene.camera.intercept = [](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
        return request.method == "TEARDOWN";
    };
    scene.start();
    ASSERT_TRUE(scene.loop.runUntil([&] { return scene.peer->count("TEARDOWN") == 1; }));
    bool done = false;
    scene.stream->unregReceiver(scene.viewer, [&] { done = true; });
    ASSERT_TRUE(scene.loop.runUntil([&] { return done; }));
    EXPECT_EQ(scene.viewer->frames, 0U);
    EXPECT_EQ(scene.viewer->starts, 1);
}
}  // namespace
}  // namespace Tavro8::Utility

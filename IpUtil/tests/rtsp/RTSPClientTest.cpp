#include <utility>

#include "Player.h"

#include <IpUtil/ParametersContainer.h>
#include <algorithm>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t videoSource = 0x11223344;

Camera cameraWith(const char* sdp = videoAndAudioSdp)
{
    Camera camera;
    camera.sdp = sdp;
    return camera;
}

error_code errorOf(ResultCode code)
{
    return make_error_code(code);
}

TEST(RTSPClient, playsVideoAndAudioOverOneConnection)
{
    Camera camera = cameraWith();
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        video.sendKeyFrame(connection);
        connection.sendFrame(2, rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
        video.sendPicture(connection);
        connection.sendFrame(2, rtp(0, 8, 320, false, Bytes(320, 0x66), 0x99));
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.video.size() == 2 && player.audio.size() == 2; }));

    EXPECT_EQ(player.video[0], annexB({spsNal(), ppsNal(), idrNal()}));
    EXPECT_EQ(player.video[1], annexB({pictureNal()}));
    EXPECT_EQ(player.audio[0], Bytes(160, 0x55));
    EXPECT_EQ(player.audio[1], Bytes(320, 0x66));
    EXPECT_EQ(peer.connectionCount(), 1U);

    const auto requests = peer.requests();
    ASSERT_EQ(requests.size(), 5U);
    const std::string base = "rtsp://127.0.0.1:" + std::to_string(peer.port()) + "/media/video1";
    EXPECT_EQ(requests[0].method, "OPTIONS");
    EXPECT_EQ(requests[1].method, "DESCRIBE");
    EXPECT_EQ(requests[1].uri, base);
    EXPECT_EQ(requests[2].uri, base + "/track1");
    EXPECT_EQ(requests[3].uri, base + "/track2");
    EXPECT_EQ(requests[4].method, "PLAY");

    const StreamCounters video = player.client->counters(player.videoTrack);
    EXPECT_EQ(video.frames, 2U);
    EXPECT_EQ(video.keyFrames, 1U);
    EXPECT_EQ(video.bytes, player.video[0].size() + player.video[1].size());
    EXPECT_EQ(video.lostPackets, 0U);
}

TEST(RTSPClient, endsTheSessionWithTeardown)
{
    ScriptedPeer peer(cameraWith().script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    bool done = false;
    player.client->teardown([&](const error_code& ec) { done = !ec; });
    EXPECT_FALSE(done);
    ASSERT_TRUE(loop.runUntil([&] { return done; }));
    EXPECT_EQ(peer.count("TEARDOWN"), 1U);
    EXPECT_FALSE(player.closed);
}

TEST(RTSPClient, waitsOnlyShortlyForTheAnswerToTeardown)
{
    Camera camera = cameraWith();
    camera.intercept = [](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
        return request.method == "TEARDOWN";
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    loop.timing().teardownTimeout = milliseconds(30);
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    bool done = false;
    player.client->teardown([&](const error_code&) { done = true; });
    EXPECT_TRUE(loop.runUntil([&] { return done; }));
}

TEST(RTSPClient, proveItselfByDigestAndBasic)
{
    for (const auto auth : {Camera::Auth::digest, Camera::Auth::digestAgainOnSetup, Camera::Auth::basic}) {
        SCOPED_TRACE(static_cast<int>(auth));
        Camera camera = cameraWith();
        camera.auth = auth;
        ScriptedPeer peer(camera.script());
        Loop loop;
        Player player(loop);
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); })) << player.log.text();
        EXPECT_THAT(player.log.text(), Not(HasSubstr("s3cret")));
    }
}

TEST(RTSPClient, reportsAWrongPasswordOnceAndNeverShowsIt)
{
    Camera camera = cameraWith();
    camera.auth = Camera::Auth::digest;
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    const auto info = addressOf(peer);
    info->password = "n0tright";
    player.start(info, "/media/video1");
    ASSERT_TRUE(loop.runUntil([&] { return player.failure().has_value(); }));
    EXPECT_EQ(player.failure(), errorOf(ResultCode::accessDenied));
    EXPECT_EQ(player.log.errorCount(), 1U);
    EXPECT_THAT(player.log.text(), HasSubstr("DESCRIBE rtsp://127.0.0.1"));
    EXPECT_THAT(player.log.text(), HasSubstr("401"));
    EXPECT_THAT(player.log.text(), Not(HasSubstr("n0tright")));
    EXPECT_THAT(player.log.text(), Not(HasSubstr("admin")));
    EXPECT_EQ(peer.count("DESCRIBE"), 2U);  // asking again would lock the account
}

TEST(RTSPClient, translatesTheStatusOfEachStep)
{
    const struct {
        const char* method;
        unsigned status;
        ResultCode expected;
    } cases[] = {
        {"OPTIONS", 503, ResultCode::deviceBusy},     {"DESCRIBE", 401, ResultCode::accessDenied},
        {"DESCRIBE", 403, ResultCode::accessDenied},  {"DESCRIBE", 404, ResultCode::resourceNotFound},
        {"DESCRIBE", 453, ResultCode::deviceBusy},    {"DESCRIBE", 454, ResultCode::resourceNotFound},
        {"DESCRIBE", 461, ResultCode::streamRefused}, {"DESCRIBE", 503, ResultCode::deviceBusy},
        {"DESCRIBE", 551, ResultCode::notSupported},  {"DESCRIBE", 400, ResultCode::requestRejected},
        {"DESCRIBE", 500, ResultCode::deviceError},   {"DESCRIBE", 302, ResultCode::unexpectedStatus},
        {"SETUP", 401, ResultCode::accessDenied},     {"SETUP", 404, ResultCode::resourceNotFound},
        {"SETUP", 453, ResultCode::deviceBusy},       {"SETUP", 454, ResultCode::resourceNotFound},
        {"SETUP", 461, ResultCode::streamRefused},    {"SETUP", 503, ResultCode::deviceBusy},
        {"SETUP", 455, ResultCode::streamRefused},    {"PLAY", 401, ResultCode::accessDenied},
        {"PLAY", 404, ResultCode::resourceNotFound},  {"PLAY", 454, ResultCode::resourceNotFound},
        {"PLAY", 453, ResultCode::deviceBusy},        {"PLAY", 457, ResultCode::streamRefused},
        {"PLAY", 503, ResultCode::deviceBusy},        {"PLAY", 461, ResultCode::streamRefused},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.method) + ' ' + std::to_string(c.status));
        Camera camera = cameraWith();
        camera.statuses[c.method] = c.status;
        ScriptedPeer peer(camera.script());
        Loop loop;
        Player player(loop);
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil([&] { return player.failure().has_value(); }));
        EXPECT_EQ(player.failure(), errorOf(c.expected)) << player.failure()->message();
        EXPECT_EQ(player.log.errorCount(), 1U) << player.log.text();
        EXPECT_THAT(player.log.text(), HasSubstr(std::to_string(c.status)));
        const bool beforeDescription = std::string(c.method) == "OPTIONS" || std::string(c.method) == "DESCRIBE";
        EXPECT_EQ(player.play.has_value(), !beforeDescription);
    }
}

TEST(RTSPClient, goesOnWithoutOptionsWhenTheDeviceDoesNotKnowIt)
{
    Camera camera = cameraWith();
    camera.statuses["OPTIONS"] = 501;
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    EXPECT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
}

TEST(RTSPClient, playsTheOtherTrackWhenOneIsRefused)
{
    Camera camera = cameraWith();
    camera.intercept = [](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method != "SETUP" || !request.uri.ends_with("track2"))
            return false;
        connection.reply(request, 454);
        return true;
    };
    camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender().sendKeyFrame(connection); };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    EXPECT_TRUE(loop.runUntil([&] { return player.video.size() == 1; }));
}

TEST(RTSPClient, saysWhatTheDeviceOffersWhenNothingOfItCanBeReceived)
{
    ScriptedPeer peer(cameraWith("v=0\r\no=- 1 1 IN\r\ns=-\r\n"
                                 "m=video 0 RTP/AVP 96\r\na=rtpmap:96 VP8/90000\r\na=control:track1\r\n"
                                 "m=application 0 RTP/AVP 98\r\na=rtpmap:98 vnd.onvif.metadata/90000\r\n")
                          .script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.play.has_value(); }));
    EXPECT_EQ(player.play, errorOf(ResultCode::noSuchStream));
    EXPECT_FALSE(*player.sdp);
    EXPECT_EQ(peer.count("SETUP"), 0U);
    EXPECT_THAT(player.log.text(), HasSubstr("video VP8, application VND.ONVIF.METADATA"));
}

TEST(RTSPClient, refusesWhatIsNoRtsp)
{
    const std::string answers[] = {
        "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n",
        std::string(100000, 'x'),
        "RTSP/1.0 abc OK\r\nCSeq: 1\r\n\r\n",
        "RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: 99999999\r\n\r\n",
        "RTSP/1.0 200 OK\r\nX-Long: " + std::string(50000, 'y'),
    };
    for (const std::string& answer : answers) {
        SCOPED_TRACE(answer.substr(0, 40));
        ScriptedPeer peer([&](ScriptedPeer::Connection& connection) {
            if (connection.read() && connection.write(answer))
                connection.waitUntilClosed();
        });
        Loop loop;
        Player player(loop);
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil([&] { return player.failure().has_value(); }));
        EXPECT_EQ(player.failure(), errorOf(ResultCode::malformedResponse));
        EXPECT_EQ(player.log.errorCount(), 1U);
    }
}

TEST(RTSPClient, refusesADescriptionLargerThanTheReceiveBuffer)
{
    ScriptedPeer peer([](ScriptedPeer::Connection& connection) {
        while (const auto request = connection.read())
            connection.reply(*request, 200, {}, std::string(400 * 1024, 'v'));
    });
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.failure().has_value(); }));
    EXPECT_EQ(player.failure(), errorOf(ResultCode::malformedResponse));
}

TEST(RTSPClient, refusesADescriptionThatIsNone)
{
    ScriptedPeer peer(cameraWith("this is no description").script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.failure().has_value(); }));
    EXPECT_EQ(player.sdp, errorOf(ResultCode::malformedReply));
    EXPECT_FALSE(player.play);
}

TEST(RTSPClient, takesTheChannelsThatTheDeviceNames)
{
    Camera camera = cameraWith();
    camera.transport = [](std::size_t track, const std::string&) {
        return track == 0 ? "RTP/AVP/TCP;unicast;interleaved=10-11" : "RTP/AVP/TCP;unicast;interleaved=4-5";
    };
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video(10);
        connection.sendFrame(11, senderReport(videoSource, 0, 0));  // RTCP before the first RTP packet
        connection.sendFrame(0, rtp(96, 1, 1, true, idrNal()));     // nobody's channel
        connection.sendFrame(77, Bytes(50, 0x80));
        video.sendKeyFrame(connection);
        connection.sendFrame(4, rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.audio.size() == 1; }));
    EXPECT_EQ(player.video.size(), 1U);
    EXPECT_EQ(player.client->counters(player.videoTrack).lostPackets, 0U);
}

TEST(RTSPClient, receivesTracksThatAreAnsweredWithTheSameChannels)
{
    const std::string soundFirst = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n"
                                   "m=audio 0 RTP/AVP 0\r\na=control:track1\r\n"
                                   "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:track2\r\n";
    const struct {
        const char* name;
        std::string sdp;
        std::uint8_t videoChannel, audioChannel;
    } cases[] = {
        {"on one channel", videoAndAudioSdp, 0, 0},
        {"on the channels asked for", videoAndAudioSdp, 0, 2},
        {"on one channel, sound first", soundFirst, 0, 0},
        {"on the channels asked for, sound first", soundFirst, 2, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Camera camera = cameraWith(c.sdp.c_str());
        camera.transport = [](std::size_t, const std::string&) { return "RTP/AVP/TCP;unicast;interleaved=0-1"; };
        camera.afterPlay = [&c](ScriptedPeer::Connection& connection) {
            VideoSender video(c.videoChannel);
            for (std::uint16_t i = 0; i < 3; ++i) {
                video.sendKeyFrame(connection);
                connection.sendFrame(1, senderReport(videoSource, 0, 0));
                connection.sendFrame(c.audioChannel, rtp(0, i, i * 160U, false, Bytes(160, 0x55), 0x99));
            }
        };
        ScriptedPeer peer(camera.script());
        Loop loop;
        Player player(loop);
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil([&] { return player.audio.size() == 3; })) << player.log.text();
        EXPECT_EQ(player.video.size(), 3U);
        EXPECT_EQ(player.log.count("share interleaved channels"), 1U);
        EXPECT_EQ(player.client->counters(player.videoTrack).lostPackets, 0U);
    }
}

TEST(RTSPClient, receivesMediaThatComesBeforeTheAnswerToPlay)
{
    Camera camera = cameraWith(videoSdp);
    camera.beforePlayAnswer = [](ScriptedPeer::Connection& connection) { VideoSender().sendKeyFrame(connection); };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    EXPECT_EQ(player.video.size(), 1U);
}

TEST(RTSPClient, timesFramesByTheSenderReport)
{
    // A device whose clock is three hours ahead of ours.
    const auto now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
    const std::int64_t utcMs = (now.count() + 3 * 3600) * 1000 + 250;
    const std::uint64_t ntp = ((static_cast<std::uint64_t>(utcMs / 1000) + 2'208'988'800U) << 32) | 0x40000000;
    Camera camera = cameraWith(videoSdp);
    camera.afterPlay = [ntp](ScriptedPeer::Connection& connection) {
        VideoSender video;
        connection.sendFrame(1, senderReport(videoSource, ntp, video.timestamp));
        video.sendKeyFrame(connection);
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.video.size() == 1; }));
    EXPECT_EQ(player.lastTimestampMs, utcMs);
}

TEST(RTSPClient, givesTheSameWhereverTheBytesAreCut)
{
    // The peer writes its answers and three frames byte by byte.
    Camera camera = cameraWith();
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        video.sendKeyFrame(connection);
        connection.sendFrame(2, rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
        video.sendPicture(connection);
    };
    ScriptedPeer peer([script = camera.script()](ScriptedPeer::Connection& connection) {
        connection.byteByByte = true;
        script(connection);
    });
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.video.size() == 2; }));
    EXPECT_EQ(player.video[0], annexB({spsNal(), ppsNal(), idrNal()}));
    EXPECT_EQ(player.video[1], annexB({pictureNal()}));
    ASSERT_EQ(player.audio.size(), 1U);
    EXPECT_EQ(player.audio[0], Bytes(160, 0x55));
}

TEST(RTSPClient, readsStreamsLargerThanItsBuffer)
{
    // Frames of 64 KiB reach the limit of the length field, and several of them fill the buffer.
    constexpr std::size_t count = 40;
    Camera camera = cameraWith();
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        Bytes all;
        for (std::size_t i = 0; i < count; ++i) {
            const Bytes frame =
                interleaved(2, rtp(0, static_cast<std::uint16_t>(i), static_cast<std::uint32_t>(i * 65000), false,
                                   Bytes(65000, static_cast<std::uint8_t>(i)), 0x99));
            all.insert(all.end(), frame.begin(), frame.end());
        }
        connection.write(all);
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.audio.size() == count; }));
    for (std::size_t i = 0; i < count; ++i)
        EXPECT_EQ(player.audio[i], Bytes(65000, static_cast<std::uint8_t>(i)));
}

TEST(RTSPClient, isWokenByNothingButWhatArrives)
{
    Camera camera = cameraWith(videoSdp);
    camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender().sendKeyFrame(connection); };
    ScriptedPeer peer(camera.script());
    Loop loop;
    loop.timing().tickInterval = std::chrono::hours(1);
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying() && player.video.size() == 1; }));
    loop.io->restart();
    EXPECT_EQ(loop.io->poll(), 0U) << "the socket can be written to, which nobody waits for";
}

TEST(RTSPClient, keepsTheSessionAliveAsTheDeviceOffers)
{
    const struct {
        const char* methods;
        std::optional<RtspMethod> forced;
        const char* expected;
    } cases[] = {
        {"OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER", {}, "GET_PARAMETER"},
        {"OPTIONS, DESCRIBE, SETUP, PLAY", {}, "OPTIONS"},
        {"OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER", RTSP_METHOD_SET_PARAMETER, "SET_PARAMETER"},
        {"OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER", RTSP_METHOD_OPTIONS, "OPTIONS"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.methods) + " -> " + c.expected);
        Camera camera = cameraWith();
        camera.publicMethods = c.methods;
        ScriptedPeer peer(camera.script());
        Loop loop;
        loop.timing().keepAliveInterval = milliseconds(10);
        Player player(loop);
        if (c.forced)
            player.client->setKeepAliveCommand(*c.forced);
        player.start(addressOf(peer));
        const std::size_t without = std::string(c.expected) == "OPTIONS" ? 1 : 0;
        ASSERT_TRUE(loop.runUntil([&] { return peer.count(c.expected) >= without + 3; }));
        EXPECT_EQ(peer.requests().back().headers.at("session"), "88");
        EXPECT_FALSE(player.failure());
    }
}

TEST(RTSPClient, keepsAliveWithinHalfOfAShortSessionTimeout)
{
    Camera camera = cameraWith();
    camera.session = "88;timeout=2";  // every second, as no interval is forced here
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(loop.runUntil([&] { return peer.count("GET_PARAMETER") == 1; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(900));
}

TEST(RTSPClient, streamsOnWhenAKeepAliveIsRefusedBetweenPackets)
{
    Camera camera = cameraWith(videoSdp);
    camera.intercept = [video = std::make_shared<VideoSender>()](ScriptedPeer::Connection& connection,
                                                                 const ScriptedPeer::Request& request) {
        if (request.method != "GET_PARAMETER" && request.headers.count("session") == 0)
            return false;
        if (request.method == "PLAY" || request.method == "SETUP" || request.method == "TEARDOWN")
            return false;
        video->sendKeyFrame(connection);
        connection.reply(request, 405);
        video->sendPicture(connection);
        return true;
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    loop.timing().keepAliveInterval = milliseconds(10);
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.video.size() >= 6; }));
    EXPECT_FALSE(player.failure());
    const std::string text = player.log.text();
    const std::size_t first = text.find("status 405");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(text.find("status 405", first + 1), std::string::npos) << "said once";
    // A slow answer lets another keep-alive of the same kind go out before it.
    const auto otherIsTried = [&] { return peer.requests().back().method == "OPTIONS"; };
    EXPECT_TRUE(loop.runUntil(otherIsTried)) << "after " << peer.count("GET_PARAMETER") << " of the refused kind";
}

TEST(RTSPClient, sendsTheNextKeepAliveWhenOneIsNeverAnswered)
{
    Camera camera = cameraWith();
    camera.intercept = [](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
        return request.method == "GET_PARAMETER";
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    loop.timing().keepAliveInterval = milliseconds(10);
    Player player(loop);
    player.start(addressOf(peer));
    EXPECT_TRUE(loop.runUntil([&] { return peer.count("GET_PARAMETER") >= 3; }));
}

TEST(RTSPClient, tellsWhenAStreamEndsByItself)
{
    const struct {
        const char* name;
        std::function<void(ScriptedPeer::Connection&)> end;
        ResultCode expected;
    } cases[] = {
        {"closed", [](ScriptedPeer::Connection& connection) { connection.close(); }, ResultCode::connectionLost},
        {"silent", [](ScriptedPeer::Connection&) {}, ResultCode::timedOut},
        {"garbage", [](ScriptedPeer::Connection& connection) { connection.write(std::string(70000, 'x')); },
         ResultCode::malformedResponse},
        {"BYE", [](ScriptedPeer::Connection& connection) { connection.sendFrame(1, byePacket(videoSource)); },
         ResultCode::connectionLost},
        {"other payload type",
         [](ScriptedPeer::Connection& connection) {
             VideoSender other(0, 97);
             while (other.sendPicture(connection))
                 std::this_thread::yield();
         },
         ResultCode::connectionLost},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Camera camera = cameraWith(videoSdp);
        camera.afterPlay = [&c](ScriptedPeer::Connection& connection) {
            VideoSender().sendKeyFrame(connection);
            c.end(connection);
        };
        ScriptedPeer peer(camera.script());
        Loop loop;
        loop.timing().foreignLimit = milliseconds(30);
        loop.timing().silenceAfterBye = milliseconds(10);
        Player player(loop);
        player.client->setStallTimeout(milliseconds(c.expected == ResultCode::timedOut ? 50 : 8000));
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil([&] { return player.closed.has_value(); }));
        EXPECT_EQ(player.closed, errorOf(c.expected)) << player.log.text();
        EXPECT_EQ(player.video.size(), 1U);
        EXPECT_EQ(player.log.errorCount(), 1U) << player.log.text();
    }
}

TEST(RTSPClient, saysThatPacketsNeverFittedTheDescription)
{
    Camera camera = cameraWith(videoSdp);
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender other(0, 97);
        other.run(connection, 20);
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.client->setStallTimeout(milliseconds(50));
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.closed.has_value(); }));
    EXPECT_EQ(player.closed, errorOf(ResultCode::unsupportedMedia));
}

TEST(RTSPClient, toleratesStrayPayloadTypesBetweenFrames)
{
    Camera camera = cameraWith(videoSdp);
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        video.sendKeyFrame(connection);
        connection.sendFrame(0, rtp(50, video.sequence, video.timestamp, true, Bytes(20, 1)));
        video.sendPicture(connection);
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.video.size() == 2; }));
    EXPECT_EQ(player.client->counters(player.videoTrack).lostPackets, 0U);
}

TEST(RTSPClient, sendsReceiverReportsOnTheRtcpChannel)
{
    Camera camera = cameraWith(videoSdp);
    camera.transport = [](std::size_t, const std::string&) { return "RTP/AVP/TCP;unicast;interleaved=6-7"; };
    camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender(6).sendKeyFrame(connection); };
    ScriptedPeer peer(camera.script());
    Loop loop;
    loop.timing().reportInterval = milliseconds(10);
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return peer.received().size() >= 2; }));
    for (const auto& report : peer.received()) {
        EXPECT_EQ(report.channel, 7);
        ASSERT_GE(report.payload.size(), 32U);
        EXPECT_EQ(report.payload[0], 0x81);  // version 2, one block
        EXPECT_EQ(report.payload[1], 201);
        EXPECT_EQ(Bytes(report.payload.begin() + 8, report.payload.begin() + 12), (Bytes{0x11, 0x22, 0x33, 0x44}));
        EXPECT_EQ(report.payload[19], 102) << "highest sequence number";
        EXPECT_EQ(report.payload[33], 202) << "each compound packet names its source";
    }
}

TEST(RTSPClient, sendsPacketsOnABackChannel)
{
    const std::string sdp = std::string(videoAndAudioSdp) + "m=audio 0 RTP/AVP 97 8\r\na=rtpmap:97 G726-32/8000\r\n"
                                                            "a=control:back\r\na=sendonly\r\n";
    ScriptedPeer peer(cameraWith(sdp.c_str()).script());
    Loop loop;
    Player player(loop);
    player.headers = {{RTSP_HEADER_REQUIRE, "www.onvif.org/ver20/backchannel"}};
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    int written = 0;
    for (std::uint32_t i = 0; i < 2; ++i)
        player.client->sendPacket(player.sendTrack, Bytes(160, 0x2A), 1000 + i * 160, [&](const error_code& ec) {
            EXPECT_FALSE(ec);
            ++written;
        });
    EXPECT_EQ(written, 0) << "never inside the call";
    ASSERT_TRUE(loop.runUntil([&] { return written == 2; }));
    bool done = false;
    player.client->teardown([&](const error_code&) { done = true; });
    ASSERT_TRUE(loop.runUntil([&] { return done && peer.count("TEARDOWN") == 1; }));

    for (const auto& request : peer.requests())
        EXPECT_EQ(request.headers.at("require"), "www.onvif.org/ver20/backchannel") << request.method;
    const auto packets = peer.received();
    ASSERT_EQ(packets.size(), 2U);
    for (std::size_t i = 0; i < 2; ++i) {
        const Bytes& packet = packets[i].payload;
        EXPECT_EQ(packets[i].channel, 4);
        ASSERT_EQ(packet.size(), 172U);
        EXPECT_EQ(packet[0], 0x80);
        EXPECT_EQ(packet[1], i == 0 ? 0x88 : 0x08) << "the G.711 format, the first packet marked";
        EXPECT_EQ(packet[6] * 256 + packet[7], static_cast<int>(1000 + i * 160));
        EXPECT_EQ(Bytes(packet.begin() + 12, packet.end()), Bytes(160, 0x2A));
    }
    const auto sequence = [&](std::size_t i) { return packets[i].payload[2] * 256 + packets[i].payload[3]; };
    EXPECT_EQ((sequence(0) + 1) % 65536, sequence(1));
    EXPECT_TRUE(
        std::equal(packets[0].payload.begin() + 8, packets[0].payload.begin() + 12, packets[1].payload.begin() + 8));
}

TEST(RTSPClient, refusesPacketsThatCannotBeSent)
{
    const std::string sdp = std::string(videoSdp) + "m=audio 0 RTP/AVP 0\r\na=control:back\r\na=sendonly\r\n";
    ScriptedPeer peer(cameraWith(sdp.c_str()).script());
    Loop loop;
    Player player(loop);
    std::optional<error_code> early, large, stale;
    player.client->sendPacket({}, Bytes(1), 0, [&](const error_code& ec) { early = ec; });
    ASSERT_TRUE(loop.runUntil([&] { return early.has_value(); }));
    EXPECT_EQ(early, errorOf(ResultCode::invalidState));
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    player.client->sendPacket(player.sendTrack, Bytes(70000), 0, [&](const error_code& ec) { large = ec; });
    ASSERT_TRUE(loop.runUntil([&] { return large.has_value(); }));
    EXPECT_EQ(large, errorOf(ResultCode::outOfRange));
    player.client->teardown();
    player.client->sendPacket(player.sendTrack, Bytes(10), 0, [&](const error_code& ec) { stale = ec; });
    ASSERT_TRUE(loop.runUntil([&] { return stale.has_value(); }));
    EXPECT_EQ(stale, errorOf(ResultCode::invalidState));
}

TEST(RTSPClient, queuesABoundedAmountForADeviceThatReadsNothing)
{
    const std::string sdp = std::string(videoSdp) + "m=audio 0 RTP/AVP 0\r\na=control:back\r\na=sendonly\r\n";
    Camera camera = cameraWith(sdp.c_str());
    std::promise<void> released;
    camera.afterPlay = [done = released.get_future().share()](ScriptedPeer::Connection&) { done.wait(); };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    std::optional<error_code> refused;
    for (int i = 0; i < 1000 && !refused; ++i) {
        player.client->sendPacket(player.sendTrack, Bytes(60000), 0, [&](const error_code& ec) {
            if (ec)
                refused = ec;
        });
        loop.io->poll();
    }
    EXPECT_EQ(refused, errorOf(ResultCode::noResources));
    released.set_value();
}

TEST(RTSPClient, reportsAClosedPort)
{
    std::uint16_t port = 0;
    {
        const ScriptedPeer gone([](ScriptedPeer::Connection&) {});
        port = gone.port();
    }
    Loop loop;
    Player player(loop);
    auto info = std::make_shared<asio::ConnectionInfo>();
    info->host = "127.0.0.1";
    info->port = port;
    player.start(info);
    EXPECT_FALSE(player.session) << "never inside the call";
    ASSERT_TRUE(loop.runUntil([&] { return player.session.has_value(); }));
    EXPECT_EQ(player.session, errorOf(ResultCode::deviceUnreachable));
}

TEST(RTSPClient, resolvesNames)
{
    ScriptedPeer peer(cameraWith().script());
    Loop loop;
    Player player(loop);
    const auto info = addressOf(peer);
    info->host = "localhost";  // may name an IPv6 address first, where nobody listens
    player.start(info);
    EXPECT_TRUE(loop.runUntil([&] { return player.isPlaying(); })) << player.log.text();
}

TEST(RTSPClient, reportsANameThatDoesNotExist)
{
    Loop loop;
    Player player(loop);
    auto info = std::make_shared<asio::ConnectionInfo>();
    info->host = "no such name";
    player.start(info);
    ASSERT_TRUE(loop.runUntil([&] { return player.session.has_value(); }));
    EXPECT_EQ(player.session, errorOf(ResultCode::nameNotResolved));
}

TEST(RTSPClient, givesUpOnASilentDevice)
{
    for (const char* silentAt : {"OPTIONS", "DESCRIBE", "SETUP", "PLAY"}) {
        SCOPED_TRACE(silentAt);
        Camera camera = cameraWith();
        camera.intercept = [silentAt](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
            return request.method == silentAt;
        };
        ScriptedPeer peer(camera.script());
        Loop loop;
        loop.timing().requestTimeout = milliseconds(40);
        Player player(loop);
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil([&] { return player.failure().has_value(); }));
        EXPECT_EQ(player.failure(), errorOf(ResultCode::timedOut));
        EXPECT_THAT(player.log.text(), HasSubstr(silentAt));
    }
}

TEST(RTSPClient, mayBeTornDownInsideEachOfItsCallbacks)
{
    const char* places[] = {"session", "sdp", "play", "frame", "closed"};
    for (const std::string place : places) {
        SCOPED_TRACE(place);
        Camera camera = cameraWith(videoSdp);
        camera.afterPlay = [](ScriptedPeer::Connection& connection) {
            VideoSender().run(connection, 20);
            connection.close();
        };
        ScriptedPeer peer(camera.script());
        Loop loop;
        RecordingLogger log;
        auto client = RTSPClient::create(*loop.io, &log);
        bool done = false;
        int after = 0;
        const auto end = [&](const std::string& here) {
            if (done)
                ++after;
            if (here != place || done)
                return;
            done = true;
            std::exchange(client, nullptr)->teardown();  // the last reference
        };
        client->setClosedHandler([&](const error_code&) { end("closed"); });
        client->initialize(addressOf(peer), "/media/video1", [&](const error_code&) {
            end("session");
            if (client == nullptr)
                return;
            client->performDefaultSteps(
                {},
                [&](const error_code&, const SessionDescription& description) {
                    client->addTrack({description.tracks[0], [&](const GDRV::MediaFrame&) { end("frame"); }});
                    end("sdp");
                },
                [&](const error_code&) { end("play"); });
        });
        ASSERT_TRUE(loop.runUntil([&] { return done; }));
        loop.timing().teardownTimeout = milliseconds(10);
        loop.io->restart();
        loop.io->run();  // until nothing is left: the client keeps nothing going
        EXPECT_EQ(after, 0) << "nothing is told after the teardown";
    }
}

TEST(RTSPClient, mayOutliveItsContext)
{
    for (const char* stopAt : {"OPTIONS", "DESCRIBE", "SETUP", "PLAY", "never"}) {
        SCOPED_TRACE(stopAt);
        Camera camera = cameraWith();
        camera.intercept = [stopAt](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
            return request.method == stopAt;
        };
        camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender().run(connection, 3); };
        ScriptedPeer peer(camera.script());
        Loop loop;
        Player player(loop);
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil(
            [&] { return std::string(stopAt) == "never" ? player.video.size() == 3 : peer.count(stopAt) == 1; }));
        loop.io.reset();
        EXPECT_FALSE(player.closed);
    }
}

TEST(RTSPClient, letsItsContextRunOutOfWorkAfterTeardown)
{
    ScriptedPeer peer(cameraWith().script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying(); }));
    player.client->teardown();
    loop.io->restart();
    EXPECT_GT(loop.io->run_for(std::chrono::seconds(10)), 0U);
    EXPECT_TRUE(loop.io->stopped());
}

TEST(RTSPClient, takesItsSettingsFromParameters)
{
    Loop loop;
    RecordingLogger log;
    const auto client = RTSPClient::create(*loop.io, &log);
    ParametersContainer parameters;
    parameters.setPersistentParam("transport", std::string("tcp"));
    parameters.setPersistentParam("stallTimeout", 7);
    parameters.setPersistentParam("lossPolicy", std::string("Flag"));
    initializeRTSPClientFromParams(*client, parameters);
    EXPECT_EQ(readVideoSinkParams(parameters, &log).lossHandling, LossHandling::flag);
    EXPECT_EQ(log.text(), "");
}

TEST(RTSPClient, leavesSettingsAloneThatCannotBeUsed)
{
    Loop loop;
    RecordingLogger log;
    const auto client = RTSPClient::create(*loop.io, &log);
    ParametersContainer parameters;
    parameters.setPersistentParam("transport", std::string("pigeon"));
    parameters.setPersistentParam("stallTimeout", std::string("soon"));
    parameters.setPersistentParam("lossPolicy", 3);
    initializeRTSPClientFromParams(*client, parameters);
    EXPECT_EQ(readVideoSinkParams(parameters, &log).lossHandling, LossHandling::dropUntilKeyFrame);
    for (const char* key : {"transport", "stallTimeout", "lossPolicy"})
        EXPECT_THAT(log.text(), HasSubstr(key));
}

TEST(RTSPClient, stallsAfterTheParameterSays)
{
    ScriptedPeer peer(cameraWith(videoSdp).script());
    Loop loop;
    Player player(loop);
    ParametersContainer parameters;
    parameters.setPersistentParam("stallTimeout", std::string("0.05"));
    initializeRTSPClientFromParams(*player.client, parameters);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.closed.has_value(); }));
    EXPECT_EQ(player.closed, errorOf(ResultCode::timedOut));
}
}  // namespace
}  // namespace Tavro8::Utility

#include <utility>

#include "HostFakes.h"
#include "StreamFixture.h"

#include <IpUtil/GlobalService.h>
#include <IpUtil/Statistics.h>
#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// What happens to a stream in the years it is meant to live.
namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;
using testing::HasSubstr;

const char* const hevcSdp = "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n"
                            "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\na=control:track1\r\n";

/// Real parameter sets and a key picture of H.265, 1920x1080.
const std::vector<Bytes> hevcKeyFrame = {
    fromHex("40010c01ffff016000000300900000030000030078959809"),
    fromHex("420101016000000300900000030000030078a003c08010e596566924caf0168080000003008000000c84"),
    fromHex("4401c172b46240"), fromHex("2601af06b863ef3a7f3c00112233")};
const Bytes hevcPicture = fromHex("0201d0097e10bc3901020304");

bool sendHevc(ScriptedPeer::Connection& connection, PacketSender& sender)
{
    return sender.sendFrame(connection, hevcKeyFrame) && sender.sendFrame(connection, {hevcPicture}) &&
           sender.sendFrame(connection, {hevcPicture});
}

/// The description changes with the connection: the first one gets `first`, later ones `later`.
auto describing(const char* first, const char* later)
{
    return [first, later](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method != "DESCRIBE")
            return false;
        connection.reply(request, 200, {}, connection.number == 0 ? first : later);
        return true;
    };
}

/// A port of this machine on which nobody listens, as long as it lives.
class ClosedPort {
public:
    ClosedPort() : socket(io, boost::asio::ip::tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)) {}
    std::uint16_t number() const { return socket.local_endpoint().port(); }

private:
    boost::asio::io_context io;
    boost::asio::ip::tcp::socket socket;  // bound, not listening
};

/// `count` pictures, a key frame first, with the numbers that the sender has.
void sendFrames(ScriptedPeer::Connection& connection, PacketSender& sender, int count)
{
    sender.sendFrame(connection, {spsNal(), ppsNal(), idrNal()});
    for (int i = 1; i < count; ++i)
        sender.sendFrame(connection, {pictureNal()});
}
}  // namespace

// ---- silence --------------------------------------------------------------------------------------------------

TEST(StreamLife, picturesThatStandStillBesideSoundAreAskedForAgain)
{
    Camera camera = sendingCamera();
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        video.run(connection, 5);
        for (std::uint16_t i = 0; !connection.hasMore(); ++i) {
            if (connection.number != 0)
                video.sendPicture(connection);
            if (!connection.sendFrame(2, rtp(0, i, i * 160U, false, Bytes(160, 0x55), 0x99)))
                return;
            std::this_thread::yield();
        }
    };
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    const auto audio = fixture.add(MediaKind::audio);
    video->stallTimeout = audio->stallTimeout = milliseconds(800);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 3 && video->framesSinceState > 5; }))
        << fixture.log.text();
    EXPECT_EQ(video->states[1], errorOf(ResultCode::timedOut));
    EXPECT_FALSE(video->states[2]);
    EXPECT_EQ(fixture.peer.connectionCount(), 2U);
    EXPECT_THAT(fixture.log.text(), HasSubstr("no packet of the pictures has come"));
}

TEST(StreamLife, soundThatFallsSilentBesidePicturesEndsNothing)
{
    Camera camera = sendingCamera();
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        connection.sendFrame(2, rtp(0, 1, 160, false, Bytes(160, 0x55), 0x99));
        while (!connection.hasMore() && video.sendKeyFrame(connection))
            std::this_thread::yield();
    };
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    const auto audio = fixture.add(MediaKind::audio);
    video->stallTimeout = audio->stallTimeout = milliseconds(800);
    const std::string line = "no sound comes";
    ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.log.text().find(line) != std::string::npos; }));
    const std::size_t frames = video->frames;
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > frames + 20; }));
    const std::string text = fixture.log.text();
    EXPECT_EQ(text.find(line), text.rfind(line)) << "said once";
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
    EXPECT_EQ(audio->frames, 1U);
    EXPECT_EQ(audio->states.size(), 1U);
}

TEST(StreamLife, soundAloneIsAskedForAgainWhenItFallsSilent)
{
    Camera camera = sendingCamera();
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        connection.sendFrame(0, rtp(0, 1, 160, false, Bytes(160, 0x55), 0x99));
    };
    Fixture fixture(camera);
    const auto audio = fixture.add(MediaKind::audio);
    audio->stallTimeout = milliseconds(50);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return audio->frames == 2; })) << fixture.log.text();
    EXPECT_EQ(audio->states[1], errorOf(ResultCode::timedOut));
}

TEST(StreamLife, packetsWithoutFramesAreAskedForAgain)
{
    Camera camera = sendingCamera(videoSdp);
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        bool there = connection.number == 0 || video.sendKeyFrame(connection);
        while (there && !connection.hasMore()) {
            there = video.sendPicture(connection);
            std::this_thread::yield();
        }
    };
    Fixture fixture(camera);
    fixture.loop.timing().framelessLimit = milliseconds(50);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->framesSinceState > 5; })) << fixture.log.text();
    ASSERT_EQ(video->states.size(), 3U);
    EXPECT_EQ(video->states[1], errorOf(ResultCode::timedOut));
    EXPECT_EQ(fixture.peer.count("DESCRIBE"), 2U);
    EXPECT_EQ(fixture.log.count("no frame for too long"), 1U);
    EXPECT_TRUE(video->firstWasKeyFrame);
}

TEST(StreamLife, longWayToAKeyFrameIsNotCutShort)
{
    Camera camera = sendingCamera(videoSdp);
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        for (int i = 0; i < 1000; ++i)
            video.sendPicture(connection);
        video.sendKeyFrame(connection);
    };
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames == 1; })) << fixture.log.text();
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
}

// ---- another format -------------------------------------------------------------------------------------------

TEST(StreamLife, describesAgainWhenTheCodecChangesUnderItsPayloadType)
{
    const struct {
        const char* name;
        bool fromHevc;
    } cases[] = {{"H.264 to H.265", false}, {"H.265 to H.264", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Camera camera;
        camera.intercept = c.fromHevc ? describing(hevcSdp, videoSdp) : describing(videoSdp, hevcSdp);
        camera.afterPlay = [&c](ScriptedPeer::Connection& connection) {
            PacketSender sender;
            for (int i = 0; i < 3 && connection.number == 0; ++i) {
                if (c.fromHevc)
                    sendHevc(connection, sender);
                else
                    sendFrames(connection, sender, 3);
            }
            const auto sendChanged = [&] {
                if (!c.fromHevc)
                    return sendHevc(connection, sender);
                sendFrames(connection, sender, 3);
                return sender.sendFrame(connection, {pictureNal()});
            };
            while (sendChanged())
                std::this_thread::yield();
        };
        Fixture fixture(camera);
        fixture.loop.timing().firstRetry = std::chrono::hours(1);  // it is connected again at once
        fixture.makeStream();
        const auto video = fixture.add(MediaKind::video);
        ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 3 && video->framesSinceState > 5; }))
            << fixture.log.text();
        EXPECT_EQ(video->codec, c.fromHevc ? GDRV::MediaCodec::h264 : GDRV::MediaCodec::h265);
        EXPECT_EQ(video->states[1], errorOf(ResultCode::connectionLost));
        EXPECT_FALSE(video->states[2]);
        EXPECT_EQ(fixture.peer.connectionCount(), 2U);
        EXPECT_EQ(fixture.peer.count("DESCRIBE"), 2U);
        EXPECT_EQ(fixture.losses, 0) << "the device is as well as before";
        EXPECT_TRUE(video->timesInOrder);
        EXPECT_THAT(fixture.log.text(), HasSubstr("the format of the stream has changed"));
    }
}

/// Settings restart a stream before they are written, so that the new connection may still meet the old description.
TEST(StreamLife, formatThatComesBehindARestartIsDescribedAgain)
{
    Camera camera;
    camera.intercept = [](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method != "DESCRIBE")
            return false;
        connection.reply(request, 200, {}, connection.number < 2 ? videoSdp : hevcSdp);
        return true;
    };
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        for (int i = 0; i < 3 && connection.number == 1; ++i)
            sendFrames(connection, sender, 3);
        while (connection.number == 0                       ? sendFrames(connection, sender, 3),
               sender.sendFrame(connection, {pictureNal()}) : sendHevc(connection, sender))
            std::this_thread::yield();
    };
    Fixture fixture(camera);
    fixture.loop.timing().firstRetry = fixture.loop.timing().longestRetry = milliseconds(10);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    bool restarted = false;
    ASSERT_TRUE(fixture.loop.runUntil([&] {
        if (video->frames > 5 && !std::exchange(restarted, true))
            fixture.stream->restart();
        return video->codec == GDRV::MediaCodec::h265 && video->framesSinceState > 5;
    })) << fixture.log.text();
    EXPECT_EQ(fixture.peer.count("DESCRIBE"), 3U);
    EXPECT_EQ(fixture.losses, 0) << "the device is as well as before";
}

TEST(StreamLife, pacesADeviceWhoseDescriptionStaysWrong)
{
    Camera camera;
    camera.sdp = videoSdp;  // of H.264, and H.265 is all that it sends
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        while (sendHevc(connection, sender))
            std::this_thread::yield();
    };
    Fixture fixture(camera);
    fixture.keepPath = true;
    fixture.loop.timing().firstRetry = fixture.loop.timing().longestRetry = milliseconds(100);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.connectionCount() == 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(3 * 75));
    EXPECT_EQ(fixture.log.count("the format of the stream has changed"), 1U) << "said once";
    EXPECT_EQ(video->frames, 0U);
}

TEST(StreamLife, anotherResolutionNeedsNoNewConnection)
{
    const Bytes larger = fromHex("674d401feca02802dd80880000030008000003019078c18cb0");
    std::atomic<bool> enough{false};
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        sendFrames(connection, sender, 5);
        sender.sendFrame(connection, {larger, ppsNal(), idrNal()});
        while (!enough && sender.sendFrame(connection, {pictureNal()}))
            std::this_thread::yield();
    };
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->width == 1280 && video->frames > 50; }));
    enough = true;
    EXPECT_EQ(video->parameterSetChanges, 2);
    EXPECT_EQ(video->starts, 1);
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
}

// ---- device and sender begin anew -----------------------------------------------------------------------------

TEST(StreamLife, comesBackAfterTheDeviceHasRebooted)
{
    Camera camera = sendingCamera(videoSdp);
    std::atomic<bool> down{false};
    camera.afterPlay = [&down, send = camera.afterPlay](ScriptedPeer::Connection& connection) {
        if (connection.number > 0)
            return send(connection);
        PacketSender sender;
        sendFrames(connection, sender, 10);
        down = true;
        connection.close();
    };
    Fixture fixture(camera);
    fixture.keepPath = true;
    fixture.loop.timing().longestRetry = milliseconds(10);
    fixture.makeStream();
    const ClosedPort closed;
    const std::uint16_t open = fixture.info->port;
    const auto video = fixture.add(MediaKind::video);
    video->eachState = [&](const error_code& ec) {
        if (ec && down)
            fixture.info->port = closed.number();
    };
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() >= 60; })) << "goes on trying";
    EXPECT_EQ(video->states[1], errorOf(ResultCode::connectionLost));
    EXPECT_EQ(video->states[2], errorOf(ResultCode::deviceUnreachable));
    EXPECT_EQ(fixture.losses, 1);
    EXPECT_EQ(fixture.log.errorCount(), 3U) << fixture.log.text();  // lost, refused, and fifty more of these
    EXPECT_THAT(fixture.log.text(), HasSubstr("[collapsed 50]"));
    const std::size_t before = video->frames;
    EXPECT_EQ(before, 10U);

    down = false;
    fixture.info->port = open;
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->framesSinceState > 10; }));
    EXPECT_FALSE(video->states.back());
    EXPECT_TRUE(video->timesInOrder);
    EXPECT_EQ(fixture.stream->counters(*video).frames, video->frames) << "counted on over connections";
    EXPECT_EQ(fixture.stream->counters(*video).lostPackets, 0U) << "nobody has sent what was not there";
}

TEST(StreamLife, farewellOfTheOldSourceAtARestartIsNoEnd)
{
    std::atomic<bool> enough{false};
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        sendFrames(connection, sender, 5);
        const Bytes bye = interleaved(1, byePacket(sender.source));
        sender = {.sequence = 60000, .timestamp = 0xF0000000, .source = 0xBEEF};
        const Bytes next =
            interleaved(0, rtp(96, sender.sequence++, sender.timestamp, true, pictureNal(), sender.source));
        std::string both(bye.begin(), bye.end());
        connection.write(both.append(next.begin(), next.end()));
        sendFrames(connection, sender, 5);
        while (!enough && sender.sendFrame(connection, {pictureNal()}))
            std::this_thread::sleep_for(milliseconds(1));  // paces the sender, nothing waits for it
    };
    Fixture fixture(camera);
    fixture.loop.timing().silenceAfterBye = milliseconds(300);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(fixture.loop.runUntil(
        [&] { return video->frames > 20 && std::chrono::steady_clock::now() - begin > milliseconds(600); }));
    enough = true;
    EXPECT_EQ(video->states, std::vector<error_code>{error_code{}}) << fixture.log.text();
    EXPECT_EQ(fixture.stream->counters(*video).lostPackets, 0U);
    EXPECT_TRUE(video->timesInOrder);
}

TEST(StreamLife, farewellAndSilenceConnectAgain)
{
    Camera camera = sendingCamera(videoSdp);
    camera.afterPlay = [send = camera.afterPlay](ScriptedPeer::Connection& connection) {
        if (connection.number > 0)
            return send(connection);
        PacketSender sender;
        sendFrames(connection, sender, 5);
        connection.sendFrame(1, byePacket(sender.source));
    };
    Fixture fixture(camera);
    fixture.loop.timing().silenceAfterBye = milliseconds(20);
    fixture.loop.timing().firstRetry = std::chrono::hours(1);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 3 && video->framesSinceState > 5; }));
    EXPECT_EQ(video->states[1], errorOf(ResultCode::connectionLost));
    EXPECT_THAT(fixture.log.text(), HasSubstr("the device has ended the stream"));
}

TEST(StreamLife, lastFrameWithoutAMarkerIsHandedOutAtAFarewell)
{
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        if (connection.number > 0)
            return;
        VideoSender sender;
        for (int frame = 0; frame < 2; ++frame) {
            for (Bytes packet : sender.keyFrameRtp()) {
                packet[1] &= 0x7F;
                connection.sendFrame(0, packet);
            }
        }
        connection.sendFrame(1, byePacket(PacketSender().source));
    };
    Fixture fixture(camera);
    fixture.loop.timing().silenceAfterBye = milliseconds(20);
    fixture.loop.timing().firstRetry = std::chrono::hours(1);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() >= 2; }));
    EXPECT_EQ(video->states[1], errorOf(ResultCode::connectionLost));
    EXPECT_EQ(video->frames, 2U);
    EXPECT_EQ(fixture.stream->counters(*video).keyFrames, 2U);
}

TEST(StreamLife, timesGoOnOverConnectionsWhoseClocksDiffer)
{
    // The first connection is timed two hours ahead by its sender report, the next ones have none.
    const auto now =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
    const std::uint64_t ntp = static_cast<std::uint64_t>(now.count() + 2 * 3600 + 2'208'988'800) << 32;
    Camera camera = sendingCamera(videoSdp);
    camera.afterPlay = [ntp, send = camera.afterPlay](ScriptedPeer::Connection& connection) {
        if (connection.number > 0)
            return send(connection);
        PacketSender sender;
        connection.sendFrame(1, senderReport(sender.source, ntp, sender.timestamp));
        sendFrames(connection, sender, 5);
        connection.close();
    };
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 3 && video->framesSinceState > 5; }));
    EXPECT_TRUE(video->timesInOrder);
    EXPECT_NEAR(static_cast<double>(video->lastTimestampMs), static_cast<double>((now.count() + 2 * 3600) * 1000),
                30'000)
        << "the device's clock is known from before";
}

// ---- statistics -----------------------------------------------------------------------------------------------

TEST(StreamLife, statisticsGoOnOverConnections)
{
    // Each of the first two connections loses three packets and sends one that cannot be read.
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        sendFrames(connection, sender, 10);
        if (connection.number > 1)
            return;
        sender.sequence = static_cast<std::uint16_t>(sender.sequence + 3);
        sendFrames(connection, sender, 10);
        connection.sendFrame(0, fromHex("00 01 02"));
        connection.close();
    };
    Fixture fixture(camera);
    kelvo::test::ChannelHandler host;
    StatisticReporter reporter(&fixture.log, &host, nullptr, *fixture.loop.io, milliseconds(5));
    ConnectsStatistic connects(
        [&](const std::string& name, const std::string& value) { reporter.updateStatistic(name, value); });
    const auto video = std::make_shared<Receiver>(MediaKind::video);
    video->eachStart = [&] { connects.onConnectionStart(); };
    reporter.start(std::make_shared<HandlerGate>(), [&] { return fixture.stream->counters(*video); });
    fixture.stream->regReceiver(video);
    const auto last = [&] { return host.statistics(); };
    ASSERT_TRUE(fixture.loop.runUntil([&] { return last().frames >= 50 && last().framesPerSecond == 0; }))
        << fixture.log.text();
    EXPECT_EQ(last().frames, 50U);
    EXPECT_EQ(last().frames, video->frames);
    EXPECT_EQ(last().keyFrames, 5U);
    EXPECT_EQ(last().lostPackets, 6U);
    EXPECT_EQ(last().malformedPackets, 2U);
    EXPECT_EQ(last().connects, 3U);
    EXPECT_EQ(last().reconnects, 2U);
    EXPECT_EQ(last().bitsPerSecond, 0U) << "nothing in the last interval";
    EXPECT_EQ(connects.getConnects(), 3U);
}

// ---- what is left over ----------------------------------------------------------------------------------------

TEST(StreamLife, picturesThatNobodyTakesAnyMoreAreGivenUp)
{
    Camera camera = sendingCamera();
    camera.afterPlay = [send = camera.afterPlay](ScriptedPeer::Connection& connection) {
        if (connection.number == 0)
            return send(connection);
        PacketSender sound{.channel = 0, .payloadType = 0};
        while (sound.sendFrame(connection, {Bytes(160, 0x55)}, 160) && !connection.hasMore())
            std::this_thread::yield();
    };
    Fixture fixture(camera);
    fixture.loop.timing().leftoverLimit = milliseconds(20);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    const auto audio = fixture.add(MediaKind::audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5 && audio->frames > 1; }));
    ASSERT_TRUE(fixture.remove(video));
    ASSERT_TRUE(fixture.loop.runUntil([&] { return audio->states.size() == 2 && audio->framesSinceState > 1; }));
    EXPECT_EQ(fixture.peer.count("SETUP"), 3U) << "both, then the sound alone";
    EXPECT_EQ(audio->states, std::vector<error_code>(2)) << "no failure";
    EXPECT_EQ(fixture.losses, 0);
}

TEST(StreamLife, picturesThatAreTakenUpAgainSoonGoOn)
{
    Fixture fixture(sendingCamera());
    fixture.loop.timing().leftoverLimit = milliseconds(500);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    const auto audio = fixture.add(MediaKind::audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5 && audio->frames > 1; }));
    ASSERT_TRUE(fixture.remove(video));
    const auto again = fixture.add(MediaKind::video);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(fixture.loop.runUntil(
        [&] { return again->frames > 5 && std::chrono::steady_clock::now() - begin > milliseconds(800); }));
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
}

// ---- the log --------------------------------------------------------------------------------------------------

TEST(StreamLife, rubbishForALongTimeIsOneLineOfEachKind)
{
    // Stray bytes between frames, packets that are no RTP or break the payload format, and then the end; again and
    // again.
    constexpr std::size_t connections = 20;
    std::atomic<bool> enough{false};
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
        PacketSender sender;
        for (int i = 0; i < 20; ++i) {
            sendFrames(connection, sender, 2);
            connection.write(Bytes(200, 0x11));
            sendFrames(connection, sender, 2);
            connection.sendFrame(0, fromHex("00 01 02"));
            sender.sendFrame(connection, {fromHex("78 ff ff 00")});  // an aggregate that is too short
        }
        if (!enough)
            connection.write(std::string(70000, 'x'));
    };
    Fixture fixture(camera);
    fixture.keepPath = true;
    fixture.loop.timing().firstRetry = fixture.loop.timing().longestRetry = milliseconds(2);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.connectionCount() >= connections; }));
    enough = true;
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->framesSinceState > 30; }));
    // Told at a tick, which the short connections may all have missed; the last one lasts.
    ASSERT_TRUE(fixture.loop.runUntil([&] {
        return fixture.log.count("bytes that belong to no packet are skipped") != 0 &&
               fixture.log.count("packets that cannot be read are dropped") != 0;
    }));
    EXPECT_EQ(fixture.log.count("bytes that belong to no packet are skipped"), 1U);
    EXPECT_EQ(fixture.log.count("packets that cannot be read are dropped (shorter than an RTP header)"), 1U);
    std::size_t lines = 0;
    for (const auto& line : fixture.log.lines())
        lines += line.severity >= LogSeverity::warning ? 1 : 0;
    EXPECT_GE(lines, 3U);
    EXPECT_LE(lines, 6U) << fixture.log.text();
    EXPECT_GT(video->frames, connections * 20) << "what is good between the rubbish is received";
}

TEST(StreamLife, failureAfterAHealthyTimeIsLoggedAgain)
{
    for (const bool healthy : {false, true}) {
        SCOPED_TRACE(healthy);
        std::atomic<bool> go{false};
        Camera camera;
        camera.sdp = videoSdp;
        camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
            PacketSender sender;
            sendFrames(connection, sender, 5);
            while (!go && sender.sendFrame(connection, {pictureNal()}))
                std::this_thread::yield();
            go = false;
            connection.close();
        };
        Fixture fixture(camera);
        fixture.keepPath = true;
        fixture.loop.timing().healthyLife = healthy ? milliseconds(20) : milliseconds(60000);
        fixture.makeStream();
        const auto video = fixture.add(MediaKind::video);
        for (std::size_t round = 1; round <= 3; ++round) {
            ASSERT_TRUE(fixture.loop.runUntil([&] { return video->framesSinceState > 5; }));
            const auto begin = std::chrono::steady_clock::now();
            ASSERT_TRUE(
                fixture.loop.runUntil([&] { return std::chrono::steady_clock::now() - begin > milliseconds(100); }));
            go = true;
            ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 2 * round + 1; }));
        }
        EXPECT_EQ(fixture.log.count("the device closed the connection"), healthy ? 3U : 1U);
    }
}
}  // namespace Tavro8::Utility

#include <utility>

#include "StreamFixture.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

// Devices that send what nobody should. Whatever it is, the stream goes on at the next good frame, or fails with a
// reason and comes back; memory stays bounded and the log short.
namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;
using testing::HasSubstr;

Bytes text(const std::string& characters)
{
    return {characters.begin(), characters.end()};
}

Bytes repeated(std::size_t times, const Bytes& bytes)
{
    Bytes all;
    all.reserve(times * bytes.size());
    for (std::size_t i = 0; i < times; ++i)
        all.insert(all.end(), bytes.begin(), bytes.end());
    return all;
}

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes randomBytes(std::size_t count, unsigned seed)
{
    std::mt19937 random(seed);
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(random());
    return bytes;
}

const Bytes goodKeyFrame = annexB({spsNal(), ppsNal(), idrNal(333)});

/// The key frame that tells that the stream has found its way back.
bool sendGoodKeyFrame(ScriptedPeer::Connection& connection, PacketSender& sender)
{
    return sender.sendFrame(connection, {spsNal(), ppsNal(), idrNal(333)});
}

/// Warnings and errors, which an operator reads.
std::size_t seriousLines(const RecordingLogger& log)
{
    std::size_t count = 0;
    for (const auto& line : log.lines())
        count += line.severity >= LogSeverity::warning ? 1 : 0;
    return count;
}
}  // namespace

// ---- answers --------------------------------------------------------------------------------------------------

/// The first connection gets these bytes instead of an answer, the next ones are served well.
TEST(HostileServer, isLeftAndAskedAgainAfterABrokenAnswer)
{
    const std::string ok = "RTSP/1.0 200 OK\r\nCSeq: %\r\n";
    std::string manyHeaders = ok;
    for (int i = 0; i < 10'000; ++i)
        manyHeaders += "X" + std::to_string(i) + ": y\r\n";
    std::string manySections = "v=0\r\n";
    for (int i = 0; i < 10'000; ++i)
        manySections += "m=video 0 RTP/AVP 96\r\n";
    const auto withBody = [&](const std::string& body) {
        return ok + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    };
    const struct {
        const char* name;
        std::string bytes;
        bool closes;
        ResultCode expected;
    } cases[] = {
        {"half a status line", "RTSP/1.", true, ResultCode::connectionLost},
        {"half a head", ok + "Content-Le", true, ResultCode::connectionLost},
        {"half a body", ok + "Content-Length: 500\r\n\r\nv=0\r\ns=", true, ResultCode::connectionLost},
        {"a body shorter than stated", ok + "Content-Length: 500\r\n\r\nv=0\r\ns=", false, ResultCode::timedOut},
        {"a huge body", ok + "Content-Length: 4294967295\r\n\r\n", false, ResultCode::malformedResponse},
        {"a length beyond all numbers", ok + "Content-Length: 99999999999999999999999\r\n\r\n", false,
         ResultCode::malformedResponse},
        {"a negative length", ok + "Content-Length: -1\r\n\r\n", false, ResultCode::malformedResponse},
        {"two lengths", ok + "Content-Length: 5\r\nContent-Length: 50\r\n\r\n", false, ResultCode::malformedResponse},
        {"ten thousand headers", manyHeaders + "\r\n", false, ResultCode::malformedResponse},
        {"an endless header line", ok + "X: " + std::string(100'000, 'y'), false, ResultCode::malformedResponse},
        {"an endless status line", "RTSP/1.0 200 " + std::string(100'000, 'y'), false, ResultCode::malformedResponse},
        {"a status of four digits", "RTSP/1.0 2000 OK\r\nCSeq: %\r\n\r\n", false, ResultCode::malformedResponse},
        {"another protocol", "HTTP/1.1 200 OK\r\nCSeq: %\r\n\r\n", false, ResultCode::malformedResponse},
        {"zeros", std::string(100'000, '\0'), false, ResultCode::malformedResponse},
        {"a number that was not asked", "RTSP/1.0 200 OK\r\nCSeq: 4711\r\n\r\n", false, ResultCode::timedOut},
        {"a number that is none", "RTSP/1.0 200 OK\r\nCSeq: four\r\n\r\n", false, ResultCode::timedOut},
        {"promises without end",
         [] {
             std::string all;
             for (int i = 0; i < 2000; ++i)
                 all += "RTSP/1.0 100 Continue\r\nCSeq: %\r\n\r\n";
             return all;
         }(),
         false, ResultCode::timedOut},
        {"no description", withBody("<html>404</html>"), false, ResultCode::malformedReply},
        {"a description of a mebibyte", withBody("v=0\r\n" + std::string(1024 * 1024 - 5, 'v')), false,
         ResultCode::malformedResponse},
        {"ten thousand sections", withBody(manySections), false, ResultCode::malformedReply},
        {"a description of nothing", ok + "\r\n", false, ResultCode::malformedReply},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Camera camera = sendingCamera(videoSdp);
        camera.intercept = [&c](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            if (request.method != "DESCRIBE" || connection.number != 0)
                return false;
            std::string bytes = c.bytes;
            for (std::size_t at = bytes.find('%'); at != std::string::npos; at = bytes.find('%', at))
                bytes.replace(at, 1, request.headers.at("cseq"));
            connection.write(bytes);
            if (c.closes)
                connection.close();
            return true;
        };
        Fixture fixture(camera);
        if (c.expected == ResultCode::timedOut)
            fixture.loop.timing().requestTimeout = milliseconds(200);
        fixture.makeStream();
        const auto video = fixture.add(MediaKind::video);
        ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; })) << fixture.log.text();
        ASSERT_GE(video->states.size(), 2U);
        EXPECT_EQ(video->states[0], errorOf(c.expected)) << video->states[0].message();
        EXPECT_FALSE(video->states.back());
        EXPECT_EQ(fixture.log.errorCount(), video->states.size() - 1) << fixture.log.text();
        for (const auto& line : fixture.log.lines())
            EXPECT_LT(line.message.size(), 400U) << "evidence is short";
    }
}

TEST(HostileServer, oddAnswersThatSayEnoughAreTaken)
{
    const struct {
        const char* name;
        const char* method;
        std::function<std::string(const ScriptedPeer::Request&, const std::string& body)> answer;
    } cases[] = {
        {"no number", "DESCRIBE",
         [](const auto&, const std::string& body) {
             return "RTSP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
         }},
        {"a thousand answers to nothing first", "DESCRIBE",
         [](const auto& request, const std::string& body) {
             std::string all;
             for (int i = 0; i < 1000; ++i)
                 all += "RTSP/1.0 200 OK\r\nCSeq: " + std::to_string(5000 + i) + "\r\n\r\n";
             return all + "RTSP/1.0 200 OK\r\nCSeq: " + request.headers.at("cseq") +
                    "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
         }},
        {"a flood of attributes", "DESCRIBE",
         [](const auto& request, const std::string& body) {
             std::string flood = body;
             for (int i = 0; i < 8000; ++i)
                 flood += "a=x" + std::to_string(i) + ":fmtp;;=\r\n";
             return "RTSP/1.0 200 OK\r\nCSeq: " + request.headers.at("cseq") +
                    "\r\nContent-Length: " + std::to_string(flood.size()) + "\r\n\r\n" + flood;
         }},
        {"channels that cannot be", "SETUP",
         [](const auto& request, const std::string&) {
             return "RTSP/1.0 200 OK\r\nCSeq: " + request.headers.at("cseq") +
                    "\r\nSession: 88;timeout=99999999999\r\nTransport: "
                    "RTP/AVP/TCP;interleaved=300-400;;=;ssrc=zz\r\n\r\n";
         }},
        {"a session of sixteen thousand characters", "SETUP",
         [](const auto& request, const std::string&) {
             return "RTSP/1.0 200 OK\r\nCSeq: " + request.headers.at("cseq") +
                    "\r\nSession: " + std::string(16'000, 's') + "\r\nTransport: RTP/AVP/TCP;interleaved=0-1\r\n\r\n";
         }},
        {"PLAY answered twice", "PLAY",
         [](const auto& request, const std::string&) {
             const std::string once = "RTSP/1.0 200 OK\r\nCSeq: " + request.headers.at("cseq") +
                                      "\r\nRTP-Info: ,;url=;seq=x;rtptime=-1,,url\r\n\r\n";
             return once + once + once;
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::atomic<bool> enough{false};
        Camera camera;
        camera.sdp = videoSdp;
        camera.intercept = [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            if (request.method != c.method)
                return false;
            connection.write(c.answer(request, videoSdp));
            if (request.method == "PLAY") {
                PacketSender sender;
                while (!enough && sendGoodKeyFrame(connection, sender))
                    std::this_thread::yield();
            }
            return true;
        };
        camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
            PacketSender sender;
            while (!enough && sendGoodKeyFrame(connection, sender))
                std::this_thread::yield();
        };
        Fixture fixture(camera);
        const auto video = fixture.add(MediaKind::video);
        EXPECT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; })) << fixture.log.text();
        EXPECT_EQ(video->states, std::vector<error_code>{error_code{}});
        EXPECT_EQ(fixture.peer.connectionCount(), 1U);
        enough = true;
    }
}

TEST(HostileServer, questionsWithoutEndAreNotAnsweredWithoutBound)
{
    // Each answer repeats the session, and the device reads none of them.
    constexpr std::size_t questions = 1000;
    const std::string question = "OPTIONS * RTSP/1.0\r\nCSeq: 7\r\nSession: " + std::string(20'000, 's') + "\r\n\r\n";
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
        for (std::size_t i = 0; i < questions; ++i)
            connection.write(question);
        PacketSender sender;
        sendGoodKeyFrame(connection, sender);
    };
    Fixture fixture(camera);
    const auto video = std::make_shared<Receiver>(MediaKind::video);
    video->stallTimeout = milliseconds(0);
    fixture.stream->regReceiver(video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames == 1; })) << fixture.log.text();
    ASSERT_TRUE(fixture.remove(video));
    ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.count("TEARDOWN") == 1; }));
    EXPECT_GT(fixture.peer.count("RTSP/1.0"), 0U) << "answers";
    EXPECT_LT(fixture.peer.count("RTSP/1.0"), questions);
}

// ---- media ----------------------------------------------------------------------------------------------------

/// These bytes come between good frames: the next good frame is received whole, on the same connection.
TEST(HostileServer, rubbishBetweenFramesIsSurvivedOnTheSameConnection)
{
    const Bytes zeroLength = fromHex("24000000 24010000 24050000 24ff0000");
    Bytes tooShort;
    for (std::uint8_t length = 1; length < 12; ++length)
        tooShort = tooShort + interleaved(0, Bytes(length, 0x80)) + interleaved(1, Bytes(length, 0x80));
    const Bytes largest = Bytes(65535, 0x80);
    const std::pair<const char*, Bytes> cases[] = {
        {"nothing", {}},
        {"empty frames", zeroLength},
        {"ten thousand empty frames", repeated(2500, zeroLength)},
        {"frames too short for a header", tooShort},
        {"the longest frames, for each kind of channel",
         interleaved(0, largest) + interleaved(1, largest) + interleaved(99, largest)},
        {"the longest frame of a foreign type", interleaved(0, fromHex("80330001") + Bytes(65531, 0x24))},
        {"a frame that claims more than it has", fromHex("24 00 ea 60") + Bytes(100, 0x80)},
        {"a frame of a channel nobody knows that claims more than it has", fromHex("24 21 ff ff 80 60 00 00")},
        {"a few stray bytes", fromHex("00 01 02 03")},
        {"a few thousand stray bytes", randomBytes(5000, 1)},
        {"many stray bytes", randomBytes(50'000, 2)},
        {"many marks", Bytes(20'000, '$')},
        {"version 0 and 1 and 3",
         interleaved(0, Bytes(40, 0x00)) + interleaved(0, Bytes(40, 0x40)) + interleaved(0, Bytes(40, 0xC0))},
        {"fifteen contributors that are not there", interleaved(0, fromHex("8f60 0064 00000000 11223344"))},
        {"an extension beyond the packet", interleaved(0, fromHex("9060 0064 00000000 11223344 bede ffff 00000000"))},
        {"padding beyond the packet", interleaved(0, fromHex("a060 0064 00000000 11223344 000000ff"))},
        {"padding of nothing", interleaved(0, fromHex("a060 0064 00000000 11223344 00000000"))},
        {"answers to nothing", text("RTSP/1.0 200 OK\r\nCSeq: 4711\r\n\r\n"
                                    "RTSP/1.0 401 Unauthorized\r\nCSeq: 4712\r\n\r\nRTSP/1.0 500 No\r\n\r\n")},
        {"a thousand answers to nothing", repeated(1000, text("RTSP/1.0 454 Gone\r\nCSeq: 1\r\n\r\n"))},
        {"questions of many kinds",
         text("OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\nANNOUNCE rtsp://h/ RTSP/1.0\r\nCSeq: 2\r\n"
              "Content-Length: 5\r\n\r\nv=0\r\nREDIRECT rtsp://h/ RTSP/1.0\r\nCSeq: 3\r\n"
              "Location: rtsp://192.0.2.99/\r\n\r\nTEARDOWN rtsp://h/ RTSP/1.0\r\nCSeq: 4\r\n\r\n"
              "X_Y z RTSP/1.0\r\n\r\n")},
        {"a report with blocks that are not there",
         interleaved(1, fromHex("9fc80006 11223344 00000000 00000000 00000000 00000000 00000000"))},
        {"reports that claim more than they have",
         interleaved(1, fromHex("80c8ffff 11223344")) + interleaved(1, fromHex("81c9ffff 11223344"))},
        {"a report without a body", interleaved(1, fromHex("80c80000"))},
        {"ten thousand packets of no length", interleaved(1, repeated(10'000, fromHex("80c80000")))},
        {"farewells of thirty-one that are not there", interleaved(1, fromHex("9fcb0000"))},
        {"a farewell with an endless reason", interleaved(1, fromHex("81cb0002 11223344 ff414141"))},
        {"names without end", interleaved(1, fromHex("9fca0002 11223344 01ff4141"))},
        {"padding of more than the packet", interleaved(1, fromHex("a0c90001 112233ff"))},
        {"random reports", interleaved(1, randomBytes(3000, 3))},
        {"a time of day that cannot be",
         interleaved(1, fromHex("80c80006 11223344 ffffffff ffffffff ffffffff ffffffff ffffffff"))},
    };
    for (const auto& [name, rubbish] : cases) {
        SCOPED_TRACE(name);
        Camera camera;
        camera.sdp = videoSdp;
        camera.afterPlay = [&rubbish](ScriptedPeer::Connection& connection) {
            PacketSender sender;
            sendGoodKeyFrame(connection, sender);
            for (int i = 0; i < 3; ++i) {
                connection.write(rubbish);
                // Whoever has lost count of a frame takes the next ones for the rest of it.
                for (int frame = 0; frame < 300; ++frame)
                    sendGoodKeyFrame(connection, sender);
            }
            connection.sendFrame(0, rtp(96, sender.sequence, sender.timestamp, true, Bytes{0x41, 0x9A, 0x3C, 0x77}));
        };
        Fixture fixture(camera);
        const auto video = fixture.add(MediaKind::video);
        ASSERT_TRUE(fixture.loop.runUntil([&] {
            return video->data == annexB({Bytes{0x41, 0x9A, 0x3C, 0x77}});
        })) << video->frames
            << ' ' << fixture.log.text();
        EXPECT_GE(video->frames, 3 * 100U);
        EXPECT_EQ(video->states, std::vector<error_code>{error_code{}});
        EXPECT_EQ(fixture.peer.connectionCount(), 1U);
        EXPECT_TRUE(video->timesInOrder);
        EXPECT_LE(seriousLines(fixture.log), 2U) << fixture.log.text();
    }
}

TEST(HostileServer, frameWithoutEndIsGivenUpAndItsMemoryReturns)
{
    const struct {
        const char* name;
        std::function<Bytes(bool first)> payload;
    } cases[] = {
        {"fragments without end",
         [](bool first) {
             return Bytes{0x7c, static_cast<std::uint8_t>(first ? 0x85 : 0x05)} + Bytes(65'000, 0x5A);
         }},
        {"slices without marker",
         [](bool first) {
             return first ? idrNal(65'000) : Bytes{0x65, 0x04, 0x84} + Bytes(65'000, 0x5A);
         }},
        {"words in front of a picture that never comes", [](bool) { return Bytes{0x06} + Bytes(65'000, 0x5A); }},
    };
    constexpr std::size_t limit = std::size_t{8} * 1024 * 1024;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::atomic<bool> enough{false};
        Camera camera;
        camera.sdp = videoSdp;
        camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
            PacketSender sender;
            sendGoodKeyFrame(connection, sender);
            for (int i = 0; i < 200; ++i)  // 13 MB
                sender.send(connection, c.payload(i == 0), false);
            sender.timestamp += 3600;
            while (!enough && sendGoodKeyFrame(connection, sender))
                std::this_thread::yield();
        };
        Fixture fixture(camera);
        const auto& pool = *StreamContext::of(*fixture.loop.io).framePool();
        std::size_t most = 0;
        const auto video = fixture.add(MediaKind::video);
        ASSERT_TRUE(fixture.loop.runUntil([&] {
            most = std::max(most, pool.usage().bytesOut);
            return video->frames > 10;
        })) << fixture.log.text();
        EXPECT_EQ(video->data, goodKeyFrame);
        EXPECT_LE(most, limit * 3 / 2);
        EXPECT_GT(most, limit / 4) << "it was gathered up to the limit";
        EXPECT_LE(pool.usage().bytesOut + pool.usage().bytesCached, limit) << "giants are not kept";
        EXPECT_EQ(video->states, std::vector<error_code>{error_code{}});
        enough = true;
    }
}

TEST(HostileServer, noiseOfAllKindsNeverStopsAStreamForGood)
{
    // Good frames, damaged ones and noise by chance. Whenever the connection has to be given up it is made anew.
    std::atomic<bool> calm{false};
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [&](ScriptedPeer::Connection& connection) {
        std::mt19937 random(static_cast<unsigned>(connection.number));
        PacketSender sender;
        bool there = true;
        while (there && !connection.hasMore()) {
            there = sendGoodKeyFrame(connection, sender);
            if (calm)
                continue;
            Bytes noise = randomBytes(random() % 3000, static_cast<unsigned>(random()));
            switch (random() % 5) {
            case 0:
                break;
            case 1:
                noise = interleaved(0, noise);
                break;
            case 2:
                noise = interleaved(1, fromHex("81c80006") + noise);
                break;
            case 3:
                noise = interleaved(0, rtp(96, static_cast<std::uint16_t>(random()),
                                           static_cast<std::uint32_t>(random()), random() % 2 == 0, noise));
                break;
            default:
                noise = text("RTSP/1.0 ") + noise;
                break;
            }
            there = there && connection.write(noise);
        }
    };
    Fixture fixture(camera);
    fixture.keepPath = true;
    fixture.loop.timing().firstRetry = fixture.loop.timing().longestRetry = milliseconds(1);
    fixture.loop.timing().requestTimeout = milliseconds(100);
    fixture.makeStream();
    const auto video = std::make_shared<Receiver>(MediaKind::video);
    video->stallTimeout = milliseconds(200);
    fixture.stream->regReceiver(video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 600; })) << video->frames;
    calm = true;
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->framesSinceState > 200; })) << fixture.log.text();
    EXPECT_EQ(video->data, goodKeyFrame);
    EXPECT_TRUE(video->timesInOrder);
    const auto& pool = *StreamContext::of(*fixture.loop.io).framePool();
    EXPECT_LE(pool.usage().bytesOut + pool.usage().bytesCached, std::size_t{1024} * 1024);
    EXPECT_LE(seriousLines(fixture.log), 30U) << fixture.log.text();
}
}  // namespace Tavro8::Utility

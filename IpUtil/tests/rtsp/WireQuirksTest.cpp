#include <utility>

#include "Player.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// What cameras of the field put on the wire, byte for byte, and what the driver gets of it. The page that lists these
// quirks names the tests of this file.
namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr std::uint32_t videoSource = 0x11223344;

// Real encoders': 352x288 and another one of 1024x256 and more, with the same numbers of the sets.
const Bytes sps = fromHex("6742c00dd9016096c044000003000400000300c83c50a920");
const Bytes otherSps = fromHex("674d401feca02802dd80880000030008000003019078c18cb0");
const Bytes pps = fromHex("68cb83cb20");
const Bytes sei = fromHex("060504 01020304 80");
const Bytes delimiter = fromHex("09f0");
const Bytes keySlice = fromHex("65888400 21fffef7 c91a2b3c 4d5e6f70");
const Bytes laterKeySlice = fromHex("65046222 10070011 22334455");
const Bytes slice = fromHex("419a246c 43fffee1 02030405 0607");

Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes aggregate(const std::vector<Bytes>& nals)
{
    Bytes payload{0x78};  // STAP-A, RFC 6184 section 5.7.1
    for (const Bytes& nal : nals)
        payload = payload + Bytes{0, static_cast<std::uint8_t>(nal.size())} + nal;
    return payload;
}

/// A camera with this description that sends so once it plays.
struct Stage {
    Stage(const std::string& sdp, std::function<void(ScriptedPeer::Connection&)> afterPlay)
        : Stage(cameraWith(sdp, std::move(afterPlay)))
    {}
    /// `adjust` changes waiting times before the client takes them over.
    explicit Stage(const Camera& camera, const std::function<void(StreamTiming&)>& adjust = {})
        : peer(camera.script()), player(adjusted(adjust))
    {}

    static Camera cameraWith(const std::string& sdp, std::function<void(ScriptedPeer::Connection&)> afterPlay)
    {
        Camera camera;
        camera.sdp = sdp;
        camera.afterPlay = std::move(afterPlay);
        return camera;
    }

    bool playUntilFrames(std::size_t count)
    {
        player.start(addressOf(peer));
        return loop.runUntil([&] { return player.frames.size() >= count || player.failure(); }) &&
               player.frames.size() >= count;
    }

    /// URIs of the requests of one kind.
    std::vector<std::string> uris(const std::string& method) const
    {
        std::vector<std::string> found;
        for (const auto& request : peer.requests()) {
            if (request.method == method)
                found.push_back(request.uri);
        }
        return found;
    }
    std::string base() const { return "rtsp://127.0.0.1:" + std::to_string(peer.port()); }

    ScriptedPeer peer;
    Loop loop;
    Player player;

private:
    Loop& adjusted(const std::function<void(StreamTiming&)>& adjust)
    {
        if (adjust)
            adjust(loop.timing());
        return loop;
    }
};

const std::string plainHead = "v=0\r\no=- 1 1 IN IP4 192.0.2.9\r\ns=-\r\nt=0 0\r\n";
}  // namespace

// ---- session descriptions -------------------------------------------------------------------------------------

TEST(WireQuirks, descriptionWithoutAddressesTimesAndStaticRtpmapPlays)
{
    for (const char* connection : {"c=IN\r\n", "c=IN \r\n", ""}) {
        SCOPED_TRACE(connection);
        Stage stage(std::string("v=0\r\no=- 1001 1 IN\r\ns=Media Presentation\r\n") + connection +
                        "a=control:*\r\n"
                        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000 \r\na=control:trackID=1\r\n"
                        "m=audio 0 RTP/AVP 0\r\na=fmtp:0 RTCP=0\r\na=control:trackID=2\r\n",
                    [](ScriptedPeer::Connection& peer) {
                        PacketSender().sendFrame(peer, {sps, pps, keySlice});
                        peer.sendFrame(2, rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
                    });
        ASSERT_TRUE(stage.playUntilFrames(2)) << stage.player.log.text();
        EXPECT_EQ(stage.player.frames[0].info.codec, GDRV::MediaCodec::h264);
        EXPECT_EQ(stage.player.frames[1].info.codec, GDRV::MediaCodec::g711U);
        EXPECT_EQ(stage.player.frames[1].info.sampleRate, 8000U);
    }
}

TEST(WireQuirks, controlUrlsOfAnotherHostOrPortStayOnTheConnection)
{
    const struct {
        const char* control;
        const char* expected;
    } cases[] = {
        {"rtsp://10.0.0.7/media/video1/video?profile=main", "/media/video1/video?profile=main"},
        {"rtsp://10.0.0.7:10554/media/video1/video", "/media/video1/video"},
        {"rtsp://127.0.0.1/media/video1/video", "/media/video1/video"},  // without the port
        {"RTSP://camera.local:554/video", "/video"},
        {"trackID=1", "/media/video1/trackID=1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.control);
        Stage stage(plainHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:" + c.control + "\r\n",
                    [](ScriptedPeer::Connection& peer) {
                        PacketSender().sendFrame(peer, {sps, pps, keySlice});
                    });
        ASSERT_TRUE(stage.playUntilFrames(1)) << stage.player.log.text();
        EXPECT_THAT(stage.uris("SETUP"), ElementsAre(stage.base() + c.expected));
    }
}

TEST(WireQuirks, contentBaseMayBeMissingOrLackItsSlash)
{
    const struct {
        const char* header;
        const char* expectedSetup;
        const char* expectedPlay;
    } cases[] = {
        {"", "/media/video1/trackID=1", "/media/video1"},
        {"Content-Base: rtsp://127.0.0.1/media/video1\r\n", "/media/video1/trackID=1", "/media/video1"},
        {"Content-Base: rtsp://127.0.0.1/media/video1/\r\n", "/media/video1/trackID=1", "/media/video1/"},
        {"content-base:rtsp://10.0.0.7:554/other/\r\n", "/other/trackID=1", "/other/"},
        {"Content-Location: rtsp://127.0.0.1/where/\r\n", "/where/trackID=1", "/where/"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header);
        Camera camera = Stage::cameraWith("", [](ScriptedPeer::Connection& peer) {
            PacketSender().sendFrame(peer, {sps, pps, keySlice});
        });
        camera.intercept = [header = c.header](ScriptedPeer::Connection& peer, const ScriptedPeer::Request& request) {
            if (request.method != "DESCRIBE")
                return false;
            peer.reply(request, 200, header,
                       plainHead + "a=control:*\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                                   "a=control:trackID=1\r\n");
            return true;
        };
        Stage stage(camera);
        ASSERT_TRUE(stage.playUntilFrames(1)) << stage.player.log.text();
        EXPECT_THAT(stage.uris("SETUP"), ElementsAre(stage.base() + c.expectedSetup));
        EXPECT_THAT(stage.uris("PLAY"), ElementsAre(stage.base() + c.expectedPlay));
    }
}

TEST(WireQuirks, metadataTrackIsLeftAlone)
{
    Stage stage(plainHead +
                    "m=application 0 RTP/AVP 107\r\na=rtpmap:107 vnd.onvif.metadata/90000\r\na=control:trackID=3\r\n"
                    "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=1\r\n"
                    "m=audio 0 RTP/AVP 8\r\na=control:trackID=2\r\n",
                [](ScriptedPeer::Connection& peer) {
                    peer.sendFrame(4, rtp(107, 1, 1, true, Bytes(300, '<'), 0x77));  // sent though nobody asked
                    PacketSender().sendFrame(peer, {sps, pps, keySlice});
                    peer.sendFrame(2, rtp(8, 7, 160, false, Bytes(160, 0x55), 0x99));
                });
    ASSERT_TRUE(stage.playUntilFrames(2)) << stage.player.log.text();
    EXPECT_THAT(stage.uris("SETUP"),
                ElementsAre(stage.base() + "/media/video1/trackID=1", stage.base() + "/media/video1/trackID=2"));
    EXPECT_EQ(stage.player.frames[0].info.codec, GDRV::MediaCodec::h264);
    EXPECT_EQ(stage.player.frames[1].info.codec, GDRV::MediaCodec::g711A);
}

TEST(WireQuirks, fmtpValuesMayComeInAnyOrderWithBlanks)
{
    for (const char* fmtp : {
             "profile-level-id=420029; packetization-mode=1; "
             "sprop-parameter-sets=Z0LADdkBYJbARAAAAwAEAAADAMg8UKkg,aMuDyyA=",
             "sprop-parameter-sets=Z0LADdkBYJbARAAAAwAEAAADAMg8UKkg,aMuDyyA=;packetization-mode=1;profile-level-id="
             "420029;",
             "profile-level-id = 420029 ;  packetization-mode=1 "
             ";Sprop-Parameter-Sets=Z0LADdkBYJbARAAAAwAEAAADAMg8UKkg,aMuDyyA ",
         }) {
        SCOPED_TRACE(fmtp);
        Stage stage(plainHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 " + fmtp +
                        "\r\na=control:trackID=1\r\n",
                    [](ScriptedPeer::Connection& peer) { PacketSender().sendFrame(peer, {keySlice}); });
        ASSERT_TRUE(stage.playUntilFrames(1)) << stage.player.log.text();
        EXPECT_EQ(stage.player.frames[0].data, annexB({sps, pps, keySlice})) << "the sets are only in the description";
        EXPECT_EQ(stage.player.frames[0].parameterSets, annexB({sps, pps}));
        EXPECT_TRUE(stage.player.frames[0].info.keyFrame);
    }
}

TEST(WireQuirks, h265PlaysWithoutAVideoParameterSetAnywhere)
{
    const Bytes hevcSps =
        fromHex("420101016000000300900000030000030078a003c08010e596566924caf0168080000003008000000c84");
    const Bytes hevcPps = fromHex("4401c172b46240");
    const Bytes hevcKeySlice = fromHex("2601af06 b863ef3a 7f3c0011 2233");
    Stage stage(plainHead + "m=video 0 RTP/AVP 98\r\na=rtpmap:98 H265/90000\r\n"
                            "a=fmtp:98 sprop-sps=QgEBAWAAAAMAkAAAAwAAAwB4oAPAgBDlllZpJMrwFoCAAAADAIAAAAyE; "
                            "sprop-pps=RAHBcrRiQA==\r\na=control:trackID=1\r\n",
                [&](ScriptedPeer::Connection& peer) {
                    PacketSender sender;
                    sender.payloadType = 98;
                    sender.sendFrame(peer, {hevcKeySlice});
                    sender.sendFrame(peer, {hevcSps, hevcPps, hevcKeySlice});
                });
    ASSERT_TRUE(stage.playUntilFrames(2)) << stage.player.log.text();
    for (const TakenFrame& frame : stage.player.frames) {
        EXPECT_EQ(frame.info.codec, GDRV::MediaCodec::h265);
        EXPECT_TRUE(frame.info.keyFrame);
        EXPECT_EQ(frame.data, annexB({hevcSps, hevcPps, hevcKeySlice}));
        EXPECT_EQ(frame.info.width, 1920U);
        EXPECT_EQ(frame.info.height, 1080U);
    }
    EXPECT_EQ(stage.player.client->counters(stage.player.videoTrack).malformedPackets, 0U);
}

// ---- packets --------------------------------------------------------------------------------------------------

TEST(WireQuirks, packetOfPayloadTypeFiftyBetweenFramesIsNoLoss)
{
    Stage stage(videoSdp, [](ScriptedPeer::Connection& peer) {
        // Length 20: version 2, marker and type 50, number 103, the stream's source, eight bytes.
        const Bytes stray = fromHex("24 00 00 14  80 b2 00 67 00 01 6d a0 11 22 33 44  01 00 00 00 00 00 00 00");
        PacketSender sender;
        sender.sendFrame(peer, {sps, pps, keySlice});  // numbers 100 to 102
        peer.write(stray);
        sender.sendFrame(peer, {slice});  // number 103
        peer.write(stray);                // late and repeated, it matters as little
        sender.sendFrame(peer, {slice});
    });
    ASSERT_TRUE(stage.playUntilFrames(3)) << stage.player.log.text();
    for (const TakenFrame& frame : stage.player.frames)
        EXPECT_FALSE(frame.info.lostPacketsBefore || frame.info.damaged);
    const StreamCounters counters = stage.player.client->counters(stage.player.videoTrack);
    EXPECT_EQ(counters.lostPackets, 0U);
    EXPECT_EQ(counters.malformedPackets, 0U);
}

TEST(WireQuirks, severalRtcpPacketsInOneAreAllRead)
{
    // Sender report, name, an application packet. The report's media time is the key frame's, its time of day is set to
    // an hour from now and a half second.
    Bytes compound = fromHex("80 c8 00 06 11 22 33 44  00 00 00 00 80 00 00 00  00 01 5f 90  00 00 00 01 00 00 00 02"
                             "81 ca 00 03 11 22 33 44  01 03 63 61 6d 00 00 00"
                             "80 cc 00 03 11 22 33 44  4b 45 4c 56 00 00 00 00");
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const std::int64_t seconds = std::chrono::duration_cast<std::chrono::seconds>(now).count() + 3600;
    for (std::size_t i = 0; i < 4; ++i)
        compound[8 + i] = static_cast<std::uint8_t>((seconds + 2'208'988'800) >> (24 - 8 * i));
    Stage stage(videoSdp, [&](ScriptedPeer::Connection& peer) {
        peer.sendFrame(1, compound);  // before the first RTP packet
        PacketSender().sendFrame(peer, {sps, pps, keySlice});
    });
    ASSERT_TRUE(stage.playUntilFrames(1)) << stage.player.log.text();
    EXPECT_EQ(stage.player.frames[0].info.timestampMs, seconds * 1000 + 500);
}

TEST(WireQuirks, parameterSetsComeInSinglePacketsAggregatesOrTheDescription)
{
    const struct {
        const char* name;
        std::vector<Bytes> packets;
    } cases[] = {
        {"single packets", {sps, pps, keySlice}},
        {"aggregated together", {aggregate({sps, pps}), keySlice}},
        {"aggregated with the picture", {aggregate({delimiter, sps, pps, sei, keySlice})}},
        {"only in the description", {keySlice}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Stage stage(plainHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                                "a=fmtp:96 sprop-parameter-sets=Z0LADdkBYJbARAAAAwAEAAADAMg8UKkg,aMuDyyA=\r\n",
                    [&](ScriptedPeer::Connection& peer) {
                        PacketSender sender;
                        sender.sendFrame(peer, c.packets);
                        sender.sendFrame(peer, {slice});
                    });
        ASSERT_TRUE(stage.playUntilFrames(2)) << stage.player.log.text();
        EXPECT_EQ(stage.player.frames[0].parameterSets, annexB({sps, pps}));
        EXPECT_TRUE(stage.player.frames[0].info.keyFrame);
        EXPECT_EQ(stage.player.frames[0].info.width, 352U);
        EXPECT_EQ(stage.player.frames[1].data, annexB({slice}));
    }
}

TEST(WireQuirks, resolutionChangeIsToldInTheNextKeyFrame)
{
    Stage stage(videoSdp, [](ScriptedPeer::Connection& peer) {
        PacketSender sender;
        sender.sendFrame(peer, {sps, pps, keySlice});
        sender.sendFrame(peer, {slice});
        sender.sendFrame(peer, {otherSps, pps, keySlice});
        sender.sendFrame(peer, {slice});
        sender.sendFrame(peer, {otherSps, pps, keySlice});
    });
    ASSERT_TRUE(stage.playUntilFrames(5)) << stage.player.log.text();
    const auto& frames = stage.player.frames;
    EXPECT_EQ(frames[0].info.width, 352U);
    EXPECT_EQ(frames[0].parameterSets, annexB({sps, pps}));
    EXPECT_EQ(frames[2].info.width, 1280U);
    EXPECT_EQ(frames[2].info.height, 720U);
    EXPECT_EQ(frames[2].parameterSets, annexB({otherSps, pps}));
    EXPECT_TRUE(frames[4].parameterSets.empty()) << "told when they change";
    EXPECT_EQ(stage.peer.connectionCount(), 1U);
}

TEST(WireQuirks, everyFrameMayBeAKeyFrame)
{
    Stage stage(videoSdp, [](ScriptedPeer::Connection& peer) {
        PacketSender sender;
        for (int i = 0; i < 50; ++i)
            sender.sendFrame(peer, {sps, pps, keySlice});
    });
    ASSERT_TRUE(stage.playUntilFrames(50)) << stage.player.log.text();
    for (const TakenFrame& frame : stage.player.frames)
        EXPECT_TRUE(frame.info.keyFrame);
    EXPECT_EQ(stage.player.client->counters(stage.player.videoTrack).keyFrames, 50U);
}

TEST(WireQuirks, nextTimestampEndsAFrameWithoutMarker)
{
    Stage stage(videoSdp, [](ScriptedPeer::Connection& peer) {
        PacketSender sender;
        const auto send = [&](const std::vector<Bytes>& nals) {
            for (const Bytes& nal : nals)
                sender.send(peer, nal, false);
            sender.timestamp += 3600;
        };
        send({sps, pps, keySlice, laterKeySlice});
        send({slice});
        send({slice});
    });
    ASSERT_TRUE(stage.playUntilFrames(2)) << stage.player.log.text();
    EXPECT_EQ(stage.player.frames[0].data, annexB({sps, pps, keySlice, laterKeySlice}));
    EXPECT_EQ(stage.player.frames[1].data, annexB({slice}));
}

TEST(WireQuirks, slicesSeiAndDelimitersOfAFrameStayTogether)
{
    Stage stage(videoSdp, [](ScriptedPeer::Connection& peer) {
        PacketSender sender;
        sender.sendFrame(peer, {delimiter, sps, pps, sei, keySlice, laterKeySlice});
        sender.sendFrame(peer, {delimiter, sei, slice});
    });
    ASSERT_TRUE(stage.playUntilFrames(2)) << stage.player.log.text();
    EXPECT_EQ(stage.player.frames[0].data, annexB({delimiter, sps, pps, sei, keySlice, laterKeySlice}));
    EXPECT_EQ(stage.player.frames[1].data, annexB({delimiter, sei, slice}));
}

TEST(WireQuirks, numbersAndTimestampsWrapUnnoticed)
{
    Stage stage(videoSdp, [](ScriptedPeer::Connection& peer) {
        PacketSender sender;
        sender.sequence = 65533;
        sender.timestamp = 0xFFFFFFFF - 3000;
        sender.sendFrame(peer, {sps, pps, keySlice});
        for (int i = 0; i < 5; ++i)
            sender.sendFrame(peer, {slice});
    });
    ASSERT_TRUE(stage.playUntilFrames(6)) << stage.player.log.text();
    const auto& frames = stage.player.frames;
    for (std::size_t i = 1; i < frames.size(); ++i)
        EXPECT_EQ(frames[i].info.durationMs, 40U) << i;
    EXPECT_NEAR(static_cast<double>(frames[5].info.timestampMs - frames[0].info.timestampMs), 200, 20);
    EXPECT_EQ(stage.player.client->counters(stage.player.videoTrack).lostPackets, 0U);
}

TEST(WireQuirks, restartOfTheEncoderIsNoLoss)
{
    Stage stage(videoSdp, [](ScriptedPeer::Connection& peer) {
        PacketSender sender;
        sender.sendFrame(peer, {sps, pps, keySlice});
        sender.sendFrame(peer, {slice});
        sender.source = 0xCAFE0001;
        sender.sequence = 17;
        sender.timestamp = 5;
        sender.sendFrame(peer, {sps, pps, keySlice});
        sender.sendFrame(peer, {slice});
        sender.sequence = 40000;  // the same source, elsewhere
        sender.timestamp = 0x80000000;
        sender.sendFrame(peer, {sps, pps, keySlice});
        sender.sendFrame(peer, {slice});
    });
    ASSERT_TRUE(stage.playUntilFrames(6)) << stage.player.log.text();
    const auto& frames = stage.player.frames;
    for (std::size_t i = 1; i < frames.size(); ++i) {
        const std::int64_t step = frames[i].info.timestampMs - frames[i - 1].info.timestampMs;
        EXPECT_GE(step, 0);
        EXPECT_LT(step, 2000);
    }
    EXPECT_EQ(stage.player.client->counters(stage.player.videoTrack).lostPackets, 0U);
    EXPECT_EQ(stage.peer.connectionCount(), 1U);
}

TEST(WireQuirks, soundComesInEitherLawAndAnyLength)
{
    const struct {
        int payloadType;
        GDRV::MediaCodec codec;
    } laws[] = {{0, GDRV::MediaCodec::g711U}, {8, GDRV::MediaCodec::g711A}};
    for (const auto& law : laws) {
        SCOPED_TRACE(law.payloadType);
        Stage stage(plainHead + "m=audio 0 RTP/AVP " + std::to_string(law.payloadType) + "\r\na=control:trackID=2\r\n",
                    [&](ScriptedPeer::Connection& peer) {
                        PacketSender sender;
                        sender.payloadType = static_cast<std::uint8_t>(law.payloadType);
                        for (const std::uint32_t ms : {20U, 40U, 64U, 70U}) {
                            sender.send(peer, Bytes(ms * 8, 0xD5), false);
                            sender.timestamp += ms * 8;
                        }
                    });
        ASSERT_TRUE(stage.playUntilFrames(4)) << stage.player.log.text();
        for (std::size_t i = 0; i < 4; ++i) {
            const GDRV::MediaFrame& info = stage.player.frames[i].info;
            const std::uint32_t expected = std::array{20U, 40U, 64U, 70U}[i];
            EXPECT_EQ(info.codec, law.codec);
            EXPECT_EQ(info.durationMs, expected);
            EXPECT_EQ(info.sampleCount, expected * 8);
            EXPECT_EQ(info.sampleRate, 8000U);
        }
    }
}

TEST(WireQuirks, soundComesAsAacWithItsConfiguration)
{
    // 16 kHz mono; each packet begins with the length of its headers in bits and one header of 13 + 3 bits.
    const Bytes unit(180, 0x21);
    const Bytes packet = fromHex("0010 05a0") + unit;
    Stage stage(plainHead + "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/16000/1\r\n"
                            "a=fmtp:97 streamtype=5; profile-level-id=1; mode=AAC-hbr; sizelength=13; indexlength=3; "
                            "indexdeltalength=3; config=1408\r\na=control:trackID=2\r\n",
                [&](ScriptedPeer::Connection& peer) {
                    PacketSender sender;
                    sender.payloadType = 97;
                    for (int i = 0; i < 3; ++i) {
                        sender.send(peer, packet, true);
                        sender.timestamp += 1024;
                    }
                });
    ASSERT_TRUE(stage.playUntilFrames(3)) << stage.player.log.text();
    for (const TakenFrame& frame : stage.player.frames) {
        EXPECT_EQ(frame.info.codec, GDRV::MediaCodec::aac);
        EXPECT_EQ(frame.data, unit);
        EXPECT_EQ(frame.info.sampleRate, 16000U);
        EXPECT_EQ(frame.info.sampleCount, 1024U);
    }
    EXPECT_EQ(stage.player.frames[0].parameterSets, fromHex("1408"));
    EXPECT_TRUE(stage.player.frames[1].parameterSets.empty()) << "told once";
}

// ---- sessions -------------------------------------------------------------------------------------------------

TEST(WireQuirks, keepAliveRefusedWithAnyMethodAndStatusGoesOnStreaming)
{
    const struct {
        RtspMethod method;
        const char* name;
        unsigned status;
    } cases[] = {
        {RTSP_METHOD_GET_PARAMETER, "GET_PARAMETER", 400}, {RTSP_METHOD_GET_PARAMETER, "GET_PARAMETER", 405},
        {RTSP_METHOD_SET_PARAMETER, "SET_PARAMETER", 400}, {RTSP_METHOD_SET_PARAMETER, "SET_PARAMETER", 405},
        {RTSP_METHOD_SET_PARAMETER, "SET_PARAMETER", 454}, {RTSP_METHOD_SET_PARAMETER, "SET_PARAMETER", 501},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + ' ' + std::to_string(c.status));
        Camera camera;
        camera.sdp = videoSdp;
        camera.intercept = [&c, sender = std::make_shared<PacketSender>()](ScriptedPeer::Connection& peer,
                                                                           const ScriptedPeer::Request& request) {
            if (request.method != c.name)
                return false;
            sender->sendFrame(peer, {sps, pps, keySlice});
            peer.reply(request, c.status);
            sender->sendFrame(peer, {slice});
            return true;
        };
        Stage stage(camera, [](StreamTiming& timing) { timing.keepAliveInterval = milliseconds(5); });
        Player& player = stage.player;
        player.client->setKeepAliveCommand(c.method);
        player.start(addressOf(stage.peer));
        ASSERT_TRUE(stage.loop.runUntil([&] { return player.frames.size() >= 6; })) << player.log.text();
        EXPECT_FALSE(player.failure());
        EXPECT_EQ(player.log.count("status " + std::to_string(c.status)), 1U) << "said once";
        EXPECT_EQ(player.client->counters(player.videoTrack).lostPackets, 0U);
    }
}

TEST(WireQuirks, sessionWithoutATimeoutIsNotKeptAliveHastily)
{
    // 60 s hold where none is stated, so that nothing goes out soon after PLAY.
    Camera camera;
    camera.sdp = videoSdp;
    camera.session = "88";
    camera.afterPlay = [](ScriptedPeer::Connection& peer) { PacketSender().sendFrame(peer, {sps, pps, keySlice}); };
    Stage stage(camera, [](StreamTiming& timing) { timing.reportInterval = milliseconds(20); });
    ASSERT_TRUE(stage.playUntilFrames(1));
    ASSERT_TRUE(stage.loop.runUntil([&] { return stage.peer.received().size() >= 10; })) << "receiver reports";
    EXPECT_EQ(stage.peer.count("GET_PARAMETER"), 0U);
}

TEST(WireQuirks, serverRequestsAreAnsweredBetweenPackets)
{
    const struct {
        const char* request;
        const char* expected;
    } cases[] = {
        {"OPTIONS * RTSP/1.0\r\nCSeq: 77\r\n\r\n", "200"},
        {"GET_PARAMETER rtsp://127.0.0.1/x RTSP/1.0\r\nCSeq: 77\r\nSession: 88\r\n\r\n", "200"},
        {"ANNOUNCE rtsp://127.0.0.1/x RTSP/1.0\r\nCSeq: 77\r\nContent-Length: 4\r\n\r\nv=0\n", "405"},
        {"REDIRECT rtsp://127.0.0.1/x RTSP/1.0\r\nCSeq: 77\r\nLocation: rtsp://10.0.0.9/\r\n\r\n", "405"},
        {"X_PING rtsp://127.0.0.1/x RTSP/1.0\r\nCSeq: 77\r\n\r\n", "501"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request);
        std::string answer;
        Stage stage(videoSdp, [&](ScriptedPeer::Connection& peer) {
            PacketSender sender;
            sender.sendFrame(peer, {sps, pps, keySlice});
            peer.write(std::string(c.request));
            sender.sendFrame(peer, {slice});
            if (const auto reply = peer.read())  // a status line reads as method and URI
                answer = reply->method + ' ' + reply->uri + " CSeq " + reply->headers.at("cseq");
            sender.sendFrame(peer, {slice});
        });
        ASSERT_TRUE(stage.playUntilFrames(3)) << stage.player.log.text();
        EXPECT_EQ(answer, std::string("RTSP/1.0 ") + c.expected + " CSeq 77");
        EXPECT_FALSE(stage.player.failure());
    }
}

// ---- back channel and recorded media --------------------------------------------------------------------------

TEST(WireQuirks, backChannelOfADozenFormatsIsSentG711)
{
    Camera camera;
    camera.sdp = plainHead + "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\na=recvonly\r\n"
                             "m=audio 0 RTP/AVP 99 100 101 102 103 104 105 106 9 2 8 0\r\n"
                             "a=rtpmap:99 MPEG4-GENERIC/48000/2\r\na=rtpmap:100 MPEG4-GENERIC/16000\r\n"
                             "a=rtpmap:101 G726-16/8000\r\na=rtpmap:102 G726-24/8000\r\na=rtpmap:103 G726-32/8000\r\n"
                             "a=rtpmap:104 G726-40/8000\r\na=rtpmap:105 L16/16000\r\na=rtpmap:106 OPUS/48000/2\r\n"
                             "a=rtpmap:8 PCMA/8000\r\na=rtpmap:0 PCMU/8000/1\r\na=control:trackID=5\r\na=sendonly\r\n";
    Stage stage(camera);
    stage.player.headers = {{RTSP_HEADER_REQUIRE, "www.onvif.org/ver20/backchannel"}};
    stage.player.client->setAudioSinkParams({GDRV::MediaCodec::g711A});
    stage.player.start(addressOf(stage.peer));
    ASSERT_TRUE(stage.loop.runUntil([&] { return stage.player.isPlaying(); })) << stage.player.log.text();
    stage.player.client->sendPacket(stage.player.sendTrack, Bytes(160, 0x2A), 0, {});
    bool done = false;
    ASSERT_TRUE(stage.loop.runUntil([&] {
        if (!done) {
            done = true;
            stage.player.client->teardown();
        }
        return stage.peer.count("TEARDOWN") == 1;
    }));
    ASSERT_EQ(stage.peer.received().size(), 1U);
    EXPECT_EQ(stage.peer.received()[0].payload[1] & 0x7F, 8);
    for (const char* method : {"DESCRIBE", "SETUP", "PLAY", "TEARDOWN"})
        EXPECT_GE(stage.peer.count(method), 1U);
    for (const auto& request : stage.peer.requests())
        EXPECT_EQ(request.headers.at("require"), "www.onvif.org/ver20/backchannel") << request.method;
}

TEST(WireQuirks, deviceWithoutABackChannelSaysSoOrDescribesNone)
{
    Camera refusing;
    refusing.sdp = videoSdp;
    refusing.statuses["DESCRIBE"] = 551;
    Stage refused(refusing);
    refused.player.headers = {{RTSP_HEADER_REQUIRE, "www.onvif.org/ver20/backchannel"}};
    refused.player.start(addressOf(refused.peer));
    ASSERT_TRUE(refused.loop.runUntil([&] { return refused.player.failure().has_value(); }));
    EXPECT_EQ(refused.player.failure(), make_error_code(ResultCode::notSupported));

    Camera silent;
    silent.sdp = videoAndAudioSdp;
    Stage without(silent);
    without.player.headers = {{RTSP_HEADER_REQUIRE, "www.onvif.org/ver20/backchannel"}};
    without.player.start(addressOf(without.peer));
    ASSERT_TRUE(without.loop.runUntil([&] { return without.player.isPlaying(); }));
    EXPECT_TRUE(without.player.sendTrack.expired()) << "the sound that the device sends is no back channel";
    EXPECT_FALSE(without.player.audioTrack.expired());
}

TEST(WireQuirks, recordedMediaKeepsItsPathAndFinalSlash)
{
    Camera camera;
    camera.sdp = plainHead + "a=control:*\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=1\r\n";
    Stage stage(camera);
    stage.player.start(addressOf(stage.peer), "/c1/b1494208846/e1494209026/replay/");
    ASSERT_TRUE(stage.loop.runUntil([&] { return stage.player.isPlaying(); })) << stage.player.log.text();
    const std::string url = stage.base() + "/c1/b1494208846/e1494209026/replay/";
    EXPECT_THAT(stage.uris("DESCRIBE"), ElementsAre(url));
    EXPECT_THAT(stage.uris("SETUP"), ElementsAre(url + "trackID=1"));
    EXPECT_THAT(stage.uris("PLAY"), ElementsAre(url));
}
}  // namespace Tavro8::Utility

#include "JsonText.h"
#include "Programs.h"
#include "RtspPeer.h"
#include "SimulatorProcess.h"
#include "TemporaryFile.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <thread>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

/// Small pictures, so that many tests at once do not keep the machine busy.
std::vector<std::string> small(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--size", "320x240", "--sub-size", "160x120"});
    return more;
}

ProgramResult probe(const std::string& url, const std::string& transport = "tcp")
{
    return runProgram({"ffprobe", "-v", "error", "-rtsp_transport", transport, "-show_entries",
                       "stream=codec_name,width,height,sample_rate,channels", "-of", "json", url});
}

/// The streams that ffprobe found: video first, as the server describes them.
Json::Value streamsOf(const ProgramResult& result)
{
    EXPECT_EQ(result.status, 0) << result.errors;
    return parseJson(result.output)["streams"];
}

std::uint16_t rtspPort(const SimulatorProcess& simulator)
{
    return static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt());
}

/// Decodes pictures; whatever ffmpeg has to complain about is in the errors. Without sound, because with it ffmpeg
/// moves its time stamps when the first sender report arrives, and then complains about them.
ProgramResult decodeVideo(const std::string& url, unsigned frames)
{
    return runProgram({"ffmpeg", "-v", "warning", "-rtsp_transport", "tcp", "-allowed_media_types", "video", "-i", url,
                       "-frames:v", std::to_string(frames), "-fps_mode", "passthrough", "-enc_time_base", "-1", "-f",
                       "null", "-"});
}

struct KindPaths {
    const char* kind;
    const char* mainPath;
    const char* subPath;
    const char* foreignPath;
};

/// GoogleTest would print the addresses, which make up new test names in each run.
void PrintTo(const KindPaths& paths, std::ostream* out)
{
    *out << paths.kind;
}

class MediaOfEachKind : public testing::TestWithParam<KindPaths> {};

INSTANTIATE_TEST_SUITE_P(
    Kinds, MediaOfEachKind,
    testing::Values(KindPaths{"camera", "/media/video1", "/media/video2", "/media1/video1"},
                    KindPaths{"multichannel", "/media4/video1", "/media2/video2", "/unicast/c1/s0/live"},
                    KindPaths{"recorder", "/unicast/c4/s0/live", "/unicast/c1/s1/live", "/media/video1"}),
    [](const auto& test) { return std::string(test.param.kind); });

TEST_P(MediaOfEachKind, isSeenByFfprobe)
{
    const SimulatorProcess simulator(small({"--kind", GetParam().kind}));
    const Json::Value main = streamsOf(probe(simulator.rtspUrl(GetParam().mainPath)));
    ASSERT_EQ(main.size(), 2u);
    EXPECT_EQ(main[0]["codec_name"], "h264");
    EXPECT_EQ(main[0]["width"], 320);
    EXPECT_EQ(main[0]["height"], 240);
    EXPECT_EQ(main[1]["codec_name"], "pcm_mulaw");
    EXPECT_EQ(main[1]["sample_rate"], "8000");
    EXPECT_EQ(main[1]["channels"], 1);
    EXPECT_EQ(streamsOf(probe(simulator.rtspUrl(GetParam().subPath)))[0]["width"], 160);

    const ProgramResult foreign = probe(simulator.rtspUrl(GetParam().foreignPath));
    EXPECT_NE(foreign.status, 0);
    EXPECT_NE(foreign.errors.find("404"), std::string::npos) << foreign.errors;
}

TEST(Media, hasTheDefaultSizeAndTravelsByUdpToo)
{
    const SimulatorProcess simulator;
    const Json::Value streams = streamsOf(probe(simulator.rtspUrl("/media/video1"), "udp"));
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["width"], 1280);
    EXPECT_EQ(streams[0]["height"], 720);
}

TEST(Media, mayBeH265WithoutSound)
{
    const SimulatorProcess simulator(small({"--codec", "h265", "--no-audio"}));
    const Json::Value streams = streamsOf(probe(simulator.rtspUrl("/media/video1")));
    ASSERT_EQ(streams.size(), 1u);
    EXPECT_EQ(streams[0]["codec_name"], "hevc");
    EXPECT_EQ(streams[0]["width"], 320);
}

TEST(Media, mayBeMjpegWithAac)
{
    const SimulatorProcess simulator(small({"--codec", "mjpeg", "--audio-codec", "aac"}));
    const Json::Value streams = streamsOf(probe(simulator.rtspUrl("/media/video1")));
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["codec_name"], "mjpeg");
    EXPECT_EQ(streams[0]["width"], 320);
    EXPECT_EQ(streams[1]["codec_name"], "aac");
    EXPECT_EQ(streams[1]["sample_rate"], "16000");
}

TEST(Media, asksForTheSameCredentialsAsLapi)
{
    const SimulatorProcess digest(small());
    for (const char* credentials : {"admin:wrong@", "root:admin-123@", ""}) {
        SCOPED_TRACE(credentials);
        const ProgramResult refused = probe(digest.rtspUrl("/media/video1", credentials));
        EXPECT_NE(refused.status, 0);
        EXPECT_NE(refused.errors.find("401"), std::string::npos) << refused.errors;
    }
    const SimulatorProcess basic(small({"--auth", "basic", "--user", "u", "--password", "p"}));
    EXPECT_EQ(streamsOf(probe(basic.rtspUrl("/media/video1", "u:p@"))).size(), 2u);
    const SimulatorProcess none(small({"--auth", "none"}));
    EXPECT_EQ(streamsOf(probe(none.rtspUrl("/media/video1", ""))).size(), 2u);
}

TEST(Media, decodesWithoutAnError)
{
    const SimulatorProcess simulator(small());
    const ProgramResult decoded = decodeVideo(simulator.rtspUrl("/media/video1"), 40);
    EXPECT_EQ(decoded.status, 0);
    EXPECT_EQ(decoded.errors, "");
}

TEST(Media, givesEachClientTheTracksItWants)
{
    const SimulatorProcess simulator(small({"--auth", "none"}));
    const std::string url = simulator.rtspUrl("/media/video1", "");
    RtspPeer videoOnly(rtspPort(simulator));
    videoOnly.play(url, 1);
    ASSERT_TRUE(videoOnly.nextFrame());

    RtspPeer both(rtspPort(simulator));
    both.play(url, 2);
    constexpr unsigned audioChannel = 2;
    std::optional<RtspPeer::Frame> frame;
    do {
        frame = both.nextFrame();
        ASSERT_TRUE(frame);
    } while (frame->channel != audioChannel);
    constexpr std::uint8_t pcmuType = 0;
    EXPECT_EQ(frame->bytes.at(1) & 0x7f, pcmuType);
    EXPECT_TRUE(videoOnly.nextFrame());
}

/// Comes and goes again and again. Each time, a picture must arrive.
void comeAndGo(const SimulatorProcess& simulator, const std::string& url, int times)
{
    for (int round = 0; round < times; ++round) {
        SCOPED_TRACE(round);
        RtspPeer peer(rtspPort(simulator));
        ASSERT_NO_THROW({
            ASSERT_EQ(peer.request("DESCRIBE", url).substr(0, 12), "RTSP/1.0 200");
            peer.play(url, 1);
            std::optional<RtspPeer::Frame> frame;
            do {
                frame = peer.nextFrame();
                ASSERT_TRUE(frame);
            } while (frame->channel != 0);
            if (round % 3 != 0)
                peer.request("TEARDOWN", url);
        });
    }
}

TEST(Media, reachesEveryClientHoweverQuicklyTheyComeAndGo)
{
    const SimulatorProcess simulator(small({"--auth", "none", "--no-audio"}));
    const std::string url = simulator.rtspUrl("/media/video1", "");
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i)
        clients.emplace_back([&] { comeAndGo(simulator, url, 25); });
    for (std::thread& client : clients)
        client.join();
}

TEST(Media, countsTheFramesThatItSends)
{
    const SimulatorProcess simulator(small({"--auth", "none"}));
    const std::string url = simulator.rtspUrl("/media/video1", "");
    RtspPeer peer(rtspPort(simulator));
    peer.play(url, 2);
    std::int64_t frames = 0;
    std::int64_t packets = 0;
    const auto count = [&](const RtspPeer::Frame& frame) {
        packets += frame.channel == 0;
        frames += frame.channel == 0 && (frame.bytes.at(1) & 0x80) != 0;
    };
    while (frames < 30) {
        const auto frame = peer.nextFrame();
        ASSERT_TRUE(frame);
        count(*frame);
    }
    peer.request("TEARDOWN", url);
    for (const RtspPeer::Frame& frame : peer.pendingFrames())
        count(frame);

    const Json::Value stream = simulator.admin("GET", "counters")["rtsp"]["streams"][0];
    EXPECT_EQ(stream["path"], "/media/video1");
    // One frame may leave the encoder while the connection is taken down.
    EXPECT_NEAR(static_cast<double>(stream["frames"].asInt64()), static_cast<double>(frames), 1);
    EXPECT_NEAR(static_cast<double>(stream["videoPackets"].asInt64()), static_cast<double>(packets), 15);
    EXPECT_GE(stream["keyFrames"].asInt64(), 1);
    EXPECT_LE(stream["keyFrames"].asInt64(), 4);
    EXPECT_GT(stream["audioPackets"].asInt64(), 10);
}

TEST(Media, reportsTheTimeOfDay)
{
    const SimulatorProcess simulator(small({"--auth", "none"}));
    RtspPeer peer(rtspPort(simulator));
    peer.play(simulator.rtspUrl("/media/video1", ""), 2);
    for (const unsigned wanted : {1u, 3u}) {
        SCOPED_TRACE(wanted);
        std::optional<RtspPeer::Frame> report;
        do {
            report = peer.nextFrame();
            ASSERT_TRUE(report);
        } while (report->channel != wanted);
        constexpr std::uint8_t senderReport = 200;
        ASSERT_GE(report->bytes.size(), 28u);
        ASSERT_EQ(report->bytes[1], senderReport);
        std::uint32_t ntpSeconds = 0;
        for (std::size_t i = 8; i < 12; ++i)
            ntpSeconds = ntpSeconds << 8 | report->bytes[i];
        constexpr double from1900To1970 = 2'208'988'800.0;
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        EXPECT_NEAR(ntpSeconds - from1900To1970, std::chrono::duration<double>(now).count(), 2.0);
    }
}

TEST(Media, comesFromAFileInALoop)
{
    const TemporaryFile file(".mp4");
    ASSERT_EQ(
        runProgram(
            {"ffmpeg",   "-v",      "error",    "-y",        "-f",   "lavfi",    "-i",   "testsrc=size=192x108:rate=30",
             "-f",       "lavfi",   "-i",       "sine=1000", "-t",   "0.5",      "-c:v", "libx264",
             "-pix_fmt", "yuv420p", "-bf",      "0",         "-c:a", "pcm_alaw", "-ar",  "8000",
             "-f",       "mov",     file.name()})
            .status,
        0);
    const SimulatorProcess simulator({"--media", file.name()});
    const Json::Value streams = streamsOf(probe(simulator.rtspUrl("/media/video1")));
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["width"], 192);
    EXPECT_EQ(streams[1]["codec_name"], "pcm_mulaw");

    // More frames than the file has, without a seam.
    const ProgramResult looped = decodeVideo(simulator.rtspUrl("/media/video1"), 40);
    EXPECT_EQ(looped.status, 0);
    EXPECT_EQ(looped.errors, "");

    const ProgramResult described = simulator.lapi("/LAPI/V1.0/Channel/0/Media/Video/Streams/DetailInfos");
    EXPECT_NE(described.output.find("\"Width\":\t192"), std::string::npos) << "LAPI tells what the file holds";
}

TEST(Media, isRefusedFromAFileInAnotherFormat)
{
    const TemporaryFile file(".avi");
    ASSERT_EQ(runProgram({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc=size=64x64", "-t", "0.2", "-c:v",
                          "mjpeg", file.name()})
                  .status,
              0);
    const ProgramResult result =
        runProgram({simulatorProgram(), "--http-port", "0", "--rtsp-port", "0", "--media", file.name()});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("H.264 and H.265 can be served"), std::string::npos) << result.errors;
}

TEST(MediaFault, answersWithAnRtspStatus)
{
    const struct {
        const char* fault;
        const char* words;
    } cases[] = {
        {"rtsp-status:401@OPTIONS", "401 Unauthorized"},
        {"rtsp-status:404@DESCRIBE", "404 Not Found"},
        {"rtsp-status:454@PLAY", "454 Session Not Found"},
        {"rtsp-status:461@SETUP", "461 Unsupported transport"},
        {"rtsp-status:503@media/video1", "503 Service Unavailable"},
    };
    const SimulatorProcess simulator(small());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        simulator.admin("DELETE", "faults");
        simulator.admin("POST", "faults", std::string(R"({"fault": ")") + c.fault + "\"}");
        const ProgramResult result = probe(simulator.rtspUrl("/media/video1"));
        EXPECT_NE(result.status, 0);
        EXPECT_NE(result.errors.find(c.words), std::string::npos) << result.errors;
    }
    simulator.admin("DELETE", "faults");
    EXPECT_EQ(streamsOf(probe(simulator.rtspUrl("/media/video1"))).size(), 2u);
}

TEST(MediaFault, describesNoTracks)
{
    const SimulatorProcess simulator(small({"--auth", "none", "--fault", "rtsp-notracks"}));
    const std::string answer =
        RtspPeer(rtspPort(simulator)).request("DESCRIBE", simulator.rtspUrl("/media/video1", ""));
    EXPECT_NE(answer.find("\r\nv=0"), std::string::npos) << answer;
    EXPECT_EQ(answer.find("m="), std::string::npos) << answer;
}

TEST(MediaFault, dropsConnectionsAfterAWhile)
{
    const SimulatorProcess simulator(small({"--auth", "none"}));
    const std::string url = simulator.rtspUrl("/media/video1", "");
    // It keeps the stream running, so that the next client has its first frame at once.
    RtspPeer earlier(rtspPort(simulator));
    earlier.play(url, 1);
    ASSERT_TRUE(earlier.nextFrame());

    simulator.admin("POST", "faults", R"({"fault": "rtsp-drop:1.0"})");
    const auto begin = std::chrono::steady_clock::now();
    RtspPeer peer(rtspPort(simulator));
    peer.play(url, 1);
    unsigned frames = 0;
    while (peer.nextFrame())
        ++frames;
    EXPECT_GT(frames, 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(900));
    EXPECT_TRUE(earlier.nextFrame()) << "connections from before the fault stay";
}

TEST(MediaFault, dropsConnectionsOnCommandAndServesNewOnes)
{
    const SimulatorProcess simulator(small({"--auth", "none"}));
    const std::string url = simulator.rtspUrl("/media/video1", "");
    RtspPeer peer(rtspPort(simulator));
    peer.play(url, 1);
    ASSERT_TRUE(peer.nextFrame());
    EXPECT_EQ(simulator.admin("GET", "counters")["rtsp"]["openConnections"], 1);
    simulator.admin("POST", "rtsp/drop");
    while (peer.nextFrame()) {
    }
    RtspPeer again(rtspPort(simulator));
    again.play(url, 1);
    EXPECT_TRUE(again.nextFrame());
    EXPECT_EQ(simulator.admin("GET", "counters")["rtsp"]["connections"], 2);
}

TEST(MediaFault, refusesOrIgnoresRtspConnections)
{
    const SimulatorProcess simulator(small({"--auth", "none", "--fault", "rtsp-refuse"}));
    EXPECT_THROW(RtspPeer(rtspPort(simulator)).request("OPTIONS", "*"), std::exception);
    simulator.admin("DELETE", "faults");
    simulator.admin("POST", "faults", R"({"fault": "rtsp-hang"})");
    constexpr int timedOut = 28;
    EXPECT_EQ(runProgram({"curl", "--silent", "--max-time", "1", simulator.rtspUrl("/media/video1", "")}).status,
              timedOut);
    simulator.admin("DELETE", "faults");
    EXPECT_EQ(RtspPeer(rtspPort(simulator)).request("OPTIONS", "*").substr(0, 12), "RTSP/1.0 200");
}

}  // namespace
}  // namespace simulator::test

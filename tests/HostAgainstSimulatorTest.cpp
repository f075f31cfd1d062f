#include "EndToEnd.h"

#include <chrono>
#include <fstream>
#include <future>
#include <gmock/gmock.h>

namespace
{
using namespace kelvo::test;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr double framesPerSecond = 25;

TEST(InfoEndToEnd, identifiesEachKindOfDevice)
{
    const struct {
        const char* kind;
        const char* channels;
        unsigned deviceKind;
        const char* lastUrl;
    } cases[] = {
        {"camera", "1", 0, "/media/video3"},
        {"recorder", "4", 1, "/unicast/c4/s2/live"},
        {"multichannel", "4", 1000, "/media4/video3"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.kind);
        const SimulatorProcess device(smallPictures({"--kind", c.kind, "--channels", c.channels}));
        const ScratchFolder folder;
        const auto run = runHost(folder, deviceAddress(device), {"--channels", c.channels, "info"});
        EXPECT_EQ(run.status, 0) << run.errors;
        const auto connected = run.event("connected");
        EXPECT_EQ(connected["deviceKind"].asUInt(), c.deviceKind);
        EXPECT_EQ(std::to_string(connected["channelCount"].asUInt()), c.channels);
        EXPECT_EQ(std::to_string(connected["rtspPort"].asUInt()), device.port("rtspPort"));
        const auto urls = connected["urls"];
        ASSERT_FALSE(urls.empty());
        EXPECT_THAT(urls[urls.size() - 1].asString(), HasSubstr(c.lastUrl));
    }
}

TEST(InfoEndToEnd, worksWithEverySchemeOfAuthentication)
{
    for (const std::string scheme : {"digest", "basic", "both", "none"}) {
        SCOPED_TRACE(scheme);
        const SimulatorProcess device(smallPictures({"--auth", scheme}));
        const ScratchFolder folder;
        EXPECT_EQ(runHost(folder, deviceAddress(device), {"info"}).status, 0);
    }
}

TEST(InfoEndToEnd, findsThePortsUnderTheOtherSpelling)
{
    const SimulatorProcess device(smallPictures({"--ports-form", "plural"}));
    const ScratchFolder folder;
    const auto run = runHost(folder, deviceAddress(device), {"info"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(std::to_string(run.event("connected")["rtspPort"].asUInt()), device.port("rtspPort"));
}

TEST(InfoEndToEnd, anAddressOfAnotherSchemeIsRefusedWithTheSchemesThatWork)
{
    const ScratchFolder folder;
    const auto run = runHost(folder, "ftp://192.0.2.1", {"info"});
    EXPECT_EQ(run.status, 3);
    EXPECT_THAT(run.errors, HasSubstr("http:// or https://"));
    EXPECT_THAT(run.errors, Not(HasSubstr("rtsp")));
}

TEST(InfoEndToEnd, devicesThatCannotBeUsedEndWithStatusThreeAndASentence)
{
    const struct {
        const char* fault;
        const char* credentials;
    } cases[] = {
        {"refuse", "admin:admin-123@"},     {"close", "admin:admin-123@"},    {"garbage", "admin:admin-123@"},
        {"status:500", "admin:admin-123@"}, {"truncate", "admin:admin-123@"}, {nullptr, "admin:wrong-secret@"},
        {"hang", "admin:admin-123@"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault == nullptr ? "wrong password" : c.fault);
        auto arguments = smallPictures();
        if (c.fault != nullptr)
            arguments.insert(arguments.end(), {"--fault", c.fault});
        const SimulatorProcess device(arguments);
        const ScratchFolder folder;
        const auto run = runHost(folder, deviceAddress(device, c.credentials), {"--timeout", "2", "info"});
        EXPECT_EQ(run.status, 3);
        EXPECT_FALSE(run.errors.empty());
        EXPECT_THAT(run.all(), Not(HasSubstr("secret")));
        EXPECT_THAT(run.all(), Not(HasSubstr("admin-123")));
    }
}

TEST(InfoEndToEnd, aDeviceWithBrokenDeviceInformationStillConnects)
{
    const SimulatorProcess device(smallPictures({"--kind", "recorder", "--fault", "brokenjson@DeviceInfo"}));
    const ScratchFolder folder;
    const auto run = runHost(folder, deviceAddress(device), {"--channels", "4", "--log-level", "info", "info"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.event("connected")["deviceKind"].asUInt(), 0U);
    EXPECT_THAT(run.errors, HasSubstr("Cannot parse device type data"));
}

/// Receives with sound for three seconds and checks the file with programs that know nothing of us.
void receivesPlayableMedia(const std::vector<std::string>& deviceArguments,
                           const std::vector<std::string>& hostArguments, const char* videoCodec,
                           const std::vector<std::string>& liveArguments = {})
{
    const SimulatorProcess device(smallPictures(deviceArguments));
    const ScratchFolder folder;
    auto arguments = hostArguments;
    const auto file = folder.file("live.mp4");
    const auto picture = folder.file("live.png");
    arguments.insert(arguments.end(), {"live", "--seconds", "3", "--audio", "--output", file, "--snapshot", picture});
    arguments.insert(arguments.end(), liveArguments.begin(), liveArguments.end());
    const auto run = runHost(folder, deviceAddress(device), arguments);
    ASSERT_EQ(run.status, 0) << run.errors;

    const auto summary = run.event("summary");
    // Not by the clock: a busy machine encodes late and delivers what has gathered meanwhile at once. The device may
    // have sent a few frames more before it heard that nobody wants them.
    const double sent = device.admin("GET", "counters")["rtsp"]["streams"][0]["frames"].asDouble();
    EXPECT_LE(summary["frames"].asDouble(), sent);
    EXPECT_GE(summary["frames"].asDouble(), sent - 6);
    EXPECT_GE(sent, framesPerSecond);
    EXPECT_GE(summary["keyFrames"].asUInt(), 1U);
    EXPECT_EQ(summary["lost"].asUInt(), 0U);
    EXPECT_EQ(summary["reconnects"].asUInt(), 0U);
    EXPECT_EQ(summary["width"].asUInt(), 320U);
    EXPECT_EQ(summary["height"].asUInt(), 240U);

    EXPECT_THAT(codecsOf(file), HasSubstr(std::string("codec_name=") + videoCodec + "\nwidth=320\nheight=240"));
    EXPECT_THAT(codecsOf(file), HasSubstr("codec_name=aac"));
    EXPECT_EQ(decodeErrorsOf(file), "");
    EXPECT_THAT(codecsOf(picture), HasSubstr("codec_name=png\nwidth=320\nheight=240"));
}

TEST(LiveEndToEnd, receivesFromACamera)
{
    receivesPlayableMedia({}, {}, "h264");
}

TEST(LiveEndToEnd, receivesH265FromACamera)
{
    receivesPlayableMedia({"--codec", "h265"}, {}, "hevc");
}

TEST(LiveEndToEnd, receivesMjpegAndAacFromACamera)
{
    receivesPlayableMedia({"--codec", "mjpeg", "--audio-codec", "aac"}, {}, "mjpeg");
}

TEST(LiveEndToEnd, receivesMjpegLargerThanItsPacketsCanSay)
{
    const SimulatorProcess device(
        {"--codec", "mjpeg", "--size", "2592x64", "--sub-size", "160x120", "--fps", "5", "--no-audio"});
    const ScratchFolder folder;
    const auto file = folder.file("live.mkv");
    const auto picture = folder.file("live.jpg");
    const auto run =
        runHost(folder, deviceAddress(device), {"live", "--seconds", "2", "--output", file, "--snapshot", picture});
    ASSERT_EQ(run.status, 0) << run.errors;
    const auto summary = run.event("summary");
    EXPECT_EQ(summary["width"].asUInt(), 2592U);
    EXPECT_EQ(summary["keyFrames"].asUInt(), summary["frames"].asUInt());
    EXPECT_EQ(summary["lost"].asUInt(), 0U);
    EXPECT_THAT(codecsOf(file), HasSubstr("codec_name=mjpeg\nwidth=2592\nheight=64"));
    EXPECT_EQ(decodeErrorsOf(file), "");
    EXPECT_THAT(codecsOf(picture), HasSubstr("width=2592\nheight=64"));
}

TEST(LiveEndToEnd, receivesFromARecordersChannel)
{
    receivesPlayableMedia({"--kind", "recorder", "--channels", "2", "--auth", "both"}, {"--channels", "2"}, "h264");
}

TEST(LiveEndToEnd, receivesFromAMultichannelCamera)
{
    receivesPlayableMedia({"--kind", "multichannel", "--channels", "2", "--auth", "basic"}, {"--channels", "2"},
                          "h264");
}

TEST(LiveEndToEnd, receivesOverUdp)
{
    receivesPlayableMedia({}, {}, "h264", {"--transport", "udp"});
}

TEST(LiveEndToEnd, receivesH265OverUdp)
{
    receivesPlayableMedia({"--codec", "h265"}, {}, "hevc", {"--transport", "udp"});
}

TEST(LiveEndToEnd, saysOverWhichTransportItReceives)
{
    const SimulatorProcess device(smallPictures({"--no-audio"}));
    const struct {
        const char* transport;
        bool udp;
    } cases[] = {{"tcp", false}, {"UDP", true}, {"auto", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.transport);
        const ScratchFolder folder;
        const auto run = runHost(folder, deviceAddress(device),
                                 {"--log-level", "info", "live", "--seconds", "1", "--transport", c.transport});
        EXPECT_EQ(run.status, 0) << run.errors;
        EXPECT_THAT(run.errors, HasSubstr("playing rtsp://"));
        EXPECT_EQ(run.errors.find("over UDP") != std::string::npos, c.udp);
        EXPECT_EQ(run.event("summary")["transport"], c.udp ? "udp" : "tcp");
    }
}

TEST(LiveEndToEnd, deliversEveryFrameThatTheDeviceSent)
{
    const SimulatorProcess device(smallPictures({"--no-audio"}));
    const ScratchFolder folder;
    const auto run = runHost(folder, deviceAddress(device), {"live", "--seconds", "3", "--frames"});
    ASSERT_EQ(run.status, 0) << run.errors;
    std::vector<Json::Int64> times;
    for (const auto& event : run.events) {
        if (event["event"].asString() == "frame")
            times.push_back(event["timestampMs"].asInt64());
    }
    ASSERT_GT(times.size(), 50U);
    // The device may have sent a frame or two more before it heard that nobody wants them.
    const auto sent = device.admin("GET", "counters")["rtsp"]["streams"][0]["frames"].asDouble();
    EXPECT_NEAR(static_cast<double>(times.size()), sent, 3);
    // The encoder gives one frame every 40 ms; a frame that was lost on the way would leave a gap of two.
    for (std::size_t at = 1; at < times.size(); ++at)
        EXPECT_NEAR(static_cast<double>(times[at] - times[at - 1]), 40, 25) << "behind frame " << at;
}

TEST(LiveEndToEnd, comesBackAfterTheDeviceDroppedItsClients)
{
    const SimulatorProcess device(smallPictures({"--no-audio"}));
    const ScratchFolder folder;
    auto command = hostCommand(folder, deviceAddress(device));
    command.insert(command.end(), {"live", "--seconds", "6", "--frames"});
    ChildProcess host(command);
    const auto deadline = ChildProcess::Clock::now() + std::chrono::seconds(40);
    const auto nextFrame = [&] {
        while (const auto line = host.readLine(deadline)) {
            if (line->find("\"frame\"") != std::string::npos)
                return true;
        }
        return false;
    };
    ASSERT_TRUE(nextFrame());
    device.admin("POST", "rtsp/drop");
    const auto status = host.wait(deadline);
    ASSERT_EQ(status, 0) << host.errors();
    const auto summary = hostRun({*status, host.output(), host.errors()}).event("summary");
    EXPECT_GE(summary["reconnects"].asUInt(), 1U);
    EXPECT_GT(summary["frames"].asUInt(), 60U);
}

TEST(LiveEndToEnd, keepsAShortSessionAlive)
{
    const SimulatorProcess device(smallPictures({"--no-audio", "--session-timeout", "2"}));
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device), {"live", "--seconds", "5"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.event("summary")["reconnects"].asUInt(), 0U);
    // Each second, at half of the time-out.
    EXPECT_GE(device.admin("GET", "counters")["rtsp"]["requests"]["GET_PARAMETER"].asUInt(), 3U);
}

TEST(LiveEndToEnd, streamsThatAreRefusedEndWithStatusFourAndASentence)
{
    const struct {
        const char* fault;
        const char* reason;
        int code;
    } cases[] = {
        {"rtsp-status:404", "the device does not know the resource", 514},
        {"rtsp-status:454", "the device does not know the resource", 514},
        {"rtsp-status:461", "the device refused the stream", 1025},
        {"rtsp-status:503", "the device is busy", 515},
        {"rtsp-refuse", "the connection to the device was lost", 257},
        {"rtsp-notracks", "the device offers no such stream", 1024},
    };
    // Each waits for its picture until the time is over; all do so at once.
    std::vector<std::future<HostRun>> runs;
    for (const auto& c : cases)
        runs.push_back(std::async(std::launch::async, [fault = c.fault] {
            const SimulatorProcess device(smallPictures({"--fault", fault}));
            const ScratchFolder folder;
            return runHost(folder, deviceAddress(device), {"--timeout", "4", "live", "--seconds", "1"});
        }));
    for (std::size_t at = 0; at < runs.size(); ++at) {
        const auto& c = cases[at];
        SCOPED_TRACE(c.fault);
        const HostRun run = runs[at].get();
        EXPECT_EQ(run.status, 4) << run.errors;
        EXPECT_THAT(run.errors, HasSubstr(std::string("no picture arrived in time: ") + c.reason));
        const auto failure = run.event("failure");
        EXPECT_EQ(failure["code"].asInt(), c.code);
        EXPECT_THAT(failure["message"].asString(), HasSubstr(c.reason));
        EXPECT_THAT(run.all(), Not(HasSubstr("admin-123")));
    }
}

TEST(LiveEndToEnd, receivesSeveralStreamsAtOnce)
{
    const SimulatorProcess device(smallPictures({"--no-audio"}));
    const ScratchFolder folder;
    const auto run = runHost(folder, deviceAddress(device), {"live", "--seconds", "2", "--count", "5", "--discard"});
    ASSERT_EQ(run.status, 0) << run.errors;
    EXPECT_GT(run.event("summary")["frames"].asUInt(), 5 * 30U);
}

TEST(LiveEndToEnd, neverWritesThePassword)
{
    const SimulatorProcess device(smallPictures({"--fault", "rtsp-drop:1"}));
    const ScratchFolder folder;
    const auto log = folder.file("module.log");
    const auto run = runHost(folder, deviceAddress(device),
                             {"--log-level", "debug", "--log", log, "live", "--seconds", "2", "--discard"});
    std::ifstream stream(log);
    const std::string lines{std::istreambuf_iterator<char>(stream), {}};
    EXPECT_FALSE(lines.empty());
    EXPECT_THAT(lines, Not(HasSubstr("admin-123")));
    EXPECT_THAT(run.all(), Not(HasSubstr("admin-123")));
    // Each source was asked to stop once.
    EXPECT_THAT(run.errors, Not(HasSubstr("Skip Stop")));
}

TEST(ExampleEndToEnd, theExampleOfTheSdkPagePrintsItsFirstFrame)
{
    const SimulatorProcess device(smallPictures());
    const ScratchFolder folder;
    std::filesystem::create_directories(folder.path() / "Kelvo.Uniview");
    std::ofstream(folder.path() / "Kelvo.Uniview" / "Kelvo.Uniview.rep") << "";
    const auto result = runProgram({programUnderTest("first-frame"), programUnderTest("Kelvo.Uniview.ipd"),
                                    folder.path().string(), deviceAddress(device)});
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, HasSubstr("first frame: 320 x 240"));
    EXPECT_THAT(result.output, HasSubstr("key frame"));
}
}  // namespace

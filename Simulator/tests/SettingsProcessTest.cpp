#include "Eventually.h"
#include "JsonText.h"
#include "Luma.h"
#include "PictureCaption.h"
#include "Programs.h"
#include "RtspPeer.h"
#include "SimulatorProcess.h"
#include "Sound.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

constexpr const char* streamsPath = "/LAPI/V1.0/Channel/0/Media/Video/Streams/DetailInfos";
constexpr const char* enhancePath = "/LAPI/V1.0/Channels/0/Image/Enhance";
constexpr const char* microphonePath = "/LAPI/V1.0/Media/Audio/Input";

/// A device without credentials and with a small picture.
std::vector<std::string> small(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--auth", "none", "--size", "320x240", "--sub-size", "160x120"});
    return more;
}

Json::Value responseOf(const ProgramResult& result)
{
    return parseJson(result.output.substr(0, result.output.rfind('\n')))["Response"];
}

Json::Value read(const SimulatorProcess& simulator, const std::string& path)
{
    return responseOf(simulator.lapi(path))["Data"];
}

void write(const SimulatorProcess& simulator, const std::string& path, const Json::Value& data)
{
    const ProgramResult result = simulator.lapi(path, {"--request", "PUT", "--data", data.toStyledString()});
    EXPECT_EQ(responseOf(result)["ResponseCode"], 0) << result.output;
}

void set(const SimulatorProcess& simulator, const std::string& path, const std::string& member, int value)
{
    Json::Value data = read(simulator, path);
    data[member] = value;
    write(simulator, path, data);
}

/// Changes one member of "VideoEncodeInfo" of a stream.
void setEncoding(const SimulatorProcess& simulator, unsigned stream, const std::string& member,
                 const Json::Value& value)
{
    Json::Value data = read(simulator, streamsPath);
    data["VideoStreamInfos"][stream]["VideoEncodeInfo"][member] = value;
    write(simulator, streamsPath, data);
}

Json::Value resolution(int width, int height)
{
    Json::Value size(Json::objectValue);
    size["Width"] = width;
    size["Height"] = height;
    return size;
}

std::uint16_t rtspPort(const SimulatorProcess& simulator)
{
    return static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt());
}

std::string url(const SimulatorProcess& simulator, const std::string& path = "/media/video1")
{
    return simulator.rtspUrl(path, "");
}

/// What ffprobe finds as the first stream.
Json::Value probe(const SimulatorProcess& simulator, const std::string& path = "/media/video1")
{
    const ProgramResult result =
        runProgram({"ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
                    "stream=codec_name,width,height,r_frame_rate", "-of", "json", url(simulator, path)});
    EXPECT_EQ(result.status, 0) << result.errors;
    return parseJson(result.output)["streams"][0];
}

/// A client that watches the picture.
class Watcher {
public:
    explicit Watcher(const SimulatorProcess& simulator, const std::string& path = "/media/video1")
        : peer(rtspPort(simulator))
    {
        peer.play(url(simulator, path), 1);
        EXPECT_TRUE(peer.nextFrame());
    }

    /// Reads to the end of the connection.
    void awaitEnd()
    {
        while (peer.nextFrame()) {
        }
    }

    struct Picture {
        bool isKey = false;
        std::size_t bytes = 0;
        std::uint32_t timestamp = 0;  ///< 90 kHz
    };
    /// The next H.264 picture; empty when the connection has ended.
    std::optional<Picture> nextPicture()
    {
        Picture picture;
        while (const auto packet = peer.nextFrame()) {
            if (packet->channel != 0)
                continue;
            constexpr unsigned parameterSet = 7;
            picture.isKey = picture.isKey || (packet->bytes.at(12) & 31u) == parameterSet;
            picture.bytes += packet->bytes.size();
            picture.timestamp = 0;
            for (std::size_t i = 4; i < 8; ++i)
                picture.timestamp = picture.timestamp << 8 | packet->bytes.at(i);
            if ((packet->bytes.at(1) & 0x80) != 0)
                return picture;
        }
        return std::nullopt;
    }

private:
    RtspPeer peer;
};

TEST(StreamSettings, closeTheConnectionsOfAStreamThatGetsAnotherFormat)
{
    const SimulatorProcess simulator(small({"--no-audio"}));
    Watcher main(simulator);
    Watcher sub(simulator, "/media/video2");
    setEncoding(simulator, 0, "EncodeFormat", 2);
    main.awaitEnd();
    EXPECT_TRUE(sub.nextPicture()) << "another stream goes on";
    const Json::Value seen = probe(simulator);
    EXPECT_EQ(seen["codec_name"], "hevc");
    EXPECT_EQ(seen["width"], 320);
    EXPECT_EQ(probe(simulator, "/media/video2")["codec_name"], "h264");
}

TEST(StreamSettings, changeCodecAndSizeOfEachStream)
{
    const SimulatorProcess simulator(small({"--no-audio", "--dialect", "old"}));
    setEncoding(simulator, 1, "EncodeFmt", 3);
    setEncoding(simulator, 1, "Resolution", resolution(192, 144));
    const Json::Value sub = probe(simulator, "/media/video2");
    EXPECT_EQ(sub["codec_name"], "mjpeg");
    EXPECT_EQ(sub["width"], 192);
    EXPECT_EQ(sub["height"], 144);
    EXPECT_EQ(probe(simulator)["width"], 320);
    EXPECT_EQ(simulator.admin("GET", "state")["settings"]["video"][0]["lostMembers"].size(), 0u);
}

TEST(StreamSettings, letANewSizeArriveWhereTheDeviceClosesNothing)
{
    const SimulatorProcess simulator(small({"--no-audio", "--format-change", "continue"}));
    Watcher watcher(simulator);
    setEncoding(simulator, 0, "Resolution", resolution(192, 144));
    for (int picture = 0; picture < 30; ++picture)
        ASSERT_TRUE(watcher.nextPicture()) << "the connection stands";
    EXPECT_EQ(probe(simulator)["width"], 192);
    setEncoding(simulator, 0, "EncodeFormat", 2);
    watcher.awaitEnd();
    EXPECT_EQ(probe(simulator)["codec_name"], "hevc");
}

TEST(StreamSettings, changeTheDistanceOfKeyFramesWhileTheStreamRuns)
{
    const SimulatorProcess simulator(small({"--no-audio", "--fps", "60"}));
    Watcher watcher(simulator);
    for (const int interval : {7, 31}) {
        SCOPED_TRACE(interval);
        setEncoding(simulator, 0, "IFrameInterval", interval);
        // The change meets a stream on its way; behind a key frame that came after it the distance holds.
        std::vector<int> distances;
        int distance = 0;
        while (std::ranges::count(distances, interval) < 2 && distances.size() < 20) {
            const auto picture = watcher.nextPicture();
            ASSERT_TRUE(picture);
            ++distance;
            if (picture->isKey)
                distances.push_back(std::exchange(distance, 0));
        }
        EXPECT_EQ(std::ranges::count(distances, interval), 2) << testing::PrintToString(distances);
    }
}

TEST(StreamSettings, letALaterClientBeginWithAKeyFrameHoweverRareTheyAre)
{
    const SimulatorProcess simulator(small({"--no-audio"}));
    setEncoding(simulator, 0, "IFrameInterval", 1000);
    Watcher first(simulator);
    ASSERT_TRUE(first.nextPicture());
    Watcher second(simulator);
    // A busy machine has some pictures on their way when the second asks.
    bool keyFrame = false;
    for (int count = 0; count < 100 && !keyFrame; ++count) {
        const auto picture = second.nextPicture();
        ASSERT_TRUE(picture);
        keyFrame = picture->isKey;
    }
    EXPECT_TRUE(keyFrame);
}

TEST(StreamSettings, changeTheFrameRateWhileTheStreamRuns)
{
    const SimulatorProcess simulator(small({"--no-audio"}));
    Watcher watcher(simulator);
    setEncoding(simulator, 0, "FrameRate", 10);
    std::uint32_t before = 0;
    std::uint32_t distance = 0;
    for (int picture = 0; picture < 100 && distance != 90'000 / 10; ++picture) {
        const auto next = watcher.nextPicture();
        ASSERT_TRUE(next) << "the connection stands";
        distance = next->timestamp - std::exchange(before, next->timestamp);
    }
    EXPECT_EQ(distance, 90'000u / 10);
    const std::string description = RtspPeer(rtspPort(simulator)).request("DESCRIBE", url(simulator));
    EXPECT_NE(description.find("a=framerate:10"), std::string::npos) << description;
}

TEST(StreamSettings, changeTheBitRateWhileTheStreamRuns)
{
    const SimulatorProcess simulator(small({"--no-audio", "--bitrate", "4000", "--fps", "60"}));
    Watcher watcher(simulator);
    const auto bytesOf = [&](int pictures) {
        std::size_t bytes = 0;
        for (int i = 0; i < pictures; ++i)
            bytes += watcher.nextPicture().value_or(Watcher::Picture{}).bytes;
        return bytes;
    };
    const std::size_t before = bytesOf(50);
    setEncoding(simulator, 0, "BitRate", 64);
    bytesOf(25);  // the rate control has its own pace
    EXPECT_LT(bytesOf(50), before / 2);
}

/// What ffmpeg reads, without a long look at the stream before.
std::vector<std::string> quickInput(const SimulatorProcess& simulator)
{
    return {"-fpsprobesize", "0", "-analyzeduration", "100000", "-rtsp_transport", "tcp", "-i", url(simulator)};
}

TEST(ImageSettings, areSeenInTheRunningPicture)
{
    const SimulatorProcess simulator(small({"--no-audio"}));
    Watcher watcher(simulator);  // it keeps the stream running
    const Luma before(quickInput(simulator));

    set(simulator, enhancePath, "Brightness", 168);
    const Luma bright(quickInput(simulator));
    EXPECT_GT(bright.mean() - before.mean(), 20) << "white cannot become any brighter";
    EXPECT_LT(bright.mean() - before.mean(), 80);
    set(simulator, enhancePath, "Brightness", 128);

    set(simulator, enhancePath, "Contrast", 32);
    EXPECT_LT(Luma(quickInput(simulator)).deviation(), before.deviation() / 2);
    set(simulator, enhancePath, "Contrast", 128);

    set(simulator, enhancePath, "Saturation", 0);
    EXPECT_LT(Luma(quickInput(simulator)).colour(), before.colour() / 3);
    set(simulator, enhancePath, "Saturation", 128);

    EXPECT_NEAR(Luma(quickInput(simulator)).mean(), before.mean(), 5) << "as it was";
    EXPECT_TRUE(watcher.nextPicture()) << "the connection stands";
}

TEST(ImageSettings, turnThePictureButNotItsCaption)
{
    const SimulatorProcess simulator(small({"--no-audio"}));
    const Caption caption = captionsOf(quickInput(simulator))[0];
    const Luma::Corner corners[] = {Luma::topLeft, Luma::bottomLeft, Luma::topRight, Luma::bottomRight};
    for (const int rotation : {0, 2, 1, 3}) {
        SCOPED_TRACE(rotation);
        set(simulator, enhancePath, "ImageRotation", rotation);
        EXPECT_EQ(Luma(quickInput(simulator)).letter(), corners[rotation]);
    }
    EXPECT_LT(difference(caption, captionsOf(quickInput(simulator))[0]), 0.5)
        << "other bars shine through, the letters stand";
}

/// How loud a microphone is, after the first packets.
double loudnessAt(const SimulatorProcess& simulator)
{
    const Samples heard =
        soundOf({"-rtsp_transport", "tcp", "-allowed_media_types", "audio", "-i", url(simulator), "-t", "0.4"});
    EXPECT_GT(heard.size(), 2000u) << "silence is sent, too";
    return loudness(heard);
}

TEST(Microphone, isSilentUntilItIsSwitchedOn)
{
    const SimulatorProcess simulator(small({"--microphone", "muted"}));
    EXPECT_EQ(read(simulator, microphonePath)["IsMute"], 1);
    EXPECT_LT(loudnessAt(simulator), 10);
    write(simulator, microphonePath, parseJson(R"({"IsMute": 0})"));
    const double full = loudnessAt(simulator);
    EXPECT_GT(full, 1000);
    set(simulator, microphonePath, "InputGain", 90);
    EXPECT_NEAR(loudnessAt(simulator) / full, 0.5, 0.1);
}

}  // namespace
}  // namespace simulator::test

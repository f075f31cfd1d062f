#include "HostFixture.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using testing::HasSubstr;
using testing::Not;

constexpr std::uint64_t tenToThree =
    1'795'186'200'000;  // 2026-11-20 14:50:00 UTC, where a recording of the sample ends
constexpr std::uint64_t threeOClock = tenToThree + 600'000;

class Playback : public testing::Test, protected HostFixture {
protected:
    std::string file(const std::string& name) const { return (directory / name).string(); }

    static std::vector<std::string> commandLine(const std::vector<std::string>& words, const std::string& device)
    {
        std::vector<std::string> all{"--json", "--log-level", "info", "--device",
                                     device,   "--channels",  "2",    "playback"};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    const ChildProcess& play(const std::string& begin, const std::string& end,
                             const std::vector<std::string>& words = {}, const std::string& device = "recorder")
    {
        std::vector<std::string> all{"--begin", begin, "--end", end};
        all.insert(all.end(), words.begin(), words.end());
        const ChildProcess& host = run(commandLine(all, device));
        errors = host.errors();
        return host;
    }

    /// What ffprobe says of the file's pictures, or of its sound: their number and the length, one "name=value" a line.
    std::string probe(const std::string& name, const std::string& media = "v")
    {
        return runProgram({"ffprobe", "-v", "error", "-count_frames", "-select_streams", media, "-show_entries",
                           "stream=codec_name,nb_read_frames:format=duration", "-of", "default=noprint_wrappers=1",
                           file(name)})
            .output();
    }

    double lengthOf(const std::string& name)
    {
        return std::stod(
            runProgram({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", file(name)})
                .output());
    }

    void expectDecodable(const std::string& name)
    {
        const ChildProcess& ffmpeg = runProgram({"ffmpeg", "-v", "error", "-i", file(name), "-f", "null", "-"});
        EXPECT_EQ(status, 0) << name;
        EXPECT_EQ(ffmpeg.all(), "") << name;
    }

    void leavesGapsOutOf(const std::string& name);

    std::string errors;  ///< of the last run of `play`
};

TEST_F(Playback, recordsPicturesAndSoundWithTheirTimes)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:00:03Z", {"--output", file("a.mp4"), "--snapshot", file("a.png")});
    EXPECT_EQ(status, 0) << errors;
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["frames"], 75);
    EXPECT_EQ(summary["keyFrames"], 3);
    EXPECT_EQ(summary["codec"], "h264");
    EXPECT_EQ(summary["width"], 160);
    EXPECT_EQ(summary["audioFrames"], 75);
    EXPECT_EQ(summary["audioCodec"], "g711u");
    EXPECT_EQ(summary["droppedFrames"], 0);
    EXPECT_EQ(summary["recordedBegin"], "2026-11-20T14:00:00Z");
    EXPECT_EQ(summary["recordedBeginMs"].asUInt64(), 1'795'183'200'000U);
    EXPECT_EQ(summary["recordedEnd"], "2026-11-20T14:00:02.960Z");
    EXPECT_EQ(summary["gaps"], 0);
    EXPECT_EQ(summary["endReached"], true);
    EXPECT_EQ(summary["speed"], 1);
    EXPECT_EQ(summary["speedRefused"], false);
    EXPECT_EQ(summary["output"], file("a.mp4"));
    EXPECT_EQ(summary["snapshot"], file("a.png"));
    EXPECT_FALSE(summary.isMember("lost")) << "modules tell no statistics of a playback";
    EXPECT_TRUE(getEvent("gap").isNull());
    EXPECT_EQ(getEvent("part")["file"], file("a.mp4"));
    EXPECT_THAT(probe("a.mp4"), HasSubstr("codec_name=h264\nnb_read_frames=75\n"));
    EXPECT_NEAR(lengthOf("a.mp4"), 3, 0.15);
    expectDecodable("a.mp4");
    EXPECT_TRUE(std::filesystem::exists(file("a.png")));
    EXPECT_THAT(errors, HasSubstr("channel 0: closed"));
}

TEST_F(Playback, endsTheFileWithTheInterval)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:00:01.500Z", {"--output", file("a.mkv")}, "restless");
    EXPECT_EQ(status, 0) << errors;
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["frames"], 38);
    EXPECT_EQ(summary["audioFrames"], 38);
    EXPECT_EQ(summary["recordedEnd"], "2026-11-20T14:00:01.480Z");
    EXPECT_EQ(summary["endReached"], true);
    EXPECT_THAT(probe("a.mkv"), HasSubstr("nb_read_frames=38\n"));
    EXPECT_NEAR(lengthOf("a.mkv"), 1.5, 0.15);
}

TEST_F(Playback, keepsAllSoundWherePicturesComeSlowly)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:00:20Z", {"--output", file("a.mkv")}, "dozing");
    EXPECT_EQ(status, 0) << errors;
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["frames"], 4);
    EXPECT_EQ(summary["audioFrames"], 500);
    EXPECT_EQ(summary["soundLeftOut"], 0);
    EXPECT_THAT(probe("a.mkv"), HasSubstr("nb_read_frames=4\n"));
    EXPECT_THAT(probe("a.mkv", "a"), HasSubstr("nb_read_frames=500\n"));
    EXPECT_NEAR(lengthOf("a.mkv"), 20, 0.15);
    expectDecodable("a.mkv");
}

TEST_F(Playback, keepsTheSoundOnBothSidesOfAGapWherePicturesComeSlowly)
{
    play("2026-11-20T14:49:50Z", "2026-11-20T15:00:10Z", {"--output", file("a.mkv")}, "dozing");
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(getEvent("summary")["gaps"], 1);
    EXPECT_THAT(probe("a.mkv", "a"), HasSubstr("nb_read_frames=500\n"));
    EXPECT_NEAR(lengthOf("a.mkv"), 20, 0.15);
}

void Playback::leavesGapsOutOf(const std::string& name)
{
    play("2026-11-20T14:49:58Z", "2026-11-20T15:00:02Z", {"--output", file(name)});
    EXPECT_EQ(status, 0) << errors;
    const Json::Value gap = getEvent("gap");
    EXPECT_EQ(gap["begin"], "2026-11-20T14:50:00Z");
    EXPECT_EQ(gap["beginMs"].asUInt64(), tenToThree);
    EXPECT_EQ(gap["end"], "2026-11-20T15:00:00Z");
    EXPECT_EQ(gap["endMs"].asUInt64(), threeOClock);
    EXPECT_THAT(errors, HasSubstr("nothing is recorded from 2026-11-20T14:50:00Z to 2026-11-20T15:00:00Z\n"));
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["frames"], 100);
    EXPECT_EQ(summary["gaps"], 1);
    EXPECT_EQ(summary["gapSeconds"].asDouble(), 600);
    EXPECT_EQ(summary["recordedEndMs"].asUInt64(), threeOClock + 1960);
    EXPECT_THAT(probe(name), HasSubstr("nb_read_frames=100\n"));
    EXPECT_NEAR(lengthOf(name), 4, 0.15);
    expectDecodable(name);
}

TEST_F(Playback, leavesGapsOutOfMp4)
{
    leavesGapsOutOf("a.mp4");
}

TEST_F(Playback, leavesGapsOutOfMatroska)
{
    leavesGapsOutOf("a.mkv");
}

TEST_F(Playback, beginsWithTheFirstRecordingOfTheInterval)
{
    play("2026-11-20T14:55:00Z", "2026-11-20T15:00:01Z", {"--output", file("a.mp4")});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(getEvent("gap")["end"], "2026-11-20T15:00:00Z");
    EXPECT_EQ(getEvent("summary")["recordedBegin"], "2026-11-20T15:00:00Z");
    EXPECT_NEAR(lengthOf("a.mp4"), 1, 0.15);
}

TEST_F(Playback, tellsPeopleWhatCame)
{
    const ChildProcess& host =
        run({"--device", "recorder", "playback", "--begin", "2026-11-20T14:49:59Z", "--end", "2026-11-20T15:00:01Z"});
    EXPECT_EQ(status, 0);
    EXPECT_THAT(host.output(), HasSubstr("Received  50 frames, 2 of them key frames, in "));
    EXPECT_THAT(host.output(), HasSubstr("packets missing at 0 places\nRecorded  2026-11-20T14:49:59Z to "
                                         "2026-11-20T15:00:00Z, without 1 gap of 10:00\n"
                                         "Sound     G.711 u-law 8000 Hz, 50 frames\n"));
}

TEST_F(Playback, asksForSpeedAndKeyFrames)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:00:10Z", {"--speed", "8", "--key-frames", "--output", file("a.mp4")});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_THAT(errors, HasSubstr("speed 8, key frames only"));
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["frames"], 10);
    EXPECT_EQ(summary["keyFrames"], 10);
    EXPECT_EQ(summary["speed"], 8);
    EXPECT_EQ(summary["keyFramesOnly"], true);
    EXPECT_EQ(summary["keyFramesRefused"], false);
    EXPECT_NEAR(lengthOf("a.mp4"), 9.5, 0.6) << "the file has the times of the recording";
    EXPECT_THAT(errors, Not(HasSubstr("no sound has arrived"))) << "none comes beside key frames";
}

TEST_F(Playback, missesNoSoundBesideKeyFrames)
{
    const std::vector<std::string> words{
        "--device", "recorder", "playback", "--begin", "2026-11-20T14:00:00Z", "--end", "2026-11-20T14:00:02Z"};
    EXPECT_THAT(run(words).output(), HasSubstr("\nSound  "));
    std::vector<std::string> keyFrames = words;
    keyFrames.emplace_back("--key-frames");
    EXPECT_THAT(run(keyFrames).output(), Not(HasSubstr("\nSound  ")));
}

TEST_F(Playback, goesOnAtTheDevicesSpeedWhenItOffersNoOther)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:00:02Z", {"--speed", "4", "--output", file("a.mp4")}, "voiceless");
    EXPECT_EQ(status, 0) << errors;
    EXPECT_THAT(errors, HasSubstr("the device does not offer to play 4 times as fast (result 8); it plays every frame "
                                  "at its own speed\n"));
    EXPECT_THAT(errors, HasSubstr("no sound has arrived, so "));
    EXPECT_EQ(getEvent("summary")["speedRefused"], true);
    EXPECT_EQ(getEvent("summary")["keyFramesRefused"], false);
    EXPECT_EQ(getEvent("summary")["frames"], 50);
    EXPECT_EQ(getEvent("summary")["audioFrames"], 0);
    expectDecodable("a.mp4");
}

TEST_F(Playback, saysWhatOfItsWishesTheDeviceDoesNotOffer)
{
    const struct {
        const char* speed;
        const char* message;
        bool speedRefused;
    } cases[] = {
        {"1", "the device does not offer to play key frames only (result 8); it plays every frame\n", false},
        {"4", "the device does not offer to play 4 times as fast (result 8); it plays at its own speed\n", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.speed);
        play("2026-11-20T14:00:00Z", "2026-11-20T14:00:02Z", {"--speed", c.speed, "--key-frames"}, "voiceless");
        EXPECT_EQ(status, 0) << errors;
        EXPECT_THAT(errors, HasSubstr(c.message));
        EXPECT_EQ(getEvent("summary")["speedRefused"], c.speedRefused);
        EXPECT_EQ(getEvent("summary")["keyFramesRefused"], true);
        EXPECT_EQ(getEvent("summary")["frames"], 50);
    }
}

TEST_F(Playback, beginsANewPartWhenTheRecordedCodecChanges)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:00:01Z", {"--output", file("a.mp4")}, "changing");
    EXPECT_EQ(status, 0) << errors;
    const Json::Value summary = getEvent("summary");
    ASSERT_EQ(summary["parts"].size(), 3U);
    EXPECT_EQ(summary["parts"][1]["file"], file("a-2.mp4"));
    EXPECT_EQ(summary["formats"][1]["codec"], "h265");
    for (const char* name : {"a.mp4", "a-2.mp4", "a-3.mp4"})
        expectDecodable(name);
}

TEST_F(Playback, losesNothingWhenTheFileIsSlowerThanTheDevice)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:04:00Z", {"--output", file("a.mp4")});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(getEvent("summary")["droppedFrames"], 0);
    EXPECT_THAT(probe("a.mp4"), HasSubstr("nb_read_frames=6000\n"));
}

TEST_F(Playback, saysThatNothingIsRecorded)
{
    play("2026-11-20T14:51:00Z", "2026-11-20T14:52:00Z", {"--output", file("a.mp4")});
    EXPECT_EQ(status, 4);
    EXPECT_THAT(errors,
                HasSubstr("nothing is recorded on channel 0 from 2026-11-20T14:51:00Z to 2026-11-20T14:52:00Z\n"));
    EXPECT_FALSE(getEvent("failure").isMember("code"));
    EXPECT_TRUE(getEvent("summary").isNull());
    EXPECT_FALSE(std::filesystem::exists(file("a.mp4")));
}

TEST_F(Playback, saysWhyNothingCanBePlayed)
{
    const struct {
        const char* device;
        const char* channel;
        int code;
        const char* reason;
    } cases[] = {
        {"barred", "0", 514,
         "channel 0 from 2026-11-20T14:00:00Z to 2026-11-20T14:01:00Z cannot be played: the device does not know the "
         "resource (result 514); `kelvo-host recordings` tells what is recorded"},
        {"unwilling", "0", 1025, "cannot be played: the device refused the stream (result 1025)\n"},
        {"mute", "0", 8, "the recordings of channel 0 cannot be played: not supported (result 8)"},
        {"recorder", "2", 7,
         "the recordings of channel 2 cannot be played: there is no such object (result 7); the device is "
         "taken to have 2 channels, name more with --channels"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.device);
        play("2026-11-20T14:00:00Z", "2026-11-20T14:01:00Z", {"--channel", c.channel}, c.device);
        EXPECT_EQ(status, 4);
        EXPECT_THAT(errors, HasSubstr(c.reason));
        EXPECT_EQ(getEvent("failure")["code"], c.code);
    }
}

TEST_F(Playback, doesNotWaitForEverForTheDevice)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:01:00Z", {"--timeout", "0.1"}, "dark");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(errors, HasSubstr("the device did not answer in time"));
}

TEST_F(Playback, keepsWhatCameBeforeTheConnectionWasLost)
{
    play("2026-11-20T14:00:00Z", "2026-11-20T14:01:00Z", {"--output", file("a.mp4")}, "flaky");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(errors,
                HasSubstr("the playback broke off at 2026-11-20T14:00:00.360Z: the connection to the device was "
                          "lost (result 257)"));
    EXPECT_EQ(getEvent("failure")["code"], 257);
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["frames"], 10);
    EXPECT_EQ(summary["endReached"], false);
    EXPECT_EQ(summary["output"], file("a.mp4"));
    EXPECT_THAT(probe("a.mp4"), HasSubstr("nb_read_frames=10\n"));
    expectDecodable("a.mp4");
}

TEST_F(Playback, finishesItsFilesWhenInterrupted)
{
    ChildProcess& host =
        start(commandLine({"--begin", "2026-01-01", "--end", "2026-11-20", "--output", file("a.mp4")}, "recorder"));
    host.awaitOutput("part");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    const Json::Value summary = getEvent("summary");
    EXPECT_GE(summary["frames"].asUInt(), 1U);
    EXPECT_EQ(summary["endReached"], false);
    EXPECT_THAT(host.errors(), HasSubstr("channel 0: closed"));
    EXPECT_THAT(probe("a.mp4"), HasSubstr("nb_read_frames=" + summary["frames"].asString() + "\n"));
}

TEST_F(Playback, stopsWhenItIsInterruptedWhileTheDeviceThinks)
{
    ChildProcess& host = start(commandLine({"--begin", "-2d", "--end", "now", "--output", file("a.mp4")}, "dark"));
    host.awaitErrors("channel 0: opened");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_TRUE(getEvent("summary").isNull());
    EXPECT_FALSE(std::filesystem::exists(file("a.mp4")));
}

TEST_F(Playback, endsAfterTheSecondsThatWereAskedFor)
{
    play("2026-01-01", "2026-11-20", {"--seconds", "0.05"});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(getEvent("summary")["endReached"], false);
    EXPECT_GE(getEvent("summary")["seconds"].asDouble(), 0.05);
}

TEST_F(Playback, saysThatTheDiskIsFull)
{
    std::filesystem::create_symlink("/dev/full", directory / "full.mkv");
    play("2026-01-01", "2026-11-20", {"--output", file("full.mkv")});
    EXPECT_EQ(status, 4);
    EXPECT_THAT(errors, HasSubstr("cannot write " + file("full.mkv") + ": No space left on device"));
}

TEST_F(Playback, refusesWhatItCannotUseBeforeAnythingIsConnected)
{
    const struct {
        std::vector<std::string> words;
        int status;
        const char* reason;
    } cases[] = {
        {{"--begin", "2026-11-21", "--end", "2026-11-20"}, 2, "--end must be later than --begin"},
        {{"--begin", "soon", "--end", "now"}, 2, "\"soon\" is no time"},
        {{"--begin", "-1h", "--end", "now", "--speed", "3"}, 2, "--speed"},
        {{"--begin", "-1h", "--end", "now", "--output", "a.avi"}, 2, ".mp4 or .mkv"},
        {{"--begin", "-1h", "--end", "now", "--snapshot", "a.gif"}, 2, ".png"},
        {{"--begin", "-1h", "--end", "now", "--seconds", "-1"}, 2, "--seconds"},
        {{"--begin", "-1h", "--end", "now", "--output", "/absent/a.mp4"}, 4, "cannot write /absent/a.mp4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        const ChildProcess& host = run(commandLine(c.words, "silent"));
        EXPECT_EQ(status, c.status);
        EXPECT_THAT(host.errors(), HasSubstr(c.reason));
    }
}
}  // namespace
}  // namespace Host

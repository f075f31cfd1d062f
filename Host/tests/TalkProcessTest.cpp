#include "HostFixture.h"

#include <cmath>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <numbers>

namespace Host
{
namespace
{
using testing::HasSubstr;
using testing::Not;

/// Runs `talk` and looks at what reached the module, which writes it into the log and into a file.
class Talk : public testing::Test, protected HostFixture {
protected:
    std::string file(const std::string& name) const { return (directory / name).string(); }

    /// A sound file of 440 Hz, made by FFmpeg in the format that the name's ending says.
    std::string tone(const std::string& name, const std::string& seconds, const std::vector<std::string>& options = {})
    {
        std::vector<std::string> command{
            "ffmpeg", "-v", "error", "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=44100:duration=" + seconds};
        command.insert(command.end(), options.begin(), options.end());
        command.push_back(file(name));
        EXPECT_EQ(runProgram(command).all(), "");
        return file(name);
    }

    std::vector<std::string> commandLine(const std::vector<std::string>& words, const std::string& device) const
    {
        std::vector<std::string> all{"--json",   "--log-level", "info",
                                     "--device", device,        "--channels",
                                     "2",        "--set",       "talkFile=" + file("spoken"),
                                     "talk"};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    const ChildProcess& talk(const std::vector<std::string>& words, const std::string& device = "camera")
    {
        const ChildProcess& host = run(commandLine(words, device));
        errors = host.errors();
        return host;
    }

    std::vector<std::int16_t> spoken() const
    {
        std::ifstream stream(file("spoken"), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
        std::vector<std::int16_t> samples(bytes.size() / 2);
        std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
        return samples;
    }

    /// How much of the energy of what was spoken is a tone of 440 Hz at 8 kHz.
    double partOfTheTone() const
    {
        double sine = 0;
        double cosine = 0;
        double energy = 0;
        const auto samples = spoken();
        for (std::size_t i = 0; i < samples.size(); ++i) {
            const double angle = 2 * std::numbers::pi * 440 * static_cast<double>(i) / 8000;
            sine += samples[i] * std::sin(angle);
            cosine += samples[i] * std::cos(angle);
            energy += static_cast<double>(samples[i]) * samples[i];
        }
        return 2 * (sine * sine + cosine * cosine) / (energy * static_cast<double>(samples.size()));
    }

    /// Milliseconds from the line's standing to its end, as the module saw it.
    long callLength() const
    {
        const std::size_t mark = errors.find(" samples, ");
        return mark == errors.npos ? -1 : std::stol(errors.substr(mark + 10));
    }

    std::string errors;  ///< of the last run of `talk`
};

TEST_F(Talk, speaksAFileAtItsOwnSpeed)
{
    talk({"--input", tone("a.wav", "0.4")});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_THAT(errors, HasSubstr("channel 0: hung up after 20 frames, 3200 samples"));
    EXPECT_THAT(errors, Not(HasSubstr("without a line")));
    EXPECT_GE(callLength(), 400) << "the last piece is played to its end, too";
    EXPECT_GT(partOfTheTone(), 0.99);
    const Json::Value summary = getEvent("summary");
    EXPECT_EQ(summary["packets"], 20);
    EXPECT_DOUBLE_EQ(summary["seconds"].asDouble(), 0.4);
    EXPECT_EQ(summary["channel"], 0);
    EXPECT_EQ(summary["input"], file("a.wav"));
}

TEST_F(Talk, readsEveryKindOfFile)
{
    for (const char* name : {"a.mp3", "a.flac", "a.ogg", "a.m4a", "a.mkv"}) {
        SCOPED_TRACE(name);
        talk({"--input", tone(name, "0.2", {"-ac", "2"})});
        EXPECT_EQ(status, 0) << errors;
        EXPECT_GT(partOfTheTone(), 0.8);
        EXPECT_GE(getEvent("summary")["packets"].asUInt(), 10U);
    }
}

TEST_F(Talk, fillsTheLastPacketWithSilence)
{
    talk({"--input", tone("a.wav", "0.05")});
    EXPECT_EQ(getEvent("summary")["packets"], 3);
    const auto samples = spoken();
    ASSERT_EQ(samples.size(), 480U);
    EXPECT_EQ(samples.back(), 0);
}

TEST_F(Talk, tellsPeopleWhatWasSpoken)
{
    const ChildProcess& host =
        run({"--device", "camera", "--channels", "2", "talk", "--channel", "1", "--input", tone("a.wav", "0.1")});
    EXPECT_EQ(status, 0) << host.errors();
    EXPECT_EQ(host.output(), "Spoken    0.1 s to channel 1 in 5 packets\n");
    EXPECT_EQ(host.errors(), "");
}

TEST_F(Talk, hangsUpWhenItIsInterrupted)
{
    const std::string sound = tone("a.wav", "30");
    ChildProcess& host = start(commandLine({"--input", sound}, "camera"));
    host.awaitErrors("the line stands");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_THAT(host.errors(), HasSubstr("hung up after"));
    EXPECT_LT(getEvent("summary")["seconds"].asDouble(), 29);
}

TEST_F(Talk, hangsUpWhenItIsInterruptedWhileItCalls)
{
    const std::string sound = tone("a.wav", "0.1");
    ChildProcess& host = start(commandLine({"--input", sound}, "dark"));
    host.awaitErrors("called");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_TRUE(getEvent("summary").isNull());
}

TEST_F(Talk, saysWhyTheCallWasRefused)
{
    talk({"--input", tone("a.wav", "0.1")}, "barred");
    EXPECT_EQ(status, 3);
    EXPECT_THAT(errors, HasSubstr("the call was refused: the device refused the stream (result 1025)"));
    EXPECT_EQ(getEvent("failure")["code"], 1025);
    EXPECT_TRUE(getEvent("summary").isNull());
}

TEST_F(Talk, doesNotWaitForEverForAnAnswer)
{
    talk({"--input", tone("a.wav", "0.1"), "--timeout", "0.1"}, "dark");
    EXPECT_EQ(status, 3);
    EXPECT_THAT(errors, HasSubstr("the device did not answer the call in time"));
}

TEST_F(Talk, saysWhyTheCallBroke)
{
    talk({"--input", tone("a.wav", "30")}, "flaky");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(errors, HasSubstr("the call broke: the connection to the device was lost (result 257)"));
    EXPECT_EQ(getEvent("failure")["code"], 257);
    EXPECT_GE(getEvent("summary")["packets"].asUInt(), 5U);
}

TEST_F(Talk, saysWhenThereIsNoTalkBack)
{
    const std::string sound = tone("a.wav", "0.1");
    talk({"--input", sound}, "mute");
    EXPECT_EQ(status, 4);
    EXPECT_EQ(getEvent("failure")["code"], 8);
    EXPECT_THAT(errors, HasSubstr("channel 0 cannot be talked to: not supported (result 8)"));
    talk({"--input", sound, "--channel", "2"});
    EXPECT_EQ(status, 4);
    EXPECT_EQ(getEvent("failure")["code"], 7);
}

TEST_F(Talk, refusesAFileWithoutSoundBeforeAnythingIsConnected)
{
    std::ofstream(file("empty.wav")).flush();
    std::ofstream(file("words.wav")) << "this is no sound, however long one listens to it\n";
    runProgram({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=32x32:duration=0.2", "-pix_fmt", "yuv420p",
                file("silent.mp4")});
    const struct {
        std::vector<std::string> words;
        const char* reason;
    } cases[] = {
        {{}, "--input"},
        {{"--input", file("absent.wav")}, "No such file"},
        {{"--input", directory.get().string()}, "it is a directory"},
        {{"--input", file("empty.wav")}, "the file is empty"},
        {{"--input", file("words.wav")}, "of no kind that FFmpeg reads"},
        {{"--input", file("silent.mp4")}, "there is no sound in"},
        {{"--input", file("silent.mp4"), "--channel", "-1"}, "--channel"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        const ChildProcess& host = talk(c.words, "silent");
        EXPECT_EQ(status, 2);
        EXPECT_THAT(errors, HasSubstr(c.reason));
        EXPECT_EQ(host.output(), "");
    }
}
}  // namespace
}  // namespace Host

#include "media/SoundFile.h"

#include "ExitStatus.h"
#include "TemporaryDirectory.h"

#include <array>
#include <cmath>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

namespace Host
{
namespace
{
using testing::HasSubstr;
using Signal = std::function<double(double seconds)>;  ///< -1 to 1

Signal tone(double frequency, double amplitude = 0.5)
{
    return [=](double seconds) { return amplitude * std::sin(2 * std::numbers::pi * frequency * seconds); };
}

const Signal silence = [](double) { return 0.0; };

/// Writes PCM of 16 bits in a RIFF file, one signal for each channel.
void writeWave(const std::filesystem::path& file, unsigned rate, double seconds, const std::vector<Signal>& channels)
{
    std::string data;
    const auto put = [&data](std::uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            data.push_back(static_cast<char>((value >> (8 * i)) & 0xFFU));
    };
    const auto samples = static_cast<unsigned>(std::lround(seconds * rate));
    const auto count = static_cast<unsigned>(channels.size());
    data = "RIFF";
    put(36 + samples * count * 2, 4);
    data += "WAVEfmt ";
    put(16, 4);
    put(1, 2);  // PCM
    put(count, 2);
    put(rate, 4);
    put(rate * count * 2, 4);
    put(count * 2, 2);
    put(16, 2);
    data += "data";
    put(samples * count * 2, 4);
    for (unsigned i = 0; i < samples; ++i)
        for (const Signal& signal : channels)
            put(static_cast<std::uint32_t>(std::lround(32767 * signal(i / static_cast<double>(rate)))), 2);
    std::ofstream(file, std::ios::binary) << data;
}

std::vector<double> readAll(const std::filesystem::path& path, std::size_t piece = 160)
{
    SoundFile file(path);
    std::vector<double> all;
    std::vector<std::int16_t> buffer(piece);
    for (std::size_t count = piece; count == piece;) {
        count = file.read(buffer);
        for (std::size_t i = 0; i < count; ++i)
            all.push_back(buffer[i] / 32767.0);
    }
    EXPECT_EQ(file.read(buffer), 0U) << "the end stays the end";
    EXPECT_EQ(file.getDamaged(), 0U);
    return all;
}

double energy(const std::vector<double>& samples)
{
    double sum = 0;
    for (const double sample : samples)
        sum += sample * sample;
    return sum;
}

/// 1 when `samples` are `wanted` at 8 kHz, whatever their loudness; 0 when they have nothing in common.
double correlation(const std::vector<double>& samples, const Signal& wanted)
{
    std::vector<double> ideal;
    double common = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        ideal.push_back(wanted(static_cast<double>(i) / SoundFile::sampleRate));
        common += samples[i] * ideal.back();
    }
    return common / std::sqrt(energy(samples) * energy(ideal));
}

class SoundFileTest : public testing::Test {
protected:
    /// The sentence with which a file is refused.
    std::string refusal(const std::string& name) const
    {
        try {
            const SoundFile file(directory / name);
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.getStatus(), ExitStatus::usage);
            return failure.what();
        }
        return "opened";
    }

    TemporaryDirectory directory;
};

TEST_F(SoundFileTest, keepsSoundThatNeedsNoConversion)
{
    writeWave(directory / "a.wav", 8000, 0.5, {tone(440)});
    const auto samples = readAll(directory / "a.wav");
    ASSERT_EQ(samples.size(), 4000U);
    for (std::size_t i = 0; i < samples.size(); ++i)
        ASSERT_NEAR(samples[i], tone(440)(static_cast<double>(i) / 8000), 1.0 / 16384);
}

TEST_F(SoundFileTest, keepsPitchTimeAndLoudnessWhenItResamples)
{
    for (const unsigned rate : {8000U, 11025U, 16000U, 22050U, 44100U, 48000U, 96000U}) {
        SCOPED_TRACE(rate);
        writeWave(directory / "a.wav", rate, 0.5, {tone(440)});
        const auto samples = readAll(directory / "a.wav");
        EXPECT_NEAR(static_cast<double>(samples.size()), 4000.0, 2.0);
        EXPECT_GT(correlation(samples, tone(440)), 0.999);
        EXPECT_NEAR(energy(samples) / static_cast<double>(samples.size()), 0.125, 0.005);
    }
}

TEST_F(SoundFileTest, leavesOutWhatEightKilohertzCannotHold)
{
    writeWave(directory / "a.wav", 44100, 0.5, {tone(6000)});
    const auto samples = readAll(directory / "a.wav");
    EXPECT_LT(energy(samples) / static_cast<double>(samples.size()), 0.125 / 100) << "2 kHz, were it not filtered";
}

TEST_F(SoundFileTest, mixesAllChannels)
{
    for (const auto& channels : {std::vector<Signal>{tone(440), silence}, {silence, tone(440)}}) {
        writeWave(directory / "a.wav", 44100, 0.5, channels);
        EXPECT_GT(correlation(readAll(directory / "a.wav"), tone(440)), 0.999);
    }
}

TEST_F(SoundFileTest, givesTheSameInPiecesOfAnySize)
{
    writeWave(directory / "a.wav", 44100, 0.2, {tone(300)});
    const auto whole = readAll(directory / "a.wav", 100'000);
    EXPECT_EQ(readAll(directory / "a.wav", 160), whole);
    EXPECT_EQ(readAll(directory / "a.wav", 7), whole);
}

TEST_F(SoundFileTest, tellsHowLongItIs)
{
    writeWave(directory / "a.wav", 16000, 0.25, {tone(440)});
    EXPECT_NEAR(SoundFile(directory / "a.wav").getSeconds().value_or(0), 0.25, 0.001);
}

TEST_F(SoundFileTest, takesANameThatLooksLikeAProtocol)
{
    writeWave(directory / "http:a.wav", 8000, 0.1, {tone(440)});
    EXPECT_EQ(readAll(directory / "http:a.wav").size(), 800U);
}

TEST_F(SoundFileTest, saysWhyAFileHasNoSound)
{
    std::ofstream(directory / "empty.wav").flush();
    std::ofstream(directory / "text.wav") << "this is no sound, however long one listens to it\n";
    writeWave(directory / "header.wav", 8000, 0, {tone(440)});
    std::filesystem::create_directory(directory / "folder");
    // A picture, binary PPM.
    std::ofstream(directory / "picture.ppm", std::ios::binary) << "P6 2 2 255\n" << std::string(12, 'x');
    const struct {
        const char* name;
        const char* reason;
    } cases[] = {
        {"absent.wav", "No such file"},         {"folder", "it is a directory"},
        {"empty.wav", "the file is empty"},     {"text.wav", "of no kind that FFmpeg reads"},
        {"header.wav", "there is no sound in"}, {"picture.ppm", "there is no sound in"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_THAT(refusal(c.name), HasSubstr(c.reason));
        EXPECT_THAT(refusal(c.name), HasSubstr((directory / c.name).string()));
    }
}

TEST_F(SoundFileTest, aPlayListLeadsNowhereElse)
{
    std::ofstream(directory / "list.m3u8") << "#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXTINF:1,\nhttp://127.0.0.1:9/a.ts\n"
                                              "#EXT-X-ENDLIST\n";
    EXPECT_NE(refusal("list.m3u8"), "opened");
}
}  // namespace
}  // namespace Host

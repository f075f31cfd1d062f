#include "media/MediaWriter.h"

#include "HostFixture.h"
#include "media/Picture.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>

namespace Host
{
namespace
{
using Tavro8::GDRV::FrameReference;
using Tavro8::GDRV::IFrameBuffer;
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using Bytes = std::vector<std::uint8_t>;

/// The test owns the bytes, which outlive the frames.
class BorrowedBuffer final : public IFrameBuffer {
public:
    void AddRef() const noexcept override {}
    void Release() const noexcept override {}
};
const BorrowedBuffer borrowed;

Bytes readFile(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// Pieces of a clip in which each access unit begins with a delimiter (ITU-T H.265 NAL unit type 35).
std::vector<Bytes> accessUnits(const Bytes& clip)
{
    const Bytes delimiter{0, 0, 0, 1, 0x46};
    std::vector<Bytes> units;
    for (auto begin = clip.begin(); begin != clip.end();) {
        const auto end = std::search(begin + 1, clip.end(), delimiter.begin(), delimiter.end());
        units.emplace_back(begin, end);
        begin = end;
    }
    return units;
}

class MediaWriterTest : public testing::Test, protected HostFixture {
protected:
    std::string file(const std::string& name) const { return (directory / name).string(); }

    FrameReference video(MediaCodec codec, bool keyFrame, const Bytes& data, std::int64_t timestampMs) const
    {
        MediaFrame frame;
        frame.codec = codec;
        frame.keyFrame = keyFrame;
        frame.timestampMs = timestampMs;
        frame.durationMs = 40;
        frame.data = data;
        frame.buffer = &borrowed;
        return FrameReference(frame);
    }

    FrameReference sound(MediaCodec codec, std::uint32_t channels, const Bytes& data, std::int64_t timestampMs) const
    {
        MediaFrame frame;
        frame.codec = codec;
        frame.keyFrame = true;
        frame.timestampMs = timestampMs;
        frame.sampleRate = 8000;
        frame.channelCount = channels;
        frame.sampleCount = 320;
        frame.data = data;
        frame.buffer = &borrowed;
        return FrameReference(frame);
    }

    /// Writes the ten pictures and calls `beside` with the time of each.
    template <typename Beside>
    void writeClip(MediaWriter& writer, const Beside& beside) const
    {
        const std::vector<Bytes> units =
            accessUnits(readFile(std::filesystem::path(KELVO_TEST_DATA_DIR) / "ten_pictures.h265"));
        ASSERT_EQ(units.size(), 10U);
        for (std::size_t i = 0; i < units.size(); ++i) {
            const auto time = beginMs + static_cast<std::int64_t>(i) * 40;
            beside(time);
            writer.write(video(MediaCodec::h265, i % 5 == 0, units[i], time));
        }
        writer.finish();
    }

    std::string probe(const std::string& name)
    {
        return runProgram({"ffprobe", "-v", "error", "-count_frames", "-show_entries",
                           "stream=codec_name,codec_tag_string,width,height,channels,nb_read_frames", "-of",
                           "default=nokey=1", file(name)})
            .output();
    }

    void expectDecodable(const std::string& name)
    {
        EXPECT_EQ(runProgram({"ffmpeg", "-v", "error", "-i", file(name), "-f", "null", "-"}).all(), "") << name;
        EXPECT_EQ(status, 0);
    }

    static std::vector<std::string> filesOf(const MediaWriter& writer)
    {
        std::vector<std::string> files;
        for (const RecordedPart& part : writer.getParts())
            files.push_back(part.file.string());
        return files;
    }

    static constexpr std::int64_t beginMs = 1'700'000'000'000;
    std::vector<std::string> notices;
    const std::function<void(const std::string&)> note = [this](const std::string& text) { notices.push_back(text); };
};

TEST_F(MediaWriterTest, writesH265WhoseSizeOnlyThePictureTells)
{
    for (const char* name : {"a.mp4", "a.mkv"}) {
        MediaWriter writer(file(name), ExpectedSound::none, note);
        writeClip(writer, [](std::int64_t) {});
        EXPECT_THAT(filesOf(writer), ElementsAre(file(name)));
        EXPECT_THAT(probe(name), HasSubstr("hevc\n"));
        EXPECT_THAT(probe(name), HasSubstr("128\n96\n10\n"));
        expectDecodable(name);
    }
    EXPECT_THAT(probe("a.mp4"), HasSubstr("hvc1"));
    EXPECT_TRUE(notices.empty());
}

TEST_F(MediaWriterTest, writesEverySoundToEveryKindOfFile)
{
    const struct {
        MediaCodec codec;
        std::uint32_t channels;
        std::size_t bytes;
        const char* inMatroska;
    } cases[] = {
        {MediaCodec::g711U, 1, 320, "pcm_mulaw"},
        {MediaCodec::g711A, 1, 320, "pcm_alaw"},
        {MediaCodec::pcm16, 2, 1280, "pcm_s16le"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.inMatroska);
        const Bytes data(c.bytes, 0x55);
        for (const char* name : {"s.mp4", "s.mkv"}) {
            MediaWriter writer(file(name), ExpectedSound::certain, note);
            writeClip(writer, [&](std::int64_t time) { writer.write(sound(c.codec, c.channels, data, time)); });
            EXPECT_THAT(probe(name), HasSubstr(std::string(name) == "s.mp4" ? "aac" : c.inMatroska));
            expectDecodable(name);
        }
    }
}

TEST_F(MediaWriterTest, writesJpegPictures)
{
    // A picture of the clip becomes a JPEG, and the JPEG a stream.
    const Bytes clip = readFile(std::filesystem::path(KELVO_TEST_DATA_DIR) / "ten_pictures.h265");
    const FramePtr picture = decodePicture(*video(MediaCodec::h265, true, accessUnits(clip).front(), 0));
    ASSERT_NE(picture, nullptr);
    savePicture(*picture, file("one.jpg"));
    const Bytes jpeg = readFile(file("one.jpg"));
    for (const char* name : {"j.mp4", "j.mkv"}) {
        MediaWriter writer(file(name), ExpectedSound::none, note);
        for (int i = 0; i < 5; ++i)
            writer.write(video(MediaCodec::mjpeg, true, jpeg, beginMs + i * 40));
        writer.finish();
        EXPECT_THAT(probe(name), HasSubstr("mjpeg\n"));
        EXPECT_THAT(probe(name), HasSubstr("128\n96\n5\n"));
        expectDecodable(name);
    }
}

TEST_F(MediaWriterTest, beginsAtTheFirstKeyFrame)
{
    const Bytes clip = readFile(std::filesystem::path(KELVO_TEST_DATA_DIR) / "ten_pictures.h265");
    const std::vector<Bytes> units = accessUnits(clip);
    MediaWriter writer(file("k.mp4"), ExpectedSound::none, note);
    for (std::size_t i = 3; i < units.size(); ++i)
        writer.write(video(MediaCodec::h265, i % 5 == 0, units[i], beginMs + static_cast<std::int64_t>(i) * 40));
    writer.finish();
    EXPECT_THAT(probe("k.mp4"), HasSubstr("128\n96\n5\n"));
    expectDecodable("k.mp4");
}

TEST_F(MediaWriterTest, waitsForAKeyFrameOfANewCodec)
{
    const std::vector<Bytes> units =
        accessUnits(readFile(std::filesystem::path(KELVO_TEST_DATA_DIR) / "ten_pictures.h265"));
    std::vector<RecordedPart> begun;
    MediaWriter writer(file("m.mkv"), ExpectedSound::none, note,
                       [&](const RecordedPart& part) { begun.push_back(part); });
    writer.write(video(MediaCodec::h265, true, units[0], beginMs));
    writer.write(video(MediaCodec::h264, false, Bytes{0, 0, 1, 0x41, 1, 2, 3}, beginMs + 40));
    writer.write(video(MediaCodec::h264, true, Bytes{0, 0, 1, 0x65, 1, 2, 3}, beginMs + 80));  // without parameter sets
    writer.write(video(MediaCodec::h265, false, units[1], beginMs + 120));
    writer.finish();
    ASSERT_EQ(writer.getParts().size(), 1U);
    EXPECT_EQ(writer.getParts()[0].pictures, 2U);
    ASSERT_EQ(begun.size(), 1U);
    EXPECT_EQ(begun[0].file, file("m.mkv"));
    EXPECT_EQ(begun[0].video.codec, MediaCodec::h265);
    EXPECT_EQ(begun[0].video.width, 128U);
    EXPECT_FALSE(begun[0].audio);
    EXPECT_THAT(probe("m.mkv"), HasSubstr("128\n96\n2\n"));
    expectDecodable("m.mkv");
}

TEST_F(MediaWriterTest, writesNoFileWithoutAKeyFrame)
{
    MediaWriter writer(file("n.mp4"), ExpectedSound::none, note);
    writer.write(video(MediaCodec::h265, false, Bytes{0, 0, 1, 2}, beginMs));
    writer.write(video(MediaCodec::h265, true, Bytes{0, 0, 1, 0x26, 1, 0}, beginMs + 40));
    writer.write(sound(MediaCodec::g711U, 1, Bytes(320), beginMs));
    writer.finish();
    EXPECT_TRUE(filesOf(writer).empty());
    EXPECT_FALSE(std::filesystem::exists(file("n.mp4")));
}

TEST_F(MediaWriterTest, beginsWithoutSoundWhenNoneCame)
{
    MediaWriter writer(file("q.mp4"), ExpectedSound::certain, note);
    writeClip(writer, [](std::int64_t) {});
    EXPECT_THAT(notices, ElementsAre(HasSubstr("no sound has arrived")));
    EXPECT_THAT(probe("q.mp4"), Not(HasSubstr("aac")));
    expectDecodable("q.mp4");
}

TEST_F(MediaWriterTest, beginsANewPartAtTheKeyFrameAfterTheSoundChanged)
{
    const Bytes data(320, 0x55);
    MediaWriter writer(file("c.mkv"), ExpectedSound::certain, note);
    writeClip(writer, [&](std::int64_t time) {
        writer.write(sound(time < beginMs + 120 ? MediaCodec::g711U : MediaCodec::g711A, 1, data, time));
    });
    EXPECT_THAT(filesOf(writer), ElementsAre(file("c.mkv"), file("c-2.mkv")));
    EXPECT_THAT(notices, ElementsAre(HasSubstr("the sound changed")));
    EXPECT_THAT(probe("c.mkv"), HasSubstr("pcm_mulaw"));
    EXPECT_THAT(probe("c-2.mkv"), HasSubstr("pcm_alaw"));
    expectDecodable("c.mkv");
    expectDecodable("c-2.mkv");
}

TEST_F(MediaWriterTest, keepsSoundInStepWhenAPartOfItIsLost)
{
    const Bytes data(320, 0x55);
    MediaWriter writer(file("g.mp4"), ExpectedSound::certain, note);
    writeClip(writer, [&](std::int64_t time) {
        if (time < beginMs + 80 || time > beginMs + 300)
            writer.write(sound(MediaCodec::g711U, 1, data, time));
    });
    const std::string duration =
        runProgram({"ffprobe", "-v", "error", "-select_streams", "a", "-show_entries", "stream=duration", "-of",
                    "default=nokey=1:noprint_wrappers=1", file("g.mp4")})
            .output();
    EXPECT_NEAR(std::stod(duration), 0.44, 0.1);
    expectDecodable("g.mp4");
}
}  // namespace
}  // namespace Host

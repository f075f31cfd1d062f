#include "media/MediaFormat.h"

#include <gtest/gtest.h>

namespace Host
{
namespace
{
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;
using Bytes = std::vector<std::uint8_t>;

Bytes setsOf(MediaCodec codec, const Bytes& data)
{
    const auto sets = leadingParameterSets(codec, data);
    return {sets.begin(), sets.end()};
}

TEST(LeadingParameterSets, areFoundBetweenDelimiterAndPicture)
{
    const Bytes h264{0, 0, 0, 1, 0x09, 0xF0, 0, 0, 0, 1, 0x67, 1, 2, 0, 0, 1, 0x68, 3, 0, 0, 1, 0x65, 4, 5};
    EXPECT_EQ(setsOf(MediaCodec::h264, h264), (Bytes{0, 0, 1, 0x67, 1, 2, 0, 0, 1, 0x68, 3}));
    const Bytes h265{0, 0, 1, 0x40, 1, 9, 0, 0, 1, 0x42, 1, 8, 0, 0, 1, 0x44, 1, 7, 0, 0, 1, 0x26, 1, 6};
    EXPECT_EQ(setsOf(MediaCodec::h265, h265), Bytes(h265.begin(), h265.begin() + 18));
}

TEST(LeadingParameterSets, areEmptyWhereThereAreNone)
{
    EXPECT_EQ(setsOf(MediaCodec::h264, {}), Bytes());
    EXPECT_EQ(setsOf(MediaCodec::h264, {0, 0, 1}), Bytes());
    EXPECT_EQ(setsOf(MediaCodec::h264, {1, 2, 3, 4, 5}), Bytes());
    EXPECT_EQ(setsOf(MediaCodec::h264, {0, 0, 1, 0x65, 1, 2}), Bytes());
}

TEST(VideoFormat, needsParameterSetsForH264)
{
    const Bytes data{0, 0, 1, 0x65, 1, 2};
    MediaFrame frame;
    frame.codec = MediaCodec::h264;
    frame.width = 640;
    frame.height = 480;
    frame.data = data;
    EXPECT_FALSE(videoFormatOf(frame));
}

TEST(VideoFormat, isUnknownForAPictureThatNobodyCanDecode)
{
    const Bytes data{0, 0, 1, 0x67, 1, 0, 0, 1, 0x68, 2, 0, 0, 1, 0x65, 1, 2};
    MediaFrame frame;
    frame.codec = MediaCodec::h264;
    frame.data = data;
    EXPECT_FALSE(videoFormatOf(frame));
    frame.codec = MediaCodec::mjpeg;
    EXPECT_FALSE(videoFormatOf(frame));
}

TEST(VideoFormat, continuesWithOtherParameterSetsOfTheSameSize)
{
    const VideoFormat one{MediaCodec::h264, 640, 480, {1}};
    EXPECT_TRUE(one.continues({MediaCodec::h264, 640, 480, {2}}));
    EXPECT_FALSE(one.continues({MediaCodec::h265, 640, 480, {1}}));
    EXPECT_FALSE(one.continues({MediaCodec::h264, 1280, 480, {1}}));
}

TEST(AudioFormat, fillsInWhatIsUsualAndKeepsTheConfiguration)
{
    MediaFrame frame;
    frame.codec = MediaCodec::g711A;
    EXPECT_EQ(audioFormatOf(frame, {}), (AudioFormat{MediaCodec::g711A, 8000, 1, {}}));

    const Bytes config{0x14, 0x08};
    frame.codec = MediaCodec::aac;
    frame.sampleRate = 16000;
    frame.channelCount = 1;
    frame.parameterSets = config;
    const AudioFormat first = audioFormatOf(frame, {});
    frame.parameterSets = {};
    EXPECT_EQ(first.config, config);
    EXPECT_EQ(audioFormatOf(frame, first), first);
}
}  // namespace
}  // namespace Host

#include "FormatHistory.h"

#include <gtest/gtest.h>

namespace Host
{
namespace
{
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;

const std::uint8_t bytes[10] = {};

MediaFrame picture(MediaCodec codec, std::uint32_t width, std::uint32_t height)
{
    MediaFrame frame;
    frame.codec = codec;
    frame.width = width;
    frame.height = height;
    frame.data = bytes;
    return frame;
}

MediaFrame sound(MediaCodec codec, std::uint32_t rate)
{
    MediaFrame frame;
    frame.codec = codec;
    frame.sampleRate = rate;
    frame.channelCount = 1;
    frame.data = bytes;
    return frame;
}

void expectFormat(const StreamFormat& format, MediaCodec codec, std::uint32_t width, std::uint64_t frames)
{
    EXPECT_EQ(format.codec, codec);
    EXPECT_EQ(format.width, width);
    EXPECT_EQ(format.frames, frames);
    EXPECT_EQ(format.bytes, frames * sizeof bytes);
}

TEST(FormatHistory, isEmptyAtFirst)
{
    EXPECT_TRUE(FormatHistory().getFormats().empty());
    expectFormat(FormatHistory().latest(), MediaCodec::unknown, 0, 0);
}

TEST(FormatHistory, keepsFormatsInTheOrderInWhichTheyCame)
{
    FormatHistory history;
    for (int i = 0; i < 3; ++i)
        history.add(picture(MediaCodec::h264, 640, 480));
    history.add(picture(MediaCodec::h265, 640, 480));
    history.add(picture(MediaCodec::h265, 320, 240));
    history.add(picture(MediaCodec::h264, 640, 480));
    ASSERT_EQ(history.getFormats().size(), 4U);
    expectFormat(history.getFormats()[0], MediaCodec::h264, 640, 3);
    expectFormat(history.getFormats()[1], MediaCodec::h265, 640, 1);
    expectFormat(history.getFormats()[2], MediaCodec::h265, 320, 1);
    expectFormat(history.latest(), MediaCodec::h264, 640, 1);
}

TEST(FormatHistory, aSizeThatIsNotKnownIsNoChange)
{
    FormatHistory history;
    history.add(picture(MediaCodec::h264, 0, 0));
    history.add(picture(MediaCodec::h264, 640, 480));
    history.add(picture(MediaCodec::h264, 0, 0));
    ASSERT_EQ(history.getFormats().size(), 1U);
    expectFormat(history.latest(), MediaCodec::h264, 640, 3);
}

TEST(FormatHistory, tellsSoundsApart)
{
    FormatHistory history;
    history.add(sound(MediaCodec::g711U, 8000));
    history.add(sound(MediaCodec::aac, 16000));
    history.add(sound(MediaCodec::aac, 48000));
    EXPECT_EQ(history.getFormats().size(), 3U);
    EXPECT_EQ(history.latest().sampleRate, 48000U);
}

TEST(FormatHistory, countsOnUnderTheLatestWhenAStreamChangesWithoutEnd)
{
    FormatHistory history;
    for (std::uint32_t i = 1; i <= FormatHistory::mostFormats + 9; ++i)
        history.add(picture(MediaCodec::h264, 16 * i, 16));
    EXPECT_EQ(history.getFormats().size(), FormatHistory::mostFormats);
    expectFormat(history.latest(), MediaCodec::h264, 16 * (FormatHistory::mostFormats + 9), 10);
}

TEST(FormatHistory, addsUpWhatStreamsHaveInCommon)
{
    FormatHistory one;
    one.add(picture(MediaCodec::h264, 640, 480));
    one.add(picture(MediaCodec::h265, 640, 480));
    FormatHistory other;
    other.add(picture(MediaCodec::h265, 640, 480));
    other.add(picture(MediaCodec::mjpeg, 640, 480));
    FormatHistory sum;
    sum.addUp(one);
    sum.addUp(other);
    sum.addUp(FormatHistory());
    ASSERT_EQ(sum.getFormats().size(), 3U);
    expectFormat(sum.getFormats()[0], MediaCodec::h264, 640, 1);
    expectFormat(sum.getFormats()[1], MediaCodec::h265, 640, 2);
    expectFormat(sum.getFormats()[2], MediaCodec::mjpeg, 640, 1);
}

TEST(FormatHistory, aSingleStreamKeepsItsOrderInTheSum)
{
    FormatHistory one;
    one.add(picture(MediaCodec::h264, 640, 480));
    one.add(picture(MediaCodec::h265, 640, 480));
    one.add(picture(MediaCodec::h264, 640, 480));
    FormatHistory sum;
    sum.addUp(one);
    EXPECT_EQ(sum.getFormats().size(), 3U);
}
}  // namespace
}  // namespace Host

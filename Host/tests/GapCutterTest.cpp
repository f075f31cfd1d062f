#include "GapCutter.h"

#include <gtest/gtest.h>

namespace Host
{
namespace
{
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;

class GapCutterTest : public testing::Test {
protected:
    /// Where the frame is placed; -1 when it is left out.
    std::int64_t place(MediaCodec codec, std::int64_t timestampMs, std::uint32_t durationMs = 40)
    {
        frame = {};
        frame.codec = codec;
        frame.timestampMs = timestampMs;
        frame.durationMs = durationMs;
        return cutter.place(frame) ? frame.timestampMs : -1;
    }
    std::int64_t picture(std::int64_t timestampMs) { return place(MediaCodec::h264, timestampMs); }
    std::int64_t sound(std::int64_t timestampMs) { return place(MediaCodec::g711A, timestampMs); }

    GapCutter cutter;
    MediaFrame frame;  ///< the last one
};

TEST_F(GapCutterTest, leavesAlonePicturesAndSoundWithoutAGap)
{
    EXPECT_EQ(sound(990), 990);
    EXPECT_EQ(picture(1000), 1000);
    EXPECT_EQ(picture(1040), 1040);
    EXPECT_EQ(frame.durationMs, 40U);
    EXPECT_EQ(sound(1020), 1020);
    EXPECT_EQ(picture(9000), 9000) << "as pictures of a slow camera";
}

TEST_F(GapCutterTest, putsTheFirstPictureBehindAGapWhereTheGapBegan)
{
    picture(1000);
    cutter.cut({1040, 600'000});
    EXPECT_EQ(place(MediaCodec::h264, 600'000, 599'000), 1040);
    EXPECT_EQ(frame.durationMs, 0U) << "the time since the last picture is that of the gap";
    EXPECT_EQ(picture(600'040), 1080);
    EXPECT_EQ(frame.durationMs, 40U);
    EXPECT_EQ(sound(600'020), 1060);
}

TEST_F(GapCutterTest, addsUpGaps)
{
    picture(0);
    cutter.cut({1000, 11'000});
    EXPECT_EQ(picture(11'000), 1000);
    cutter.cut({12'000, 112'000});
    EXPECT_EQ(picture(112'000), 2000);
    EXPECT_EQ(picture(113'000), 3000);
}

TEST_F(GapCutterTest, placesSoundFromInFrontOfAGapWhereItWas)
{
    picture(1000);
    cutter.cut({1040, 600'000});
    picture(600'000);
    EXPECT_EQ(sound(1020), 1020);
    EXPECT_EQ(sound(1100), 1040) << "the end of a piece that the gap began in";
}

TEST_F(GapCutterTest, leavesOutSoundThatComesOverAGapBeforeThePictures)
{
    picture(1000);
    EXPECT_EQ(sound(3000), 3000);
    EXPECT_EQ(sound(600'000), -1);
    cutter.cut({1040, 600'000});
    EXPECT_EQ(sound(600'020), -1);
    picture(600'000);
    EXPECT_EQ(sound(600'040), 1080);
}

TEST_F(GapCutterTest, takesAGapInFrontOfEverything)
{
    cutter.cut({5000, 9000});
    EXPECT_EQ(sound(9000), 5000);
    EXPECT_EQ(picture(9010), 5010);
}

TEST_F(GapCutterTest, survivesAGapThatEndsBeforeItBegins)
{
    picture(1000);
    cutter.cut({5000, 4000});
    EXPECT_EQ(picture(5040), 5040);
}
}  // namespace
}  // namespace Host

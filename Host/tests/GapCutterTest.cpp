#include "GapCutter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace Host
{
namespace
{
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

class GapCutterTest : public testing::Test {
protected:
    void take(MediaCodec codec, std::int64_t timestampMs, std::uint32_t durationMs = 40)
    {
        MediaFrame frame;
        frame.codec = codec;
        frame.timestampMs = timestampMs;
        frame.durationMs = durationMs;
        cutter.take(frame);
    }
    /// Where the frames that were placed since the last call are.
    std::vector<std::int64_t> places()
    {
        std::vector<std::int64_t> all;
        for (const MediaFrame& frame : std::exchange(placed, {}))
            all.push_back(frame.timestampMs);
        return all;
    }
    std::vector<std::int64_t> picture(std::int64_t timestampMs)
    {
        take(MediaCodec::h264, timestampMs);
        return places();
    }
    std::vector<std::int64_t> sound(std::int64_t timestampMs)
    {
        take(MediaCodec::g711A, timestampMs);
        return places();
    }

    std::vector<MediaFrame> placed;
    GapCutter cutter{[this](const MediaFrame& frame) { placed.push_back(frame); }};
};

TEST_F(GapCutterTest, leavesAlonePicturesAndSoundWithoutAGap)
{
    EXPECT_THAT(sound(990), ElementsAre(990));
    EXPECT_THAT(picture(1000), ElementsAre(1000));
    take(MediaCodec::h264, 1040);
    EXPECT_EQ(placed.back().durationMs, 40U);
    EXPECT_THAT(places(), ElementsAre(1040));
    EXPECT_THAT(sound(1020), ElementsAre(1020));
    EXPECT_THAT(picture(9000), ElementsAre(9000)) << "as pictures of a slow camera";
}

TEST_F(GapCutterTest, putsTheFirstPictureBehindAGapWhereTheGapBegan)
{
    picture(1000);
    cutter.cut({1040, 600'000});
    take(MediaCodec::h264, 600'000, 599'000);
    EXPECT_EQ(placed.back().durationMs, 0U) << "the time since the last picture is that of the gap";
    EXPECT_THAT(places(), ElementsAre(1040));
    take(MediaCodec::h264, 600'040);
    EXPECT_EQ(placed.back().durationMs, 40U);
    EXPECT_THAT(places(), ElementsAre(1080));
    EXPECT_THAT(sound(600'020), ElementsAre(1060));
}

TEST_F(GapCutterTest, addsUpGaps)
{
    picture(0);
    cutter.cut({1000, 11'000});
    EXPECT_THAT(picture(11'000), ElementsAre(1000));
    cutter.cut({12'000, 112'000});
    EXPECT_THAT(picture(112'000), ElementsAre(2000));
    EXPECT_THAT(picture(113'000), ElementsAre(3000));
}

TEST_F(GapCutterTest, placesSoundFromInFrontOfAGapWhereItWas)
{
    picture(1000);
    cutter.cut({1040, 600'000});
    picture(600'000);
    EXPECT_THAT(sound(1020), ElementsAre(1020));
    EXPECT_THAT(sound(1100), ElementsAre(1040)) << "the end of a piece that the gap began in";
}

TEST_F(GapCutterTest, keepsTheSoundBetweenPicturesThatComeSlowly)
{
    picture(0);
    for (std::int64_t time = 0; time < 60'000; time += 40)
        EXPECT_THAT(sound(time), ElementsAre(time));
    EXPECT_EQ(cutter.getWithheld(), 0U);
}

TEST_F(GapCutterTest, holdsSoundThatComesOverAGapUntilTheGapIsTold)
{
    picture(1000);
    EXPECT_THAT(sound(1020), ElementsAre(1020));
    EXPECT_THAT(sound(600'000), IsEmpty());
    EXPECT_THAT(sound(600'040), IsEmpty());
    EXPECT_EQ(cutter.getWithheld(), 2U);
    cutter.cut({1040, 600'000});
    EXPECT_THAT(places(), ElementsAre(1040, 1080));
    EXPECT_THAT(picture(600'000), ElementsAre(1040));
    EXPECT_THAT(sound(600'080), ElementsAre(1120));
    EXPECT_EQ(cutter.getWithheld(), 0U);
}

TEST_F(GapCutterTest, holdsSoundBehindAPieceThatIsMissingUntilAPictureFollows)
{
    picture(0);
    sound(0);
    EXPECT_THAT(sound(3000), IsEmpty());
    for (std::int64_t time = 3040; time < 8000; time += 40)
        EXPECT_THAT(sound(time), IsEmpty());
    EXPECT_THAT(picture(500), ElementsAre(500)) << "too early to tell";
    take(MediaCodec::h264, 5000);
    EXPECT_EQ(placed.size(), 1 + (8000U - 3000) / 40);
    EXPECT_THAT(places(), IsSupersetOf({5000, 3000, 7000, 7960}));
    EXPECT_THAT(sound(8000), ElementsAre(8000));
}

TEST_F(GapCutterTest, holdsNoMoreSoundThanItMay)
{
    picture(0);
    for (std::size_t count = 0; count < GapCutter::mostHeld + 10; ++count)
        EXPECT_THAT(sound(600'000), IsEmpty());
    EXPECT_EQ(cutter.getWithheld(), GapCutter::mostHeld + 10);
    cutter.cut({40, 600'000});
    EXPECT_EQ(places().size(), GapCutter::mostHeld);
    EXPECT_EQ(cutter.getWithheld(), 10U);
}

TEST_F(GapCutterTest, takesAGapInFrontOfEverything)
{
    cutter.cut({5000, 9000});
    EXPECT_THAT(sound(9000), ElementsAre(5000));
    EXPECT_THAT(picture(9010), ElementsAre(5010));
}

TEST_F(GapCutterTest, takesBackAGapThatPicturesComeFrom)
{
    picture(0);
    cutter.cut({40, 3'000'000});
    EXPECT_THAT(picture(3'000'000), ElementsAre(40));
    EXPECT_THAT(picture(3'000'040), ElementsAre(80));
    EXPECT_THAT(picture(120), ElementsAre(120));
    EXPECT_THAT(sound(140), ElementsAre(140));
    EXPECT_THAT(picture(5000), ElementsAre(5000));
    EXPECT_THAT(picture(60'000), ElementsAre(60'000));
    EXPECT_THAT(sound(600'000), IsEmpty()) << "over a true gap";
    cutter.cut({60'040, 600'000});
    EXPECT_THAT(places(), ElementsAre(60'040));
    EXPECT_THAT(picture(600'000), ElementsAre(60'040));
}

TEST_F(GapCutterTest, survivesAGapThatEndsBeforeItBegins)
{
    picture(1000);
    cutter.cut({5000, 4000});
    EXPECT_THAT(picture(5040), ElementsAre(5040));
}
}  // namespace
}  // namespace Host

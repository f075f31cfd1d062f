#include "MediaPipeline.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

TEST(LivePath, dependsOnTheKind)
{
    EXPECT_EQ(livePath(Kind::recorder, 0, 0), "/unicast/c1/s0/live");
    EXPECT_EQ(livePath(Kind::recorder, 11, 1), "/unicast/c12/s1/live");
    EXPECT_EQ(livePath(Kind::multichannel, 0, 0), "/media1/video1");
    EXPECT_EQ(livePath(Kind::multichannel, 2, 1), "/media3/video2");
    EXPECT_EQ(livePath(Kind::camera, 0, 0), "/media/video1");
    EXPECT_EQ(livePath(Kind::camera, 0, 1), "/media/video2");
}

TEST(TalkBackPath, countsChannelsFromOne)
{
    EXPECT_EQ(talkBackPath(0), "/media/video1");
    EXPECT_EQ(talkBackPath(11), "/media/video12");
}

TEST(TestPicture, carriesTitleClockAndToneAsAsked)
{
    PictureSettings settings;
    settings.title = "Channel 3 main";
    settings.encoding.size = {640, 480};
    settings.encoding.framesPerSecond = 10;
    const std::string launch = testPictureLaunch(settings);
    for (const char* part :
         {"Channel 3 main", "name=caption", "clockoverlay", "width=640,height=480,framerate=10/1", "name=balance",
          "name=mirror", "name=encoder", "x264enc", "name=microphone", "name=pay0", "name=pay1"})
        EXPECT_NE(launch.find(part), std::string::npos) << part;

    settings.audio = false;
    settings.encoding.codec = Codec::h265;
    const std::string silent = testPictureLaunch(settings);
    EXPECT_EQ(silent.find("pay1"), std::string::npos);
    EXPECT_LT(launch.find("name=mirror"), launch.find("name=caption")) << "its letters stay readable";
    EXPECT_NE(silent.find("rtph265pay"), std::string::npos);

    settings.audio = true;
    settings.encoding.codec = Codec::mjpeg;
    settings.audioCodec = AudioCodec::aac;
    const std::string pictures = testPictureLaunch(settings);
    for (const char* part : {"jpegenc", "rtpjpegpay name=pay0 pt=26", "voaacenc", "rtpmp4gpay name=pay1"})
        EXPECT_NE(pictures.find(part), std::string::npos) << part;
}

}  // namespace
}  // namespace simulator

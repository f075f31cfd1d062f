#include "DeviceState.h"

#include "LapiEnvelope.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

DeviceState make(Kind kind, unsigned channels)
{
    Options options;
    options.kind = kind;
    options.channels = channels;
    return DeviceState(options);
}

TEST(DeviceState, countsChannelsAsItsKindDoes)
{
    const DeviceState camera = make(Kind::camera, 1);
    EXPECT_EQ(camera.channelIndex("0"), 0u);
    EXPECT_FALSE(camera.channelIndex("1"));

    for (const Kind kind : {Kind::multichannel, Kind::recorder}) {
        const DeviceState several = make(kind, 4);
        EXPECT_FALSE(several.channelIndex("0"));
        EXPECT_EQ(several.channelIndex("1"), 0u);
        EXPECT_EQ(several.channelIndex("4"), 3u);
        for (const char* number : {"5", "", "-1", "1x", "x", "99999999999999999999"})
            EXPECT_FALSE(several.channelIndex(number)) << number;
    }
}

TEST(DeviceState, tellsOnlyARecorderByItsType)
{
    EXPECT_EQ(make(Kind::camera, 1).deviceInformation()["DeviceType"], 0);
    EXPECT_EQ(make(Kind::multichannel, 4).deviceInformation()["DeviceType"], 0);
    EXPECT_EQ(make(Kind::recorder, 4).deviceInformation()["DeviceType"], 1);
    for (const char* member : {"DeviceName", "DeviceModel", "SerialNumber", "FirmwareVersion"})
        EXPECT_TRUE(make(Kind::camera, 1).deviceInformation()[member].isString()) << member;
}

TEST(DeviceState, reportsItsPorts)
{
    DeviceState device = make(Kind::camera, 1);
    device.setPorts({80, 443, 554});
    const Json::Value ports = device.portInformation();
    EXPECT_EQ(ports["HTTPPort"].asInt(), 80);
    EXPECT_EQ(ports["HTTPSPort"].asInt(), 443);
    EXPECT_EQ(ports["RTSPPort"].asInt(), 554);
}

TEST(DeviceState, listsThreeStreamsAsConfigured)
{
    Options options;
    options.codec = Codec::h265;
    options.size = {1920, 1080};
    options.framesPerSecond = 12;
    const DeviceState device{options};
    const Json::Value& data = device.videoStreams(0);
    EXPECT_EQ(data["Num"].asInt(), 3);
    ASSERT_EQ(data["VideoStreamInfos"].size(), 3u);
    for (Json::ArrayIndex i = 0; i < 3; ++i)
        EXPECT_EQ(data["VideoStreamInfos"][i]["ID"].asUInt(), i);
    const Json::Value& main = data["VideoStreamInfos"][0]["VideoEncodeInfo"];
    EXPECT_EQ(main["EncodeFormat"].asInt(), 2);
    EXPECT_EQ(main["Resolution"]["Width"].asInt(), 1920);
    EXPECT_EQ(main["Resolution"]["Height"].asInt(), 1080);
    EXPECT_EQ(main["FrameRate"].asInt(), 12);
    EXPECT_EQ(data["VideoStreamInfos"][1]["VideoEncodeInfo"]["Resolution"]["Width"].asInt(), 640);
}

TEST(DeviceState, mutesOneMicrophoneAndKeepsTheRest)
{
    DeviceState device = make(Kind::recorder, 2);
    EXPECT_FALSE(device.microphoneMuted(1));
    EXPECT_EQ(device.changeAudioInput(1, *parseJson(R"({"IsMute": 1})")), std::nullopt);
    EXPECT_TRUE(device.microphoneMuted(1));
    EXPECT_FALSE(device.microphoneMuted(0));
    EXPECT_EQ(device.audioInput(1)["AudioInputNum"], 1) << "members that the change does not name stay";
}

TEST(DeviceState, refusesNonsenseAndStaysAsItWas)
{
    DeviceState device = make(Kind::camera, 1);
    const Json::Value before = device.audioInput(0);
    for (const char* body : {"[]", "3", "null", R"({"IsMute": 2})", R"({"IsMute": "1"})", R"({"IsMute": -1})"}) {
        SCOPED_TRACE(body);
        EXPECT_TRUE(device.changeAudioInput(0, *parseJson(body)));
        EXPECT_EQ(device.audioInput(0), before);
    }
}

}  // namespace
}  // namespace simulator

#include "DeviceState.h"

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

}  // namespace
}  // namespace simulator

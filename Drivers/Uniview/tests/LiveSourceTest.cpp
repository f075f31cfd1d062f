#include "AudioSource.h"
#include "Device.h"
#include "HostFakes.h"
#include "VideoSource.h"

#include <Tavro8/ResultCode.h>
#include <gtest/gtest.h>

namespace
{
using namespace Uniview;
using namespace kelvo::test;
using Tavro8::ResultCode;
using Tavro8::toResult;

class LiveSource : public ::testing::Test {
protected:
    LiveSource()
    {
        const auto description = std::make_shared<DeviceTraits>();
        description->videoChannelCount = 2;
        device = Device::create(nullptr, &logger, description, *service);
    }
    ~LiveSource() override { device->Destroy(); }

    RecordingLogger logger;
    ChannelHandler channel;
    std::shared_ptr<Tavro8::Utility::GlobalService> service = Tavro8::Utility::GlobalService::instance();
    std::shared_ptr<Device> device;
};

TEST_F(LiveSource, videoLinesCarryChannelAndStreamAndTheFullOperationName)
{
    Tavro8::GDRV::IVideoSource* source = nullptr;
    ASSERT_EQ(device->CreateVideoSource(1, 2, &channel, &channel, {}, nullptr, &source), 0);
    source->Start();
    source->Stop();
    EXPECT_TRUE(channel.waitStopped());
    source->Destroy();

    const auto started = logger.find("vs 1.2: Started");
    EXPECT_EQ(started.function,
              "Tavro8::Utility::RTSPReceiverBase<struct Tavro8::GDRV::IVideoSource,class Uniview::Device>::Start");
    EXPECT_TRUE(logger.contains("vs 1.2: Createhandler=0x"));
    EXPECT_TRUE(logger.contains(", parent=0"));
    EXPECT_TRUE(logger.contains("vs 1.2: Stopped."));
    EXPECT_TRUE(logger.contains("vs 1.2: Destroy"));
}

TEST_F(LiveSource, audioLinesCarryTheChannel)
{
    Tavro8::GDRV::IAudioSource* source = nullptr;
    ASSERT_EQ(device->CreateAudioSource(1, &channel, &channel, {}, nullptr, &source), 0);
    EXPECT_EQ(source->GetChannelIndex(), 1U);
    source->Start();
    source->Destroy();
    const auto started = logger.find("chan 1: Started");
    EXPECT_EQ(started.function,
              "Tavro8::Utility::RTSPReceiverBase<struct Tavro8::GDRV::IAudioSource,class Uniview::Device>::Start");
}

TEST_F(LiveSource, channelBeyondTheDevicesIsNotFound)
{
    Tavro8::GDRV::IVideoSource* video = nullptr;
    EXPECT_EQ(device->CreateVideoSource(2, 0, nullptr, nullptr, {}, nullptr, &video), toResult(ResultCode::notFound));
    EXPECT_EQ(video, nullptr);
    Tavro8::GDRV::IAudioSource* audio = nullptr;
    EXPECT_EQ(device->CreateAudioSource(9, nullptr, nullptr, {}, nullptr, &audio), toResult(ResultCode::notFound));
    EXPECT_EQ(device->CreateAudioSource(0, nullptr, nullptr, {}, nullptr, nullptr),
              toResult(ResultCode::invalidArgument));
}

TEST_F(LiveSource, offersItsContracts)
{
    Tavro8::GDRV::IVideoSource* source = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 0, nullptr, nullptr, {}, nullptr, &source), 0);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IVideoSource>(source), source);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IDeviceChannel>(source), source);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IAudioSource>(source), nullptr);
    source->Destroy();
}

TEST_F(LiveSource, worksWithoutHandlers)
{
    Tavro8::GDRV::IAudioSource* source = nullptr;
    ASSERT_EQ(device->CreateAudioSource(0, nullptr, nullptr, {{"stream", 1}}, nullptr, &source), 0);
    source->Start();
    source->Stop();
    EXPECT_TRUE(logger.waitFor("chan 0: Stopped."));
    source->Destroy();
}
}  // namespace

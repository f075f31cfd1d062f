#include "RecordingLogger.h"

#include <IpUtil/TelemetryBase.h>
#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;
using Utility::TelemetryBase;

constexpr std::int32_t notSupported = 8;

/// A driver's channel that overrides nothing.
class Bare final : public TelemetryBase {
public:
    Bare(ILogger* logger, bool* isGone) : TelemetryBase(7, LoggerHelper(logger, "here", "tc 7")), isGone(isGone)
    {
        TelemetryBase::logger.info("Bare", "Created");
    }
    ~Bare() override { *isGone = true; }

private:
    bool* const isGone;
};

class TelemetryBaseTest : public ::testing::Test {
protected:
    ~TelemetryBaseTest() override
    {
        if (!isGone)
            channel->Destroy();
    }

    kelvo::test::RecordingLogger logger;
    bool isGone = false;
    GDRV::ITelemetry* const channel = new Bare(&logger, &isGone);
};

TEST_F(TelemetryBaseTest, answersNotSupportedForWhatADriverDoesNotOverride)
{
    EXPECT_EQ(channel->MoveRelative(1, 1), notSupported);
    EXPECT_EQ(channel->MoveAbsolute(1, 1), notSupported);
    EXPECT_EQ(channel->ZoomRelative(1), notSupported);
    EXPECT_EQ(channel->ZoomAbsolute(1), notSupported);
    EXPECT_EQ(channel->FocusRelative(1), notSupported);
    EXPECT_EQ(channel->FocusAbsolute(1), notSupported);
    EXPECT_EQ(channel->FocusAuto(), notSupported);
    EXPECT_EQ(channel->IrisRelative(1), notSupported);
    EXPECT_EQ(channel->IrisAbsolute(1), notSupported);
    EXPECT_EQ(channel->IrisAuto(), notSupported);
    EXPECT_EQ(channel->GoToPreset(1), notSupported);
    EXPECT_EQ(channel->PlayTour(1), notSupported);
    EXPECT_EQ(channel->StopTour(), notSupported);
    EXPECT_EQ(channel->SetAuxiliary(1, true), notSupported);
    EXPECT_EQ(channel->Calibrate(), notSupported);
    channel->MoveContinuous(1, 1);
    channel->ZoomContinuous(1);
    channel->FocusContinuous(1);
    channel->IrisContinuous(1);
    EXPECT_EQ(logger.lines().size(), 1U);
}

TEST_F(TelemetryBaseTest, knowsItsChannelAndLogsWithItsName)
{
    EXPECT_EQ(channel->GetChannelIndex(), 7U);
    EXPECT_EQ(logger.find("Created").message, "tc 7: Created");
    EXPECT_EQ(logger.find("Created").file, "here");
}

TEST_F(TelemetryBaseTest, offersItsBasesAsContracts)
{
    EXPECT_EQ(queryContract<GDRV::ITelemetry>(channel), channel);
    EXPECT_EQ(queryContract<GDRV::IDeviceChannel>(channel), static_cast<GDRV::IDeviceChannel*>(channel));
    EXPECT_EQ(queryContract<IContract>(channel), static_cast<IContract*>(channel));
    EXPECT_EQ(queryContract<TelemetryBase>(channel), channel);
    EXPECT_EQ(queryContract<GDRV::IAbsoluteTelemetry>(channel), nullptr);
}

TEST_F(TelemetryBaseTest, isDeletedByItsRelease)
{
    channel->Destroy();
    EXPECT_TRUE(isGone);
}
}  // namespace

#include <Tavro8/GDRV.h>
#include <cstring>
#include <gtest/gtest.h>

// The order of virtual operations is binary contract. The Itanium C++ ABI stores in a pointer to a virtual
// member function the byte offset into the table plus one, which lets the order be read back. It gives a
// virtual destructor two entries where the contract counts one slot.
#if !defined(_MSC_VER)
namespace
{
using namespace Tavro8;
using namespace Tavro8::GDRV;

constexpr std::ptrdiff_t destructorSlot = 2;

template <typename Member>
std::ptrdiff_t slotOf(Member member)
{
    std::ptrdiff_t raw = 0;
    std::memcpy(&raw, &member, sizeof raw);
    const auto entry = (raw - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
    return entry > destructorSlot ? entry - 1 : entry;
}

TEST(SlotOrder, contractTakesTheFirstThreeSlots)
{
    EXPECT_EQ(slotOf(&IContract::QueryContract), 0);
    EXPECT_EQ(slotOf(&IContract::FindContract), 1);
    EXPECT_EQ(slotOf(&IModuleContext::GetLoggingContext), 3);
}

TEST(SlotOrder, telemetryKeepsItsTwentyFourSlots)
{
    EXPECT_EQ(slotOf(&ITelemetry::Destroy), 3);
    EXPECT_EQ(slotOf(&ITelemetry::GetChannelIndex), 4);
    EXPECT_EQ(slotOf(&ITelemetry::MoveContinuous), 5);
    EXPECT_EQ(slotOf(&ITelemetry::MoveRelative), 6);
    EXPECT_EQ(slotOf(&ITelemetry::MoveAbsolute), 7);
    EXPECT_EQ(slotOf(&ITelemetry::ZoomContinuous), 8);
    EXPECT_EQ(slotOf(&ITelemetry::ZoomRelative), 9);
    EXPECT_EQ(slotOf(&ITelemetry::ZoomAbsolute), 10);
    EXPECT_EQ(slotOf(&ITelemetry::FocusContinuous), 11);
    EXPECT_EQ(slotOf(&ITelemetry::FocusRelative), 12);
    EXPECT_EQ(slotOf(&ITelemetry::FocusAbsolute), 13);
    EXPECT_EQ(slotOf(&ITelemetry::FocusAuto), 14);
    EXPECT_EQ(slotOf(&ITelemetry::IrisContinuous), 15);
    EXPECT_EQ(slotOf(&ITelemetry::IrisRelative), 16);
    EXPECT_EQ(slotOf(&ITelemetry::IrisAbsolute), 17);
    EXPECT_EQ(slotOf(&ITelemetry::IrisAuto), 18);
    EXPECT_EQ(slotOf(&ITelemetry::GoToPreset), 19);
    EXPECT_EQ(slotOf(&ITelemetry::PlayTour), 20);
    EXPECT_EQ(slotOf(&ITelemetry::StopTour), 21);
    EXPECT_EQ(slotOf(&ITelemetry::SetAuxiliary), 22);
    EXPECT_EQ(slotOf(&ITelemetry::Calibrate), 23);
}

TEST(SlotOrder, telemetrySideInterfacesBeginAfterTheContract)
{
    EXPECT_EQ(slotOf(&ITelemetryAdjuster::SetPreset), 3);
    EXPECT_EQ(slotOf(&ITelemetryAdjuster::RemovePreset), 4);
    EXPECT_EQ(slotOf(&ITelemetryAdjuster::StartFillTour), 5);
    EXPECT_EQ(slotOf(&ITelemetryAdjuster::SetPoint), 6);
    EXPECT_EQ(slotOf(&ITelemetryAdjuster::StopFillTour), 7);
    EXPECT_EQ(slotOf(&ITelemetryAdjuster::RemoveTour), 8);
    EXPECT_EQ(slotOf(&ITelemetryAdjuster::RenamePreset), 9);
    EXPECT_EQ(slotOf(&ITelemetryPointClick::AreaZoom), 3);
    EXPECT_EQ(slotOf(&ITelemetryPointClick::PointMove), 4);
    EXPECT_EQ(slotOf(&IAbsoluteTelemetry::AbsoluteMoveEx), 3);
    EXPECT_EQ(slotOf(&IAbsoluteTelemetry::GetPositionParams), 4);
}

TEST(SlotOrder, inputReportIsTheEighthOperationOfItsHandler)
{
    EXPECT_EQ(slotOf(&IIODeviceHandler::Started), 3);
    EXPECT_EQ(slotOf(&IIODeviceHandler::InputStateChanged), 7);
}

TEST(SlotOrder, theEndOfACallIsTheEighthOperationOfItsHandler)
{
    EXPECT_EQ(slotOf(&IAudioDestinationHandler::Started), 3);
    EXPECT_EQ(slotOf(&IAudioDestinationHandler::SettingsApplied), 6);
    EXPECT_EQ(slotOf(&IAudioDestinationHandler::CallEnded), 7);
    EXPECT_EQ(slotOf(&IAudioDestination::Call), 5);
    EXPECT_EQ(slotOf(&IAudioDestination::PushAudioFrame), 6);
    EXPECT_EQ(slotOf(&IAudioDestination::HangUp), 7);
}

TEST(SlotOrder, destructorIsTheThirdSlot)
{
    // What is left between the query and the first operation of a derived interface is the destructor.
    std::ptrdiff_t raw = 0;
    const auto member = &IModuleContext::GetLoggingContext;
    std::memcpy(&raw, &member, sizeof raw);
    EXPECT_EQ((raw - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)), 4);
}
}  // namespace
#endif

#include "Detector.h"

#include "Device.h"
#include "ObjectName.h"

namespace Uniview
{
namespace
{
using Kind = DetectorDecision::Kind;

constexpr const char* receiving = "Uniview::Detector::handleTriggerInfo";
}  // namespace

Tavro8::GDRV::IDetector* Detector::create(Device* device, std::uint32_t channelIndex, const DetectorType& type,
                                          Tavro8::GDRV::IDetectorHandler* handler)
{
    const auto detector = std::make_shared<Detector>(handler, channelIndex, type, device);
    detector->channel.adopt(detector);
    return detector.get();
}

Detector::Detector(Tavro8::GDRV::IDetectorHandler* handler, std::uint32_t channelIndex, const DetectorType& type,
                   Device* device)
    : device(device),
      channelIndex(channelIndex),
      handler(handler),
      events(type, channelIndex),
      channel({device, this, static_cast<Tavro8::GDRV::IDetector*>(this), handler, "Drivers/Uniview/src/Detector",
               "Uniview::Detector::Start", "Uniview::Detector::Stop", "Uniview::Detector::Destroy"},
              detectorObjectName(type.detectionType, channelIndex), [this] { events.forget(); })
{}

void* Detector::FindContract(const char* name) noexcept
{
    using namespace Tavro8::GDRV;
    return Tavro8::findContractIn<IDetector, IDeviceChannel, Tavro8::IContract>(static_cast<IDetector*>(this), name);
}

bool Detector::handleTriggerInfo(const Json::Value& alarmInfo)
{
    Tavro8::guardedVoid(channel.eventLog(), receiving, [&] { handle(alarmInfo); });
    return false;
}

void Detector::handle(const Json::Value& alarmInfo)
{
    const DetectorDecision decision = events.decide(alarmInfo, takesEverySource());
    if (decision.kind == Kind::withoutType)
        channel.eventLog().error(receiving, "AlarmType is not found in response.");
    else if (decision.kind == Kind::withoutSource)
        channel.eventLog().warning(receiving, "The number of the source is not found in the notification");
    else if (decision.kind == Kind::event)
        report(decision);
}

void Detector::report(const DetectorDecision& decision)
{
    if (!decision.timeFound)
        channel.eventLog().error(receiving, "TimeStamp is not found in respons.");
    if (handler == nullptr)
        return;
    Tavro8::GDRV::DetectorEventInfo event;
    event.detectionType = events.getType().detectionType;
    event.alarmType = decision.alarmType;
    event.state = decision.state;
    event.channel = channelIndex;
    event.deviceTimeMs = decision.deviceTimeMs;
    event.fields = &decision.fields;
    channel.tell([&] { handler->DetectorEvent(this, event); });
}

/// Cameras number their only channel as they like. A device whose kind is not known counts as a camera, so the
/// number of channels has a say, too.
bool Detector::takesEverySource() const noexcept
{
    return device->GetDeviceKind() == static_cast<std::uint32_t>(Tavro8::GDRV::DeviceKind::camera) &&
           device->GetChannelCount() <= 1;
}
}  // namespace Uniview

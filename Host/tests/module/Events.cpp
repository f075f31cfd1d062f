#include "Events.h"

#include <Tavro8/ResultCode.h>
#include <cstdint>
#include <utility>

namespace Sample
{
namespace GDRV = Tavro8::GDRV;
using Tavro8::ResultCode;
using Tavro8::toResult;
namespace
{
constexpr std::chrono::milliseconds period{20};
constexpr std::int64_t deviceTimeMs = 1489040894042;  // 2017-03-09 06:28:14.042 UTC
constexpr const char* motion = "motion";
constexpr const char* crossLine = "crossLineDetectType";
}  // namespace

IODevice::IODevice(Loop& deviceLoop, std::uint32_t channelIndex, GDRV::IIODeviceHandler* hostHandler, bool answers)
    : loop(deviceLoop), channel(channelIndex), handler(hostHandler), answersRelays(answers)
{}

void* IODevice::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::IIODevice, GDRV::IDeviceChannel, Tavro8::IContract>(this, name);
}

void IODevice::Destroy() noexcept
{
    loop.forget(this);
    delete this;
}

void IODevice::Start() noexcept
{
    loop.post(this, [this] { toggle(true); });
}

void IODevice::toggle(bool state)
{
    loop.post(
        this, [this, state] { toggle(!state); }, Loop::Clock::now() + period);
    if (handler != nullptr)
        handler->InputStateChanged(this, 1, state);
}

std::int32_t IODevice::SetRelayStatus(std::uint32_t relayIndex, std::uint8_t) noexcept
{
    if (relayIndex >= relayCount)
        return toResult(ResultCode::outOfRange);
    if (handler != nullptr && answersRelays)
        loop.post(this, [this, relayIndex] {
            const auto result = relayIndex == 0 ? ResultCode::success : ResultCode::streamRefused;
            handler->RelaySwitched(this, relayIndex, toResult(result));
        });
    return toResult(ResultCode::success);
}

bool Detector::knows(const std::string& detectionType)
{
    return detectionType == motion || detectionType == crossLine;
}

Detector::Detector(Loop& deviceLoop, std::uint32_t channelIndex, std::string detectionType,
                   GDRV::IDetectorHandler* hostHandler)
    : loop(deviceLoop), channel(channelIndex), type(std::move(detectionType)), handler(hostHandler)
{}

void* Detector::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::IDetector, GDRV::IDeviceChannel, Tavro8::IContract>(this, name);
}

void Detector::Destroy() noexcept
{
    loop.forget(this);
    delete this;
}

void Detector::Start() noexcept
{
    loop.post(this, [this] { happen(true); });
}

void Detector::happen(bool begins)
{
    loop.post(
        this, [this, begins] { happen(!begins); }, Loop::Clock::now() + period);
    if (handler == nullptr)
        return;
    Tavro8::ParameterMap fields{{"AlarmLevel", 2}, {"AlarmSrcName", std::string("Yard")}, {"Confirmed", true}};
    GDRV::DetectorEventInfo event;
    event.detectionType = type.c_str();
    event.channel = channel;
    event.fields = &fields;
    if (type == motion) {
        event.alarmType = begins ? "MotionAlarmOn" : "MotionAlarmOff";
        event.state = begins ? GDRV::DetectorState::begin : GDRV::DetectorState::end;
        event.deviceTimeMs = deviceTimeMs;
    } else {
        event.alarmType = "LineDetectorCrossed";
    }
    handler->DetectorEvent(this, event);
}
}  // namespace Sample

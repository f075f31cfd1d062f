#include "Telemetry.h"

#include "DeviceSession.h"
#include "ExitStatus.h"

#include <Tavro8/ResultCode.h>
#include <cmath>
#include <string>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
template <typename Contract>
Contract& require(GDRV::ITelemetry* telemetry, const char* what)
{
    auto* const contract = Tavro8::queryContract<Contract>(telemetry);
    const auto result = contract != nullptr ? Tavro8::ResultCode::success : Tavro8::ResultCode::notSupported;
    requireMade(contract, std::string("the module offers no ") + what + " here", Tavro8::toResult(result));
    return *contract;
}
}  // namespace

Telemetry::Telemetry(GDRV::IDevice& device, std::uint32_t channel)
{
    const std::int32_t result = device.CreateTelemetry(channel, &telemetry);
    requireMade(telemetry, "channel " + std::to_string(channel) + " has no pan, tilt and zoom", result);
}

Telemetry::~Telemetry()
{
    telemetry->Destroy();
}

GDRV::ITelemetryAdjuster& Telemetry::adjuster() const
{
    return require<GDRV::ITelemetryAdjuster>(telemetry, "presets and tours");
}

GDRV::ITelemetryPointClick& Telemetry::pointClick() const
{
    return require<GDRV::ITelemetryPointClick>(telemetry, "movement by pointing into the picture");
}

GDRV::IAbsoluteTelemetry& Telemetry::absolute() const
{
    return require<GDRV::IAbsoluteTelemetry>(telemetry, "absolute positions");
}

double fromHundredths(std::uint32_t hundredths) noexcept
{
    return static_cast<std::int32_t>(hundredths) / 100.0;
}

std::uint32_t toHundredths(double value) noexcept
{
    return static_cast<std::uint32_t>(std::llround(value * 100));
}
}  // namespace Host

#pragma once

#include <Tavro8/GDRV/IDevice.h>
#include <Tavro8/GDRV/ITelemetry.h>

namespace Host
{
/// Pan, tilt and zoom of one channel, with the interfaces that the module offers beside it. Destroying it ends the
/// module's object. One thread.
class Telemetry {
public:
    /// Throws `Failure` when the module makes none.
    Telemetry(Tavro8::GDRV::IDevice& device, std::uint32_t channel);
    ~Telemetry();
    Telemetry(const Telemetry&) = delete;
    Telemetry& operator=(const Telemetry&) = delete;

    Tavro8::GDRV::ITelemetry& operator*() const noexcept { return *telemetry; }

    // Each throws `Failure` when the module does not offer it.
    Tavro8::GDRV::ITelemetryAdjuster& adjuster() const;
    Tavro8::GDRV::ITelemetryPointClick& pointClick() const;
    Tavro8::GDRV::IAbsoluteTelemetry& absolute() const;

private:
    Tavro8::GDRV::ITelemetry* telemetry = nullptr;
};

/// A position in hundredths, as the SDK counts it, for people: -1000 is 10 degrees below the horizon.
double fromHundredths(std::uint32_t hundredths) noexcept;

/// The nearest one; a negative position becomes the two's complement. The value fits by far.
std::uint32_t toHundredths(double value) noexcept;
}  // namespace Host

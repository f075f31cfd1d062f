#pragma once

#include <IpUtil/LoggerHelper.h>
#include <Tavro8/GDRV/ITelemetry.h>
#include <Tavro8/ResultCode.h>
#include <cstdint>
#include <utility>

namespace Tavro8::Utility
{
/// What every driver's telemetry channel has in common: the channel index, the release, a logger with the channel's
/// name, and the answer "not supported" for each operation that the driver does not override.
///
/// The host releases the object with `Destroy`, which deletes it; a driver's class must therefore be made with `new`
/// and have a destructor that waits for the calls of other threads, see `HandlerGate`.
class TelemetryBase : public GDRV::ITelemetry {
public:
    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<GDRV::ITelemetry, TelemetryBase, GDRV::IDeviceChannel, IContract>(this, name);
    }

    void Destroy() noexcept override { delete this; }
    std::uint32_t GetChannelIndex() const noexcept override { return index; }

    void MoveContinuous(std::int32_t, std::int32_t) noexcept override {}
    std::int32_t MoveRelative(std::int32_t, std::int32_t) noexcept override { return notSupported; }
    std::int32_t MoveAbsolute(std::uint32_t, std::uint32_t) noexcept override { return notSupported; }
    void ZoomContinuous(std::int32_t) noexcept override {}
    std::int32_t ZoomRelative(std::int32_t) noexcept override { return notSupported; }
    std::int32_t ZoomAbsolute(std::uint32_t) noexcept override { return notSupported; }
    void FocusContinuous(std::int32_t) noexcept override {}
    std::int32_t FocusRelative(std::int32_t) noexcept override { return notSupported; }
    std::int32_t FocusAbsolute(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t FocusAuto() noexcept override { return notSupported; }
    void IrisContinuous(std::int32_t) noexcept override {}
    std::int32_t IrisRelative(std::int32_t) noexcept override { return notSupported; }
    std::int32_t IrisAbsolute(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t IrisAuto() noexcept override { return notSupported; }
    std::int32_t GoToPreset(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t PlayTour(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t StopTour() noexcept override { return notSupported; }
    std::int32_t SetAuxiliary(std::uint32_t, bool) noexcept override { return notSupported; }
    std::int32_t Calibrate() noexcept override { return notSupported; }

protected:
    static constexpr std::int32_t notSupported = toResult(ResultCode::notSupported);

    /// `channelIndex` counts from 0. `channelLogger` writes with the name of the channel; its logger must outlive the
    /// object.
    TelemetryBase(std::uint32_t channelIndex, LoggerHelper channelLogger)
        : logger(std::move(channelLogger)), index(channelIndex)
    {}

    const LoggerHelper logger;

private:
    const std::uint32_t index;
};
}  // namespace Tavro8::Utility

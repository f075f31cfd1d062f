#pragma once

#include <Tavro8/GDRV/ITelemetry.h>
#include <Tavro8/ILogger.h>
#include <cstdint>
#include <string>

namespace Sample
{
constexpr std::uint32_t presetCount = 8;
constexpr std::uint32_t tourCount = 2;

/// A camera that moves in the log alone: each operation that it takes is a line of severity "info". It arrives at an
/// absolute position when it has been asked for its position twice.
class Telemetry final : public Tavro8::GDRV::ITelemetry,
                        private Tavro8::GDRV::ITelemetryAdjuster,
                        private Tavro8::GDRV::ITelemetryPointClick,
                        private Tavro8::GDRV::IAbsoluteTelemetry {
public:
    struct Abilities {
        bool moves;      ///< without it the device does not answer: 258, and an error in the log
        bool positions;  ///< without it there is nothing but `ITelemetry`
    };
    /// The logger is the host's and may be null.
    Telemetry(std::uint32_t channelIndex, Tavro8::ILogger* hostLogger, const Abilities& cameraAbilities)
        : channel(channelIndex), logger(hostLogger), abilities(cameraAbilities)
    {}

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override { delete this; }
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }

    void MoveContinuous(std::int32_t pan, std::int32_t tilt) noexcept override;
    std::int32_t MoveRelative(std::int32_t, std::int32_t) noexcept override { return notSupported; }
    std::int32_t MoveAbsolute(std::uint32_t, std::uint32_t) noexcept override { return notSupported; }
    void ZoomContinuous(std::int32_t speed) noexcept override { perform("zoom", speed); }
    std::int32_t ZoomRelative(std::int32_t) noexcept override { return notSupported; }
    std::int32_t ZoomAbsolute(std::uint32_t) noexcept override { return notSupported; }
    void FocusContinuous(std::int32_t speed) noexcept override { perform("focus", speed); }
    std::int32_t FocusRelative(std::int32_t) noexcept override { return notSupported; }
    std::int32_t FocusAbsolute(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t FocusAuto() noexcept override { return notSupported; }
    void IrisContinuous(std::int32_t speed) noexcept override { perform("iris", speed); }
    std::int32_t IrisRelative(std::int32_t) noexcept override { return notSupported; }
    std::int32_t IrisAbsolute(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t IrisAuto() noexcept override { return notSupported; }
    std::int32_t GoToPreset(std::uint32_t index) noexcept override { return withPreset("goto preset", index); }
    std::int32_t PlayTour(std::uint32_t index) noexcept override;
    std::int32_t StopTour() noexcept override;
    std::int32_t SetAuxiliary(std::uint32_t, bool) noexcept override { return notSupported; }
    std::int32_t Calibrate() noexcept override { return notSupported; }

private:
    static constexpr std::int32_t notSupported = 8;

    ~Telemetry() override = default;

    std::int32_t SetPreset(std::uint32_t index) noexcept override { return withPreset("set preset", index); }
    std::int32_t RemovePreset(std::uint32_t index) noexcept override { return withPreset("remove preset", index); }
    std::int32_t StartFillTour(std::uint32_t index) noexcept override;
    std::int32_t SetPoint(std::uint32_t speed, std::uint32_t presetIndex, std::uint32_t dwellSeconds) noexcept override;
    std::int32_t StopFillTour() noexcept override { return perform("tour filled"); }
    std::int32_t RemoveTour(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t RenamePreset(std::uint32_t, const char*) noexcept override { return notSupported; }

    std::int32_t AreaZoom(const Tavro8::GDRV::NormalizedRect& rect) noexcept override;
    std::int32_t PointMove(const Tavro8::GDRV::NormalizedPoint& point) noexcept override;

    std::int32_t AbsoluteMoveEx(std::uint32_t pan, std::uint32_t panSpeed, std::uint32_t tilt, std::uint32_t tiltSpeed,
                                std::uint32_t zoom, std::uint32_t zoomSpeed, std::uint32_t mask) noexcept override;
    std::int32_t GetPositionParams(std::uint32_t& pan, std::uint32_t& tilt, std::uint32_t& zoom) noexcept override;

    void log(Tavro8::LogSeverity severity, const std::string& message) const;
    /// Writes the words behind each other, as the operation that was taken; the result.
    template <typename... Words>
    std::int32_t perform(const Words&... words) const noexcept;
    std::int32_t withPreset(const char* operation, std::uint32_t index) const noexcept;

    const std::uint32_t channel;
    Tavro8::ILogger* const logger;
    const Abilities abilities;
    bool tourPlays = false;
    unsigned questions = 0;  ///< for the position, since the last absolute movement
    std::uint32_t position[3] = {0, 0, 100};
    std::uint32_t target[3] = {0, 0, 100};
};
}  // namespace Sample

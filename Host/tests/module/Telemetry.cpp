#include "Telemetry.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <iterator>
#include <sstream>

namespace Sample
{
namespace GDRV = Tavro8::GDRV;
using Tavro8::LogSeverity;
using Tavro8::ResultCode;
using Tavro8::toResult;

void* Telemetry::FindContract(const char* name) noexcept
{
    // Each base is a contract of its own, so each is named through the pointer to exactly that base.
    if (void* found = Tavro8::findContractIn<GDRV::ITelemetry, GDRV::IDeviceChannel, Tavro8::IContract>(
            static_cast<GDRV::ITelemetry*>(this), name))
        return found;
    if (!abilities.positions)
        return nullptr;
    if (void* found =
            Tavro8::findContractIn<GDRV::ITelemetryAdjuster>(static_cast<GDRV::ITelemetryAdjuster*>(this), name))
        return found;
    if (void* found =
            Tavro8::findContractIn<GDRV::ITelemetryPointClick>(static_cast<GDRV::ITelemetryPointClick*>(this), name))
        return found;
    return Tavro8::findContractIn<GDRV::IAbsoluteTelemetry>(static_cast<GDRV::IAbsoluteTelemetry*>(this), name);
}

void Telemetry::log(LogSeverity severity, const std::string& message) const
{
    if (logger != nullptr && Tavro8::wants(logger->GetLevel(), severity))
        logger->Log(severity, "Sample::Telemetry", "Telemetry", __LINE__, message.c_str());
}

template <typename... Words>
std::int32_t Telemetry::perform(const Words&... words) const noexcept
try {
    if (!abilities.moves) {
        log(LogSeverity::error, " no answer from the camera");
        return toResult(ResultCode::timedOut);
    }
    std::ostringstream line;
    line << "channel " << channel << ':';
    ((line << ' ' << words), ...);
    log(LogSeverity::info, line.str());
    return toResult(ResultCode::success);
} catch (const std::exception&) {
    return toResult(ResultCode::noResources);
}

std::int32_t Telemetry::withPreset(const char* operation, std::uint32_t index) const noexcept
{
    return index < presetCount ? perform(operation, index) : toResult(ResultCode::outOfRange);
}

void Telemetry::MoveContinuous(std::int32_t pan, std::int32_t tilt) noexcept
{
    perform("move", pan, tilt);
}

std::int32_t Telemetry::PlayTour(std::uint32_t index) noexcept
{
    if (index >= tourCount)
        return toResult(ResultCode::outOfRange);
    tourPlays = true;
    return perform("play tour", index);
}

std::int32_t Telemetry::StopTour() noexcept
{
    return tourPlays ? perform("stop tour") : toResult(ResultCode::invalidState);
}

std::int32_t Telemetry::StartFillTour(std::uint32_t index) noexcept
{
    return index < tourCount ? perform("fill tour", index) : toResult(ResultCode::outOfRange);
}

std::int32_t Telemetry::SetPoint(std::uint32_t speed, std::uint32_t presetIndex, std::uint32_t dwellSeconds) noexcept
{
    return perform("point", presetIndex, dwellSeconds, speed);
}

std::int32_t Telemetry::AreaZoom(const GDRV::NormalizedRect& rect) noexcept
{
    return perform("area", rect.x, rect.y, rect.width, rect.height);
}

std::int32_t Telemetry::PointMove(const GDRV::NormalizedPoint& point) noexcept
{
    return perform("point at", point.x, point.y);
}

std::int32_t Telemetry::AbsoluteMoveEx(std::uint32_t pan, std::uint32_t panSpeed, std::uint32_t tilt,
                                       std::uint32_t tiltSpeed, std::uint32_t zoom, std::uint32_t zoomSpeed,
                                       std::uint32_t mask) noexcept
{
    if (std::max(panSpeed, tiltSpeed) > 9)
        return toResult(ResultCode::outOfRange);
    const std::int32_t result =
        perform("absolute", pan, tilt, zoom, "speeds", panSpeed, tiltSpeed, zoomSpeed, "mask", mask);
    if (result != 0)
        return result;
    target[0] = (mask & GDRV::absolutePan) != 0 ? pan : position[0];
    target[1] = (mask & GDRV::absoluteTilt) != 0 ? tilt : position[1];
    target[2] = (mask & GDRV::absoluteZoom) != 0 ? zoom : position[2];
    questions = 0;
    return result;
}

std::int32_t Telemetry::GetPositionParams(std::uint32_t& pan, std::uint32_t& tilt, std::uint32_t& zoom) noexcept
{
    const std::int32_t result = perform("position");
    if (result != 0)
        return result;
    if (++questions > 2)
        std::copy(std::begin(target), std::end(target), std::begin(position));
    pan = position[0];
    tilt = position[1];
    zoom = position[2];
    return result;
}
}  // namespace Sample

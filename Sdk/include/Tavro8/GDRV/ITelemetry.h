#pragma once

#include <Tavro8/GDRV/IDeviceChannel.h>

namespace Tavro8::GDRV
{
/// Pan, tilt, zoom, focus and iris of one channel.
///
/// Operations block the caller until the device has answered or the HTTP time-out has passed. Those with a
/// result return a `ResultCode`: 8 when the channel does not offer the operation, 6 for a value out of range,
/// 2 before the device has connected. The other telemetry interfaces are asked for with `queryContract`.
/// Any thread, also several at once; `Destroy` ends calls that are under way, which then return 1.
class ITelemetry : public IDeviceChannel {
public:
    /// Slot 5. Moves until told otherwise; the sign of a speed is its direction (positive: right and up),
    /// 0 and 0 stops. Failures are logged only, as for the other continuous operations.
    virtual void MoveContinuous(std::int32_t pan, std::int32_t tilt) noexcept = 0;
    virtual std::int32_t MoveRelative(std::int32_t pan, std::int32_t tilt) noexcept = 0;    ///< slot 6
    virtual std::int32_t MoveAbsolute(std::uint32_t pan, std::uint32_t tilt) noexcept = 0;  ///< slot 7
    virtual void ZoomContinuous(std::int32_t speed) noexcept = 0;                           ///< slot 8
    virtual std::int32_t ZoomRelative(std::int32_t step) noexcept = 0;                      ///< slot 9
    virtual std::int32_t ZoomAbsolute(std::uint32_t zoom) noexcept = 0;                     ///< slot 10
    virtual void FocusContinuous(std::int32_t speed) noexcept = 0;                          ///< slot 11
    virtual std::int32_t FocusRelative(std::int32_t step) noexcept = 0;                     ///< slot 12
    virtual std::int32_t FocusAbsolute(std::uint32_t focus) noexcept = 0;                   ///< slot 13
    virtual std::int32_t FocusAuto() noexcept = 0;                                          ///< slot 14
    virtual void IrisContinuous(std::int32_t speed) noexcept = 0;                           ///< slot 15
    virtual std::int32_t IrisRelative(std::int32_t step) noexcept = 0;                      ///< slot 16
    virtual std::int32_t IrisAbsolute(std::uint32_t iris) noexcept = 0;                     ///< slot 17
    virtual std::int32_t IrisAuto() noexcept = 0;                                           ///< slot 18
    virtual std::int32_t GoToPreset(std::uint32_t index) noexcept = 0;                      ///< slot 19: index from 0
    virtual std::int32_t PlayTour(std::uint32_t index) noexcept = 0;                        ///< slot 20: index 0 or 1
    virtual std::int32_t StopTour() noexcept = 0;                                  ///< slot 21: 2 when none plays
    virtual std::int32_t SetAuxiliary(std::uint32_t index, bool on) noexcept = 0;  ///< slot 22
    virtual std::int32_t Calibrate() noexcept = 0;                                 ///< slot 23
};

/// Edits presets and tours.
class ITelemetryAdjuster : public IContract {
public:
    virtual std::int32_t SetPreset(std::uint32_t index) noexcept = 0;      ///< slot 3: stores the present view
    virtual std::int32_t RemovePreset(std::uint32_t index) noexcept = 0;   ///< slot 4
    virtual std::int32_t StartFillTour(std::uint32_t index) noexcept = 0;  ///< slot 5
    /// Slot 6. Appends a stop to the tour being filled; 2818 when none is. Speed and dwell time are kept for
    /// the device; the preset is counted from 0.
    virtual std::int32_t SetPoint(std::uint32_t speed, std::uint32_t presetIndex,
                                  std::uint32_t dwellSeconds) noexcept = 0;
    virtual std::int32_t StopFillTour() noexcept = 0;                   ///< slot 7: writes the tour to the device
    virtual std::int32_t RemoveTour(std::uint32_t index) noexcept = 0;  ///< slot 8
    virtual std::int32_t RenamePreset(std::uint32_t index, const char* name) noexcept = 0;  ///< slot 9
};

/// A rectangle of the picture; 0 to 1 is its whole width and height, the origin is the upper left corner.
struct NormalizedRect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

struct NormalizedPoint {
    double x = 0;
    double y = 0;
};

/// Moves by pointing into the picture.
class ITelemetryPointClick : public IContract {
public:
    /// Slot 3. Makes the rectangle fill the picture; a width or height above 1 zooms out by that factor.
    virtual std::int32_t AreaZoom(const NormalizedRect& rect) noexcept = 0;
    /// Slot 4. Makes the point the centre of the picture.
    virtual std::int32_t PointMove(const NormalizedPoint& point) noexcept = 0;
};

/// Bits of `IAbsoluteTelemetry::AbsoluteMoveEx`'s mask.
enum AbsoluteMoveMask : std::uint32_t {
    absoluteZoom = 1,
    absoluteTilt = 2,
    absolutePan = 4,
};

/// Positions in hundredths: of a degree for pan and tilt, of the zoom ratio for zoom. A negative angle is
/// the two's complement of its 32-bit value, in both directions.
class IAbsoluteTelemetry : public IContract {
public:
    /// Slot 3. Moves to the positions whose bit is set in `mask`; speeds are 0 to 9 for pan and tilt.
    virtual std::int32_t AbsoluteMoveEx(std::uint32_t pan, std::uint32_t panSpeed, std::uint32_t tilt,
                                        std::uint32_t tiltSpeed, std::uint32_t zoom, std::uint32_t zoomSpeed,
                                        std::uint32_t mask) noexcept = 0;
    /// Slot 4. Reads the present position; the outputs are untouched on failure.
    virtual std::int32_t GetPositionParams(std::uint32_t& pan, std::uint32_t& tilt, std::uint32_t& zoom) noexcept = 0;
};
}  // namespace Tavro8::GDRV

#pragma once

#include <Tavro8/GDRV/ITelemetry.h>
#include <cstdint>
#include <json/value.h>
#include <optional>
#include <string>
#include <vector>

/// Telemetry on the wire: the numbers, paths and bodies that devices understand. Knows no socket, is the same under
/// every global locale, and may be used on any thread. Bodies are texts with the very blanks that devices are known to
/// accept.
namespace Uniview::telemetry
{
/// "PTZCmd" of the continuous movements. What turns a lens is named after the sign of the speed.
enum class Command : unsigned {
    stop = 2305,
    tiltUp = 1026,
    tiltDown = 1028,
    panRight = 1282,
    panLeft = 1284,
    leftUp = 1794,
    leftDown = 1796,
    rightUp = 2050,
    rightDown = 2052,
    zoomPositive = 770,
    zoomNegative = 772,
    focusNegative = 514,
    focusPositive = 516,
    irisPositive = 258,
    irisNegative = 260,
};

// Positive speeds move right and up. A positive focus speed is the greater of its two codes, while for zoom and iris it
// is the smaller one: devices are that way.
Command moveCommand(std::int32_t pan, std::int32_t tilt) noexcept;
Command zoomCommand(std::int32_t speed) noexcept;
Command focusCommand(std::int32_t speed) noexcept;
Command irisCommand(std::int32_t speed) noexcept;

/// The speed without its direction. Unsigned, since the most negative integer has a magnitude too.
std::uint32_t magnitude(std::int32_t speed) noexcept;

/// "PTZ/" of a channel. Movement, and recalling and removing presets, are asked for under "Channel/" on cameras and
/// under "Channels/" on recorders; `number` counts as the device does.
std::string controlPath(bool isRecorder, std::uint32_t number);
/// The same for everything else: "Channels/" on every device.
std::string resourcePath(std::uint32_t number);

std::string controlBody(Command command, std::uint32_t panSpeed = 0, std::uint32_t tiltSpeed = 0);
std::string absoluteMoveBody(double longitude, double latitude, std::uint32_t speed);
std::string absoluteZoomBody(double ratio, std::uint32_t speed);
std::string presetBody(std::uint32_t number);

/// An area zoom: into the rectangle, or out of it when its width or height is above the picture's.
struct AreaCommand {
    const char* resource;  ///< below the channel's resource path
    std::string body;
};
/// Nothing when a coordinate is not finite or lies beyond 32 bits of pixels.
std::optional<AreaCommand> areaZoom(const Tavro8::GDRV::NormalizedRect& rect);
std::optional<AreaCommand> pointMove(const Tavro8::GDRV::NormalizedPoint& point);

/// Degrees of an angle in hundredths. The upper half of the values are negative angles as `hundredths` gives them.
double degrees(std::uint32_t angleHundredths) noexcept;
/// Hundredths of a device's number, truncated towards zero, negative ones as the two's complement. Nothing when it is
/// not finite or does not fit into 32 bits.
std::optional<std::uint32_t> hundredths(double value) noexcept;

/// A number among a reply's data; nothing when it is missing or no number.
std::optional<double> findNumber(const Json::Value& data, const char* name);
/// The entry of a list among a reply's data whose "ID" equals `number`; null when there is none.
const Json::Value* findEntry(const Json::Value& data, const char* listName, std::uint32_t number);
/// Whether the data may hold such a list: a device with an empty one may leave it out.
bool mayHoldList(const Json::Value& data, const char* listName);

struct TourPoint {
    std::uint32_t presetNumber;  ///< counts from 1
    std::uint32_t durationMs;
    std::uint32_t speed;
};
/// `name` is left out when it is empty.
std::string tourBody(std::uint32_t index, const std::string& name, const std::vector<TourPoint>& points);
}  // namespace Uniview::telemetry

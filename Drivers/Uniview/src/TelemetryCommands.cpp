#include "TelemetryCommands.h"

#include <boost/format.hpp>
#include <cmath>
#include <json/writer.h>
#include <limits>
#include <locale>

namespace Uniview::telemetry
{
namespace
{
// Devices are addressed as if every picture had this size.
constexpr int pictureWidth = 1920;
constexpr int pictureHeight = 1080;

constexpr int goToPresetAction = 1538;  // "Type" of a tour's points

/// Parsed once and copied for each body: parsing a template fills a cache inside the standard library's classic locale
/// that all threads share without a lock.
struct Templates {
    const boost::format control = make("{\"PTZCmd\":%1%,\"Para1\":%2%,\"Para2\":%3%,\"Para3\":0}");
    const boost::format absoluteMove = make("{ \"Longitude\":%1%, \"Latitude\":%2%, \"MoveSpeed\":%3%}");
    const boost::format absoluteZoom = make("{ \"ZoomRatio\":%1%, \"ZoomSpeed\":%2% }");
    // "CenterPointx" is what devices call it.
    const boost::format area = make("{ \"CenterPointx\":%1%, \"CenterPointY\":%2%, \"LengthX\":%3%, \"LengthY\":%4%, "
                                    "\"Width\":%5%, \"Height\":%6% }");
    const boost::format point = make("{ \"CenterPointx\":%1%, \"CenterPointY\":%2%, \"LengthX\":0, \"LengthY\":0, "
                                     "\"Width\":%3%, \"Height\":%4% }");
    const boost::format preset = make("{ \"ID\":%1%, \"Name\":\"%2%\" }");
    const boost::format presetName = make("Preset%1%");

    static boost::format make(const char* text) { return boost::format(text, std::locale::classic()); }
};

const Templates& templates()
{
    static const Templates parsed;
    return parsed;
}

template <typename... Values>
std::string fill(boost::format copy, const Values&... values)
{
    static_cast<void>((copy % ... % values));
    return copy.str();
}

/// By the sign of a speed.
Command choose(std::int32_t speed, Command positive, Command negative) noexcept
{
    if (speed == 0)
        return Command::stop;
    return speed > 0 ? positive : negative;
}

/// Through 64 bits, since a conversion that does not fit is undefined.
std::optional<std::int64_t> truncate(double value, std::int64_t least, std::int64_t greatest) noexcept
{
    const double whole = std::trunc(value);
    if (!std::isfinite(whole) || whole < static_cast<double>(least) || whole > static_cast<double>(greatest))
        return {};
    return static_cast<std::int64_t>(whole);
}

std::optional<std::int64_t> pixel(double value) noexcept
{
    return truncate(value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
}

/// What the part of the picture becomes when a factor zooms out; 0 where there is no sense in it.
double zoomedOut(double picture, double factor) noexcept
{
    return factor > 0 ? picture / factor : 0;
}
}  // namespace

Command moveCommand(std::int32_t pan, std::int32_t tilt) noexcept
{
    if (pan == 0)
        return choose(tilt, Command::tiltUp, Command::tiltDown);
    if (tilt == 0)
        return choose(pan, Command::panRight, Command::panLeft);
    if (pan < 0)
        return choose(tilt, Command::leftUp, Command::leftDown);
    return choose(tilt, Command::rightUp, Command::rightDown);
}

Command zoomCommand(std::int32_t speed) noexcept
{
    return choose(speed, Command::zoomPositive, Command::zoomNegative);
}

Command focusCommand(std::int32_t speed) noexcept
{
    return choose(speed, Command::focusPositive, Command::focusNegative);
}

Command irisCommand(std::int32_t speed) noexcept
{
    return choose(speed, Command::irisPositive, Command::irisNegative);
}

std::uint32_t magnitude(std::int32_t speed) noexcept
{
    const auto bits = static_cast<std::uint32_t>(speed);
    return speed < 0 ? 0U - bits : bits;
}

std::string controlPath(bool isRecorder, std::uint32_t number)
{
    return std::string("/LAPI/V1.0/") + (isRecorder ? "Channels/" : "Channel/") + std::to_string(number) + "/PTZ/";
}

std::string resourcePath(std::uint32_t number)
{
    return controlPath(true, number);
}

std::string controlBody(Command command, std::uint32_t panSpeed, std::uint32_t tiltSpeed)
{
    return fill(templates().control, static_cast<unsigned>(command), panSpeed, tiltSpeed);
}

std::string absoluteMoveBody(double longitude, double latitude, std::uint32_t speed)
{
    return fill(templates().absoluteMove, longitude, latitude, speed);
}

std::string absoluteZoomBody(double ratio, std::uint32_t speed)
{
    return fill(templates().absoluteZoom, ratio, speed);
}

std::string presetBody(std::uint32_t number)
{
    return fill(templates().preset, number, fill(templates().presetName, number));
}

std::optional<AreaCommand> areaZoom(const Tavro8::GDRV::NormalizedRect& rect)
{
    const bool zoomsOut = rect.width > 1.0 || rect.height > 1.0;
    const auto x = pixel((rect.x + rect.width * 0.5) * pictureWidth);
    const auto y = pixel((rect.y + rect.height * 0.5) * pictureHeight);
    const double lengthX = zoomsOut ? zoomedOut(pictureWidth, rect.width) : rect.width * pictureWidth;
    const double lengthY = zoomsOut ? zoomedOut(pictureHeight, rect.height) : rect.height * pictureHeight;
    if (!x || !y || !pixel(lengthX) || !pixel(lengthY))
        return {};
    return AreaCommand{zoomsOut ? "AreaZoomOut" : "AreaZoomIn",
                       fill(templates().area, *x, *y, lengthX, lengthY, pictureWidth, pictureHeight)};
}

std::optional<AreaCommand> pointMove(const Tavro8::GDRV::NormalizedPoint& point)
{
    const auto x = pixel(point.x * pictureWidth);
    const auto y = pixel(point.y * pictureHeight);
    if (!x || !y)
        return {};
    // An area of no size makes its centre the centre of the picture.
    return AreaCommand{"AreaZoomIn", fill(templates().point, *x, *y, pictureWidth, pictureHeight)};
}

double degrees(std::uint32_t angleHundredths) noexcept
{
    return static_cast<double>(static_cast<std::int32_t>(angleHundredths)) / 100.0;
}

std::optional<std::uint32_t> hundredths(double value) noexcept
{
    const auto whole =
        truncate(value * 100.0, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::uint32_t>::max());
    if (!whole)
        return {};
    return static_cast<std::uint32_t>(*whole);
}

std::optional<double> findNumber(const Json::Value& data, const char* name)
{
    if (!data.isObject() || !data[name].isNumeric())
        return {};
    return data[name].asDouble();
}

const Json::Value* findEntry(const Json::Value& data, const char* listName, std::uint32_t number)
{
    if (!data.isObject() || !data[listName].isArray())
        return nullptr;
    for (const Json::Value& entry : data[listName]) {
        if (entry.isObject() && entry["ID"].isUInt() && entry["ID"].asUInt() == number)
            return &entry;
    }
    return nullptr;
}

bool mayHoldList(const Json::Value& data, const char* listName)
{
    return data.isNull() || (data.isObject() && (data[listName].isNull() || data[listName].isArray()));
}

std::string tourBody(std::uint32_t index, const std::string& name, const std::vector<TourPoint>& points)
{
    std::string body = "{\"ID\":" + std::to_string(index) + ",\"Num\":" + std::to_string(points.size());
    if (!name.empty())
        body += ",\"Name\":" + Json::valueToQuotedString(name.c_str());
    body += ",\"Actions\":[";
    for (std::size_t id = 0; id < points.size(); ++id) {
        const TourPoint& point = points[id];
        const std::string speed = std::to_string(point.speed);
        body += id == 0 ? "{\"ID\":" : ",{\"ID\":";
        body += std::to_string(id) + ",\"Type\":" + std::to_string(goToPresetAction) + ",\"Para1\":" + speed +
                ",\"Para2\":" + speed + ",\"PresetID\":" + std::to_string(point.presetNumber) +
                ",\"Duration\":" + std::to_string(point.durationMs) + '}';
    }
    return body + "]}";
}
}  // namespace Uniview::telemetry

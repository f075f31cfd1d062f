#include "PtzRequests.h"

#include "JsonMembers.h"
#include "LapiEnvelope.h"
#include "PtzMotion.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace simulator
{
namespace
{

constexpr unsigned highestPreset = 256;
constexpr unsigned highestPatrol = 15;
constexpr std::size_t mostPoints = 64;
constexpr std::size_t longestName = 64;
constexpr std::int64_t longestDwellMs = 3'600'000;
constexpr unsigned highestDriveSpeed = 100;
constexpr unsigned goToPresetAction = 1538;  ///< "Type" of the only action that a patrol may hold here

constexpr double degreesPerSecondOfDrive = 2;  ///< for each unit of "Para1" and "Para2"
constexpr double zoomPerSecondOfDrive = 5;
constexpr double percentPerSecondOfDrive = 20;  ///< of focus and iris

constexpr const char* noJson = "the body is no JSON";

/// What a command code does to each axis: the direction, or 0.
struct Command {
    unsigned code;
    int pan;
    int tilt;
    int zoom;
    int focus;
    int iris;
};

constexpr unsigned stopCode = 2305;
constexpr Command commands[] = {
    {1026, 0, 1, 0, 0, 0},    // up
    {1028, 0, -1, 0, 0, 0},   // down
    {1282, 1, 0, 0, 0, 0},    // right
    {1284, -1, 0, 0, 0, 0},   // left
    {1794, -1, 1, 0, 0, 0},   // left and up
    {1796, -1, -1, 0, 0, 0},  // left and down
    {2050, 1, 1, 0, 0, 0},    // right and up
    {2052, 1, -1, 0, 0, 0},   // right and down
    {770, 0, 0, 1, 0, 0},     // closer
    {772, 0, 0, -1, 0, 0},    // wider
    {516, 0, 0, 0, 1, 0},     // focus to the far
    {514, 0, 0, 0, -1, 0},    // focus to the near
    {258, 0, 0, 0, 0, 1},     // open the iris
    {260, 0, 0, 0, 0, -1},    // close the iris
};

/// Pan and tilt are one command: a direction without one of them stops it. The lens is driven apart.
PtzDrive driveOf(const Command& command, double panSpeed, double tiltSpeed)
{
    PtzDrive drive;
    if (command.pan != 0 || command.tilt != 0) {
        drive.pan = command.pan * panSpeed * degreesPerSecondOfDrive;
        drive.tilt = command.tilt * tiltSpeed * degreesPerSecondOfDrive;
    }
    if (command.zoom != 0)
        drive.zoom = command.zoom * zoomPerSecondOfDrive;
    if (command.focus != 0)
        drive.focus = command.focus * percentPerSecondOfDrive;
    if (command.iris != 0)
        drive.iris = command.iris * percentPerSecondOfDrive;
    return drive;
}

/// Reads a speed of 0..9 as 1..9: 0 leaves it to the device, which then does its best.
void readSpeed(JsonMembers& members, const char* name, unsigned& speed)
{
    members.read(name, 0, PtzMotion::fastest, speed);
    if (speed == 0)
        speed = PtzMotion::fastest;
}

void readName(JsonMembers& members, std::string& name)
{
    if (members.read("Name", name) && name.size() > longestName)
        members.refuse("\"Name\" is longer than " + std::to_string(longestName) + " bytes");
}

/// By which factor a rectangle changes the zoom ratio. A side of length 0 has no say.
double scaleOf(PtzAreaZoom direction, double widthShare, double heightShare)
{
    double share = 1;
    if (widthShare > 0 && heightShare > 0)
        share = direction == PtzAreaZoom::in ? std::max(widthShare, heightShare) : std::min(widthShare, heightShare);
    else if (widthShare > 0 || heightShare > 0)
        share = std::max(widthShare, heightShare);
    share = std::min(share, 1.0);
    return direction == PtzAreaZoom::in ? 1 / share : share;
}

PtzPatrol::Point readPoint(JsonMembers& members)
{
    unsigned type = 0;
    std::int64_t dwellMs = 0;
    PtzPatrol::Point point;
    for (const char* name : {"Type", "Para1", "PresetID", "Duration"})
        members.require(name);
    members.read("Type", goToPresetAction, goToPresetAction, type);
    members.read("PresetID", 1, highestPreset, point.preset);
    members.read("Duration", 0, longestDwellMs, dwellMs);
    readSpeed(members, "Para1", point.speed);
    point.dwell = std::chrono::milliseconds(dwellMs);
    return point;
}

void readPoints(JsonMembers& members, std::vector<PtzPatrol::Point>& points)
{
    std::size_t count = 0;
    members.read("Num", 0, mostPoints, count);
    const Json::Value* const actions = members.find("Actions");
    if (actions == nullptr)
        return;
    if (!actions->isArray() || actions->size() != count)
        return members.refuse("\"Actions\" is no list of \"Num\" actions");
    for (const Json::Value& action : *actions) {
        JsonMembers point(action);
        points.push_back(readPoint(point));
        if (!point.problem().empty())
            members.refuse("\"Actions\": " + point.problem());
    }
}

/// Parses the body and has `read` take what it wants from its members.
template <typename Result, typename Read>
std::variant<Result, std::string> parseBody(std::string_view body, Read&& read)
{
    const auto json = parseJson(body);
    if (!json)
        return noJson;
    JsonMembers members(*json);
    Result result;
    read(members, result);
    if (!members.problem().empty())
        return members.problem();
    return result;
}

}  // namespace

std::variant<PtzDrive, std::string> parsePtzDrive(std::string_view body)
{
    return parseBody<PtzDrive>(body, [](JsonMembers& members, PtzDrive& drive) {
        unsigned code = 0;
        unsigned panSpeed = 0;
        unsigned tiltSpeed = 0;
        for (const char* name : {"PTZCmd", "Para1", "Para2"})
            members.require(name);
        members.read("PTZCmd", 0, 65'535, code);
        members.read("Para1", 0, highestDriveSpeed, panSpeed);
        members.read("Para2", 0, highestDriveSpeed, tiltSpeed);
        const auto command = std::ranges::find(commands, code, &Command::code);
        if (code == stopCode)
            drive = {0, 0, 0, 0, 0};
        else if (command != std::end(commands))
            drive = driveOf(*command, panSpeed, tiltSpeed);
        else
            members.refuse("\"PTZCmd\" is no command of this device");
    });
}

std::variant<PtzAbsoluteMove, std::string> parsePtzAbsoluteMove(std::string_view body)
{
    return parseBody<PtzAbsoluteMove>(body, [](JsonMembers& members, PtzAbsoluteMove& move) {
        members.require("Longitude");
        members.require("Latitude");
        members.readReal("Longitude", -panRange.most, panRange.most, move.pan);  // -30 is as good as 330
        members.readReal("Latitude", tiltRange.least, tiltRange.most, move.tilt);
        readSpeed(members, "MoveSpeed", move.speed);
    });
}

std::variant<PtzAbsoluteZoom, std::string> parsePtzAbsoluteZoom(std::string_view body)
{
    return parseBody<PtzAbsoluteZoom>(body, [](JsonMembers& members, PtzAbsoluteZoom& zoom) {
        members.require("ZoomRatio");
        members.readReal("ZoomRatio", zoomRange.least, zoomRange.most, zoom.ratio);
        readSpeed(members, "ZoomSpeed", zoom.speed);
    });
}

std::variant<PtzArea, std::string> parsePtzArea(std::string_view body, PtzAreaZoom direction)
{
    return parseBody<PtzArea>(body, [direction](JsonMembers& members, PtzArea& area) {
        constexpr double largestPicture = 65'535;
        double width = 0;
        double height = 0;
        double x = 0;
        double y = 0;
        double lengthX = 0;
        double lengthY = 0;
        // The lower-case x of the first is the device's own.
        for (const char* name : {"CenterPointx", "CenterPointY", "LengthX", "LengthY", "Width", "Height"})
            members.require(name);
        members.readReal("Width", 1, largestPicture, width);
        members.readReal("Height", 1, largestPicture, height);
        members.readReal("CenterPointx", 0, width, x);
        members.readReal("CenterPointY", 0, height, y);
        // What one zooms out to may be larger than the picture in one direction.
        const double most = direction == PtzAreaZoom::in ? 1 : largestPicture;
        members.readReal("LengthX", 0, width * most, lengthX);
        members.readReal("LengthY", 0, height * most, lengthY);
        if (members.problem().empty())
            area = {x / width - 0.5, y / height - 0.5, scaleOf(direction, lengthX / width, lengthY / height)};
    });
}

std::variant<PtzPreset, std::string> parsePtzPreset(std::string_view body)
{
    return parseBody<PtzPreset>(body, [](JsonMembers& members, PtzPreset& preset) {
        members.require("ID");
        members.read("ID", 1, highestPreset, preset.id);
        readName(members, preset.name);
    });
}

std::variant<PtzPatrol, std::string> parsePtzPatrol(std::string_view body)
{
    return parseBody<PtzPatrol>(body, [body](JsonMembers& members, PtzPatrol& patrol) {
        std::string name;
        for (const char* member : {"ID", "Num", "Actions"})
            members.require(member);
        members.read("ID", 0, highestPatrol, patrol.id);
        readName(members, name);
        readPoints(members, patrol.points);
        patrol.document = *parseJson(body);
    });
}

}  // namespace simulator

#pragma once

#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

// The bodies of the requests that reach a head, checked. Each `parse` returns what the body asks for, or a sentence
// that tells what is wrong with it. Members that the device does not know are passed over.
namespace simulator
{

/// A continuous command: units a second for each axis, whose sign is the direction. 0 stops the axis; one without a
/// speed goes on with what it does.
struct PtzDrive {
    std::optional<double> pan{};
    std::optional<double> tilt{};
    std::optional<double> zoom{};
    std::optional<double> focus{};
    std::optional<double> iris{};
};
std::variant<PtzDrive, std::string> parsePtzDrive(std::string_view body);

struct PtzAbsoluteMove {
    double pan = 0;  ///< -360..360
    double tilt = 0;
    unsigned speed = 0;  ///< 1..9
};
std::variant<PtzAbsoluteMove, std::string> parsePtzAbsoluteMove(std::string_view body);

struct PtzAbsoluteZoom {
    double ratio = 1;
    unsigned speed = 0;  ///< 1..9
};
std::variant<PtzAbsoluteZoom, std::string> parsePtzAbsoluteZoom(std::string_view body);

/// A rectangle of the picture, seen from its middle.
struct PtzArea {
    double right = 0;  ///< of the rectangle's centre, in widths of the picture
    double down = 0;   ///< in its heights
    double scale = 1;  ///< by how much the zoom ratio grows
};
enum class PtzAreaZoom { in, out };
std::variant<PtzArea, std::string> parsePtzArea(std::string_view body, PtzAreaZoom direction);

struct PtzPreset {
    unsigned id = 0;  ///< 1..256
    std::string name;
};
std::variant<PtzPreset, std::string> parsePtzPreset(std::string_view body);

struct PtzPatrol {
    struct Point {
        unsigned preset = 0;
        unsigned speed = 0;  ///< 1..9
        std::chrono::milliseconds dwell{0};
    };
    unsigned id = 0;  ///< 0..15
    std::vector<Point> points;
    Json::Value document{Json::objectValue};  ///< the body, for those who ask for it
};
std::variant<PtzPatrol, std::string> parsePtzPatrol(std::string_view body);

}  // namespace simulator

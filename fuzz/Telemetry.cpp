#include "FuzzTarget.h"

#include "Lapi.h"
#include "TelemetryCommands.h"

#include <bit>
#include <cmath>
#include <string>
#include <vector>

namespace Tavro8::fuzz
{
namespace
{
namespace telemetry = Uniview::telemetry;

double number(Script& script)
{
    return std::bit_cast<double>(script.u64());
}

Json::Value read(const std::string& body)
{
    Json::Value document;
    std::string error;
    require(Uniview::lapi::parseJson(body, document, error), "every body is JSON");
    return document;
}

void checkArea(const std::optional<telemetry::AreaCommand>& command)
{
    if (!command)
        return;
    const Json::Value body = read(command->body);
    require(body.size() == 6, "an area has six members");
    require(body["CenterPointx"].isInt() && body["CenterPointY"].isInt(), "the centre is a pixel");
    require(body["LengthX"].isNumeric() && body["LengthY"].isNumeric(), "lengths are numbers");
    require(body["Width"] == 1920 && body["Height"] == 1080, "the picture is always as large");
}

void checkMovement(std::int32_t pan, std::int32_t tilt)
{
    const std::uint32_t panSpeed = telemetry::magnitude(pan);
    const std::uint32_t tiltSpeed = telemetry::magnitude(tilt);
    const Json::Value body = read(telemetry::controlBody(telemetry::moveCommand(pan, tilt), panSpeed, tiltSpeed));
    require(body["Para1"].asInt64() == std::abs(std::int64_t{pan}), "the speed is the magnitude");
    require(body["Para2"].asInt64() == std::abs(std::int64_t{tilt}), "the speed is the magnitude");
    require((body["PTZCmd"] == 2305) == (pan == 0 && tilt == 0), "only no speed stops");
}

void checkPosition(double value)
{
    const auto host = telemetry::hundredths(value);
    require(host.has_value() || !(std::abs(value) < 20'000'000), "every angle that makes sense has its hundredths");
    if (host && std::abs(value) < 20'000'000)
        require(std::abs(telemetry::degrees(*host) - value) <= 0.011, "a position survives to the hundredth");
}

void checkTour(Script& script)
{
    const Bytes nameBytes = script.block();
    const std::string name(textOf(nameBytes));
    std::vector<telemetry::TourPoint> points(script.u8() % 4);
    for (auto& point : points)
        point = {script.u32(), script.u32(), script.u32()};
    const Json::Value body = read(telemetry::tourBody(script.u32(), name, points));
    require(body["Num"].asUInt() == points.size() && body["Actions"].size() == points.size(), "every point is there");
    require(body.isMember("Name") == !name.empty(), "a tour without a name has none");
    for (Json::ArrayIndex i = 0; i < body["Actions"].size(); ++i) {
        const Json::Value& action = body["Actions"][i];
        require(action["ID"].asUInt() == i && action["PresetID"].asUInt() == points[i].presetNumber &&
                    action["Duration"].asUInt() == points[i].durationMs &&
                    action["Para1"].asUInt() == points[i].speed && action["Para2"].asUInt() == points[i].speed,
                "points keep their order and values");
    }
}

void checkLists(const Json::Value& data, std::uint32_t id)
{
    for (const char* const list : {"PresetInfos", "PatrolInfos"}) {
        const Json::Value* const entry = telemetry::findEntry(data, list, id);
        require(entry == nullptr || (*entry)["ID"].asUInt() == id, "the entry is the one that was asked for");
        require(entry == nullptr || telemetry::mayHoldList(data, list), "an entry is in a list");
    }
    const auto longitude = telemetry::findNumber(data, "Longitude");
    require(!longitude || data["Longitude"].isNumeric(), "a number is one");
}

/// Coordinates, speeds and a tour of the host, then the data of a device's reply.
///
/// Promises: nothing that a host gives overflows; every body is JSON with the values that were given; every reply can
/// be searched.
void feed(ByteView input)
{
    Script script(input);
    Tavro8::GDRV::NormalizedRect rect;
    for (double* const coordinate : {&rect.x, &rect.y, &rect.width, &rect.height})
        *coordinate = number(script);
    checkArea(telemetry::areaZoom(rect));
    checkArea(telemetry::pointMove({rect.x, rect.y}));
    checkPosition(rect.x);
    const auto pan = static_cast<std::int32_t>(script.u32());
    checkMovement(pan, static_cast<std::int32_t>(script.u32()));
    checkTour(script);

    const std::uint32_t id = script.u8();
    Json::Value data;
    std::string error;
    const Bytes reply = script.remaining();
    if (Uniview::lapi::parseJson(textOf(reply), data, error))
        checkLists(data, id);
}

const Target telemetryTarget("telemetry", feed);
}  // namespace
}  // namespace Tavro8::fuzz

#include "PtzHead.h"

#include <cmath>
#include <utility>

namespace simulator
{
namespace
{

// What the lens sees at a ratio of 1, for a picture of 16:9. Twice the ratio shows half of it.
constexpr double pictureDegreesWide = 60;
constexpr double pictureDegreesHigh = 33.75;

double hundredths(double value)
{
    return std::round(value * 100) / 100 + 0.0;  // no minus in front of 0
}

Json::Value asJson(const PtzView& view)
{
    const PtzView shown = rounded(view);
    Json::Value out(Json::objectValue);
    out["pan"] = shown.pan;
    out["tilt"] = shown.tilt;
    out["zoom"] = shown.zoom;
    out["focus"] = shown.focus;
    out["iris"] = shown.iris;
    return out;
}

Json::Value listing(const char* name, Json::Value list)
{
    Json::Value data(Json::objectValue);
    data["Nums"] = list.size();
    data[name] = std::move(list);
    return data;
}

}  // namespace

PtzView rounded(const PtzView& view)
{
    return {panRange.clamp(hundredths(view.pan)), hundredths(view.tilt), hundredths(view.zoom), hundredths(view.focus),
            hundredths(view.iris)};
}

PtzTour::Moment PtzHead::moment(PtzTime now) const
{
    return playing ? playing->tour.at(now) : PtzTour::Moment{motion, now};
}

PtzView PtzHead::view(PtzTime now) const
{
    const auto [current, time] = moment(now);
    return current.at(time);
}

bool PtzHead::moving(PtzTime now) const
{
    const auto [current, time] = moment(now);
    return current.moving(time);
}

void PtzHead::interrupt(PtzTime now)
{
    if (!playing)
        return;
    motion = PtzMotion(view(now));
    playing.reset();
}

void PtzHead::drive(const PtzDrive& drive, PtzTime now)
{
    interrupt(now);
    const std::pair<PtzAxis&, const std::optional<double>&> axes[] = {{motion.pan, drive.pan},
                                                                      {motion.tilt, drive.tilt},
                                                                      {motion.zoom, drive.zoom},
                                                                      {motion.focus, drive.focus},
                                                                      {motion.iris, drive.iris}};
    for (const auto& [axis, speed] : axes)
        if (speed)
            axis.drive(*speed, now);
}

void PtzHead::goTo(const PtzAbsoluteMove& move, PtzTime now)
{
    interrupt(now);
    motion.pan.goTo(move.pan, PtzMotion::degreesPerSecond(move.speed), now);
    motion.tilt.goTo(move.tilt, PtzMotion::degreesPerSecond(move.speed), now);
}

void PtzHead::zoomTo(const PtzAbsoluteZoom& zoom, PtzTime now)
{
    interrupt(now);
    motion.zoom.goTo(zoom.ratio, PtzMotion::zoomPerSecond(zoom.speed), now);
}

void PtzHead::show(const PtzArea& area, PtzTime now)
{
    interrupt(now);
    PtzView target = view(now);
    target.pan += area.right * pictureDegreesWide / target.zoom;
    target.tilt -= area.down * pictureDegreesHigh / target.zoom;
    target.zoom *= area.scale;
    motion.goTo(target, PtzMotion::fastest, now);
}

void PtzHead::storePreset(const PtzPreset& preset, PtzTime now)
{
    presets[preset.id] = {preset.name, view(now)};
}

void PtzHead::goToPreset(unsigned id, PtzTime now)
{
    interrupt(now);
    motion.goTo(presets.at(id).view, PtzMotion::fastest, now);
}

std::optional<std::string> PtzHead::storePatrol(PtzPatrol patrol)
{
    for (const PtzPatrol::Point& point : patrol.points)
        if (!hasPreset(point.preset))
            return "there is no preset " + std::to_string(point.preset);
    const unsigned id = patrol.id;
    patrols.insert_or_assign(id, std::move(patrol));
    return std::nullopt;
}

std::optional<std::string> PtzHead::startPatrol(unsigned id, PtzTime now)
{
    std::vector<PtzTour::Stop> stops;
    for (const PtzPatrol::Point& point : patrols.at(id).points)
        if (const auto preset = presets.find(point.preset); preset != presets.end())
            stops.push_back({preset->second.view, point.speed, point.dwell});
    if (stops.empty())
        return "the patrol has no points";
    playing.emplace(Playing{id, PtzTour(view(now), stops, now)});
    return std::nullopt;
}

void PtzHead::stopPatrol(unsigned id, PtzTime now)
{
    if (playing && playing->patrol == id)
        interrupt(now);
}

Json::Value PtzHead::presetInformation() const
{
    Json::Value list(Json::arrayValue);
    for (const auto& [id, preset] : presets) {
        Json::Value entry(Json::objectValue);
        entry["ID"] = id;
        entry["Name"] = preset.name;
        list.append(entry);
    }
    return listing("PresetInfos", list);
}

Json::Value PtzHead::patrolInformation() const
{
    Json::Value list(Json::arrayValue);
    for (const auto& [id, patrol] : patrols)
        list.append(patrol.document);
    return listing("PatrolInfos", list);
}

Json::Value PtzHead::moveInformation(PtzTime now) const
{
    const PtzView shown = rounded(view(now));
    Json::Value data(Json::objectValue);
    data["Longitude"] = shown.pan;
    data["Latitude"] = shown.tilt;
    return data;
}

Json::Value PtzHead::zoomInformation(PtzTime now) const
{
    Json::Value data(Json::objectValue);
    data["ZoomRatio"] = rounded(view(now)).zoom;
    return data;
}

Json::Value PtzHead::state(PtzTime now) const
{
    const auto [current, time] = moment(now);
    const auto target = current.target();
    Json::Value out(Json::objectValue);
    out["position"] = asJson(current.at(time));
    out["target"] = target ? asJson(*target) : Json::Value();
    out["moving"] = current.moving(time);
    out["patrol"] = playing ? Json::Value(playing->patrol) : Json::Value();
    out["presets"] = Json::Value(Json::arrayValue);
    for (const auto& [id, preset] : presets) {
        Json::Value entry = asJson(preset.view);
        entry["id"] = id;
        entry["name"] = preset.name;
        out["presets"].append(entry);
    }
    out["patrols"] = patrolInformation()["PatrolInfos"];
    out["commands"] = commandCount;
    out["lastCommand"] = lastCommand;
    return out;
}

void PtzHead::count(const std::string& command)
{
    ++commandCount;
    lastCommand = command;
}

}  // namespace simulator

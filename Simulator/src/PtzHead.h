#pragma once

#include "PtzMotion.h"
#include "PtzRequests.h"

#include <json/value.h>

#include <map>
#include <optional>
#include <string>

namespace simulator
{

/// The view as devices tell it, with two decimals.
PtzView rounded(const PtzView& view);

/// The head of one channel: where it looks as a function of time, and the presets and patrols that it keeps. Every
/// command ends a patrol that plays. The times that it is given only grow.
class PtzHead {
public:
    PtzView view(PtzTime now) const;
    bool moving(PtzTime now) const;

    void drive(const PtzDrive& drive, PtzTime now);
    void goTo(const PtzAbsoluteMove& move, PtzTime now);
    void zoomTo(const PtzAbsoluteZoom& zoom, PtzTime now);
    /// Makes the area's centre that of the picture. Beyond a limit it goes as far as it can.
    void show(const PtzArea& area, PtzTime now);

    bool hasPreset(unsigned id) const { return presets.contains(id); }
    /// Keeps the view of the moment, also of a head that moves.
    void storePreset(const PtzPreset& preset, PtzTime now);
    void goToPreset(unsigned id, PtzTime now);
    void removePreset(unsigned id) { presets.erase(id); }

    bool hasPatrol(unsigned id) const { return patrols.contains(id); }
    /// Returns why not, or nothing. One that plays goes on as it was.
    std::optional<std::string> storePatrol(PtzPatrol patrol);
    /// Plays it until the next command. Points whose preset is gone are left out.
    std::optional<std::string> startPatrol(unsigned id, PtzTime now);
    /// Stops the head where it is, if that patrol plays.
    void stopPatrol(unsigned id, PtzTime now);

    /// "Data" of the resources.
    Json::Value presetInformation() const;
    Json::Value patrolInformation() const;
    Json::Value moveInformation(PtzTime now) const;
    Json::Value zoomInformation(PtzTime now) const;

    /// For the administration.
    Json::Value state(PtzTime now) const;
    /// Remembers a command that was obeyed.
    void count(const std::string& command);

private:
    struct StoredPreset {
        std::string name;
        PtzView view;
    };
    struct Playing {
        unsigned patrol;
        PtzTour tour;
    };

    PtzTour::Moment moment(PtzTime now) const;
    /// Ends a patrol; afterwards `motion` is where the head is.
    void interrupt(PtzTime now);

    PtzMotion motion{PtzView{}};     ///< while no patrol plays
    std::optional<Playing> playing;  ///< outranks `motion`
    std::map<unsigned, StoredPreset> presets;
    std::map<unsigned, PtzPatrol> patrols;
    unsigned commandCount = 0;
    std::string lastCommand;
};

}  // namespace simulator

#pragma once

#include "EventCommand.h"

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace simulator
{

/// Events that happen by themselves, at times counted from the beginning of the script.
struct EventScript {
    struct InputChange {
        unsigned index = 0;  ///< from 0
        bool state = false;
    };
    struct Step {
        std::chrono::milliseconds at{0};
        std::variant<EventCommand, InputChange> what;
    };
    std::vector<Step> steps;                          ///< in the order of their times
    std::optional<std::chrono::milliseconds> repeat;  ///< after so long it begins again; behind the last step
};

/// Reads a script; the other alternative says in a sentence what is wrong with it, and on which line. `inputs` is how
/// many the device has.
std::variant<EventScript, std::string> parseEventScript(const std::string& text, unsigned inputs);

/// The same from a file. Throws std::runtime_error whose text names the file as well.
EventScript loadEventScript(const std::string& file, unsigned inputs);

}  // namespace simulator

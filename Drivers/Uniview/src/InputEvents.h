#pragma once

#include <cstdint>
#include <json/forwards.h>
#include <vector>

namespace Uniview
{
/// What is known of an alarm input.
enum class InputState : std::uint8_t { unknown, off, on };

/// What a notification means for the alarm inputs.
struct InputDecision {
    enum class Kind {
        foreign,     ///< no event of an input
        malformed,   ///< an event of an input, but which one is not to be read
        outOfRange,  ///< of an input that the device does not have
        unchanged,   ///< the input is in this state already
        changed,     ///< new to us
    };
    Kind kind = Kind::foreign;
    std::uint32_t input = 0;  ///< counted from 0
    bool state = false;       ///< on or off

    bool isTaken() const noexcept { return kind == Kind::unchanged || kind == Kind::changed; }
};

/// Judges the "AlarmInfo" of a notification against `states`, one for each input, and stores the state that is new.
/// The wire counts inputs from 1: a source 0 wraps and is out of range. Without a source the event is of input 0.
InputDecision decideInput(const Json::Value& alarmInfo, std::vector<InputState>& states);
}  // namespace Uniview

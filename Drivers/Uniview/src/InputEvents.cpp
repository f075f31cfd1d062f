#include "InputEvents.h"

#include "AlarmInfo.h"
#include "EventNames.h"

#include <json/value.h>

namespace Uniview
{
InputDecision decideInput(const Json::Value& alarmInfo, std::vector<InputState>& states)
{
    using Kind = InputDecision::Kind;
    InputDecision decision;
    const auto type = events::readText(events::findMember(alarmInfo, events::alarmType));
    if (type != events::inputAlarmOn && type != events::inputAlarmOff)
        return decision;

    if (const Json::Value* const source = events::findMember(alarmInfo, events::alarmSrcId)) {
        const auto number = events::readNumber(source);
        if (!number) {
            decision.kind = Kind::malformed;
            return decision;
        }
        decision.input = *number - 1;
    }
    if (decision.input >= states.size()) {
        decision.kind = Kind::outOfRange;
        return decision;
    }
    decision.state = type == events::inputAlarmOn;
    InputState& stored = states[decision.input];
    const InputState state = decision.state ? InputState::on : InputState::off;
    decision.kind = stored == state ? Kind::unchanged : Kind::changed;
    stored = state;
    return decision;
}
}  // namespace Uniview

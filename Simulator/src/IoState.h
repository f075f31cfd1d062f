#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace simulator
{

/// Alarm inputs and relay outputs. They count from 1 on the wire and from 0 here. The I/O context is the only one to
/// use it.
class IoState {
public:
    IoState(unsigned inputCount, unsigned relayCount) : inputs(inputCount), relays(relayCount) {}

    std::size_t inputCount() const { return inputs.size(); }
    bool relay(std::size_t index) const { return relays.at(index); }

    void setInput(std::size_t index, bool state) { inputs.at(index) = state; }

    /// Switches relays as the body of ManualAlarm says: {"Num": 1, "IDs": [1], "AlarmAction": 1}. Returns what is
    /// wrong with it, or nothing; a body that is refused switches none.
    std::optional<std::string> switchRelays(std::string_view body);

    /// "Data" of the resources.
    Json::Value inputInformation() const;
    Json::Value relayInformation() const;

    /// Arrays of booleans, for the administration.
    Json::Value inputStates() const;
    Json::Value relayStates() const;

private:
    std::vector<bool> inputs;
    std::vector<bool> relays;
};

}  // namespace simulator

#include "IoState.h"

#include "JsonMembers.h"
#include "LapiEnvelope.h"

#include <string>

namespace simulator
{
namespace
{

Json::Value information(const std::vector<bool>& states, const std::string& name)
{
    Json::Value list(Json::arrayValue);
    for (std::size_t i = 0; i < states.size(); ++i) {
        Json::Value entry(Json::objectValue);
        entry["ID"] = static_cast<Json::UInt>(i + 1);
        entry["Name"] = name + std::to_string(i + 1);
        entry["Status"] = states[i] ? 1 : 0;
        list.append(entry);
    }
    Json::Value data(Json::objectValue);
    data["Num"] = list.size();
    data["BasicInfos"] = list;
    return data;
}

Json::Value asJson(const std::vector<bool>& states)
{
    Json::Value list(Json::arrayValue);
    for (const bool state : states)
        list.append(state);
    return list;
}

}  // namespace

std::optional<std::string> IoState::switchRelays(std::string_view body)
{
    const auto json = parseJson(body);
    if (!json)
        return "the body is no JSON";
    JsonMembers members(*json);
    unsigned count = 0;
    unsigned action = 0;
    for (const char* name : {"Num", "IDs", "AlarmAction"})
        members.require(name);
    members.read("Num", 1, static_cast<std::int64_t>(relays.size()), count);
    members.read("AlarmAction", 0, 1, action);

    auto switched = relays;
    if (const Json::Value* const ids = members.find("IDs")) {
        if (!ids->isArray() || ids->size() != count)
            members.refuse("\"IDs\" is no list of \"Num\" numbers");
        else
            for (const Json::Value& id : *ids)
                if (id.isUInt() && id.asUInt() >= 1 && id.asUInt() <= relays.size())
                    switched[id.asUInt() - 1] = action != 0;
                else
                    members.refuse("\"IDs\" names an output that is not there");
    }
    if (!members.problem().empty())
        return members.problem();
    relays = std::move(switched);
    return std::nullopt;
}

Json::Value IoState::inputInformation() const
{
    return information(inputs, "Input");
}

Json::Value IoState::relayInformation() const
{
    return information(relays, "Output");
}

Json::Value IoState::inputStates() const
{
    return asJson(inputs);
}

Json::Value IoState::relayStates() const
{
    return asJson(relays);
}

}  // namespace simulator

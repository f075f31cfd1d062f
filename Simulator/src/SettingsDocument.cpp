#include "SettingsDocument.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace simulator
{
namespace
{

/// Where a member stands: as rules write it and as people read it.
struct Place {
    std::string rule;
    std::string shown;

    Place member(const std::string& name) const
    {
        return rule.empty() ? Place{name, name} : Place{rule + '.' + name, shown + '.' + name};
    }
    Place entry(const Json::Value& id) const { return {rule + "[]", shown + '[' + id.asString() + ']'}; }
};

/// JsonCpp takes 1.0 for a whole number, and 1 and 1u for different ones; devices do neither.
bool isWhole(const Json::Value& value)
{
    return value.type() == Json::intValue || value.type() == Json::uintValue;
}

bool isSame(const Json::Value& one, const Json::Value& other)
{
    if (!isWhole(one) || !isWhole(other))
        return one == other;
    return one.asString() == other.asString();
}

bool isEntry(const Json::Value& value)
{
    return value.isObject() && isWhole(value["ID"]);
}

bool isList(const Json::Value& value)
{
    return value.isArray() && !value.empty() && std::all_of(value.begin(), value.end(), isEntry);
}

/// Puts a body into a document, as far as it goes.
class Merge {
public:
    explicit Merge(std::span<const SettingRule> allRules) : rules(allRules) {}

    void object(Json::Value& own, const Json::Value& written, const Place& place)
    {
        if (!written.isObject())
            return refuse(place, "is no JSON object");
        for (const std::string& name : own.getMemberNames()) {
            if (written.isMember(name))
                member(own[name], written[name], place.member(name));
            else
                lost.insert(place.member(name).shown);
        }
        for (const std::string& name : written.getMemberNames())
            if (!own.isMember(name))
                strange.insert(place.member(name).shown);
    }

    std::set<std::string> lost;
    std::set<std::string> strange;
    std::string wrong;  ///< empty when all is well

private:
    void member(Json::Value& own, const Json::Value& written, const Place& place)
    {
        const auto rule = std::ranges::find_if(rules, [&](const SettingRule& r) { return place.rule == r.path; });
        if (rule != rules.end())
            return setting(*rule, own, written, place);
        if (own.isObject())
            return object(own, written, place);
        if (isList(own))
            return list(own, written, place);
        if (!isSame(own, written))
            lost.insert(place.shown);
    }

    void setting(const SettingRule& rule, Json::Value& own, const Json::Value& written, const Place& place)
    {
        const bool isSwitch = rule.type == SettingRule::Type::flag && written.isBool();
        const bool isInRange =
            isWhole(written) && written.isInt64() && written.asInt64() >= rule.least && written.asInt64() <= rule.most;
        if (!isSwitch && !isInRange)
            return refuse(place,
                          "is no whole number of " + std::to_string(rule.least) + ".." + std::to_string(rule.most));
        if (rule.type != SettingRule::Type::count)
            own = written;
    }

    void list(Json::Value& own, const Json::Value& written, const Place& place)
    {
        if (!written.isArray())
            return refuse(place, "is no array");
        for (const Json::Value& entry : written) {
            const auto found = std::find_if(own.begin(), own.end(), [&](const Json::Value& candidate) {
                return isEntry(entry) && isSame(candidate["ID"], entry["ID"]);
            });
            if (found == own.end())
                return refuse(place, "has an entry without an \"ID\" that exists");
            object(*found, entry, place.entry(entry["ID"]));
        }
    }

    void refuse(const Place& place, const std::string& why)
    {
        if (wrong.empty())
            wrong = (place.shown.empty() ? "the body" : '"' + place.shown + '"') + ' ' + why;
    }

    const std::span<const SettingRule> rules;
};

Json::Value toArray(const std::set<std::string>& texts)
{
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts)
        array.append(text);
    return array;
}

}  // namespace

SettingsDocument::SettingsDocument(Json::Value initial, std::span<const SettingRule> rulesToKeep)
    : document(std::move(initial)), rules(rulesToKeep)
{}

std::optional<std::string> SettingsDocument::write(const Json::Value& body, Extent extent, const Check& check)
{
    Json::Value changed = document;
    Merge merge(rules);
    merge.object(changed, body, {});
    std::optional<std::string> why;
    if (!merge.wrong.empty())
        why = merge.wrong;
    else if (check)
        why = check(changed);
    if (why) {
        ++refusals;
        return why;
    }
    ++writes;
    document = std::move(changed);
    strange.merge(merge.strange);
    if (extent == Extent::whole)
        lost.merge(merge.lost);
    return std::nullopt;
}

Json::Value SettingsDocument::state() const
{
    Json::Value state(Json::objectValue);
    state["data"] = document;
    state["writes"] = writes;
    state["refusals"] = refusals;
    state["lostMembers"] = toArray(lost);
    state["strangeMembers"] = toArray(strange);
    return state;
}

}  // namespace simulator

#include "EventScript.h"

#include "JsonMembers.h"
#include "LapiEnvelope.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace simulator
{
namespace
{

/// "* Line 3, Column 7\n  Missing ',' or ..." on one line.
std::string onOneLine(const std::string& errors)
{
    std::istringstream in(errors);
    std::string out;
    for (std::string line; std::getline(in, line);) {
        line.erase(0, line.find_first_not_of("* "));
        out += (out.empty() ? "" : ": ") + line;
    }
    return out;
}

std::string lineOf(const std::string& text, const Json::Value& value)
{
    const auto offset = std::min(static_cast<std::size_t>(value.getOffsetStart()), text.size());
    return "Line " +
           std::to_string(1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(offset), '\n'));
}

EventScript::InputChange readInputChange(JsonMembers& members, unsigned inputs)
{
    EventScript::InputChange change;
    members.require("state");
    members.read("input", 0, std::int64_t{inputs} - 1, change.index);
    members.read("state", change.state);
    return change;
}

std::variant<EventScript::Step, std::string> parseStep(const Json::Value& json, unsigned inputs)
{
    EventScript::Step step;
    JsonMembers members(json);
    members.require("at");
    std::int64_t at = 0;
    if (members.readSeconds("at", at))
        step.at = std::chrono::milliseconds(at);
    const Json::Value* const event = members.find("event");
    const bool isInput = members.find("input") != nullptr;
    if ((event != nullptr) == isInput)
        members.refuse("a step has either an \"event\" or an \"input\"");
    if (event != nullptr) {
        auto command = parseEventCommand(*event);
        if (const auto* const why = std::get_if<std::string>(&command))
            members.refuse("\"event\": " + *why);
        else
            step.what = std::get<EventCommand>(std::move(command));
    } else if (isInput) {
        step.what = readInputChange(members, inputs);
    }
    members.refuseOthers();
    if (!members.problem().empty())
        return members.problem();
    return step;
}

}  // namespace

std::variant<EventScript, std::string> parseEventScript(const std::string& text, unsigned inputs)
{
    std::string errors;
    const auto json = parseJson(text, &errors);
    if (!json)
        return onOneLine(errors);

    EventScript script;
    JsonMembers members(*json);
    members.require("steps");
    const Json::Value* const steps = members.find("steps");
    if (steps != nullptr && !(steps->isArray() && !steps->empty()))
        members.refuse("\"steps\" is no list of steps");
    std::int64_t repeat = 0;
    if (members.readSeconds("repeat", repeat))
        script.repeat = std::chrono::milliseconds(repeat);
    members.refuseOthers();
    if (!members.problem().empty())
        return members.problem();

    for (Json::ArrayIndex i = 0; i < steps->size(); ++i) {
        auto step = parseStep((*steps)[i], inputs);
        if (const auto* const why = std::get_if<std::string>(&step))
            return lineOf(text, (*steps)[i]) + ", steps[" + std::to_string(i) + "]: " + *why;
        script.steps.push_back(std::get<EventScript::Step>(std::move(step)));
    }
    std::ranges::stable_sort(script.steps, {}, &EventScript::Step::at);
    if (script.repeat && *script.repeat <= script.steps.back().at)
        return "\"repeat\" is not behind the last step";
    return script;
}

EventScript loadEventScript(const std::string& file, unsigned inputs)
{
    const std::string name = "The script '" + file + "' ";
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    if (!(in && text << in.rdbuf()))
        throw std::runtime_error(name + "cannot be read");
    auto script = parseEventScript(text.str(), inputs);
    if (const auto* const why = std::get_if<std::string>(&script))
        throw std::runtime_error(name + "is refused: " + *why);
    return std::get<EventScript>(std::move(script));
}

}  // namespace simulator

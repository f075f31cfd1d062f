#include "EventCommand.h"

#include "JsonMembers.h"

#include <algorithm>
#include <utility>

namespace simulator
{
namespace
{

constexpr const char* alarmPath = "/LAPI/V1.0/System/Event/Notification/Alarm";
constexpr const char* structurePath = "/LAPI/V1.0/System/Event/Notification/Structure";

constexpr std::int64_t highestSource = 65'534;
constexpr std::int64_t mostPictureBytes = std::int64_t{16} * 1024 * 1024;
constexpr std::int64_t mostAtOnce = 1000;
constexpr std::int64_t longestInterval = 600'000;  // ms

struct FormName {
    const char* name;
    Form form;
    unsigned interval;  ///< ms, unless told otherwise
    bool several;       ///< "count" makes sense
    bool needsContent;
    const char* meaning;
};

constexpr FormName formNames[] = {
    {"whole", Form::whole, 0, true, true, "head and body in one write (the default)"},
    {"split", Form::split, 20, true, true, "the head, and 20 ms later the body"},
    {"bytes", Form::bytes, 0, true, true, "byte by byte, without a pause"},
    {"slow", Form::slow, 1000, true, true, "a byte a second"},
    {"chunked", Form::chunked, 0, true, true, "the body in three chunks"},
    {"headonly", Form::headOnly, 0, false, false, "a head that announces no body"},
    {"cut", Form::cut, 0, false, true, "half of the body, then close the connection"},
    {"brokenjson", Form::brokenJson, 0, false, true, "break the document off in the middle, with a matching length"},
    {"wronglength", Form::wrongLength, 0, false, true, "a Content-Length that is 16 bytes too small"},
    {"oversized", Form::oversized, 0, false, true, "a body of more than 1 MiB, padded with blanks"},
    {"garbage", Form::garbage, 0, false, false, "bytes that are no HTTP, then close the connection"},
    {"endless", Form::endless, 1, false, false, "chunks without end, until the receiver closes the connection"},
};

const FormName& nameOf(Form form)
{
    return *std::ranges::find(formNames, form, &FormName::form);
}

void readForm(JsonMembers& members, EventCommand& command)
{
    std::string name = "whole";
    members.read("form", name);
    const auto* const found = std::ranges::find(formNames, name, &FormName::name);
    if (found == std::end(formNames))
        return members.refuse("there is no \"form\" '" + name + "'");
    command.form = found->form;
    command.interval = std::chrono::milliseconds(found->interval);
    members.read("interval", 0, longestInterval, command.interval);
}

void readConnection(JsonMembers& members, EventCommand& command)
{
    std::string connection = "kept";
    members.read("connection", connection);
    if (connection != "kept" && connection != "fresh")
        members.refuse("\"connection\" is neither \"kept\" nor \"fresh\"");
    command.freshConnection = connection == "fresh";
}

void readCount(JsonMembers& members, EventCommand& command)
{
    members.read("count", 1, mostAtOnce, command.count);
    if (command.count == 1)
        return;
    if (!nameOf(command.form).several)
        members.refuse(std::string("\"count\" does not go with the form '") + nameOf(command.form).name + "'");
    if (!std::holds_alternative<Alarm>(command.content))
        members.refuse("\"count\" goes with \"type\" only");
}

Alarm readAlarm(JsonMembers& members)
{
    Alarm alarm;
    members.read("type", alarm.type);
    unsigned source = 0;
    const bool fromChannel = members.read("channel", 0, highestSource, source);
    alarm.fromInput = members.read("input", 0, highestSource, source);
    if (fromChannel && alarm.fromInput)
        members.refuse("an event comes from a \"channel\" or from an \"input\"");
    alarm.source = source + 1;
    members.read("level", 0, 1'000'000, alarm.level);
    std::int64_t time = 0;
    if (members.read("time", 0, std::int64_t{1} << 52, time))
        alarm.time = time;
    if (const Json::Value* const fields = members.find("fields")) {
        if (fields->isObject())
            alarm.fields = *fields;
        else
            members.refuse("\"fields\" is no JSON object");
    }
    return alarm;
}

/// One of three members says what the notification holds.
void readContent(JsonMembers& members, EventCommand& command)
{
    command.path = alarmPath;
    Picture picture;
    Text text;
    const bool isAlarm = members.find("type") != nullptr;
    const bool isPicture = members.read("pictureBytes", 1, mostPictureBytes, picture.bytes);
    const bool isText = members.read("body", text.body);
    const int given = isAlarm + isPicture + isText;
    if (given > 1 || (given == 0 && nameOf(command.form).needsContent))
        return members.refuse("an event has one of \"type\", \"pictureBytes\" and \"body\"");
    if (isAlarm)
        command.content = readAlarm(members);
    else if (isPicture)
        command.content = picture;
    else
        command.content = std::move(text);
    if (isPicture)
        command.path = structurePath;
}

/// A path that ended the request line early would be another way to send garbage, by accident.
bool isRequestTarget(const std::string& path)
{
    return path.starts_with('/') && std::ranges::all_of(path, [](char c) { return c > ' ' && c < '\x7f'; });
}

}  // namespace

std::string EventCommand::name() const
{
    std::string text = "text";
    if (const auto* const alarm = std::get_if<Alarm>(&content))
        text = alarm->type;
    else if (const auto* const picture = std::get_if<Picture>(&content))
        text = "a picture of " + std::to_string(picture->bytes) + " bytes";
    if (count > 1)
        text += " x " + std::to_string(count);
    return text + " (" + nameOf(form).name + ')';
}

std::variant<EventCommand, std::string> parseEventCommand(const Json::Value& json)
{
    EventCommand command;
    JsonMembers members(json);
    readForm(members, command);
    readContent(members, command);
    readConnection(members, command);
    readCount(members, command);
    if (members.read("path", command.path) && !isRequestTarget(command.path))
        members.refuse("\"path\" is no path");
    members.refuseOthers();
    if (!members.problem().empty())
        return members.problem();
    return command;
}

std::variant<std::vector<EventCommand>, std::string> parseEventCommands(const Json::Value& json)
{
    std::vector<EventCommand> commands;
    if (!json.isArray()) {
        auto command = parseEventCommand(json);
        if (auto* const why = std::get_if<std::string>(&command))
            return std::move(*why);
        commands.push_back(std::get<EventCommand>(std::move(command)));
        return commands;
    }
    for (Json::ArrayIndex i = 0; i < json.size(); ++i) {
        auto command = parseEventCommand(json[i]);
        if (const auto* const why = std::get_if<std::string>(&command))
            return '[' + std::to_string(i) + "]: " + *why;
        commands.push_back(std::get<EventCommand>(std::move(command)));
    }
    return commands;
}

EventCommand inputEvent(unsigned index, bool state)
{
    EventCommand command;
    command.content = Alarm{.type = state ? "InputAlarmOn" : "InputAlarmOff", .source = index + 1, .fromInput = true};
    command.path = alarmPath;
    return command;
}

std::string describeForms()
{
    std::string text;
    for (const FormName& form : formNames) {
        std::string line = std::string("  ") + form.name;
        line.resize(std::max(line.size() + 1, std::size_t{24}), ' ');
        text += line + form.meaning + '\n';
    }
    return text;
}

}  // namespace simulator

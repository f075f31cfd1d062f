#include "Output.h"

#include "Console.h"

#include <json/value.h>
#include <json/writer.h>
#include <ostream>
#include <string>

namespace Host
{
namespace
{
/// Making one takes longer than writing a line with it.
const Json::StreamWriterBuilder& lineBuilder()
{
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder made;
        made["indentation"] = "";
        made["emitUTF8"] = true;
        made["precisionType"] = "decimal";
        made["precision"] = 6;
        return made;
    }();
    return builder;
}

std::string jsonLine(std::string_view name, const Json::Value& fields)
{
    const Json::StreamWriterBuilder& builder = lineBuilder();
    const std::string members = Json::writeString(builder, fields.isNull() ? Json::Value(Json::objectValue) : fields)
                                    .substr(1);  // without the opening brace
    // JsonCpp sorts members; a reader of many lines wants to see first what a line is about.
    std::string line = "{\"event\":\"";
    line.append(name).append(members == "}" ? "\"" : "\",").append(members);
    return line;
}
}  // namespace

void Output::event(std::string_view name, const Json::Value& fields, std::string_view readable)
{
    const std::string text = json ? jsonLine(name, fields) + '\n' : std::string(readable);
    if (text.empty())
        return;
    const std::lock_guard lock(mutex);
    if (console != nullptr)
        console->clearProgress();
    stream << text << std::flush;
}

bool Output::hasFailed() const
{
    const std::lock_guard lock(mutex);
    return !stream.good();
}
}  // namespace Host

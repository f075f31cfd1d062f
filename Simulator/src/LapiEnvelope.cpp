#include "LapiEnvelope.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>
#include <utility>
#include <vector>

namespace simulator
{
namespace
{

void print(std::string& out, const Json::Value& value, unsigned depth);

void printMember(std::string& out, std::string_view name, const std::string& value, unsigned depth, bool last)
{
    out.append(depth, '\t').append(Json::valueToQuotedString(std::string(name).c_str())).append(":\t");
    out.append(value).append(last ? "\n" : ",\n");
}

std::string printed(const Json::Value& value, unsigned depth)
{
    std::string out;
    print(out, value, depth);
    return out;
}

void printObject(std::string& out, const Json::Value& object, unsigned depth)
{
    const auto names = object.getMemberNames();
    out += "{\n";
    for (const std::string& name : names)
        printMember(out, name, printed(object[name], depth + 1), depth + 1, name == names.back());
    out.append(depth, '\t').append("}");
}

void printArray(std::string& out, const Json::Value& array, unsigned depth)
{
    out += '[';
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        out += i == 0 ? "" : ", ";
        print(out, array[i], depth + 1);
    }
    out += ']';
}

void print(std::string& out, const Json::Value& value, unsigned depth)
{
    switch (value.type()) {
    case Json::nullValue:
        out += "null";
        break;
    case Json::intValue:
        out += Json::valueToString(value.asLargestInt());
        break;
    case Json::uintValue:
        out += Json::valueToString(value.asLargestUInt());
        break;
    case Json::realValue:
        out += Json::valueToString(value.asDouble(), 15);
        break;
    case Json::stringValue:
        out += Json::valueToQuotedString(value.asCString());
        break;
    case Json::booleanValue:
        out += value.asBool() ? "true" : "false";
        break;
    case Json::arrayValue:
        printArray(out, value, depth);
        break;
    case Json::objectValue:
        printObject(out, value, depth);
        break;
    }
}

}  // namespace

std::string prettyPrint(const Json::Value& value)
{
    return printed(value, 0);
}

std::string compactPrint(const Json::Value& value)
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::optional<Json::Value> parseJson(std::string_view text, std::string* errors)
{
    try {
        Json::CharReaderBuilder builder;
        builder["failIfExtra"] = true;
        builder["stackLimit"] = 100;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value value;
        if (!reader->parse(text.data(), text.data() + text.size(), &value, errors))
            return std::nullopt;
        return value;
    } catch (const Json::Exception& error) {  // nested deeper than the limit
        if (errors != nullptr)
            *errors = error.what();
        return std::nullopt;
    }
}

std::string lapiEnvelope(std::string_view path, const Reply& reply, bool withData)
{
    constexpr unsigned depth = 2;
    // JsonCpp would sort the members; devices send them in this order.
    const std::vector<std::pair<const char*, Json::Value>> members{
        {"ResponseURL", std::string(path)}, {"CreatedID", -1},
        {"ResponseCode", reply.code},       {"SubResponseCode", 0},
        {"ResponseString", reply.text},     {"StatusCode", reply.code},
        {"StatusString", reply.text},
    };
    std::string out = "{\n\t\"Response\":\t{\n";
    for (const auto& [name, value] : members) {
        const bool last = !withData && &name == &members.back().first;
        printMember(out, name, printed(value, depth), depth, last);
    }
    if (withData)
        printMember(out, "Data", printed(reply.data, depth), depth, true);
    return out + "\t}\n}";
}

}  // namespace simulator

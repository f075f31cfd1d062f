#include "JsonMembers.h"

#include <algorithm>
#include <cmath>
#include <locale>
#include <sstream>

namespace simulator
{
namespace
{

constexpr double secondsOfADay = 86'400;

std::string quoted(const std::string& name)
{
    return '"' + name + '"';
}

}  // namespace

JsonMembers::JsonMembers(const Json::Value& value) : object(value)
{
    if (!object.isObject())
        refuse("this is no JSON object");
}

const Json::Value* JsonMembers::find(const char* name)
{
    known.push_back(name);
    return wrong.empty() && object.isMember(name) ? &object[name] : nullptr;
}

bool JsonMembers::readNumber(const char* name, std::int64_t least, std::int64_t most, std::int64_t& into)
{
    const Json::Value* const value = find(name);
    if (value == nullptr)
        return false;
    if (!value->isInt64() || value->asInt64() < least || value->asInt64() > most) {
        refuse(quoted(name) + " is no whole number of " + std::to_string(least) + ".." + std::to_string(most));
        return false;
    }
    into = value->asInt64();
    return true;
}

bool JsonMembers::read(const char* name, std::string& into)
{
    const Json::Value* const value = find(name);
    if (value == nullptr)
        return false;
    if (!value->isString()) {
        refuse(quoted(name) + " is no text");
        return false;
    }
    into = value->asString();
    return true;
}

bool JsonMembers::read(const char* name, bool& into)
{
    const Json::Value* const value = find(name);
    if (value == nullptr)
        return false;
    if (!value->isBool()) {
        refuse(quoted(name) + " is neither true nor false");
        return false;
    }
    into = value->asBool();
    return true;
}

bool JsonMembers::readReal(const char* name, double least, double most, double& into)
{
    const Json::Value* const value = find(name);
    if (value == nullptr)
        return false;
    if (!value->isNumeric() || !(value->asDouble() >= least && value->asDouble() <= most)) {
        std::ostringstream why;
        why.imbue(std::locale::classic());
        why << quoted(name) << " is no number of " << least << ".." << most;
        refuse(why.str());
        return false;
    }
    into = value->asDouble();
    return true;
}

bool JsonMembers::readSeconds(const char* name, std::int64_t& intoMilliseconds)
{
    const Json::Value* const value = find(name);
    if (value == nullptr)
        return false;
    if (!value->isNumeric() || !(value->asDouble() >= 0 && value->asDouble() <= secondsOfADay)) {
        refuse(quoted(name) + " is no number of seconds (0 to a day)");
        return false;
    }
    intoMilliseconds = std::llround(value->asDouble() * 1000);
    return true;
}

void JsonMembers::require(const char* name)
{
    if (find(name) == nullptr)
        refuse(quoted(name) + " is missing");
}

void JsonMembers::refuseOthers()
{
    if (!wrong.empty())
        return;
    for (const std::string& name : object.getMemberNames())
        if (std::ranges::find(known, name) == known.end())
            refuse("there is no member " + quoted(name));
}

void JsonMembers::refuse(const std::string& why)
{
    if (wrong.empty())
        wrong = why;
}

}  // namespace simulator

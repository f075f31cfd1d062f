#include "SettingsEdit.h"

#include <IpUtil/Numbers.h>
#include <boost/any.hpp>
#include <cmath>
#include <exception>
#include <utility>

namespace Uniview::settings
{
namespace
{
using Tavro8::ResultCode;

Refusal refusal(ResultCode code, const std::exception& reason, const char* name)
{
    return Refusal(code, std::string(reason.what()) + ", parameter:" + name);
}

/// Runs a conversion; its failure names the parameter.
template <typename Conversion>
auto converted(const char* name, Conversion&& conversion)
try {
    return std::forward<Conversion>(conversion)();
} catch (const std::out_of_range& e) {
    throw refusal(ResultCode::outOfRange, e, name);
} catch (const std::invalid_argument& e) {
    throw refusal(ResultCode::invalidArgument, e, name);
} catch (const boost::bad_any_cast& e) {
    throw refusal(ResultCode::invalidArgument, e, name);
}

Json::Value valueOf(const boost::any& value)
{
    if (const auto* number = boost::any_cast<int>(&value))
        return *number;
    if (const auto* flag = boost::any_cast<bool>(&value))
        return *flag;
    if (const auto* fraction = boost::any_cast<double>(&value)) {
        if (!std::isfinite(*fraction))  // JSON has no such number
            throw std::invalid_argument("the value is not finite");
        return *fraction;
    }
    return boost::any_cast<std::string>(value);
}
}  // namespace

const boost::any* Given::find(const char* name) const
{
    const auto found = parameters.find(name);
    return found == parameters.end() || found->second.empty() ? nullptr : &found->second;
}

std::optional<int> Given::integer(const char* name) const
{
    const boost::any* const value = find(name);
    if (value == nullptr)
        return {};
    return converted(name, [&] { return boost::any_cast<int>(*value); });
}

std::optional<std::string> Given::text(const char* name) const
{
    const boost::any* const value = find(name);
    if (value == nullptr)
        return {};
    return converted(name, [&] { return boost::any_cast<std::string>(*value); });
}

std::optional<int> Given::number(const char* name) const
{
    const boost::any* const value = find(name);
    if (value == nullptr)
        return {};
    if (const int* const number = boost::any_cast<int>(value))
        return *number;
    return converted(name, [&] { return Tavro8::Utility::toInt(boost::any_cast<const std::string&>(*value)); });
}

std::optional<Json::Value> Given::asGiven(const char* name) const
{
    const boost::any* const value = find(name);
    if (value == nullptr)
        return {};
    return converted(name, [&] { return valueOf(*value); });
}

std::vector<std::string> splitAtX(const std::string& text)
{
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = text.find('x'); end != std::string::npos; end = text.find('x', begin)) {
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    parts.push_back(text.substr(begin));
    return parts;
}

int positive(const std::string& digits, const char* name)
{
    return converted(name, [&] {
        const int value = Tavro8::Utility::toInt(digits);
        return value > 0 ? value : throw std::out_of_range("the value is not positive");
    });
}

Json::Value& subObject(Json::Value& parent, const char* name)
{
    Json::Value& member = parent[name];
    if (member.isNull())
        member = Json::Value(Json::objectValue);
    if (!member.isObject())
        throw Refusal(ResultCode::malformedReply, std::string("\"") + name + "\" is not an object");
    return member;
}

void setResolution(Json::Value& parent, int width, int height)
{
    Json::Value& resolution = subObject(parent, "Resolution");
    resolution["Width"] = width;
    resolution["Height"] = height;
}
}  // namespace Uniview::settings

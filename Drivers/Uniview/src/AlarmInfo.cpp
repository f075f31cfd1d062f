#include "AlarmInfo.h"

#include <IpUtil/Wide.h>
#include <charconv>
#include <cmath>
#include <cstring>
#include <json/value.h>
#include <string>
#include <system_error>
#include <utility>

namespace Uniview::events
{
namespace
{
constexpr std::int64_t msPerSecond = 1000;
constexpr std::int64_t firstMs = 100'000'000'000;     // as seconds in the year 5138, as milliseconds in 1973
constexpr std::int64_t lastMs = 253'402'300'799'999;  // the end of the year 9999

std::string toUtf8(std::string_view bytes)
{
    return Tavro8::Utility::toNarrow(Tavro8::Utility::toWide(bytes));
}

std::optional<std::int64_t> timeOfInteger(std::int64_t value)
{
    if (value < 0 || value > lastMs)
        return {};
    return value < firstMs ? value * msPerSecond : value;
}

std::optional<std::int64_t> timeOfFraction(double value)
{
    // Written so that what is not a number fails, too.
    if (!(value >= 0 && value <= static_cast<double>(lastMs)))
        return {};
    const bool seconds = value < static_cast<double>(firstMs);
    return std::llround(seconds ? value * static_cast<double>(msPerSecond) : value);
}

std::optional<std::int64_t> timeOfText(std::string_view text)
{
    std::int64_t value = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), value);
    if (read.ec != std::errc{} || read.ptr != text.data() + text.size())
        return {};
    return timeOfInteger(value);
}

/// Empty for what is no field.
boost::any fieldOf(const Json::Value& value)
{
    if (const auto text = readText(&value))
        return toUtf8(*text);
    if (value.isBool())
        return value.asBool();
    if (value.type() == Json::realValue || (value.isNumeric() && !value.isInt()))
        return value.asDouble();
    if (value.isInt())
        return static_cast<int>(value.asInt());
    return {};
}
}  // namespace

const Json::Value* findMember(const Json::Value& info, const char* key)
{
    return info.isObject() ? info.find(key, key + std::strlen(key)) : nullptr;
}

std::optional<std::string_view> readText(const Json::Value* value)
{
    const char* begin = nullptr;
    const char* end = nullptr;
    if (value == nullptr || !value->isString() || !value->getString(&begin, &end))
        return {};
    return std::string_view(begin, static_cast<std::size_t>(end - begin));
}

std::optional<std::uint32_t> readNumber(const Json::Value* value)
{
    if (value == nullptr || !value->isUInt())
        return {};
    return value->asUInt();
}

std::optional<std::int64_t> readTimeMs(const Json::Value* value)
{
    if (value == nullptr)
        return {};
    if (const auto text = readText(value))
        return timeOfText(*text);
    if (value->isInt64())
        return timeOfInteger(value->asInt64());
    return value->isDouble() ? timeOfFraction(value->asDouble()) : std::nullopt;
}

Tavro8::ParameterMap readFields(const Json::Value& info)
{
    Tavro8::ParameterMap fields;
    if (!info.isObject())
        return fields;
    for (auto member = info.begin(); member != info.end(); ++member) {
        if (boost::any value = fieldOf(*member); !value.empty())
            fields.insert_or_assign(toUtf8(member.name()), std::move(value));
    }
    return fields;
}
}  // namespace Uniview::events

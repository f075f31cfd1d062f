#include "Subscription.h"

#include <locale>
#include <sstream>

namespace Uniview::subscription
{
namespace
{
constexpr int addressType = 0;

std::ostringstream classicText()
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    return text;
}

/// A member of an object; null for every other value, which JsonCpp would raise an exception for.
const Json::Value& memberOf(const Json::Value& value, const char* name)
{
    return value.isObject() ? value[name] : Json::Value::nullSingleton();
}
}  // namespace

std::string pathOf(const std::string& id)
{
    return std::string(path) + '/' + id;
}

// Put together as texts, because the order and the blanks are what devices are used to.
std::string subscribeBody(const std::string& serverIp, std::uint16_t serverPort)
{
    auto body = classicText();
    body << "{\"AddressType\": " << addressType << ",\"IPAddress\" : \"" << serverIp << "\",\"Port\" : " << serverPort
         << ",\"Duration\" : " << durationSeconds << '}';
    return body.str();
}

std::string renewBody()
{
    auto body = classicText();
    body << "{\"Duration\" : " << durationSeconds << '}';
    return body.str();
}

const Json::Value& dataOf(const Json::Value& reply)
{
    return memberOf(memberOf(reply, "Response"), "Data");
}

std::optional<std::string> idOf(const Json::Value& reply)
{
    const Json::Value& id = memberOf(dataOf(reply), "ID");
    return id.isString() ? std::optional(id.asString()) : std::nullopt;
}

std::chrono::milliseconds RepeatPace::next() noexcept
{
    constexpr double withoutJitter = 0.5;
    if (failing)
        return pauses.next(withoutJitter);
    failing = true;
    return std::chrono::milliseconds::zero();
}

void RepeatPace::reset() noexcept
{
    failing = false;
    pauses.reset();
}
}  // namespace Uniview::subscription

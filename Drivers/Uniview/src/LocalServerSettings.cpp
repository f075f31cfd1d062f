#include <utility>

#include "LocalServerSettings.h"

#include "LocalAddress.h"

#include <IpUtil/Numbers.h>
#include <boost/asio/ip/address.hpp>

namespace Uniview
{
bool isUnset(const boost::any& value)
{
    const auto* const text = boost::any_cast<std::string>(&value);
    return value.empty() || (text != nullptr && text->empty());
}

std::optional<std::uint16_t> portOf(const boost::any& value)
{
    constexpr std::size_t mostDigits = 5;
    int port = -1;
    if (const auto* const number = boost::any_cast<int>(&value)) {
        port = *number;
    } else if (const auto* const text = boost::any_cast<std::string>(&value)) {
        const bool digitsOnly = text->find_first_not_of("0123456789") == std::string::npos;
        if (digitsOnly && !text->empty() && text->size() <= mostDigits)
            port = Tavro8::Utility::toInt(*text);
    }
    if (port < 0 || port > 65535)
        return {};
    return static_cast<std::uint16_t>(port);
}

std::optional<std::string> addressOf(const boost::any& value)
{
    const auto* const text = boost::any_cast<std::string>(&value);
    if (text == nullptr)
        return {};
    // A zone may hold anything, and the text goes into a request as it is.
    std::string address = withoutZone(*text);
    if (address.find_first_not_of("0123456789abcdefABCDEF.:") != std::string::npos)
        return {};
    boost::system::error_code ec;
    boost::asio::ip::make_address(address, ec);
    return ec ? std::nullopt : std::optional(std::move(address));
}

std::string shown(const boost::any& value)
{
    constexpr std::size_t mostBytes = 64;
    if (const auto* const number = boost::any_cast<int>(&value))
        return std::to_string(*number);
    if (const auto* const text = boost::any_cast<std::string>(&value))
        return '\'' + text->substr(0, mostBytes) + '\'';
    return "neither a text nor an integer";
}

std::uint16_t localServerPortOf(const Tavro8::Utility::ParametersContainer& parameters)
{
    const auto port = parameters.get<int>(localServerPortKey);
    return port ? static_cast<std::uint16_t>(static_cast<unsigned>(*port)) : defaultLocalServerPort;
}
}  // namespace Uniview

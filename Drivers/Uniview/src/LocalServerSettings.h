#pragma once

#include <boost/any.hpp>
#include <cstdint>
#include <optional>
#include <string>

/// Where the module receives notifications, as a host or the settings repository says it: the address that the device
/// is told, and the port that we listen on.
namespace Uniview
{
inline constexpr const char* localServerIpKey = "localServerIP";
inline constexpr const char* localServerPortKey = "localServerPort";

/// Nothing, or an empty text: what holds without the setting.
bool isUnset(const boost::any& value);
/// An integer or a text of decimal digits, up to 65535; nothing for anything else.
std::optional<std::uint16_t> portOf(const boost::any& value);
/// A text that is an IPv4 or IPv6 address; nothing for anything else.
std::optional<std::string> addressOf(const boost::any& value);
}  // namespace Uniview

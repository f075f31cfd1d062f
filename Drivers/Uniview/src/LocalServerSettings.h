#pragma once

#include <IpUtil/ParametersContainer.h>
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
inline constexpr std::uint16_t defaultLocalServerPort = 32000;

/// Nothing, or an empty text: what holds without the setting.
bool isUnset(const boost::any& value);
/// An integer or a text of decimal digits, up to 65535; nothing for anything else.
std::optional<std::uint16_t> portOf(const boost::any& value);
/// A text that is an IPv4 or IPv6 address, without its zone; nothing for anything else.
std::optional<std::string> addressOf(const boost::any& value);

/// A value for the log, at most 64 bytes of it: a text in quotation marks, an integer as it is.
std::string shown(const boost::any& value);

/// The port that a device's parameters say: what is set, else their default, else ours; of a larger number the low 16
/// bits. Raises `boost::bad_any_cast` for a value that is no int.
std::uint16_t localServerPortOf(const Tavro8::Utility::ParametersContainer& parameters);
}  // namespace Uniview

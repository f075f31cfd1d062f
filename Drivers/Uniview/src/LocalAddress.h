#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Uniview
{
/// The address of a device as text: `host` itself when it is an address, otherwise what its name stands for; of several
/// addresses the first at which `port` takes a connection. Empty when the name cannot be resolved. Blocks as long as
/// the system's resolver does, and `limit` for each address of a name; not for I/O threads.
std::string resolveAddress(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit);

/// A zone ("%eth0") is a matter of the machine that has the address, and means nothing to the device.
std::string withoutZone(const std::string& address);

/// Our own address on the way to the device, found by connecting to it; without zone. Nothing when that fails or takes
/// longer than `limit`, for which it blocks.
std::optional<std::string> detectLocalAddress(const std::string& address, std::uint16_t port,
                                              std::chrono::milliseconds limit);
}  // namespace Uniview

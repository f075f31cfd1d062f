#pragma once

#include <cstdint>

namespace Host
{
double processCpuSeconds() noexcept;            ///< user and system time of this process so far
std::uint64_t processResidentBytes() noexcept;  ///< memory of this process that is in RAM now; 0 when unknown
/// Lets this process hold as many sockets as the system allows; many systems begin with a thousand.
void raiseDescriptorLimit() noexcept;
}  // namespace Host

#pragma once

#include <cstdint>
#include <string>

namespace Uniview
{
/// Names of live sources in log lines. Any thread.
std::string videoObjectName(std::uint32_t channel, std::uint32_t stream);  ///< "vs 0.1"
std::string audioObjectName(std::uint32_t channel);                        ///< "chan 0"
}  // namespace Uniview

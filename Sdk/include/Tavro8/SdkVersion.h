#pragma once

#include <cstdint>

namespace Tavro8
{
/// Version of the host SDK that a program was compiled against: major in the upper, minor in the lower 16 bits.
///
/// Interfaces only grow at their ends within a major version, so a module works with every host of the same
/// major version whose minor version is not below its own. `initModule` refuses any other host.
constexpr std::uint32_t makeSdkVersion(std::uint16_t majorVersion, std::uint16_t minorVersion) noexcept
{
    return (static_cast<std::uint32_t>(majorVersion) << 16U) | minorVersion;
}

constexpr std::uint16_t sdkMajor(std::uint32_t version) noexcept
{
    return static_cast<std::uint16_t>(version >> 16U);
}

constexpr std::uint16_t sdkMinor(std::uint32_t version) noexcept
{
    return static_cast<std::uint16_t>(version & 0xFFFFU);
}

inline constexpr std::uint32_t sdkVersion = makeSdkVersion(1, 1);

/// True when a provider of version `offered` serves a client compiled against version `wanted`.
constexpr bool sdkServes(std::uint32_t offered, std::uint32_t wanted) noexcept
{
    return sdkMajor(offered) == sdkMajor(wanted) && sdkMinor(offered) >= sdkMinor(wanted);
}
}  // namespace Tavro8

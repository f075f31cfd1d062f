#pragma once

#include <cstdint>

namespace Tavro8::media
{
constexpr std::uint16_t readBe16(const std::uint8_t* at) noexcept
{
    return static_cast<std::uint16_t>((at[0] << 8) | at[1]);
}

constexpr std::uint32_t readBe32(const std::uint8_t* at) noexcept
{
    return (std::uint32_t{readBe16(at)} << 16) | readBe16(at + 2);
}
}  // namespace Tavro8::media

#pragma once

#include <array>
#include <cstdint>

namespace Tavro8::media
{
/// Stands in front of every NAL unit of a frame: the four-byte form throughout (H.264 and H.265 annex B).
inline constexpr std::array<std::uint8_t, 4> startCode{0, 0, 0, 1};
}  // namespace Tavro8::media

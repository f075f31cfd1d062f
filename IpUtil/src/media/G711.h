#pragma once

#include <cstdint>
#include <span>

/// ITU-T G.711: 16-bit linear samples to and from the 8-bit laws. Linear samples use the full 16-bit
/// scale: the 14 bits (u-law) or 13 bits (A-law) of the recommendation, shifted to the left.
namespace Tavro8::media::g711
{
std::uint8_t encodeULaw(std::int16_t sample) noexcept;
std::uint8_t encodeALaw(std::int16_t sample) noexcept;
std::int16_t decodeULaw(std::uint8_t code) noexcept;
std::int16_t decodeALaw(std::uint8_t code) noexcept;

/// Convert as many samples as the shorter of both spans has.
void encodeULaw(std::span<const std::int16_t> samples, std::span<std::uint8_t> codes) noexcept;
void encodeALaw(std::span<const std::int16_t> samples, std::span<std::uint8_t> codes) noexcept;
void decodeULaw(std::span<const std::uint8_t> codes, std::span<std::int16_t> samples) noexcept;
void decodeALaw(std::span<const std::uint8_t> codes, std::span<std::int16_t> samples) noexcept;
}  // namespace Tavro8::media::g711

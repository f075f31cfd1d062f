#pragma once

#include <cstdint>

// ITU-T G.711: one byte of either law as a 16-bit sample.
namespace simulator
{

std::int16_t decodeMuLaw(std::uint8_t byte);
std::int16_t decodeALaw(std::uint8_t byte);

}  // namespace simulator

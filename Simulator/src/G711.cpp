#include "G711.h"

namespace simulator
{
namespace
{

constexpr unsigned signBit = 0x80;

unsigned segmentOf(unsigned bits)
{
    return bits >> 4 & 7;
}

unsigned stepOf(unsigned bits)
{
    return bits & 15;
}

}  // namespace

std::int16_t decodeMuLaw(std::uint8_t byte)
{
    constexpr int bias = 0x84;
    const unsigned bits = ~static_cast<unsigned>(byte) & 0xff;  // sent upside down
    const int magnitude = (static_cast<int>(stepOf(bits) << 3) + bias) << segmentOf(bits);
    return static_cast<std::int16_t>((bits & signBit) != 0 ? bias - magnitude : magnitude - bias);
}

std::int16_t decodeALaw(std::uint8_t byte)
{
    const unsigned bits = byte ^ 0x55u;  // every other bit is sent upside down
    const unsigned segment = segmentOf(bits);
    int magnitude = static_cast<int>(stepOf(bits) << 4) + 8;
    if (segment > 0)
        magnitude = (magnitude + 0x100) << (segment - 1);
    return static_cast<std::int16_t>((bits & signBit) != 0 ? magnitude : -magnitude);
}

}  // namespace simulator

#include "media/G711.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>

namespace Tavro8::media::g711
{
namespace
{
constexpr unsigned uLawBias = 0x84;
constexpr unsigned uLawLargest = 0x7fff - uLawBias;

constexpr std::int16_t expandULaw(std::uint8_t code) noexcept
{
    const unsigned bits = ~static_cast<unsigned>(code);
    const unsigned magnitude = ((((bits & 0x0f) << 3) + uLawBias) << ((bits >> 4) & 7)) - uLawBias;
    const int value = static_cast<int>(magnitude);
    return static_cast<std::int16_t>((bits & 0x80) != 0 ? -value : value);
}

constexpr std::int16_t expandALaw(std::uint8_t code) noexcept
{
    const unsigned bits = code ^ 0x55U;
    const unsigned segment = (bits >> 4) & 7;
    const unsigned step = ((bits & 0x0f) << 4) + 8;
    const int value = static_cast<int>(segment == 0 ? step : (step + 0x100) << (segment - 1));
    return static_cast<std::int16_t>((bits & 0x80) != 0 ? value : -value);
}

template <typename Expand>
constexpr std::array<std::int16_t, 256> makeTable(Expand expand) noexcept
{
    std::array<std::int16_t, 256> table{};
    for (std::size_t code = 0; code < table.size(); ++code)
        table[code] = expand(static_cast<std::uint8_t>(code));
    return table;
}

constexpr auto uLawTable = makeTable(expandULaw);
constexpr auto aLawTable = makeTable(expandALaw);

template <typename From, typename To, typename Convert>
void convertAll(std::span<const From> from, std::span<To> to, Convert convert) noexcept
{
    const std::size_t count = std::min(from.size(), to.size());
    for (std::size_t i = 0; i < count; ++i)
        to[i] = convert(from[i]);
}
}  // namespace

std::uint8_t encodeULaw(std::int16_t sample) noexcept
{
    const unsigned sign = sample < 0 ? 0x80 : 0;
    const auto magnitude = static_cast<unsigned>(sample < 0 ? -int{sample} : int{sample});
    const unsigned biased = std::min(magnitude, uLawLargest) + uLawBias;
    const auto segment = static_cast<unsigned>(std::bit_width(biased)) - 8;
    return static_cast<std::uint8_t>(~(sign | (segment << 4) | ((biased >> (segment + 3)) & 0x0f)));
}

std::uint8_t encodeALaw(std::int16_t sample) noexcept
{
    // A-law has no zero: its innermost steps are -8 and +8, so the negative half is the complement.
    const unsigned sign = sample < 0 ? 0 : 0x80;
    const auto magnitude = static_cast<unsigned>(sample < 0 ? ~int{sample} : int{sample}) >> 4;
    unsigned code = magnitude;
    if (magnitude > 0x0f) {
        const auto segment = static_cast<unsigned>(std::bit_width(magnitude)) - 4;
        code = (segment << 4) | ((magnitude >> (segment - 1)) & 0x0f);
    }
    return static_cast<std::uint8_t>((sign | code) ^ 0x55);
}

std::int16_t decodeULaw(std::uint8_t code) noexcept
{
    return uLawTable[code];
}

std::int16_t decodeALaw(std::uint8_t code) noexcept
{
    return aLawTable[code];
}

void encodeULaw(std::span<const std::int16_t> samples, std::span<std::uint8_t> codes) noexcept
{
    convertAll(samples, codes, [](std::int16_t sample) { return encodeULaw(sample); });
}

void encodeALaw(std::span<const std::int16_t> samples, std::span<std::uint8_t> codes) noexcept
{
    convertAll(samples, codes, [](std::int16_t sample) { return encodeALaw(sample); });
}

void decodeULaw(std::span<const std::uint8_t> codes, std::span<std::int16_t> samples) noexcept
{
    convertAll(codes, samples, [](std::uint8_t code) { return uLawTable[code]; });
}

void decodeALaw(std::span<const std::uint8_t> codes, std::span<std::int16_t> samples) noexcept
{
    convertAll(codes, samples, [](std::uint8_t code) { return aLawTable[code]; });
}
}  // namespace Tavro8::media::g711

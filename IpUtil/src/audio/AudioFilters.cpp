#include "media/G711.h"

#include <IpUtil/AudioFilters.h>
#include <algorithm>

namespace Tavro8::Utility
{
TimeStamp PCMTimeStampGenerator::inc(std::size_t samples) noexcept
{
    const TimeStamp now{passed, rate};
    passed += samples;
    return {now.toFrequency(clock), clock};
}

void G711EncodingFilter::process(std::span<const std::int16_t> samples)
{
    codes.resize(samples.size());
    if (law == G711Law::uLaw)
        media::g711::encodeULaw(samples, codes);
    else
        media::g711::encodeALaw(samples, codes);
    taken = false;
}

std::span<const std::uint8_t> G711EncodingFilter::consume() noexcept
{
    return std::exchange(taken, true) ? std::span<const std::uint8_t>{} : codes;
}

void PcmPacketizingFilter::process(std::span<const std::uint8_t> sound)
{
    waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(given));
    given = 0;
    waiting.insert(waiting.end(), sound.begin(), sound.end());
}

std::span<const std::uint8_t> PcmPacketizingFilter::consume() noexcept
{
    const std::size_t left = waiting.size() - given;
    const std::size_t size = packetSize == 0 ? left : packetSize;
    if (left < size || size == 0)
        return {};
    const std::size_t begin = std::exchange(given, given + size);
    return std::span<const std::uint8_t>(waiting).subspan(begin, size);
}
}  // namespace Tavro8::Utility

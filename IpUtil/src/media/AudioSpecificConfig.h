#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Tavro8::media
{
/// In Hz; twice what any device sends, and an explicit rate has room for more.
inline constexpr std::uint32_t maxSampleRate = 192000;

/// What is read of an AudioSpecificConfig (ISO/IEC 14496-3 section 1.6.2.1): what a decoder puts out.
struct AacConfig {
    std::uint32_t sampleRate = 0;  ///< with explicit spectral band replication the doubled one
    std::uint32_t channelCount = 0;
    std::uint32_t samplesPerUnit = 1024;  ///< of one channel in one access unit, at `sampleRate`
};

/// Nothing when the bytes are cut off, or name no sample rate or no channel.
std::optional<AacConfig> readAacConfig(std::span<const std::uint8_t> config) noexcept;

/// The AudioSpecificConfig of AAC-LC, for devices that do not tell theirs; empty for what `readAacConfig` would refuse:
/// a rate of 0 or above `maxSampleRate`, and numbers of channels other than 1 to 6 and 8.
std::vector<std::uint8_t> makeAacConfig(std::uint32_t sampleRate, std::uint32_t channelCount);
}  // namespace Tavro8::media

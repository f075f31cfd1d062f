#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Tavro8::media
{
/// What is read of an AudioSpecificConfig (ISO/IEC 14496-3 section 1.6.2.1): what a decoder puts out.
struct AacConfig {
    std::uint32_t sampleRate = 0;  ///< with explicit spectral band replication the doubled one
    std::uint32_t channelCount = 0;
    std::uint32_t samplesPerUnit = 1024;  ///< of one channel in one access unit, at `sampleRate`
};

/// Nothing when the bytes are cut off, or name no sample rate or no channel.
std::optional<AacConfig> readAacConfig(std::span<const std::uint8_t> config) noexcept;

/// The AudioSpecificConfig of AAC-LC; empty for more than eight channels. For devices that do not tell theirs.
std::vector<std::uint8_t> makeAacConfig(std::uint32_t sampleRate, std::uint32_t channelCount);
}  // namespace Tavro8::media

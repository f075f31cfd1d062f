#include "media/AudioSpecificConfig.h"

#include "media/BitReader.h"

#include <algorithm>
#include <array>

namespace Tavro8::media
{
namespace
{
// Audio object types (table 1.17).
constexpr std::uint32_t lowComplexity = 2;
constexpr std::uint32_t bandReplication = 5;
constexpr std::uint32_t longTermPrediction = 4;
constexpr std::uint32_t lowDelay = 23;
constexpr std::uint32_t parametricStereo = 29;
constexpr std::uint32_t escapedType = 31;
constexpr std::uint32_t enhancedLowDelay = 39;

constexpr std::array<std::uint32_t, 13> sampleRates{96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                    22050, 16000, 12000, 11025, 8000,  7350};
constexpr std::uint32_t explicitRate = 15;
constexpr std::array<std::uint32_t, 8> channelCounts{0, 1, 2, 3, 4, 5, 6, 8};  // by channel configuration

std::uint32_t readObjectType(BitReader& reader) noexcept
{
    const std::uint32_t type = reader.bits(5);
    return type == escapedType ? 32 + reader.bits(6) : type;
}

/// 0 when it is none.
std::uint32_t readSampleRate(BitReader& reader) noexcept
{
    const std::uint32_t index = reader.bits(4);
    if (index == explicitRate) {
        const std::uint32_t rate = reader.bits(24);
        return rate <= maxSampleRate ? rate : 0;
    }
    return index < sampleRates.size() ? sampleRates[index] : 0;
}

/// program_config_element (section 4.4.1.1): how many channels it names.
std::uint32_t readChannels(BitReader& reader) noexcept
{
    reader.skip(4 + 2 + 4);  // instance tag, object type, sampling frequency index
    const std::uint32_t pairable = reader.bits(4) + reader.bits(4) + reader.bits(4);  // front, side, back
    const std::uint32_t lowFrequency = reader.bits(2);
    reader.skip(3 + 4);                         // associated data, coupling elements
    for (const unsigned bits : {4U, 4U, 3U}) {  // mono, stereo and matrix mixdown
        if (reader.flag())
            reader.skip(bits);
    }
    std::uint32_t channels = lowFrequency;
    for (std::uint32_t i = 0; i < pairable; ++i) {
        channels += reader.flag() ? 2U : 1U;
        reader.skip(4);
    }
    return channels;
}

/// Band replication told behind the configuration, where older decoders do not look (section 1.6.5.3).
void readTrailingExtension(BitReader& reader, AacConfig& config) noexcept
{
    constexpr std::size_t shortest = 11 + 5 + 1 + 4;
    constexpr std::uint32_t syncWord = 0x2b7;
    if (reader.left() < shortest || reader.bits(11) != syncWord || readObjectType(reader) != bandReplication ||
        !reader.flag())
        return;
    const std::uint32_t rate = readSampleRate(reader);
    if (rate == 0 || reader.failed())
        return;
    config.samplesPerUnit *= rate == 2 * config.sampleRate ? 2 : 1;
    config.sampleRate = rate;
    constexpr std::uint32_t stereoSyncWord = 0x548;
    if (reader.left() >= 12 && reader.bits(11) == stereoSyncWord && reader.flag() && config.channelCount == 1)
        config.channelCount = 2;
}
}  // namespace

std::optional<AacConfig> readAacConfig(std::span<const std::uint8_t> bytes) noexcept
{
    BitReader reader(bytes, BitReader::Bytes::plain);
    AacConfig config;
    std::uint32_t type = readObjectType(reader);
    const std::uint32_t coreRate = readSampleRate(reader);
    const std::uint32_t channels = reader.bits(4);
    const bool replicated = type == bandReplication || type == parametricStereo;
    const bool stereo = type == parametricStereo;
    config.sampleRate = coreRate;
    if (replicated) {
        config.sampleRate = readSampleRate(reader);
        type = readObjectType(reader);
    }
    const bool shortUnits = type == lowDelay || type == enhancedLowDelay;
    const bool reduced = reader.flag();  // frameLengthFlag
    config.samplesPerUnit = shortUnits ? (reduced ? 480 : 512) : (reduced ? 960 : 1024);
    if (config.sampleRate == 2 * coreRate)
        config.samplesPerUnit *= 2;
    config.channelCount = channels < channelCounts.size() ? channelCounts[channels] : 0;
    if (type <= longTermPrediction) {  // section 4.4.1: the types whose configuration goes on like this
        if (reader.flag())
            reader.skip(14);  // delay of a core coder
        const bool extended = reader.flag();
        if (channels == 0)
            config.channelCount = readChannels(reader);
        else if (!replicated && !extended)
            readTrailingExtension(reader, config);
    }
    if (stereo && config.channelCount == 1)
        config.channelCount = 2;
    if (reader.failed() || coreRate == 0 || config.sampleRate == 0 || config.channelCount == 0)
        return std::nullopt;
    return config;
}

std::vector<std::uint8_t> makeAacConfig(std::uint32_t sampleRate, std::uint32_t channelCount)
{
    const auto channels = std::ranges::find(channelCounts, channelCount);
    if (channels == channelCounts.end() || channelCount == 0 || sampleRate == 0 || sampleRate > maxSampleRate)
        return {};
    const auto rate = std::ranges::find(sampleRates, sampleRate);
    const auto configuration = static_cast<std::uint32_t>(channels - channelCounts.begin());
    if (rate == sampleRates.end()) {
        // 5 bits type, 4 bits escape, 24 bits rate, 4 bits channels, 3 bits zero
        const std::uint64_t bits = std::uint64_t{lowComplexity} << 35 | std::uint64_t{explicitRate} << 31 |
                                   std::uint64_t{sampleRate} << 7 | configuration << 3;
        return {static_cast<std::uint8_t>(bits >> 32), static_cast<std::uint8_t>(bits >> 24),
                static_cast<std::uint8_t>(bits >> 16), static_cast<std::uint8_t>(bits >> 8),
                static_cast<std::uint8_t>(bits)};
    }
    const auto index = static_cast<std::uint32_t>(rate - sampleRates.begin());
    const std::uint32_t bits = lowComplexity << 11 | index << 7 | configuration << 3;
    return {static_cast<std::uint8_t>(bits >> 8), static_cast<std::uint8_t>(bits)};
}
}  // namespace Tavro8::media

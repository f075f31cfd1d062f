#include "media/H265.h"

#include "media/BitReader.h"
#include "media/Depacketiser.h"
#include "media/ParameterSetSyntax.h"
#include "wire/Text.h"

#include <array>

namespace Tavro8::media
{
namespace
{
constexpr std::uint32_t maxSequenceSets = 16;
constexpr std::uint32_t maxPictureSets = 64;
constexpr std::uint32_t maxSide = 16384;

constexpr unsigned firstRandomAccessType = 16;  // BLA, IDR, CRA and two reserved types
constexpr unsigned lastRandomAccessType = 23;
constexpr unsigned maxLayer = 31;  // nobody sends more; an H.264 header read as H.265 says 32 and above
constexpr unsigned profileBits = 88;
constexpr unsigned levelBits = 8;

void skipProfileTierLevel(BitReader& reader, std::uint32_t subLayers) noexcept
{
    reader.skip(profileBits + levelBits);
    std::array<std::uint32_t, 8> present{};
    for (std::uint32_t i = 0; i < subLayers; ++i)
        present[i] = reader.bits(2);
    if (subLayers > 0)
        reader.skip(2 * (8 - subLayers));
    for (std::uint32_t i = 0; i < subLayers; ++i)
        reader.skip(((present[i] & 2U) != 0 ? profileBits : 0) + ((present[i] & 1U) != 0 ? levelBits : 0));
}

PictureSize readPictureSize(BitReader& reader) noexcept
{
    std::uint32_t chroma = reader.unsignedGolomb();
    if (chroma == 3 && reader.flag())
        chroma = 0;
    const std::uint32_t width = reader.unsignedGolomb();
    const std::uint32_t height = reader.unsignedGolomb();
    const CropWindow crop = readCropWindow(reader);
    if (reader.failed() || width > maxSide || height > maxSide)
        return {};
    return croppedSize(width, height, crop, {chroma == 1 || chroma == 2 ? 2U : 1U, chroma == 1 ? 2U : 1U});
}

std::optional<ParameterSetInfo> readSequenceSet(BitReader& reader) noexcept
{
    reader.skip(4);  // sps_video_parameter_set_id
    const std::uint32_t subLayers = reader.bits(3);
    reader.skip(1);  // sps_temporal_id_nesting_flag
    skipProfileTierLevel(reader, subLayers);
    ParameterSetInfo info;
    info.id = reader.unsignedGolomb();
    if (reader.failed() || info.id >= maxSequenceSets)
        return std::nullopt;
    info.size = readPictureSize(reader);
    return info;
}

std::optional<ParameterSetInfo> readVideoSet(BitReader& reader) noexcept
{
    ParameterSetInfo info;
    info.id = reader.bits(4);
    return reader.failed() ? std::nullopt : std::optional(info);
}

NalRole baseLayerRole(unsigned type) noexcept
{
    if (type <= 9)
        return NalRole::slice;
    if (type >= firstRandomAccessType && type <= 21)
        return NalRole::keySlice;
    switch (type) {
    case 32:
        return NalRole::videoSet;
    case 33:
        return NalRole::sequenceSet;
    case 34:
        return NalRole::pictureSet;
    case 35:
        return NalRole::delimiter;
    case 39:  // prefix SEI
        return NalRole::leading;
    case 36:  // end of sequence
    case 37:  // end of bitstream
    case 40:  // suffix SEI
        return NalRole::trailing;
    case 38:  // filler data
        return NalRole::ignored;
    default:
        return NalRole::foreign;
    }
}
}  // namespace

H265::PacketState::PacketState(const TrackFormat& format)
    : hasNumbers(
          wire::parseNumber<std::uint32_t>(wire::trim(formatParameter(format, "sprop-max-don-diff"))).value_or(0) > 0)
{}

bool H265::PacketState::follows(std::uint16_t number) noexcept
{
    const bool inOrder = !anyNumber || static_cast<std::int16_t>(number - lastNumber) >= 0;
    anyNumber = true;
    lastNumber = number;
    return inOrder;
}

NalRole H265::roleOf(std::span<const std::uint8_t> nal) noexcept
{
    const unsigned layer = ((nal[0] & 1U) << 5) | (nal[1] >> 3U);
    const NalRole role = baseLayerRole(typeOf(nal[0]));
    if (layer == 0 || role == NalRole::foreign)
        return role;
    return layer <= maxLayer ? NalRole::ignored : NalRole::foreign;
}

std::optional<ParameterSetInfo> H265::readParameterSet(NalRole role, std::span<const std::uint8_t> nal) noexcept
{
    BitReader reader(nal.subspan(headerBytes));
    if (role == NalRole::videoSet)
        return readVideoSet(reader);
    if (role == NalRole::sequenceSet)
        return readSequenceSet(reader);
    if (role == NalRole::pictureSet)
        return readPictureSet(reader, maxPictureSets, maxSequenceSets);
    return std::nullopt;
}

SliceStart H265::readSliceStart(std::span<const std::uint8_t> nal) noexcept
{
    const unsigned type = typeOf(nal[0]);
    BitReader reader(nal.subspan(headerBytes));
    SliceStart start;
    start.startsPicture = reader.flag();
    if (type >= firstRandomAccessType && type <= lastRandomAccessType)
        reader.skip(1);  // no_output_of_prior_pics_flag
    start.pictureSetId = reader.unsignedGolomb();
    return start;
}
}  // namespace Tavro8::media

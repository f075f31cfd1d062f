#include "media/H264.h"

#include "media/BitReader.h"
#include "media/ParameterSetSyntax.h"

#include <algorithm>
#include <array>

namespace Tavro8::media
{
namespace
{
constexpr std::uint32_t maxSequenceSets = 32;
constexpr std::uint32_t maxPictureSets = 256;
constexpr std::uint32_t maxMacroblocks = 1024;  // a side of 16384 pixels

/// The profiles whose sequence set tells the chroma format and scaling lists (section 7.3.2.1.1).
bool hasChromaFormat(std::uint32_t profile) noexcept
{
    constexpr std::array<std::uint32_t, 13> profiles{100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    return std::ranges::find(profiles, profile) != profiles.end();
}

void skipScalingList(BitReader& reader, unsigned entries) noexcept
{
    std::int32_t last = 8;
    std::int32_t next = 8;
    for (unsigned i = 0; i < entries && !reader.failed(); ++i) {
        if (next != 0)
            next = static_cast<std::int32_t>(
                (static_cast<std::uint32_t>(last + 256) + static_cast<std::uint32_t>(reader.signedGolomb())) & 0xffU);
        if (next != 0)
            last = next;
    }
}

/// Reads chroma_format_idc and what belongs to it; returns ChromaArrayType.
std::uint32_t readChroma(BitReader& reader) noexcept
{
    const std::uint32_t format = reader.unsignedGolomb();
    const bool separatePlanes = format == 3 && reader.flag();
    reader.unsignedGolomb();  // bit_depth_luma_minus8
    reader.unsignedGolomb();  // bit_depth_chroma_minus8
    reader.skip(1);           // qpprime_y_zero_transform_bypass_flag
    if (reader.flag()) {      // seq_scaling_matrix_present_flag
        const unsigned lists = format == 3 ? 12 : 8;
        for (unsigned i = 0; i < lists; ++i) {
            if (reader.flag())
                skipScalingList(reader, i < 6 ? 16 : 64);
        }
    }
    return separatePlanes ? 0 : format;
}

void skipPictureOrder(BitReader& reader) noexcept
{
    const std::uint32_t type = reader.unsignedGolomb();
    if (type == 0) {
        reader.unsignedGolomb();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (type == 1) {
        reader.skip(1);         // delta_pic_order_always_zero_flag
        reader.signedGolomb();  // offset_for_non_ref_pic
        reader.signedGolomb();  // offset_for_top_to_bottom_field
        const std::uint32_t cycle = reader.unsignedGolomb();
        for (std::uint32_t i = 0; i < cycle && !reader.failed(); ++i)
            reader.signedGolomb();
    }
}

PictureSize readPictureSize(BitReader& reader, std::uint32_t chromaArrayType) noexcept
{
    reader.unsignedGolomb();  // log2_max_frame_num_minus4
    skipPictureOrder(reader);
    reader.unsignedGolomb();  // max_num_ref_frames
    reader.skip(1);           // gaps_in_frame_num_value_allowed_flag
    const std::uint64_t columns = std::uint64_t{reader.unsignedGolomb()} + 1;
    const std::uint64_t mapUnits = std::uint64_t{reader.unsignedGolomb()} + 1;
    const bool framesOnly = reader.flag();
    if (!framesOnly)
        reader.skip(1);  // mb_adaptive_frame_field_flag
    reader.skip(1);      // direct_8x8_inference_flag
    const CropWindow crop = readCropWindow(reader);
    const std::uint64_t rows = mapUnits * (framesOnly ? 1 : 2);
    if (reader.failed() || columns > maxMacroblocks || rows > maxMacroblocks)
        return {};
    const bool halfWidth = chromaArrayType == 1 || chromaArrayType == 2;
    const CropUnit unit{halfWidth ? 2U : 1U, (chromaArrayType == 1 ? 2U : 1U) * (framesOnly ? 1U : 2U)};
    return croppedSize(columns * 16, rows * 16, crop, unit);
}

std::optional<ParameterSetInfo> readSequenceSet(BitReader& reader) noexcept
{
    const std::uint32_t profile = reader.bits(8);
    reader.skip(16);  // constraint flags, level_idc
    ParameterSetInfo info;
    info.id = reader.unsignedGolomb();
    if (reader.failed() || info.id >= maxSequenceSets)
        return std::nullopt;
    const std::uint32_t chromaArrayType = hasChromaFormat(profile) ? readChroma(reader) : 1;
    info.size = readPictureSize(reader, chromaArrayType);
    return info;
}
}  // namespace

NalRole H264::roleOf(std::span<const std::uint8_t> nal) noexcept
{
    switch (nal[0] & 0x1f) {
    case 1:
        return NalRole::slice;
    case 5:
        return NalRole::keySlice;
    case 6:   // SEI
    case 13:  // sequence set extension
    case 14:  // prefix NAL unit
    case 15:  // subset sequence set
        return NalRole::leading;
    case 7:
        return NalRole::sequenceSet;
    case 8:
        return NalRole::pictureSet;
    case 9:
        return NalRole::delimiter;
    case 10:  // end of sequence
    case 11:  // end of stream
    case 19:  // auxiliary slice
    case 20:  // slice extensions
    case 21:
        return NalRole::trailing;
    case 12:  // filler data
        return NalRole::ignored;
    default:  // also data partitions (2 to 4): no camera sends the Extended profile, no decoder in use takes it
        return NalRole::foreign;
    }
}

std::optional<ParameterSetInfo> H264::readParameterSet(NalRole role, std::span<const std::uint8_t> nal) noexcept
{
    BitReader reader(nal.subspan(headerBytes));
    if (role == NalRole::sequenceSet)
        return readSequenceSet(reader);
    if (role == NalRole::pictureSet)
        return readPictureSet(reader, maxPictureSets, maxSequenceSets);
    return std::nullopt;
}

SliceStart H264::readSliceStart(std::span<const std::uint8_t> nal) noexcept
{
    BitReader reader(nal.subspan(headerBytes));
    SliceStart start;
    start.startsPicture = reader.unsignedGolomb() == 0 && !reader.failed();
    start.intra = reader.unsignedGolomb() % 5 == 2 && !reader.failed();
    start.pictureSetId = reader.unsignedGolomb();
    return start;
}
}  // namespace Tavro8::media

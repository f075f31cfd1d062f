#pragma once

#include "media/PictureSize.h"

#include <cstdint>

namespace Tavro8::media
{
/// What a NAL unit means to the assembly of an access unit, the same for H.264 and H.265.
enum class NalRole : std::uint8_t {
    slice,
    keySlice,     ///< of a picture at which decoding can start: IDR, and in H.265 also CRA and BLA
    videoSet,     ///< H.265 VPS
    sequenceSet,  ///< SPS
    pictureSet,   ///< PPS
    delimiter,    ///< access unit delimiter: first in its access unit
    leading,      ///< may precede slices, such as SEI
    trailing,     ///< follows slices, such as suffix SEI and end of sequence
    ignored,      ///< of no use to a decoder of the base layer, such as filler data
    foreign,      ///< of a type without a meaning: reserved, unspecified, or never used by cameras
};

constexpr bool isParameterSet(NalRole role) noexcept
{
    return role == NalRole::videoSet || role == NalRole::sequenceSet || role == NalRole::pictureSet;
}

constexpr bool isSlice(NalRole role) noexcept
{
    return role == NalRole::slice || role == NalRole::keySlice;
}

/// How much of an RTP payload was understood.
enum class SplitResult : std::uint8_t {
    whole,
    unknown,  ///< of a type without a meaning; such a packet carries no part of a picture
    broken,   ///< against the payload format: parts of the frame are missing
};

/// What is read of a parameter set.
struct ParameterSetInfo {
    std::uint32_t id = 0;
    std::uint32_t parentId = 0;  ///< picture set: the sequence set it refers to
    PictureSize size;            ///< sequence set
};

/// What is read of a slice header.
struct SliceStart {
    bool startsPicture = false;  ///< holds the first macroblock or coding tree unit
    bool intra = false;          ///< H.264: an I slice
    std::uint32_t pictureSetId = 0;
};
}  // namespace Tavro8::media

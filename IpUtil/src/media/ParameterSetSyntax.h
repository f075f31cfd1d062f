#pragma once

#include "media/BitReader.h"
#include "media/NalUnit.h"

#include <cstdint>
#include <optional>

/// What the parameter sets of H.264 and H.265 have in common (ITU-T H.264 and H.265 section 7.3.2).
namespace Tavro8::media
{
/// What is cut off the coded picture on each side, in units of its chroma samples.
struct CropWindow {
    std::uint64_t left = 0;
    std::uint64_t right = 0;
    std::uint64_t top = 0;
    std::uint64_t bottom = 0;
};

/// The flag and, where it is set, the four edges behind it.
CropWindow readCropWindow(BitReader& reader) noexcept;

/// How many luma samples a unit of the crop window has.
struct CropUnit {
    std::uint64_t across = 1;
    std::uint64_t down = 1;
};

/// No size when nothing would be left.
PictureSize croppedSize(std::uint64_t codedWidth, std::uint64_t codedHeight, const CropWindow& crop,
                        const CropUnit& unit) noexcept;

/// A picture set with its id and that of its sequence set; nothing when one is not below its limit.
std::optional<ParameterSetInfo> readPictureSet(BitReader& reader, std::uint32_t pictureSets,
                                               std::uint32_t sequenceSets) noexcept;
}  // namespace Tavro8::media

#include "media/ParameterSetSyntax.h"

namespace Tavro8::media
{
CropWindow readCropWindow(BitReader& reader) noexcept
{
    CropWindow crop;
    if (!reader.flag())
        return crop;
    for (std::uint64_t* const edge : {&crop.left, &crop.right, &crop.top, &crop.bottom})
        *edge = reader.unsignedGolomb();
    return crop;
}

PictureSize croppedSize(std::uint64_t codedWidth, std::uint64_t codedHeight, const CropWindow& crop,
                        const CropUnit& unit) noexcept
{
    const std::uint64_t across = (crop.left + crop.right) * unit.across;
    const std::uint64_t down = (crop.top + crop.bottom) * unit.down;
    if (across >= codedWidth || down >= codedHeight)
        return {};
    return {static_cast<std::uint32_t>(codedWidth - across), static_cast<std::uint32_t>(codedHeight - down)};
}

std::optional<ParameterSetInfo> readPictureSet(BitReader& reader, std::uint32_t pictureSets,
                                               std::uint32_t sequenceSets) noexcept
{
    ParameterSetInfo info;
    info.id = reader.unsignedGolomb();
    info.parentId = reader.unsignedGolomb();
    if (reader.failed() || info.id >= pictureSets || info.parentId >= sequenceSets)
        return std::nullopt;
    return info;
}
}  // namespace Tavro8::media

#pragma once

#include <cstdint>

namespace Tavro8::media
{
/// In pixels, after cropping; 0 when unknown.
struct PictureSize {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    bool operator==(const PictureSize&) const = default;
};
}  // namespace Tavro8::media

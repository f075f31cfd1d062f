#pragma once

#include <Tavro8/GDRV/MediaFrame.h>

namespace Host
{
const char* codecName(Tavro8::GDRV::MediaCodec codec) noexcept;   ///< for people: "H.264", "G.711 u-law"
const char* codecToken(Tavro8::GDRV::MediaCodec codec) noexcept;  ///< for programs: "h264", "g711u"
}  // namespace Host

#include "media/MediaNames.h"

namespace Host
{
using Tavro8::GDRV::MediaCodec;
namespace
{
struct Names {
    const char* name;
    const char* token;
};

Names namesOf(MediaCodec codec) noexcept
{
    switch (codec) {
    case MediaCodec::h264:
        return {"H.264", "h264"};
    case MediaCodec::h265:
        return {"H.265", "h265"};
    case MediaCodec::mjpeg:
        return {"MJPEG", "mjpeg"};
    case MediaCodec::g711U:
        return {"G.711 u-law", "g711u"};
    case MediaCodec::g711A:
        return {"G.711 A-law", "g711a"};
    case MediaCodec::aac:
        return {"AAC", "aac"};
    case MediaCodec::pcm16:
        return {"PCM", "pcm16"};
    case MediaCodec::unknown:
        break;
    }
    return {"unknown", "unknown"};
}
}  // namespace

const char* codecName(MediaCodec codec) noexcept
{
    return namesOf(codec).name;
}

const char* codecToken(MediaCodec codec) noexcept
{
    return namesOf(codec).token;
}
}  // namespace Host

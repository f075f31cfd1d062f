#include "StreamEncoding.h"

#include <algorithm>

namespace simulator
{

StreamEncoding initialEncoding(const Options& options, unsigned stream)
{
    StreamEncoding encoding;
    encoding.codec = options.codec;
    encoding.framesPerSecond = encoding.keyFrameInterval = options.framesPerSecond;
    switch (stream) {
    case 0:
        encoding.size = options.size;
        encoding.bitrateKbit = options.bitrateKbit;
        break;
    case 1:
        encoding.size = options.subSize;
        encoding.bitrateKbit = std::max(options.bitrateKbit / 4, 32u);
        break;
    default:
        encoding.size = {352, 288};
        encoding.bitrateKbit = 128;
        break;
    }
    return encoding;
}

}  // namespace simulator

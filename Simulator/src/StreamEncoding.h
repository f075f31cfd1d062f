#pragma once

#include "Options.h"

namespace simulator
{

/// How a stream is encoded.
struct StreamEncoding {
    Codec codec = Codec::h264;
    Size size;
    unsigned framesPerSecond = 25;
    unsigned bitrateKbit = 2000;
    unsigned keyFrameInterval = 25;  ///< frames from one key frame to the next

    /// Whether a running stream becomes the other one without another format.
    bool hasFormatOf(const StreamEncoding& other) const { return codec == other.codec && size == other.size; }
    bool operator==(const StreamEncoding&) const = default;
};

/// Streams that a channel describes. The last is switched off and not served.
inline constexpr unsigned describedStreams = 3;
inline constexpr unsigned servedStreams = 2;

/// A stream as the command line wants it; 0 is the main stream.
StreamEncoding initialEncoding(const Options& options, unsigned stream);

}  // namespace simulator

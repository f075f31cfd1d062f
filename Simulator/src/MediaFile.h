#pragma once

#include "Options.h"

#include <gst/gst.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace simulator
{

/// A media file, taken apart into encoded frames and held in memory, so that it can be served in an endless loop
/// without a seam. Never changed once loaded; any thread may read it.
class MediaFile {
public:
    struct Unit {
        std::shared_ptr<GstBuffer> buffer;  ///< one access unit of video or a piece of sound
        std::int64_t pts = 0;               ///< nanoseconds since the start of the file
        std::int64_t dts = 0;
    };
    struct Track {
        std::shared_ptr<GstCaps> caps;
        std::vector<Unit> units;  ///< in decoding order; empty: the file has no such track
    };

    /// Reads the whole file. Throws std::runtime_error with a sentence when it is no media file, is larger than
    /// 1 GiB, or its video is neither H.264 nor H.265. Sound becomes G.711 u-law; without a decoder for it the file
    /// is served without sound.
    static std::shared_ptr<const MediaFile> load(const std::string& path);

    Codec codec = Codec::h264;
    Size size;
    unsigned framesPerSecond = 25;
    Track video;
    Track audio;
    std::int64_t duration = 0;  ///< nanoseconds, after which the loop begins again
};

/// Fills the application sources "video" and "audio" of one pipeline from the file, for as long as the pipeline
/// lives.
void feedFromFile(GstElement* pipeline, const std::shared_ptr<const MediaFile>& file);

}  // namespace simulator

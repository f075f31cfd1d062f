#include "FormatHistory.h"

#include <algorithm>
#include <iterator>
#include <new>

namespace Host
{
void FormatHistory::add(const Tavro8::GDRV::MediaFrame& frame) noexcept
try {
    const StreamFormat format{frame.codec, frame.width, frame.height, frame.sampleRate, frame.channelCount, 0, 0};
    if (formats.empty() || !formats.back().sameAs(format)) {
        if (formats.size() < mostFormats)
            formats.emplace_back();
        StreamFormat& changed = formats.back();
        changed = {format.codec,        format.width,   format.height, format.sampleRate,
                   format.channelCount, changed.frames, changed.bytes};
    }
    StreamFormat& latest = formats.back();
    if (latest.width == 0) {  // told by a later picture
        latest.width = format.width;
        latest.height = format.height;
    }
    ++latest.frames;
    latest.bytes += frame.data.size();
} catch (const std::bad_alloc&) {  // the frame itself matters more than what is told of it
}

void FormatHistory::addUp(const FormatHistory& other)
{
    if (formats.empty()) {  // one that came back to a former format keeps both
        formats = other.formats;
        return;
    }
    for (const StreamFormat& more : other.formats) {
        auto known = std::find_if(formats.begin(), formats.end(),
                                  [&](const StreamFormat& format) { return format.sameAs(more); });
        if (known == formats.end() && formats.size() < mostFormats) {
            formats.push_back(more);
            continue;
        }
        known = known == formats.end() ? std::prev(known) : known;
        known->frames += more.frames;
        known->bytes += more.bytes;
    }
}
}  // namespace Host

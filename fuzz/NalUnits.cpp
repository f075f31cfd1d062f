#include "FuzzTarget.h"

#include "media/Depacketiser.h"
#include "media/H264.h"
#include "media/H265.h"
#include "media/ParameterSets.h"

#include <algorithm>

namespace Tavro8::fuzz
{
namespace
{
using media::NalRole;
using media::PictureSize;

/// Takes what `split` finds in a payload.
struct Parts {
    void addNal(ByteView nal)
    {
        require(!nal.empty(), "a NAL unit has a header");
        bytes += nal.size();
    }
    void addFragment(bool, bool, ByteView nalHeader, ByteView body)
    {
        require(!nalHeader.empty(), "a fragment has a header");
        bytes += body.size();
    }
    std::size_t bytes = 0;
};

bool isPlausible(const PictureSize& size)
{
    return (size.width == 0) == (size.height == 0) && size.width <= 16'384 + 64 && size.height <= 2 * 16'384 + 64;
}

template <typename Codec>
void readAll(Script& script, bool withNumbers)
{
    media::TrackFormat format;
    if (withNumbers)
        format.formatParameters = {{"sprop-max-don-diff", "1"}};
    typename Codec::PacketState state(format);
    media::ParameterSets sets;
    while (!script.atEnd()) {
        const Bytes nal = script.block();
        Parts parts;
        Codec::split(nal, state, parts);
        require(parts.bytes <= nal.size(), "a payload gives no more than it has");
        if (nal.size() < Codec::headerBytes)
            continue;
        const NalRole role = Codec::roleOf(nal);
        const media::SliceStart slice = Codec::readSliceStart(nal);
        require(isPlausible(sets.sizeFor(slice.pictureSetId)), "a picture has two sides of some size, or none");
        if (!media::isParameterSet(role))
            continue;
        const auto info = Codec::readParameterSet(role, nal);
        if (!info)
            continue;
        const std::uint64_t version = sets.version();
        const Bytes before(sets.annexB().begin(), sets.annexB().end());
        const bool kept = sets.put(role, *info, nal);
        require(kept || sets.version() == version, "a set that finds no room changes nothing");
        require(sets.annexB().size() <= media::ParameterSets::maxTotalBytes, "the sets are bounded");
        const ByteView all = sets.annexB();
        require(!kept || std::search(all.begin(), all.end(), nal.begin(), nal.end()) != all.end(),
                "a set that was kept is there");
        require((sets.version() == version) == std::ranges::equal(before, sets.annexB()), "each change is counted");
        const std::uint64_t changed = sets.version();
        require(!kept || (sets.put(role, *info, nal) && sets.version() == changed), "the same set again is no change");
    }
}

/// A codec (3: H.265 with decoding order numbers), then NAL units or RTP payloads, each behind a length of 16 bits.
///
/// Promises: a payload is cut into parts of its own; picture sizes are plausible; what is kept of parameter sets is
/// bounded, and each change of it is counted.
void feed(ByteView input)
{
    Script script(input);
    const unsigned codec = script.u8() % 4U;
    if (codec % 2 == 0)
        readAll<media::H264>(script, false);
    else
        readAll<media::H265>(script, codec == 3);
}

const Target nalUnits("nal_units", feed);
}  // namespace
}  // namespace Tavro8::fuzz

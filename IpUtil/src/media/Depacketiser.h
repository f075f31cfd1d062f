#pragma once

#include "Tavro8/GDRV/MediaFrame.h"
#include "media/HotMemory.h"
#include "media/PictureSize.h"
#include "media/RtpPacket.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tavro8::media
{
class FramePool;

/// What a track sends, as its description said. Plain values, so that this layer does not know SDP.
struct TrackFormat {
    GDRV::MediaCodec codec = GDRV::MediaCodec::unknown;
    std::vector<std::uint8_t> payloadTypes;  ///< all that carry this codec; most often one
    std::uint32_t clockRate = 0;             ///< Hz; 0: the codec's usual one
    std::uint32_t channelCount = 0;          ///< audio; 0 counts as 1
    PictureSize pictureSize;                 ///< video, as the description states it; JPEG packets may not say

    /// H.264 and H.265: NAL units without start code, in any order (sprop-parameter-sets, sprop-vps/-sps/-pps),
    /// may be empty. AAC: the AudioSpecificConfig.
    std::vector<std::vector<std::uint8_t>> parameterSets;

    /// The other values of fmtp, names in lower case.
    std::vector<std::pair<std::string, std::string>> formatParameters;
};

/// The value of a format parameter, its name in lower case; empty when there is none.
std::string_view formatParameter(const TrackFormat& format, std::string_view name) noexcept;

/// The clock rate of a track, never 0: the one given, or the codec's usual one where it is missing or, for video,
/// absurd.
std::uint32_t clockRateOf(const TrackFormat& format) noexcept;

/// What becomes of video when packets are missing. A damaged frame is never handed out as a whole one.
enum class LossPolicy : std::uint8_t {
    /// Only frames that decode without error: nothing before the first key frame, and after a loss nothing
    /// until the next. The default: a recording stays clean, and a picture freezes rather than smears.
    dropUntilKeyFrame,
    /// Everything, with `damaged` and `lostPacketsBefore` set where packets are missing.
    flag,
};

struct DepacketiserOptions {
    LossPolicy lossPolicy = LossPolicy::dropUntilKeyFrame;
    std::size_t maxFrameBytes = 8 * 1024 * 1024;  ///< a larger frame is discarded as damaged
};

/// Takes the frames of a depacketiser. Called from within `push` or `flush`, so that no frame is queued, copied or
/// allocated on its way. A packet yields the one it ends by its timestamp, and at most one of its own; of AAC as many
/// as it holds, up to `maxUnitsPerPacket`.
class AccessUnitSink {
public:
    /// All of `frame` is set but `timestampMs` and, for video, `durationMs`. The sink may fill them in, and
    /// takes a reference to `frame.buffer` to keep the bytes. It must not call back into the depacketiser.
    virtual void onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t rtpTimestamp) = 0;

protected:
    ~AccessUnitSink() = default;
};

/// Makes frames of the packets of one track. Each payload byte is copied once, into the pooled buffer of
/// its frame. Not thread-safe: belongs to the I/O context of its stream.
class Depacketiser {
public:
    struct Counters {
        std::uint64_t malformed = 0;        ///< packets that break the payload format, wholly or in part
        std::uint64_t misfits = 0;          ///< packets in which nothing of the payload format was recognised
        std::uint64_t droppedFrames = 0;    ///< frames held back: damaged, or waiting for a key frame
        std::uint64_t damagedFrames = 0;    ///< frames with packets missing inside, handed out or not
        std::uint64_t oversizedFrames = 0;  ///< frames beyond `maxFrameBytes`
    };

    virtual ~Depacketiser() = default;

    /// Adds what packets need: nearly all of those for pictures, which are the ones that many have.
    void listHotMemory(HotMemory& hot) const noexcept
    {
        constexpr std::size_t videoBytes = 384;
        hot.add(this, videoBytes);
    }

    /// Takes one packet in sequence. `lostBefore`: packets are missing right before it.
    /// The packet's bytes are needed only during the call. Throws std::bad_alloc only.
    virtual void push(const RtpPacket& packet, bool lostBefore) = 0;

    /// Ends the frame in progress as if the next one had begun; it counts as damaged where a marker should end it.
    virtual void flush() = 0;

    /// The source has restarted: discards the frame in progress and treats what follows as after a loss.
    /// Parameter sets stay known.
    virtual void reset() = 0;

    const Counters& getCounters() const noexcept { return counters; }

protected:
    Counters counters;
};

/// Why there is no depacketiser for a track, as a text for logs; null when there is one.
const char* refusalOf(const TrackFormat& format);

/// A depacketiser for the track, or null when `refusalOf` names a reason. `pool` and `sink` must outlive it.
std::unique_ptr<Depacketiser> makeDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& sink,
                                               const DepacketiserOptions& options = {});
}  // namespace Tavro8::media

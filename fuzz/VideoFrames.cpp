#include "FuzzTarget.h"
#include "MediaChecks.h"

#include "media/Depacketiser.h"
#include "media/FramePool.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace Tavro8::fuzz
{
namespace
{
using GDRV::MediaCodec;

/// Bits of the input's first byte.
enum Choice : unsigned { asH265 = 1, flagLosses = 2, setsInDescription = 4, withoutMarkers = 8, withDelimiters = 16 };

/// Bits of a frame's first byte.
enum FrameChoice : unsigned { key = 1, withSei = 2, otherSets = 4, aggregated = 8, suffixSei = 16 };

struct Packet {
    Bytes payload;
    std::uint32_t timestamp = 0;
    bool marker = false;
    bool dropped = false;
};

struct SentFrame {
    std::vector<Nal> nals;
    bool isKey = false;
    std::size_t firstPacket = 0;
    std::size_t lastPacket = 0;
};

/// How the two codecs write what a camera sends: real parameter sets and slice headers, and numbered bytes.
struct Syntax {
    bool h265;
    std::size_t headerBytes;

    explicit Syntax(bool isH265) : h265(isH265), headerBytes(isH265 ? 2 : 1) {}

    std::vector<Nal> sets(bool other) const
    {
        const Nal h264Sps{0x67, 0x42, 0xc0, 0x0d, 0xd9, 0x01, 0x60, 0x96, 0xc0, 0x44, 0x00, 0x00,
                          0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xc8, 0x3c, 0x50, 0xa9, 0x20};
        const Nal h264OtherSps{0x67, 0x4d, 0x40, 0x1f, 0xec, 0xa0, 0x28, 0x02, 0xdd, 0x80, 0x88, 0x00, 0x00,
                               0x03, 0x00, 0x08, 0x00, 0x00, 0x03, 0x01, 0x90, 0x78, 0xc1, 0x8c, 0xb0};
        const Nal h264Pps{0x68, 0xcb, 0x83, 0xcb, 0x20};
        const Nal vps{0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                      0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x78, 0x95, 0x98, 0x09};
        const Nal sps{0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00,
                      0x00, 0x03, 0x00, 0x78, 0xa0, 0x03, 0xc0, 0x80, 0x10, 0xe5, 0x96, 0x56, 0x69, 0x24,
                      0xca, 0xf0, 0x16, 0x80, 0x80, 0x00, 0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0c, 0x84};
        const Nal otherSps{0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00, 0x00,
                           0x03, 0x00, 0x96, 0xa0, 0x01, 0xe0, 0x20, 0x02, 0x1c, 0x59, 0x65, 0x66, 0x92, 0x4c, 0xaf,
                           0x01, 0x68, 0x08, 0x00, 0x00, 0x03, 0x00, 0x08, 0x00, 0x00, 0x03, 0x00, 0xc8, 0x40};
        const Nal pps{0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40};
        if (h265)
            return {vps, other ? otherSps : sps, pps};
        return {other ? h264OtherSps : h264Sps, h264Pps};
    }

    Nal delimiter() const { return h265 ? Nal{0x46, 0x01, 0x50} : Nal{0x09, 0xf0}; }
    Nal sei() const { return h265 ? Nal{0x4e, 0x01, 0x05, 0x01, 0x55, 0x80} : Nal{0x06, 0x05, 0x01, 0x55, 0x80}; }
    Nal suffix() const { return {0x50, 0x01, 0x84, 0x01, 0x55, 0x80}; }

    /// `first`: the slice begins the picture.
    Nal slice(bool isKey, bool first, std::size_t bytes, unsigned number) const
    {
        Nal nal;
        if (h265)
            nal = isKey ? Nal{0x26, 0x01, static_cast<std::uint8_t>(first ? 0xaf : 0x2f)}
                        : Nal{0x02, 0x01, static_cast<std::uint8_t>(first ? 0xd0 : 0x50)};
        else if (isKey)
            nal = first ? Nal{0x65, 0x88, 0x84} : Nal{0x65, 0x04, 0x62, 0x22};
        else
            nal = first ? Nal{0x41, 0x9a, 0x24} : Nal{0x41, 0x04, 0x66, 0x89};
        for (std::size_t i = 0; i < bytes; ++i)
            nal.push_back(static_cast<std::uint8_t>(0x80U | (number * 7 + i)));
        nal.push_back(static_cast<std::uint8_t>(0x80U | number));
        return nal;
    }

    bool isParameterSet(const Nal& nal) const
    {
        return h265 ? typeOf(nal) >= 32 && typeOf(nal) <= 34 : typeOf(nal) == 7 || typeOf(nal) == 8;
    }
    bool isSlice(const Nal& nal) const { return h265 ? typeOf(nal) < 32 : typeOf(nal) == 1 || typeOf(nal) == 5; }
    unsigned typeOf(const Nal& nal) const { return h265 ? (nal[0] >> 1) & 0x3fU : nal[0] & 0x1fU; }

    /// Fragments of `bodyBytes` each; a NAL unit that fits into one stays whole.
    std::vector<Bytes> fragments(const Nal& nal, std::size_t bodyBytes) const
    {
        if (nal.size() <= headerBytes + bodyBytes)
            return {nal};
        std::vector<Bytes> payloads;
        for (std::size_t at = headerBytes; at < nal.size(); at += bodyBytes) {
            const bool last = at + bodyBytes >= nal.size();
            const unsigned flags = (at == headerBytes ? 0x80U : 0U) | (last ? 0x40U : 0U);
            Bytes payload;
            if (h265)
                payload = {static_cast<std::uint8_t>((nal[0] & 0x81U) | (49U << 1)), nal[1],
                           static_cast<std::uint8_t>(((nal[0] >> 1) & 0x3fU) | flags)};
            else
                payload = {static_cast<std::uint8_t>((nal[0] & 0x60U) | 28U),
                           static_cast<std::uint8_t>((nal[0] & 0x1fU) | flags)};
            const std::size_t end = std::min(at + bodyBytes, nal.size());
            payload.insert(payload.end(), nal.begin() + static_cast<std::ptrdiff_t>(at),
                           nal.begin() + static_cast<std::ptrdiff_t>(end));
            payloads.push_back(std::move(payload));
        }
        return payloads;
    }

    Bytes aggregate(const std::vector<Nal>& nals) const
    {
        Bytes payload = h265 ? Bytes{48 << 1, 1} : Bytes{24};
        for (const Nal& nal : nals) {
            payload.push_back(static_cast<std::uint8_t>(nal.size() >> 8));
            payload.push_back(static_cast<std::uint8_t>(nal.size()));
            payload.insert(payload.end(), nal.begin(), nal.end());
        }
        return payload;
    }
};

/// A camera: makes frames and packets as the input says.
class Camera {
public:
    explicit Camera(unsigned choice) : choices(choice), syntax((choice & asH265) != 0) {}

    void addFrame(Script& script);

    unsigned choices;
    Syntax syntax;
    std::vector<SentFrame> frames;
    std::vector<Packet> packets;
    std::vector<std::uint32_t> timestamps;  // one for each frame

private:
    void addPackets(Script& script, const std::vector<Bytes>& payloads);

    unsigned number = 0;
};

void Camera::addFrame(Script& script)
{
    const unsigned frameChoices = script.u8();
    SentFrame frame;
    frame.isKey = (frameChoices & key) != 0;
    std::vector<Nal> small;  // may share a packet
    if ((choices & withDelimiters) != 0)
        small.push_back(syntax.delimiter());
    if (frame.isKey && (choices & setsInDescription) == 0) {
        for (const Nal& set : syntax.sets((frameChoices & otherSets) != 0))
            small.push_back(set);
    }
    if ((frameChoices & withSei) != 0)
        small.push_back(syntax.sei());
    std::vector<Bytes> payloads;
    if ((frameChoices & aggregated) != 0 && !small.empty())
        payloads.push_back(syntax.aggregate(small));
    else
        payloads.insert(payloads.end(), small.begin(), small.end());
    frame.nals = small;

    const std::size_t slices = 1 + script.u8() % 4U;
    const std::size_t fragmentBytes = 8U + script.u8();
    for (std::size_t i = 0; i < slices; ++i) {
        frame.nals.push_back(syntax.slice(frame.isKey, i == 0, script.u16() % 600U, ++number));
        const auto fragments = syntax.fragments(frame.nals.back(), fragmentBytes);
        payloads.insert(payloads.end(), fragments.begin(), fragments.end());
    }
    if (syntax.h265 && (frameChoices & suffixSei) != 0) {
        frame.nals.push_back(syntax.suffix());
        payloads.push_back(frame.nals.back());
    }
    frame.firstPacket = packets.size();
    timestamps.push_back(static_cast<std::uint32_t>(0xffffff00U + frames.size() * 3600));
    addPackets(script, payloads);
    frame.lastPacket = packets.size() - 1;
    frames.push_back(std::move(frame));
}

/// Whether a packet gets lost is one bit; eight of them a byte, none when the input has ended.
void Camera::addPackets(Script& script, const std::vector<Bytes>& payloads)
{
    unsigned drops = 0;
    for (std::size_t i = 0; i < payloads.size(); ++i) {
        if (i % 8 == 0)
            drops = script.u8();
        Packet packet;
        packet.payload = payloads[i];
        packet.timestamp = timestamps.back();
        packet.marker = i + 1 == payloads.size() && (choices & withoutMarkers) == 0;
        packet.dropped = ((drops >> (i % 8)) & 1U) != 0;
        packets.push_back(std::move(packet));
    }
}

/// Compares what comes out with what the camera has sent.
class Comparison final : public media::AccessUnitSink {
public:
    explicit Comparison(const Camera& sender) : camera(sender) {}

    void onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t rtpTimestamp) override
    {
        const auto found = std::ranges::find(camera.timestamps, rtpTimestamp);
        require(found != camera.timestamps.end(), "a frame has the timestamp of one that was sent");
        const auto index = static_cast<std::size_t>(found - camera.timestamps.begin());
        require(!previous || index > *previous, "frames come in the order in which they were sent");
        const SentFrame& sent = camera.frames[index];
        if (!frame.damaged) {
            require(essence(splitAnnexB(frame.data), sent.isKey) == essence(expectedNals(sent), sent.isKey),
                    "a frame that is not marked as damaged is what was sent");
            require(frame.keyFrame == sent.isKey, "a key frame is told as one");
            require(!lostBetween(index) || camera.choices & flagLosses || frame.keyFrame,
                    "after a loss nothing comes before the next key frame");
            ++whole;
        } else {
            require((camera.choices & flagLosses) != 0, "no damaged frame is passed on");
        }
        if (previous)
            require(!lostBetween(index) || frame.lostPacketsBefore || frame.damaged, "a loss is told");
        previous = index;
    }

    std::size_t whole = 0;

private:
    /// The parameter sets in front of each key frame, wherever they came from.
    std::vector<Nal> expectedNals(const SentFrame& sent) const
    {
        std::vector<Nal> nals;
        if (sent.isKey && (camera.choices & setsInDescription) != 0)
            nals = camera.syntax.sets(false);
        nals.insert(nals.end(), sent.nals.begin(), sent.nals.end());
        return nals;
    }

    /// What has to be as it was sent. SEI and delimiters may be lost without harm to the picture, and the parameter
    /// sets of a frame that was lost go to the front of the next one.
    std::vector<Nal> essence(std::vector<Nal> nals, bool isKey) const
    {
        std::erase_if(nals, [&](const Nal& nal) {
            return nal.empty() || !(camera.syntax.isSlice(nal) || (isKey && camera.syntax.isParameterSet(nal)));
        });
        return nals;
    }

    /// Whether packets are missing between the end of the frame before and the end of this one.
    bool lostBetween(std::size_t index) const
    {
        if (!previous)
            return false;  // what is lost before the first packet that comes is not known
        const auto begin = camera.packets.begin();
        return std::any_of(begin + static_cast<std::ptrdiff_t>(camera.frames[*previous].lastPacket + 1),
                           begin + static_cast<std::ptrdiff_t>(camera.frames[index].lastPacket + 1),
                           [](const Packet& packet) { return packet.dropped; });
    }

    const Camera& camera;
    std::optional<std::size_t> previous;
};

/// What has to come out when nothing was lost: everything from the first key frame on, or all of it.
std::size_t wholeFrames(const Camera& camera)
{
    if ((camera.choices & flagLosses) != 0)
        return camera.frames.size();
    const auto first = std::ranges::find_if(camera.frames, &SentFrame::isKey);
    return static_cast<std::size_t>(camera.frames.end() - first);
}

/// A well-formed stream of H.264 or H.265: choices, then for each frame its kind, its slices, the size of the
/// fragments, the sizes of the slices, and which packets get lost on the way.
///
/// Promises: without loss every frame comes out as it was sent, from the first key frame on; whatever is lost, a frame
/// that is not marked as damaged holds the pictures that were sent, to the byte; no loss goes untold, and by the
/// stricter policy nothing comes between a loss and the next key frame.
void feed(ByteView input)
{
    Script script(input);
    Camera camera(script.u8());
    while (!script.atEnd() && camera.frames.size() < 32)
        camera.addFrame(script);

    media::TrackFormat format;
    format.codec = camera.syntax.h265 ? MediaCodec::h265 : MediaCodec::h264;
    format.payloadTypes = {96};
    if ((camera.choices & setsInDescription) != 0)
        format.parameterSets = camera.syntax.sets(false);
    media::DepacketiserOptions options;
    options.lossPolicy =
        (camera.choices & flagLosses) != 0 ? media::LossPolicy::flag : media::LossPolicy::dropUntilKeyFrame;
    media::FramePool pool;
    Comparison comparison(camera);
    const auto depacketiser = media::makeDepacketiser(format, pool, comparison, options);

    bool lost = false;
    bool anyLoss = false;
    for (const Packet& sent : camera.packets) {
        if (sent.dropped) {
            lost = anyLoss = true;
            continue;
        }
        media::RtpPacket packet;
        packet.marker = sent.marker;
        packet.payloadType = 96;
        packet.timestamp = sent.timestamp;
        packet.payload = sent.payload;
        depacketiser->push(packet, std::exchange(lost, false));
    }
    if (!lost)
        depacketiser->flush();  // what is lost at the very end cannot be known
    require(anyLoss || comparison.whole == wholeFrames(camera), "without loss every frame comes out whole");
    require(depacketiser->getCounters().malformed == 0 || anyLoss, "nothing well-formed counts as malformed");
    depacketiser->reset();
    require(pool.usage().buffersOut == 0, "all memory comes back");
}

const Target videoFrames("video_frames", feed);
}  // namespace
}  // namespace Tavro8::fuzz

#include "MediaChecks.h"

#include <algorithm>
#include <array>

namespace Tavro8::fuzz
{
namespace
{
using GDRV::MediaCodec;
using GDRV::MediaFrame;

constexpr std::size_t heldFrames = 3;
constexpr std::array<std::uint8_t, 4> startCode{0, 0, 0, 1};

std::uint32_t checksumOf(ByteView bytes)
{
    std::uint32_t sum = 1;
    for (const std::uint8_t byte : bytes)
        sum = sum * 31 + byte;
    return sum;
}

bool isInside(ByteView part, ByteView whole)
{
    return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

bool beginsWithStartCode(ByteView bytes)
{
    return bytes.size() > startCode.size() && std::ranges::equal(bytes.first(startCode.size()), startCode);
}

unsigned typeOf(MediaCodec codec, const Nal& nal)
{
    return codec == MediaCodec::h264 ? nal[0] & 0x1fU : (nal[0] >> 1) & 0x3fU;
}

bool hasNal(MediaCodec codec, const std::vector<Nal>& nals, unsigned type)
{
    return std::ranges::any_of(nals, [=](const Nal& nal) { return !nal.empty() && typeOf(codec, nal) == type; });
}

void checkAnnexB(const MediaFrame& frame)
{
    require(beginsWithStartCode(frame.data), "a frame of H.264 or H.265 begins with a start code");
    if (!frame.parameterSets.empty()) {
        require(isInside(frame.parameterSets, frame.data), "parameter sets are a part of their frame");
        require(beginsWithStartCode(frame.parameterSets), "parameter sets begin with a start code");
    }
    if (!frame.keyFrame)
        return;
    const std::vector<Nal> nals = splitAnnexB(frame.data);
    const bool h264 = frame.codec == MediaCodec::h264;
    require(hasNal(frame.codec, nals, h264 ? 7 : 33) && hasNal(frame.codec, nals, h264 ? 8 : 34),
            "a key frame carries its parameter sets");
}

void checkJpeg(const MediaFrame& frame)
{
    const ByteView data = frame.data;
    require(data.size() >= 4 && data[0] == 0xff && data[1] == 0xd8, "a JPEG file begins with SOI");
    require(data[data.size() - 2] == 0xff && data[data.size() - 1] == 0xd9, "a JPEG file ends with EOI");
    require(frame.keyFrame || frame.damaged, "a JPEG file needs no other");
    require(frame.width != 0 && frame.height != 0, "a JPEG file has a size");
}
}  // namespace

std::vector<Nal> splitAnnexB(ByteView stream)
{
    std::vector<Nal> nals;
    while (stream.size() >= startCode.size()) {
        stream = stream.subspan(startCode.size());
        const auto end = std::search(stream.begin(), stream.end(), startCode.begin(), startCode.end());
        nals.emplace_back(stream.begin(), end);
        stream = stream.subspan(static_cast<std::size_t>(end - stream.begin()));
    }
    return nals;
}

void FrameJudge::onFrame(const MediaFrame& frame)
{
    ++frames;
    keyFrames += frame.keyFrame ? 1 : 0;
    require(frame.buffer != nullptr && !frame.data.empty(), "a frame has bytes, and memory that holds them");
    require(frame.data.size() <= rules.maxFrameBytes, "no frame is larger than the limit");
    require(rules.damagedAllowed || !frame.damaged, "no damaged frame is passed on");
    require(!frame.damaged || !frame.keyFrame || frame.codec == MediaCodec::mjpeg,
            "decoding cannot start at a damaged frame");
    require(frame.timestampMs >= lastMs, "time does not run backwards");
    lastMs = frame.timestampMs;
    if (GDRV::isVideo(frame.codec))
        checkVideo(frame);
    else
        checkSound(frame);
    held.push_back({GDRV::FrameReference(frame), checksumOf(frame.data)});
    letGo(heldFrames);
}

void FrameJudge::checkVideo(const MediaFrame& frame) const
{
    require(frame.durationMs <= 60'000, "a long pause is no duration");
    require(frame.sampleCount == 0 && frame.sampleRate == 0 && frame.channelCount == 0, "pictures have no samples");
    if (frame.codec == MediaCodec::mjpeg)
        checkJpeg(frame);
    else
        checkAnnexB(frame);
    require(rules.damagedAllowed || frames > 1 || frame.keyFrame, "the first frame is one at which decoding can start");
}

void FrameJudge::checkSound(const MediaFrame& frame) const
{
    require(frame.keyFrame, "decoding can start at each frame of sound");
    require(frame.sampleCount > 0 && frame.channelCount > 0, "sound has samples");
    require(frame.width == 0 && frame.height == 0, "sound has no size");
    require(frame.codec != MediaCodec::aac || frames > 1 || !frame.parameterSets.empty(),
            "the first frame of AAC tells its configuration");
    if (frame.codec == MediaCodec::g711U || frame.codec == MediaCodec::g711A)
        require(frame.data.size() == std::size_t{frame.sampleCount} * frame.channelCount, "a byte is a sample");
}

void FrameJudge::letGo(std::size_t kept)
{
    while (held.size() > kept) {
        const Held& oldest = held.front();
        require(checksumOf(oldest.frame->data) == oldest.checksum, "a frame stays as it is while it is held");
        held.pop_front();
    }
}
}  // namespace Tavro8::fuzz

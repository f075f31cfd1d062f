#include "media/VideoDepacketiser.h"

#include "media/AnnexB.h"

#include <algorithm>
#include <array>

namespace Tavro8::media
{
namespace
{
// First guesses, for a stream of a few Mbit/s; the frames themselves correct them soon.
constexpr std::size_t firstKeyBytes = 64 * 1024;
constexpr std::size_t firstOtherBytes = 16 * 1024;

// Enough of a slice for the fields that are read of its header.
constexpr std::size_t sliceHeadBytes = 32;
}  // namespace

template <typename Codec>
VideoDepacketiser<Codec>::VideoDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& accessUnitSink,
                                            const DepacketiserOptions& depacketiserOptions)
    : options(depacketiserOptions),
      sink(accessUnitSink),
      packetState(format),
      builder(pool, depacketiserOptions.maxFrameBytes),
      waitingForKey(depacketiserOptions.lossPolicy == LossPolicy::dropUntilKeyFrame),
      expectedKeySize(firstKeyBytes),
      expectedOtherSize(firstOtherBytes)
{
    frame.startUncertain = true;  // the stream may be joined in the middle of a frame
    for (const auto& nal : format.parameterSets) {
        if (nal.size() <= Codec::headerBytes)
            continue;
        const NalRole role = Codec::roleOf(nal);
        const auto info = Codec::readParameterSet(role, nal);
        if (info)
            sets.put(role, *info, nal);
    }
}

template <typename Codec>
void VideoDepacketiser<Codec>::push(const RtpPacket& packet, bool lostBefore)
{
    beginPacket(packet.timestamp, lostBefore);
    recognised = packet.payload.empty();
    const SplitResult result = Codec::split(packet.payload, packetState, *this);
    if (result != SplitResult::whole)
        ++counters.malformed;
    if (!recognised)
        ++counters.misfits;
    if (result == SplitResult::broken) {
        breakOffFragment();
        frame.damaged = true;
    }
    if (packet.marker && frame.hasSlice) {
        markersSeen = true;
        endFrame();
    }
}

template <typename Codec>
void VideoDepacketiser<Codec>::flush()
{
    if (!frame.hasSlice)
        return;
    // Where frames are marked, the rest of one without may be on its way.
    frame.damaged = frame.damaged || markersSeen;
    endFrame();
}

template <typename Codec>
void VideoDepacketiser<Codec>::reset()
{
    builder.clear();
    fragment = {};
    frame = {};
    frame.startUncertain = true;
    packetState.restart();
    misfitsBefore = counters.misfits;
    resynchronising = true;
    lossToTell = true;
    followsOthers = true;
    waitingForKey = options.lossPolicy == LossPolicy::dropUntilKeyFrame;
}

template <typename Codec>
void VideoDepacketiser<Codec>::beginPacket(std::uint32_t timestamp, bool lostBefore)
{
    if (lostBefore) {
        breakOffFragment();
        resynchronising = true;
        // Either packets of this frame came on both sides of the gap, or it is open and unmarked, and its end
        // may be among the missing ones.
        if (frame.hasSlice || (frame.open && timestamp == frame.timestamp))
            frame.damaged = true;
    }
    if (frame.open && timestamp != frame.timestamp && frame.hasSlice)
        endFrame();
    if (lostBefore && !frame.hasSlice) {
        frame.lostBefore = true;
        frame.startUncertain = true;
        // Sets from before the gap may belong to a frame that is lost.
        frame.videoSetInBand = false;
        frame.sequenceSetInBand = false;
        frame.pictureSetInBand = false;
    }
    frame.open = true;
    frame.timestamp = timestamp;
}

template <typename Codec>
void VideoDepacketiser<Codec>::addNal(std::span<const std::uint8_t> nal)
{
    breakOffFragment();
    resynchronising = false;
    const NalRole role = Codec::roleOf(nal);
    recognised = recognised || role != NalRole::foreign;
    if (isParameterSet(role)) {
        takeParameterSet(role, nal);
    } else if (prepareFor(role, nal)) {
        append(startCode);
        append(nal);
        if (role == NalRole::delimiter)
            frame.delimiterBytes = builder.size();
    }
}

template <typename Codec>
void VideoDepacketiser<Codec>::addFragment(bool isFirst, bool isLast, std::span<const std::uint8_t> nalHeader,
                                           std::span<const std::uint8_t> body)
{
    recognised = recognised || Codec::roleOf(nalHeader) != NalRole::foreign;
    if (isFirst) {
        beginFragment(nalHeader, body);
    } else if (!fragment.open) {
        if (!resynchronising)
            ++counters.malformed;
        frame.damaged = true;
        frame.hasSlice = frame.hasSlice || isSlice(Codec::roleOf(nalHeader));
        return;
    }
    if (fragment.kept)
        append(body);
    if (isLast)
        endFragment();
}

template <typename Codec>
void VideoDepacketiser<Codec>::beginFragment(std::span<const std::uint8_t> nalHeader,
                                             std::span<const std::uint8_t> body)
{
    breakOffFragment();
    resynchronising = false;
    std::array<std::uint8_t, sliceHeadBytes> head{};
    const std::size_t bodyBytes = std::min(body.size(), head.size() - nalHeader.size());
    const auto bodyPlace = std::ranges::copy(nalHeader, head.begin()).out;
    std::ranges::copy(body.first(bodyBytes), bodyPlace);

    fragment.open = true;
    fragment.role = Codec::roleOf(nalHeader);
    fragment.kept =
        isParameterSet(fragment.role) || prepareFor(fragment.role, std::span(head).first(nalHeader.size() + bodyBytes));
    fragment.begin = builder.size();
    if (fragment.kept) {
        append(startCode);
        append(nalHeader);
    }
}

template <typename Codec>
void VideoDepacketiser<Codec>::endFragment()
{
    fragment.open = false;
    if (fragment.role == NalRole::delimiter && fragment.kept)
        frame.delimiterBytes = builder.size();
    if (!isParameterSet(fragment.role) || builder.size() < fragment.begin + startCode.size())
        return;
    takeParameterSet(fragment.role, builder.bytes().subspan(fragment.begin + startCode.size()));
    builder.truncate(fragment.begin);
}

/// A fragmented NAL unit ends without its last fragment.
template <typename Codec>
void VideoDepacketiser<Codec>::breakOffFragment() noexcept
{
    if (!fragment.open)
        return;
    fragment.open = false;
    frame.damaged = true;
    if (isParameterSet(fragment.role))
        builder.truncate(std::min(fragment.begin, builder.size()));
}

/// Makes the frame ready for a NAL unit that is no parameter set; false when it is to be left out.
template <typename Codec>
bool VideoDepacketiser<Codec>::prepareFor(NalRole role, std::span<const std::uint8_t> nalStart)
{
    switch (role) {
    case NalRole::slice:
    case NalRole::keySlice:
        beginSlice(role, Codec::readSliceStart(nalStart));
        return true;
    case NalRole::delimiter:
        return builder.empty() && !frame.hasSlice;
    case NalRole::leading:
        return true;
    case NalRole::trailing:
        return frame.hasSlice;
    default:
        return false;
    }
}

template <typename Codec>
void VideoDepacketiser<Codec>::beginSlice(NalRole role, const SliceStart& start)
{
    const bool setsInBand = frame.sequenceSetInBand && frame.pictureSetInBand;
    const bool key = role == NalRole::keySlice || (setsInBand && start.intra);
    // Among packets of another codec some look like slices by chance; few of them name a picture set that there is.
    const bool doubtful = counters.misfits != misfitsBefore;
    if (doubtful && sets.has(NalRole::pictureSet) && !sets.has(NalRole::pictureSet, start.pictureSetId))
        frame.damaged = true;
    if (frame.hasSlice) {
        frame.key = frame.key && key;
        return;
    }
    frame.hasSlice = true;
    frame.key = key && hasDecoderSets();  // what comes of them later is not in front of the picture
    const bool setsMissing =
        key && ((setsUsuallyInBand && !setsInBand) || isVideoSetMissing() || (frame.lostBefore && !hasDecoderSets()));
    if (frame.startUncertain && (!start.startsPicture || setsMissing))
        frame.damaged = true;
    if (key && !frame.startUncertain) {
        setsUsuallyInBand = setsInBand;
        videoSetUsuallyInBand = frame.videoSetInBand;
    }
    if (!frame.oversized) {
        builder.reserve((key ? expectedKeySize : expectedOtherSize).get());
        if (key || frame.anySetInBand)
            insertParameterSets();
    }
    frame.size = sets.sizeFor(start.pictureSetId);
}

/// A key frame of H.265 came without VPS. Some devices never send one, so that it counts only where one is usual, or
/// where packets are missing and nothing is known yet.
template <typename Codec>
bool VideoDepacketiser<Codec>::isVideoSetMissing() const noexcept
{
    if (!Codec::hasVideoSets || frame.videoSetInBand)
        return false;
    const bool lostAmongOthers = frame.lostBefore && frame.sequenceSetInBand && !sets.has(NalRole::videoSet);
    return videoSetUsuallyInBand.value_or(lostAmongOthers);
}

template <typename Codec>
void VideoDepacketiser<Codec>::takeParameterSet(NalRole role, std::span<const std::uint8_t> nal)
{
    const auto info = Codec::readParameterSet(role, nal);
    if (!info || !sets.put(role, *info, nal)) {
        ++counters.malformed;
        frame.damaged = true;
        return;
    }
    frame.anySetInBand = true;
    // Until a key frame comes without them, also when the frame that they belong to is lost.
    setsUsuallyInBand = setsUsuallyInBand || role == NalRole::sequenceSet;
    if (role == NalRole::videoSet)
        videoSetUsuallyInBand = true;
    frame.videoSetInBand = frame.videoSetInBand || role == NalRole::videoSet;
    frame.sequenceSetInBand = frame.sequenceSetInBand || role == NalRole::sequenceSet;
    frame.pictureSetInBand = frame.pictureSetInBand || role == NalRole::pictureSet;
}

template <typename Codec>
void VideoDepacketiser<Codec>::insertParameterSets()
{
    const auto bytes = sets.annexB();
    if (!builder.insert(frame.delimiterBytes, bytes)) {
        giveUpBytes();
        return;
    }
    frame.setsBytes = bytes.size();
    frame.setsVersion = sets.version();
}

template <typename Codec>
void VideoDepacketiser<Codec>::append(std::span<const std::uint8_t> bytes) noexcept
{
    if (!frame.oversized && !builder.append(bytes))
        giveUpBytes();
}

/// The frame is larger than allowed, or memory is short: it only remains to see where it ends.
template <typename Codec>
void VideoDepacketiser<Codec>::giveUpBytes() noexcept
{
    if (!frame.oversized)
        ++counters.oversizedFrames;
    builder.clear();
    frame.oversized = true;
    frame.damaged = true;
    frame.delimiterBytes = 0;
    frame.setsBytes = 0;
}

template <typename Codec>
void VideoDepacketiser<Codec>::endFrame()
{
    breakOffFragment();
    const bool key = frame.key && !frame.damaged;
    if (frame.damaged)
        ++counters.damagedFrames;
    else
        (frame.key ? expectedKeySize : expectedOtherSize).learn(builder.size());

    if (builder.empty() || isHeldBack(key)) {
        ++counters.droppedFrames;
        lossToTell = lossToTell || frame.damaged || frame.lostBefore;
        waitingForKey = options.lossPolicy == LossPolicy::dropUntilKeyFrame;
        builder.clear();
    } else {
        handOut(key);
    }
    frame = {};
}

template <typename Codec>
bool VideoDepacketiser<Codec>::isHeldBack(bool key) const noexcept
{
    if (options.lossPolicy == LossPolicy::flag)
        return false;
    return frame.damaged || (!key && (waitingForKey || frame.lostBefore));
}

template <typename Codec>
void VideoDepacketiser<Codec>::handOut(bool key)
{
    waitingForKey = waitingForKey && !key;
    if (!frame.damaged)
        misfitsBefore = counters.misfits;
    const auto bytes = builder.bytes();
    GDRV::MediaFrame out;
    out.codec = Codec::codec;
    out.keyFrame = key;
    out.lostPacketsBefore = followsOthers && (lossToTell || frame.lostBefore);
    out.damaged = frame.damaged;
    out.width = frame.size.width;
    out.height = frame.size.height;
    out.data = bytes;
    if (frame.setsBytes != 0 && frame.setsVersion != toldSetsVersion) {
        out.parameterSets = bytes.subspan(frame.delimiterBytes, frame.setsBytes);
        toldSetsVersion = frame.setsVersion;
    }
    lossToTell = false;
    followsOthers = true;

    const FrameBuffer* const buffer = builder.take();
    out.buffer = buffer;
    const std::uint32_t timestamp = frame.timestamp;
    sink.onAccessUnit(out, timestamp);
    buffer->Release();
}

template <typename Codec>
bool VideoDepacketiser<Codec>::hasDecoderSets() const noexcept
{
    return sets.has(NalRole::sequenceSet) && sets.has(NalRole::pictureSet);
}

template class VideoDepacketiser<H264>;
template class VideoDepacketiser<H265>;
}  // namespace Tavro8::media

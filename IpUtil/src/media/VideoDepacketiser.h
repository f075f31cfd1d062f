#pragma once

#include "media/Depacketiser.h"
#include "media/FrameBuilder.h"
#include "media/H264.h"
#include "media/H265.h"
#include "media/ParameterSets.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace Tavro8::media
{
/// Access units of H.264 or H.265 out of RTP packets. `Codec` says how a payload is cut and what a NAL
/// unit is; a template, so that a packet costs one indirect call and no more.
///
/// - A frame ends with the marker bit, or with the next timestamp for devices that set none. Either counts
///   only once the frame holds a slice: some devices mark, or time on their own, the packets of parameter
///   sets and SEI, which then go to the front of the next frame.
/// - Parameter sets are taken out of the stream and kept. All of them go in one piece in front of each key
///   frame, and of each other frame in which the device sent some; in a frame where they first appear or
///   have changed they are also told as `parameterSets`.
/// - Key frames are IDR pictures (H.265: IDR, CRA, BLA). Encoders that refresh without IDR get theirs where
///   they send SPS and PPS in front of a picture of I slices alone. Without known SPS and PPS there is none.
/// - Fragments go straight into the frame's buffer, whose size is guessed from earlier frames of the kind.
/// - After a loss a frame is whole only if its first slice starts the picture and, when the device usually
///   repeats its parameter sets in front of key frames, these are there.
template <typename Codec>
class VideoDepacketiser final : public Depacketiser {
public:
    VideoDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& accessUnitSink,
                      const DepacketiserOptions& depacketiserOptions);

    void push(const RtpPacket& packet, bool lostBefore) override;
    void flush() override;
    void reset() override;

private:
    friend Codec;  // calls addNal and addFragment

    /// What is known of the frame in progress.
    struct Frame {
        bool open = false;
        std::uint32_t timestamp = 0;
        bool lostBefore = false;      // packets are missing in front
        bool startUncertain = false;  // packets missing before the first slice may belong to it
        bool damaged = false;
        bool oversized = false;  // its bytes have been given up
        bool hasSlice = false;
        bool key = false;
        bool videoSetInBand = false;
        bool sequenceSetInBand = false;
        bool pictureSetInBand = false;
        bool anySetInBand = false;
        std::size_t delimiterBytes = 0;  // parameter sets go behind the access unit delimiter
        std::size_t setsBytes = 0;       // parameter sets inserted there
        std::uint64_t setsVersion = 0;
        PictureSize size;
    };

    /// The fragmented NAL unit in progress.
    struct Fragment {
        bool open = false;
        NalRole role = NalRole::ignored;
        bool kept = false;      // goes into the frame
        std::size_t begin = 0;  // where in the frame
    };

    void beginPacket(std::uint32_t timestamp, bool lostBefore);
    void addNal(std::span<const std::uint8_t> nal);
    void addFragment(bool isFirst, bool isLast, std::span<const std::uint8_t> nalHeader,
                     std::span<const std::uint8_t> body);
    void beginFragment(std::span<const std::uint8_t> nalHeader, std::span<const std::uint8_t> body);
    void endFragment();
    void breakOffFragment() noexcept;

    bool prepareFor(NalRole role, std::span<const std::uint8_t> nalStart);
    void beginSlice(NalRole role, const SliceStart& start);
    bool isVideoSetMissing() const noexcept;
    void takeParameterSet(NalRole role, std::span<const std::uint8_t> nal);
    void insertParameterSets();
    void append(std::span<const std::uint8_t> bytes) noexcept;
    void giveUpBytes() noexcept;

    void endFrame();
    bool isHeldBack(bool key) const noexcept;
    void handOut(bool key);
    bool hasDecoderSets() const noexcept;

    DepacketiserOptions options;
    AccessUnitSink& sink;
    typename Codec::PacketState packetState;
    FrameBuilder builder;
    ParameterSets sets;
    Frame frame;
    Fragment fragment;
    bool recognised = false;          // the present packet holds something of the codec
    std::uint64_t misfitsBefore = 0;  // the last whole frame

    bool resynchronising = true;  // after a loss: fragments without a beginning are no surprise
    bool waitingForKey = false;   // by policy
    bool lossToTell = false;      // since the last frame handed out
    bool followsOthers = false;   // the next frame is not the stream's first
    bool setsUsuallyInBand = false;
    std::optional<bool> videoSetUsuallyInBand;  // nothing while no key frame has told
    bool markersSeen = false;  // the device marks the ends of frames
    std::uint64_t toldSetsVersion = 0;
    FrameSizeGuess expectedKeySize;
    FrameSizeGuess expectedOtherSize;
};

extern template class VideoDepacketiser<H264>;
extern template class VideoDepacketiser<H265>;
}  // namespace Tavro8::media

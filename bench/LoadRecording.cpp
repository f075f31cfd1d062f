#include "LoadRecording.h"

#include <algorithm>

namespace kelvo::bench
{
namespace
{
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t groupBytes = 1'000'000;  // two seconds at 4 Mbit/s
constexpr std::size_t keyFrameBytes = 120'000;
constexpr std::size_t packetBytes = 1400;
constexpr std::size_t rtpHeaderBytes = 12;
constexpr std::size_t interleavedHeaderBytes = 4;
constexpr std::size_t startCodeBytes = 4;
constexpr std::uint8_t payloadType = 96;
constexpr std::uint8_t fragmentationUnit = 28;  // FU-A, RFC 6184 section 5.8

// High profile, 1920x1080.
const Bytes sequenceSet{0x67, 0x64, 0x00, 0x28, 0xac, 0xd9, 0x40, 0x78, 0x02, 0x27, 0xe5, 0xc0, 0x44, 0x00,
                        0x00, 0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xc8, 0x3c, 0x60, 0xc6, 0x58};
const Bytes pictureSet{0x68, 0xeb, 0xe3, 0xcb, 0x20};
// NAL header, first_mb_in_slice 0, slice_type I or P, pic_parameter_set_id 0.
const Bytes keySlice{0x65, 0x88};
const Bytes slice{0x41, 0x9a};

std::string base64(const Bytes& data)
{
    constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t at = 0; at < data.size(); at += 3) {
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8U | (at + i < data.size() ? data[at + i] : 0U);
        for (std::size_t i = 0; i < 4; ++i)
            text += at + i <= data.size() ? digits[(group >> (18 - 6 * i)) & 0x3fU] : '=';
    }
    return text;
}

void writeBe16(std::uint8_t* at, std::uint16_t value) noexcept
{
    at[0] = static_cast<std::uint8_t>(value >> 8U);
    at[1] = static_cast<std::uint8_t>(value);
}

void writeBe32(std::uint8_t* at, std::uint32_t value) noexcept
{
    writeBe16(at, static_cast<std::uint16_t>(value >> 16U));
    writeBe16(at + 2, static_cast<std::uint16_t>(value));
}
}  // namespace

LoadRecording::LoadRecording()
{
    constexpr std::size_t average = (groupBytes - keyFrameBytes) / (framesPerGroup - 1);
    offsets.push_back(0);
    addFrame(true, keyFrameBytes);
    for (std::uint32_t i = 1; i < framesPerGroup; ++i)
        addFrame(false, average * 6 / 10 + (i * 7919) % (average * 8 / 10));
}

std::span<const std::uint8_t> LoadRecording::frameBytes(std::size_t frame) const noexcept
{
    const Frame& which = frames[frame];
    const std::size_t begin = offsets[which.firstPacket];
    return {bytes.data() + begin, offsets[which.firstPacket + which.packets] - begin};
}

std::span<const std::uint8_t> LoadRecording::packet(std::size_t frame, std::size_t index) const noexcept
{
    const std::size_t number = frames[frame].firstPacket + index;
    return {bytes.data() + offsets[number], offsets[number + 1] - offsets[number]};
}

std::size_t LoadRecording::packetEnd(std::size_t position) const noexcept
{
    return *std::upper_bound(offsets.begin(), offsets.end(), position);
}

void LoadRecording::address(std::size_t frame, std::size_t index, LoadTrack& track) noexcept
{
    const std::size_t number = frames[frame].firstPacket + index;
    std::uint8_t* const at = bytes.data() + offsets[number];
    at[1] = track.channel;
    std::uint8_t* const rtp = at + interleavedHeaderBytes;
    writeBe16(rtp + 2, track.sequence++);
    writeBe32(rtp + 4, track.timestamp);
    writeBe32(rtp + 8, track.ssrc);
    track.wireBytes += offsets[number + 1] - offsets[number] - (track.interleaved ? 0 : interleavedHeaderBytes);
    ++track.wirePackets;
}

void LoadRecording::finish(std::size_t frame, std::uint64_t sentNs, LoadTrack& track) noexcept
{
    const Frame& which = frames[frame];
    const FrameStamp stamp{track.stream, track.frame, sentNs, track.wireBytes, track.wirePackets};
    stamp.encode(bytes.data() + offsets[which.firstPacket + which.packets] - FrameStamp::encodedBytes);
    track.timestamp += ticksPerFrame;
    ++track.frame;
}

void LoadRecording::addFrame(bool key, std::size_t sliceBytes)
{
    Frame frame;
    frame.firstPacket = offsets.size() - 1;
    if (key) {
        addPacket(sequenceSet, false);
        addPacket(pictureSet, false);
        frame.elementBytes = 2 * startCodeBytes + sequenceSet.size() + pictureSet.size();
    }
    Bytes nal = key ? keySlice : slice;
    while (nal.size() < sliceBytes) {
        noise = noise * 1664525U + 1013904223U;
        nal.push_back(static_cast<std::uint8_t>((noise >> 24U) | 1U));  // never 0, so that nothing needs an escape
    }
    frame.elementBytes += startCodeBytes + nal.size();
    addFragments(nal);
    frame.packets = offsets.size() - 1 - frame.firstPacket;
    frames.push_back(frame);
}

void LoadRecording::addFragments(const Bytes& nal)
{
    constexpr std::size_t mostBody = packetBytes - rtpHeaderBytes - 2;
    for (std::size_t at = 1; at < nal.size();) {
        std::size_t body = std::min(mostBody, nal.size() - at);
        // The stamp is not cut in two.
        if (const std::size_t rest = nal.size() - at - body; rest > 0 && rest < FrameStamp::encodedBytes)
            body -= FrameStamp::encodedBytes;
        const bool last = at + body == nal.size();
        const unsigned flags = (at == 1 ? 0x80U : 0U) | (last ? 0x40U : 0U);
        Bytes payload{static_cast<std::uint8_t>((nal[0] & 0xe0U) | fragmentationUnit),
                      static_cast<std::uint8_t>(flags | (nal[0] & 0x1fU))};
        const auto begin = nal.begin() + static_cast<std::ptrdiff_t>(at);
        payload.insert(payload.end(), begin, begin + static_cast<std::ptrdiff_t>(body));
        addPacket(payload, last);
        at += body;
    }
}

void LoadRecording::addPacket(std::span<const std::uint8_t> payload, bool marker)
{
    const std::size_t begin = bytes.size();
    bytes.resize(begin + interleavedHeaderBytes + rtpHeaderBytes);
    bytes[begin] = '$';
    writeBe16(&bytes[begin + 2], static_cast<std::uint16_t>(rtpHeaderBytes + payload.size()));
    bytes[begin + 4] = 0x80;  // version 2
    bytes[begin + 5] = static_cast<std::uint8_t>((marker ? 0x80U : 0U) | payloadType);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    offsets.push_back(bytes.size());
}

std::string LoadRecording::describe()
{
    return "v=0\r\n"
           "o=- 1001 1 IN IP4 0.0.0.0\r\n"
           "s=Load\r\n"
           "c=IN IP4 0.0.0.0\r\n"
           "t=0 0\r\n"
           "a=control:*\r\n"
           "m=video 0 RTP/AVP 96\r\n"
           "a=rtpmap:96 H264/90000\r\n"
           "a=fmtp:96 packetization-mode=1;profile-level-id=640028;sprop-parameter-sets=" +
           base64(sequenceSet) + ',' + base64(pictureSet) +
           "\r\n"
           "a=control:trackID=1\r\n";
}
}  // namespace kelvo::bench

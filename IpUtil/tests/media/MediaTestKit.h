#pragma once

#include "media/Depacketiser.h"
#include "media/FramePool.h"
#include "media/TrackReceiver.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// Makes packets and takes frames. Shares no code with what is tested.
namespace Tavro8::media::testkit
{
using Bytes = std::vector<std::uint8_t>;

/// "67 64 00 1f" or "6764001f" as bytes.
inline Bytes hex(std::string_view text)
{
    Bytes bytes;
    int digits = 0;
    unsigned value = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\n')
            continue;
        const auto digit = std::string_view("0123456789abcdef").find(c);
        if (digit == std::string_view::npos)
            throw std::invalid_argument("not a hex digit");
        value = (value << 4 | static_cast<unsigned>(digit)) & 0xff;
        if (++digits % 2 == 0)
            bytes.push_back(static_cast<std::uint8_t>(value));
    }
    return bytes;
}

inline std::string toHex(std::span<const std::uint8_t> bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02x ", byte);
        text += digits.data();
    }
    return text;
}

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes part(const Bytes& bytes, std::size_t from, std::size_t count)
{
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(from, bytes.size()));
    const auto last = bytes.begin() + static_cast<std::ptrdiff_t>(std::min(from + count, bytes.size()));
    return {first, last};
}

/// NAL units with four-byte start codes.
inline Bytes annexB(std::initializer_list<Bytes> nals)
{
    Bytes stream;
    for (const Bytes& nal : nals)
        stream = std::move(stream) + Bytes{0, 0, 0, 1} + nal;
    return stream;
}

/// Cuts an Annex B stream at its start codes of three or four bytes.
inline std::vector<Bytes> splitAnnexB(std::span<const std::uint8_t> stream)
{
    std::vector<Bytes> nals;
    std::size_t begin = 0;
    bool inside = false;
    for (std::size_t i = 0; i + 3 <= stream.size(); ++i) {
        if (stream[i] != 0 || stream[i + 1] != 0 || stream[i + 2] != 1)
            continue;
        if (inside) {
            const std::size_t end = i > begin && stream[i - 1] == 0 ? i - 1 : i;
            nals.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(begin),
                              stream.begin() + static_cast<std::ptrdiff_t>(end));
        }
        begin = i + 3;
        inside = true;
    }
    if (inside)
        nals.emplace_back(stream.begin() + static_cast<std::ptrdiff_t>(begin), stream.end());
    return nals;
}

inline Bytes readData(const std::string& name)
{
    std::ifstream file(std::string(KELVO_TEST_DATA_DIR) + "/" + name, std::ios::binary);
    if (!file)
        throw std::runtime_error("no test data " + name);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// RTP packets that another program has made, recorded with a 16-bit length in front of each (RFC 4571).
inline std::vector<Bytes> readPackets(const std::string& name)
{
    const Bytes file = readData(name);
    std::vector<Bytes> packets;
    for (std::size_t at = 0; at + 2 <= file.size();) {
        const std::size_t length = static_cast<std::size_t>(file[at] << 8 | file[at + 1]);
        packets.push_back(part(file, at + 2, length));
        at += 2 + length;
    }
    return packets;
}

/// JPEG files one behind the other, taken apart.
inline std::vector<Bytes> readPictures(const std::string& name)
{
    const Bytes file = readData(name);
    const Bytes seam = hex("ff d9 ff d8");
    std::vector<Bytes> pictures;
    for (auto begin = file.begin(); begin != file.end();) {
        auto end = std::search(begin, file.end(), seam.begin(), seam.end());
        end = end == file.end() ? end : end + 2;
        pictures.emplace_back(begin, end);
        begin = end;
    }
    return pictures;
}

/// AAC access units out of ADTS (ISO/IEC 13818-7 section 6.2), without their headers.
inline std::vector<Bytes> readAdts(const std::string& name)
{
    const Bytes file = readData(name);
    std::vector<Bytes> units;
    for (std::size_t at = 0; at + 7 <= file.size();) {
        const std::size_t length =
            static_cast<std::size_t>((file[at + 3] & 3) << 11 | file[at + 4] << 3 | file[at + 5] >> 5);
        const std::size_t header = (file[at + 1] & 1) != 0 ? 7 : 9;
        units.push_back(part(file, at + header, length - header));
        at += length;
    }
    return units;
}

/// One packet to be: header fields and payload.
struct Packet {
    Bytes payload;
    std::uint32_t timestamp = 0;
    bool marker = false;
    std::uint16_t sequence = 0;
    std::uint32_t ssrc = 0x11223344;
    std::uint8_t payloadType = 96;
    std::uint16_t extensionProfile = 0;
    Bytes extension{};  // whole words

    Bytes bytes() const
    {
        Bytes head{static_cast<std::uint8_t>(extensionProfile != 0 ? 0x90 : 0x80),
                   static_cast<std::uint8_t>((marker ? 0x80 : 0) | payloadType),
                   static_cast<std::uint8_t>(sequence >> 8), static_cast<std::uint8_t>(sequence)};
        for (const std::uint32_t word : {timestamp, ssrc}) {
            for (int shift = 24; shift >= 0; shift -= 8)
                head.push_back(static_cast<std::uint8_t>(word >> shift));
        }
        if (extensionProfile != 0) {
            const std::size_t words = extension.size() / 4;
            for (const std::size_t half : {std::size_t{extensionProfile}, words}) {
                head.push_back(static_cast<std::uint8_t>(half >> 8));
                head.push_back(static_cast<std::uint8_t>(half));
            }
            head = std::move(head) + extension;
        }
        return head + payload;
    }

    RtpPacket view() const
    {
        RtpPacket packet;
        packet.marker = marker;
        packet.payloadType = payloadType;
        packet.sequenceNumber = sequence;
        packet.timestamp = timestamp;
        packet.ssrc = ssrc;
        packet.extensionProfile = extensionProfile;
        packet.extension = extension;
        packet.payload = payload;
        return packet;
    }
};

/// FU-A payloads of one H.264 NAL unit, `bodyBytes` each.
inline std::vector<Bytes> fragmentH264(const Bytes& nal, std::size_t bodyBytes)
{
    std::vector<Bytes> payloads;
    for (std::size_t at = 1; at < nal.size(); at += bodyBytes) {
        const int flags = (at == 1 ? 0x80 : 0) | (at + bodyBytes >= nal.size() ? 0x40 : 0);
        const Bytes head{static_cast<std::uint8_t>((nal[0] & 0xe0) | 28),
                         static_cast<std::uint8_t>((nal[0] & 0x1f) | flags)};
        payloads.push_back(head + part(nal, at, bodyBytes));
    }
    return payloads;
}

/// FU payloads of one H.265 NAL unit, `bodyBytes` each.
inline std::vector<Bytes> fragmentH265(const Bytes& nal, std::size_t bodyBytes)
{
    std::vector<Bytes> payloads;
    for (std::size_t at = 2; at < nal.size(); at += bodyBytes) {
        const int flags = (at == 2 ? 0x80 : 0) | (at + bodyBytes >= nal.size() ? 0x40 : 0);
        const Bytes head{static_cast<std::uint8_t>((nal[0] & 0x81) | (49 << 1)), nal[1],
                         static_cast<std::uint8_t>(((nal[0] >> 1) & 0x3f) | flags)};
        payloads.push_back(head + part(nal, at, bodyBytes));
    }
    return payloads;
}

/// An aggregation packet: `header`, then each NAL unit behind its 16-bit length.
inline Bytes aggregate(const Bytes& header, std::initializer_list<Bytes> nals)
{
    Bytes payload = header;
    for (const Bytes& nal : nals)
        payload = std::move(payload) +
                  Bytes{static_cast<std::uint8_t>(nal.size() >> 8), static_cast<std::uint8_t>(nal.size())} + nal;
    return payload;
}

inline Bytes stapA(std::initializer_list<Bytes> nals)
{
    return aggregate({24}, nals);
}

inline Bytes aggregateH265(std::initializer_list<Bytes> nals)
{
    return aggregate({48 << 1, 1}, nals);
}

/// A frame with its bytes copied.
struct Frame {
    GDRV::MediaFrame info;
    std::uint32_t rtpTimestamp = 0;
    Bytes data;
    Bytes parameterSets;
    bool setsInsideData = true;
};

class Frames final : public AccessUnitSink, public FrameSink {
public:
    void onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t rtpTimestamp) override
    {
        onFrame(frame);
        all.back().rtpTimestamp = rtpTimestamp;
    }
    void onFrame(const GDRV::MediaFrame& frame) override
    {
        Frame copy;
        copy.info = frame;
        copy.data.assign(frame.data.begin(), frame.data.end());
        copy.parameterSets.assign(frame.parameterSets.begin(), frame.parameterSets.end());
        copy.setsInsideData = frame.parameterSets.empty() || (frame.parameterSets.data() >= frame.data.data() &&
                                                              frame.parameterSets.data() + frame.parameterSets.size() <=
                                                                  frame.data.data() + frame.data.size());
        copy.info.data = {};
        copy.info.parameterSets = {};
        copy.info.buffer = nullptr;
        all.push_back(std::move(copy));
    }

    std::size_t size() const { return all.size(); }
    const Frame& operator[](std::size_t index) const { return all.at(index); }
    const Frame& back() const { return all.at(all.size() - 1); }

    std::vector<Frame> all;
};

/// A depacketiser with its pool and its frames.
struct Bench {
    explicit Bench(const TrackFormat& format, const DepacketiserOptions& options = {})
        : depacketiser(makeDepacketiser(format, pool, frames, options))
    {}

    void push(const Bytes& payload, std::uint32_t timestamp, bool marker = false, bool lostBefore = false)
    {
        pushPacket(Packet{.payload = payload, .timestamp = timestamp, .marker = marker}, lostBefore);
    }
    void pushPacket(const Packet& packet, bool lostBefore = false) { depacketiser->push(packet.view(), lostBefore); }

    /// Several payloads of one frame, the marker on the last.
    void pushAll(const std::vector<Bytes>& payloads, std::uint32_t timestamp, bool marker = true)
    {
        for (std::size_t i = 0; i < payloads.size(); ++i)
            push(payloads[i], timestamp, marker && i + 1 == payloads.size());
    }

    const Depacketiser::Counters& counters() const { return depacketiser->getCounters(); }

    FramePool pool;
    Frames frames;
    std::unique_ptr<Depacketiser> depacketiser;
};

inline TrackFormat h264Format(std::vector<Bytes> parameterSets = {})
{
    TrackFormat format;
    format.codec = GDRV::MediaCodec::h264;
    format.payloadTypes = {96};
    format.clockRate = 90000;
    format.parameterSets = std::move(parameterSets);
    return format;
}

inline TrackFormat h265Format(std::vector<Bytes> parameterSets = {})
{
    TrackFormat format = h264Format(std::move(parameterSets));
    format.codec = GDRV::MediaCodec::h265;
    return format;
}

inline TrackFormat jpegFormat(PictureSize size = {})
{
    TrackFormat format;
    format.codec = GDRV::MediaCodec::mjpeg;
    format.payloadTypes = {26};
    format.pictureSize = size;
    return format;
}

inline TrackFormat aacFormat(Bytes config, std::uint32_t clockRate, const std::string& mode = "AAC-hbr")
{
    TrackFormat format;
    format.codec = GDRV::MediaCodec::aac;
    format.payloadTypes = {97};
    format.clockRate = clockRate;
    if (!config.empty())
        format.parameterSets = {std::move(config)};
    format.formatParameters = {{"mode", mode}};
    return format;
}

inline DepacketiserOptions flagging()
{
    DepacketiserOptions options;
    options.lossPolicy = LossPolicy::flag;
    return options;
}

/// Real parameter sets: 352x288 and 1280x720.
namespace h264
{
inline const Bytes sps = hex("6742c00dd9016096c044000003000400000300c83c50a920");
inline const Bytes otherSps = hex("674d401feca02802dd80880000030008000003019078c18cb0");
inline const Bytes pps = hex("68cb83cb20");
inline const Bytes sei = hex("06 05 04 01 02 03 04 80");
inline const Bytes delimiter = hex("09 f0");
// first_mb_in_slice 0 begins with a one bit: 88.. is slice_type 7 (I), 9a.. slice_type 5 (P), both with set 0
inline const Bytes keySlice = hex("65 88 84 00 21 ff fe f7 c9 1a 2b 3c 4d 5e 6f 70");
inline const Bytes laterKeySlice = hex("65 04 62 22 10 07 00 11 22 33 44 55");
inline const Bytes slice = hex("41 9a 24 6c 43 ff fe e1 02 03 04 05 06 07");
inline const Bytes laterSlice = hex("41 04 66 89 b1 0f 10 11 12 13 14 15");
inline const Bytes intraSlice = hex("41 88 84 00 33 ff 01 02 03 04");
}  // namespace h264

/// Real parameter sets: 1920x1080 and 3840x2160.
namespace h265
{
inline const Bytes vps = hex("40010c01ffff016000000300900000030000030078959809");
inline const Bytes sps = hex("420101016000000300900000030000030078a003c08010e596566924caf0168080000003008000000c84");
inline const Bytes otherSps =
    hex("420101016000000300900000030000030096a001e020021c596566924caf016808000003000800000300c840");
inline const Bytes pps = hex("4401c172b46240");
inline const Bytes sei = hex("4e 01 05 04 01 02 03 04 80");
inline const Bytes suffixSei = hex("50 01 84 04 0a 0b 0c 0d 80");
inline const Bytes delimiter = hex("46 01 50");
// first_slice_segment_in_pic_flag is the highest bit behind the header
inline const Bytes keySlice = hex("26 01 af 06 b8 63 ef 3a 7f 3c 00 11 22 33");
inline const Bytes laterKeySlice = hex("26 01 2f 06 b8 63 ef 3a 7f 3c 00 44");
inline const Bytes slice = hex("02 01 d0 09 7e 10 bc 39 01 02 03 04");
inline const Bytes laterSlice = hex("02 01 50 09 7e 10 bc 39 05 06 07");
}  // namespace h265
}  // namespace Tavro8::media::testkit

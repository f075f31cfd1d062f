#include "AllocationCounter.h"

#include "media/TrackReceiver.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <span>
#include <vector>

/// A 1080p stream at 25 pictures a second and 4 Mbit/s, a key frame every two seconds, in RTP packets of
/// 1400 bytes: what one core can take in, through the depacketiser alone and through the whole receiver.
namespace
{
using namespace Tavro8;
using namespace Tavro8::media;

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned framesPerGroup = 50;
constexpr std::size_t groupBytes = 1'000'000;  // two seconds at 4 Mbit/s
constexpr std::size_t keyFrameBytes = 120'000;
constexpr std::size_t pictureBytes = 40'000;
constexpr std::size_t packetBytes = 1400;
constexpr std::size_t rtpHeaderBytes = 12;
constexpr std::uint32_t ticksPerFrame = 3600;

/// What differs between the two codecs on the wire.
struct Syntax {
    GDRV::MediaCodec codec;
    std::vector<Bytes> parameterSets;
    Bytes keySlice;  // header and first byte
    Bytes slice;
    std::size_t headerBytes;  // of a NAL unit

    Bytes fragmentHeader(const Bytes& nal, bool first, bool last) const
    {
        const unsigned flags = (first ? 0x80U : 0U) | (last ? 0x40U : 0U);
        if (codec == GDRV::MediaCodec::h264)
            return {static_cast<std::uint8_t>((nal[0] & 0xe0U) | 28U),
                    static_cast<std::uint8_t>(flags | (nal[0] & 0x1fU))};
        return {static_cast<std::uint8_t>(49U << 1), nal[1], static_cast<std::uint8_t>(flags | nal[0] >> 1U)};
    }
};

const Syntax h264{GDRV::MediaCodec::h264,
                  {{0x67, 0x64, 0x00, 0x28, 0xac, 0xd9, 0x40, 0x78, 0x02, 0x27, 0xe5, 0xc0, 0x44, 0x00,
                    0x00, 0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xc8, 0x3c, 0x60, 0xc6, 0x58},
                   {0x68, 0xeb, 0xe3, 0xcb, 0x20}},
                  {0x65, 0x88},
                  {0x41, 0x9a},
                  1};
const Syntax h265{GDRV::MediaCodec::h265,
                  {{0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
                    0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x78, 0x95, 0x98, 0x09},
                   {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00,
                    0x00, 0x03, 0x00, 0x78, 0xa0, 0x03, 0xc0, 0x80, 0x10, 0xe5, 0x96, 0x56, 0x69, 0x24,
                    0xca, 0xf0, 0x16, 0x80, 0x80, 0x00, 0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0c, 0x84},
                   {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40}},
                  {0x26, 0x01, 0xaf},
                  {0x02, 0x01, 0xd0},
                  2};

/// Packets of one group of pictures, one behind the other as in a receive buffer.
class Recording {
public:
    explicit Recording(const Syntax& syntax)
    {
        std::mt19937 random(1);
        const std::size_t average = (groupBytes - keyFrameBytes) / (framesPerGroup - 1);
        for (std::uint32_t i = 0; i < framesPerGroup; ++i) {
            if (i == 0) {
                for (const Bytes& set : syntax.parameterSets)
                    addPacket(set, i, false);
            }
            Bytes nal = i == 0 ? syntax.keySlice : syntax.slice;
            const std::size_t size = i == 0 ? keyFrameBytes : average * 6 / 10 + random() % (average * 8 / 10);
            while (nal.size() < size)
                nal.push_back(static_cast<std::uint8_t>(random() | 1U));
            addFragments(syntax, nal, i);
        }
        listPackets();
    }

    /// Pictures of 640x480 with their tables in band.
    static Recording ofPictures()
    {
        Recording recording;
        const Bytes picture = noise(pictureBytes);
        for (std::uint32_t i = 0; i < framesPerGroup; ++i) {
            for (std::size_t at = 0; at < picture.size();) {
                Bytes payload{0, 0, static_cast<std::uint8_t>(at >> 8U), static_cast<std::uint8_t>(at), 1, 255, 80, 60};
                if (at == 0) {
                    payload.insert(payload.end(), {0, 0, 0, 128});
                    payload.insert(payload.end(), 128, 7);
                }
                const std::size_t body = std::min(packetBytes - rtpHeaderBytes - payload.size(), picture.size() - at);
                const auto begin = picture.begin() + static_cast<std::ptrdiff_t>(at);
                payload.insert(payload.end(), begin, begin + static_cast<std::ptrdiff_t>(body));
                at += body;
                recording.addPacket(payload, i, at == picture.size());
            }
        }
        recording.listPackets();
        return recording;
    }

    /// Access units of 128 kbit/s at 48 kHz, one a packet.
    static Recording ofSound()
    {
        Recording recording;
        constexpr std::size_t unitBytes = 341;
        for (std::uint32_t i = 0; i < framesPerGroup; ++i) {
            Bytes payload{0, 16, unitBytes >> 5U, (unitBytes << 3U) & 0xffU};
            const Bytes unit = noise(unitBytes);
            payload.insert(payload.end(), unit.begin(), unit.end());
            recording.addPacket(payload, i, true);
        }
        recording.listPackets();
        return recording;
    }

    /// Makes the packets those of the next two seconds.
    void advance()
    {
        for (const auto& packet : packets) {
            ++sequence;
            packet[2] = static_cast<std::uint8_t>(sequence >> 8U);
            packet[3] = static_cast<std::uint8_t>(sequence);
            // Frame numbers go into the upper bytes, which keeps the clock's mapping busy as in real life.
            const std::uint32_t timestamp = group * framesPerGroup * ticksPerFrame + packet[7] * ticksPerFrame;
            packet[4] = static_cast<std::uint8_t>(timestamp >> 24U);
            packet[5] = static_cast<std::uint8_t>(timestamp >> 16U);
            packet[6] = static_cast<std::uint8_t>(timestamp >> 8U);
        }
        ++group;
    }

    std::vector<std::span<std::uint8_t>> packets;
    std::size_t payloadBytes = 0;

private:
    Recording() = default;

    static Bytes noise(std::size_t bytes)
    {
        std::mt19937 random(1);
        Bytes result(bytes);
        std::ranges::generate(result, [&] { return static_cast<std::uint8_t>(random() | 1U); });
        return result;
    }

    void listPackets()
    {
        for (std::size_t i = 0; i < offsets.size(); ++i)
            packets.emplace_back(buffer.data() + offsets[i],
                                 (i + 1 < offsets.size() ? offsets[i + 1] : buffer.size()) - offsets[i]);
    }

    void addFragments(const Syntax& syntax, const Bytes& nal, std::uint32_t frame)
    {
        for (std::size_t at = syntax.headerBytes; at < nal.size();) {
            Bytes payload = syntax.fragmentHeader(nal, at == syntax.headerBytes, false);
            const std::size_t body = std::min(packetBytes - rtpHeaderBytes - payload.size(), nal.size() - at);
            const bool last = at + body == nal.size();
            payload = syntax.fragmentHeader(nal, at == syntax.headerBytes, last);
            payload.insert(payload.end(), nal.begin() + static_cast<std::ptrdiff_t>(at),
                           nal.begin() + static_cast<std::ptrdiff_t>(at + body));
            addPacket(payload, frame, last);
            at += body;
        }
    }

    void addPacket(const Bytes& payload, std::uint32_t frame, bool marker)
    {
        offsets.push_back(buffer.size());
        const std::uint8_t header[rtpHeaderBytes] = {0x80, static_cast<std::uint8_t>(marker ? 0xe0 : 0x60),
                                                     0,    0,
                                                     0,    0,
                                                     0,    static_cast<std::uint8_t>(frame),
                                                     0,    0,
                                                     0,    1};
        buffer.insert(buffer.end(), std::begin(header), std::end(header));
        buffer.insert(buffer.end(), payload.begin(), payload.end());
        payloadBytes += payload.size();
    }

    Bytes buffer;
    std::vector<std::size_t> offsets;
    std::uint16_t sequence = 0;
    std::uint32_t group = 0;
};

struct Sink final : FrameSink, AccessUnitSink {
    void onFrame(const GDRV::MediaFrame& frame) override { take(frame); }
    void onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t) override { take(frame); }
    void take(const GDRV::MediaFrame& frame)
    {
        ++frames;
        benchmark::DoNotOptimize(frame.data.data());
    }
    std::uint64_t frames = 0;
};

TrackFormat formatOf(const Syntax& syntax)
{
    TrackFormat format;
    format.codec = syntax.codec;
    format.payloadTypes = {96};
    format.parameterSets = syntax.parameterSets;
    return format;
}

void report(benchmark::State& state, const Recording& recording, const Sink& sink, std::size_t allocations)
{
    const auto frames = static_cast<double>(sink.frames);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(recording.payloadBytes));
    state.counters["frames/s"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
    state.counters["allocations/frame"] = static_cast<double>(allocations) / frames;
    if (sink.frames != static_cast<std::uint64_t>(state.iterations()) * framesPerGroup)
        state.SkipWithError("frames are missing");
}

void receive(benchmark::State& state, Recording recording, const TrackFormat& format)
{
    Sink sink;
    const auto receiver = TrackReceiver::make(format, std::make_shared<FramePool>(), sink);
    ArrivalTime arrival;
    const auto round = [&] {
        recording.advance();
        arrival.monotonic += std::chrono::seconds(2);
        arrival.utc += std::chrono::seconds(2);
        for (const auto& packet : recording.packets)
            receiver->onRtp(packet, arrival);
    };
    for (int i = 0; i < 3; ++i)
        round();
    sink.frames = 0;
    const std::size_t before = kelvo::test::allocationCount();
    for (auto _ : state)
        round();
    report(state, recording, sink, kelvo::test::allocationCount() - before);
}

void receiveTrack(benchmark::State& state, const Syntax& syntax)
{
    receive(state, Recording(syntax), formatOf(syntax));
}

void receivePictures(benchmark::State& state)
{
    TrackFormat format;
    format.codec = GDRV::MediaCodec::mjpeg;
    format.payloadTypes = {96};
    receive(state, Recording::ofPictures(), format);
}

void receiveSound(benchmark::State& state)
{
    TrackFormat format;
    format.codec = GDRV::MediaCodec::aac;
    format.payloadTypes = {96};
    format.clockRate = 48000;
    format.parameterSets = {{0x11, 0x90}};
    format.formatParameters = {{"mode", "AAC-hbr"}};
    receive(state, Recording::ofSound(), format);
}

void depacketise(benchmark::State& state, const Syntax& syntax)
{
    const Recording recording(syntax);
    std::vector<RtpPacket> packets(recording.packets.size());
    for (std::size_t i = 0; i < packets.size(); ++i)
        parseRtpPacket(recording.packets[i], packets[i]);
    Sink sink;
    FramePool pool;
    const auto depacketiser = makeDepacketiser(formatOf(syntax), pool, sink);
    const auto round = [&] {
        for (const RtpPacket& packet : packets)
            depacketiser->push(packet, false);
    };
    for (int i = 0; i < 3; ++i)
        round();
    sink.frames = 0;
    const std::size_t before = kelvo::test::allocationCount();
    for (auto _ : state)
        round();
    report(state, recording, sink, kelvo::test::allocationCount() - before);
}

/// The bare copy of the same bytes, for comparison.
void copyOnly(benchmark::State& state)
{
    const Recording recording(h264);
    Bytes frame(2 * keyFrameBytes);
    for (auto _ : state) {
        std::size_t used = 0;
        for (const auto& packet : recording.packets) {
            std::memcpy(frame.data() + used, packet.data() + rtpHeaderBytes, packet.size() - rtpHeaderBytes);
            used += packet.size() - rtpHeaderBytes;
            if ((packet[1] & 0x80U) != 0)
                used = 0;
            benchmark::ClobberMemory();
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(recording.payloadBytes));
}

BENCHMARK_CAPTURE(receiveTrack, h264, h264);
BENCHMARK_CAPTURE(receiveTrack, h265, h265);
BENCHMARK(receivePictures);
BENCHMARK(receiveSound);
BENCHMARK_CAPTURE(depacketise, h264, h264);
BENCHMARK_CAPTURE(depacketise, h265, h265);
BENCHMARK(copyOnly);
}  // namespace

#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <random>

namespace Tavro8::media
{
using namespace testkit;

namespace
{
/// Checks every frame for the promises of the frame format, and keeps none.
class Inspector final : public FrameSink {
public:
    void onFrame(const GDRV::MediaFrame& frame) override
    {
        ++count;
        ASSERT_NE(frame.buffer, nullptr);
        ASSERT_FALSE(frame.data.empty());
        EXPECT_GE(frame.timestampMs, lastMs);
        lastMs = frame.timestampMs;
        std::uint32_t sum = 0;  // reads every byte, for the sanitiser
        for (const std::uint8_t byte : frame.data)
            sum += byte;
        checksum += sum;
        EXPECT_TRUE(mayBeDamaged || !frame.damaged);
        EXPECT_FALSE(frame.damaged && frame.keyFrame);
        if (frame.codec == GDRV::MediaCodec::mjpeg)
            inspectPicture(frame);
        else if (GDRV::isVideo(frame.codec))
            inspectAccessUnit(frame);
        else
            EXPECT_GT(frame.sampleCount, 0U);
    }

    static void inspectPicture(const GDRV::MediaFrame& frame)
    {
        ASSERT_GE(frame.data.size(), 600U);  // tables alone are more
        EXPECT_EQ(toHex(frame.data.first(2)), "ff d8 ");
        EXPECT_EQ(toHex(frame.data.last(2)), "ff d9 ");
        EXPECT_GT(frame.width, 0U);
        EXPECT_GT(frame.height, 0U);
    }

    static void inspectAccessUnit(const GDRV::MediaFrame& frame)
    {
        ASSERT_GE(frame.data.size(), 5U);
        EXPECT_EQ(toHex(frame.data.first(4)), "00 00 00 01 ");
        if (!frame.parameterSets.empty()) {
            EXPECT_GE(frame.parameterSets.data(), frame.data.data());
            EXPECT_LE(frame.parameterSets.data() + frame.parameterSets.size(), frame.data.data() + frame.data.size());
            EXPECT_EQ(toHex(frame.parameterSets.first(4)), "00 00 00 01 ");
        }
    }

    bool mayBeDamaged = false;
    std::size_t count = 0;
    std::int64_t lastMs = 0;
    std::uint64_t checksum = 0;
};

const ArrivalTime now{{}, std::chrono::system_clock::time_point(std::chrono::hours(400000))};

TrackFormat withPayloadType96(TrackFormat format)
{
    format.payloadTypes = {96};
    return format;
}

std::vector<Bytes> nalSamples(bool h265Stream)
{
    if (h265Stream) {
        using namespace h265;
        std::vector<Bytes> samples{vps,
                                   sps,
                                   otherSps,
                                   pps,
                                   sei,
                                   suffixSei,
                                   delimiter,
                                   keySlice,
                                   slice,
                                   laterSlice,
                                   aggregateH265({vps, sps, pps}),
                                   aggregateH265({slice, laterSlice})};
        for (const Bytes& nal : {keySlice, slice, sps}) {
            const auto fragments = fragmentH265(nal, 5);
            samples.insert(samples.end(), fragments.begin(), fragments.end());
        }
        return samples;
    }
    using namespace h264;
    std::vector<Bytes> samples{sps,
                               otherSps,
                               pps,
                               sei,
                               delimiter,
                               keySlice,
                               slice,
                               laterSlice,
                               intraSlice,
                               stapA({sps, pps}),
                               stapA({slice, laterSlice})};
    for (const Bytes& nal : {keySlice, slice, sps}) {
        const auto fragments = fragmentH264(nal, 5);
        samples.insert(samples.end(), fragments.begin(), fragments.end());
    }
    return samples;
}

TrackFormat formatOf(GDRV::MediaCodec codec)
{
    switch (codec) {
    case GDRV::MediaCodec::h264:
        return h264Format({h264::sps, h264::pps});
    case GDRV::MediaCodec::h265:
        return h265Format({h265::vps, h265::sps, h265::pps});
    case GDRV::MediaCodec::mjpeg:
        return withPayloadType96(jpegFormat({2592, 1944}));
    case GDRV::MediaCodec::aac:
        return withPayloadType96(aacFormat(hex("1190"), 48000));
    default:
        TrackFormat format = h264Format();
        format.codec = codec;
        format.channelCount = 2;  // sound in odd lengths is malformed then
        return format;
    }
}

/// The first packets, then fragments of them, of pictures with and without restart markers, tables and extension.
std::vector<Packet> jpegSamples()
{
    const Bytes tables = hex("00 00 00 80") + Bytes(128, 7);
    const Bytes wide = hex("00 02 00 c0") + Bytes(192, 7);
    const Bytes extension = hex("ffdb 0043 01") + Bytes(64, 9) +
                            hex("ffc0 0011 08 0798 0a20 03 00 21 00 01 11 01 02 11 01 ffdd 0004 0009 ffff");
    std::vector<Packet> samples;
    for (const Bytes& head : {hex("00 000000 01 ff 02 01") + tables, hex("00 000000 00 82 00 00") + wide,
                              hex("00 000000 00 82 00 00 00 00 00 00"), hex("00 000000 41 32 02 01 0004 ffff")}) {
        Bytes later = part(head, 0, head[4] >= 64 ? 12 : 8);
        samples.push_back({.payload = head + Bytes(40, 0x5a)});
        later[3] = 40;
        samples.push_back({.payload = later + Bytes(30, 0xa5)});
        later[3] = 70;
        samples.push_back({.payload = later + hex("01 ff d9")});
    }
    samples[0].extensionProfile = samples[9].extensionProfile = 0xffd8;
    samples[0].extension = samples[9].extension = extension;
    samples[3].extensionProfile = 0xabac;
    samples[3].extension = Bytes(12, 3) + hex("ffd8 0018") + extension;
    return samples;
}

std::vector<Packet> aacSamples()
{
    std::vector<Packet> samples;
    for (const Bytes& payload :
         {hex("0010 0028") + Bytes(5, 1), hex("0020 0028 0018") + Bytes(8, 2), hex("0010 0100") + Bytes(10, 3),
          hex("0010 0100") + Bytes(22, 4), hex("0030 0008 0000 0010") + Bytes(3, 5)})
        samples.push_back({.payload = payload});
    return samples;
}

std::vector<Packet> samplesOf(GDRV::MediaCodec codec)
{
    if (codec == GDRV::MediaCodec::mjpeg)
        return jpegSamples();
    if (codec == GDRV::MediaCodec::aac)
        return aacSamples();
    std::vector<Packet> packets;
    for (Bytes& payload : nalSamples(codec == GDRV::MediaCodec::h265))
        packets.push_back({.payload = std::move(payload)});
    return packets;
}

class HostileInput : public ::testing::TestWithParam<GDRV::MediaCodec> {};
}  // namespace

TEST_P(HostileInput, isSurvivedWhenCutAtEachLength)
{
    Inspector inspector;
    inspector.mayBeDamaged = true;
    TrackReceiver::Options options;
    options.depacketiser.lossPolicy = LossPolicy::flag;
    const auto pool = std::make_shared<FramePool>();
    const auto receiver = TrackReceiver::make(formatOf(GetParam()), pool, inspector, options);
    std::uint16_t sequence = 0;
    for (Packet sample : samplesOf(GetParam())) {
        sample.marker = true;
        const Bytes whole = sample.bytes();
        for (std::size_t length = 0; length <= whole.size(); ++length) {
            // A copy of exact size, so that the sanitiser sees a read behind its end.
            Bytes cut = part(whole, 0, length);
            if (cut.size() >= 8) {
                cut[2] = static_cast<std::uint8_t>(sequence >> 8);
                cut[3] = static_cast<std::uint8_t>(sequence++);
                cut[7] = static_cast<std::uint8_t>(length);
            }
            receiver->onRtp(cut, now);
            EXPECT_LE(pool->usage().buffersOut, 1U);
        }
    }
    receiver->flush();
    EXPECT_GT(inspector.count, 0U);
    EXPECT_GT(receiver->statistics().malformedPackets, 0U);
}

TEST_P(HostileInput, isSurvivedWhenRandom)
{
    std::mt19937 random(4711);
    const auto pick = [&](std::size_t below) { return static_cast<std::size_t>(random()) % below; };
    for (const LossPolicy policy : {LossPolicy::dropUntilKeyFrame, LossPolicy::flag}) {
        Inspector inspector;
        inspector.mayBeDamaged = policy == LossPolicy::flag;
        TrackReceiver::Options options;
        options.depacketiser.lossPolicy = policy;
        options.depacketiser.maxFrameBytes = 4000;
        const auto pool = std::make_shared<FramePool>();
        const auto receiver = TrackReceiver::make(formatOf(GetParam()), pool, inspector, options);
        const auto samples = samplesOf(GetParam());
        std::uint16_t sequence = 0;
        std::uint32_t timestamp = 0;
        for (int i = 0; i < 30000; ++i) {
            Packet packet = samples[pick(samples.size())];
            Bytes& payload = packet.payload;
            for (Bytes* const target : {&packet.payload, &packet.extension}) {
                if (pick(4) == 0 && !target->empty())
                    (*target)[pick(target->size())] = static_cast<std::uint8_t>(random());
            }
            if (pick(8) == 0)
                payload.resize(pick(payload.size() + 1));
            if (pick(16) == 0) {
                payload.resize(pick(600));
                for (std::uint8_t& byte : payload)
                    byte = static_cast<std::uint8_t>(random());
            }
            if (pick(4) == 0)
                timestamp += pick(50) == 0 ? static_cast<std::uint32_t>(random()) : 3600;
            sequence = static_cast<std::uint16_t>(sequence + (pick(20) == 0 ? pick(5) : 1));
            if (pick(500) == 0)
                sequence = static_cast<std::uint16_t>(random());
            packet.timestamp = timestamp;
            packet.marker = pick(3) == 0;
            packet.sequence = sequence;
            packet.ssrc = pick(2000) == 0 ? 2 : 1;
            receiver->onRtp(packet.bytes(), now);
            ASSERT_LE(pool->usage().buffersOut, 1U);
            ASSERT_LE(pool->usage().bytesOut, 32U * 1024);
        }
        EXPECT_GT(inspector.count, 100U);
        const auto statistics = receiver->statistics();
        EXPECT_EQ(statistics.frames, inspector.count);
        EXPECT_GT(statistics.malformedPackets, 0U);
        EXPECT_EQ(statistics.damagedFrames > 0, GetParam() != GDRV::MediaCodec::g711A);
    }
}

std::string nameOf(GDRV::MediaCodec codec)
{
    switch (codec) {
    case GDRV::MediaCodec::h264:
        return "H264";
    case GDRV::MediaCodec::h265:
        return "H265";
    case GDRV::MediaCodec::mjpeg:
        return "Mjpeg";
    case GDRV::MediaCodec::aac:
        return "Aac";
    default:
        return "G711";
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, HostileInput,
                         ::testing::Values(GDRV::MediaCodec::h264, GDRV::MediaCodec::h265, GDRV::MediaCodec::mjpeg,
                                           GDRV::MediaCodec::aac, GDRV::MediaCodec::g711A),
                         [](const auto& parameter) { return nameOf(parameter.param); });

TEST(ClockRate, isTheUsualOneWhereVideoNamesAnAbsurdOne)
{
    TrackFormat format = h264Format();
    for (const std::uint32_t rate : {0U, 1U, 999U, 27'000'001U, 0xffffffffU}) {
        format.clockRate = rate;
        EXPECT_EQ(clockRateOf(format), 90000U) << rate;
        EXPECT_EQ(refusalOf(format), nullptr) << rate;
    }
    for (const std::uint32_t rate : {1000U, 90000U, 27'000'000U}) {
        format.clockRate = rate;
        EXPECT_EQ(clockRateOf(format), rate);
    }
}

TEST(ClockRate, ofSoundIsRefusedWhereItIsImpossible)
{
    for (const auto codec : {GDRV::MediaCodec::g711U, GDRV::MediaCodec::g711A}) {
        TrackFormat format;
        format.codec = codec;
        format.payloadTypes = {0};
        for (const std::uint32_t rate : {0U, 1U, 8000U, 192000U}) {
            format.clockRate = rate;
            EXPECT_EQ(refusalOf(format), nullptr) << rate;
        }
        for (const std::uint32_t rate : {192001U, 0xffffffffU}) {
            format.clockRate = rate;
            EXPECT_STREQ(refusalOf(format), "the sound track names a clock rate above 192 kHz") << rate;
        }
    }
}

TEST(EndlessInput, keepsMemoryBounded)
{
    const struct {
        const char* what;
        Bytes begin;
        Bytes next;
    } cases[] = {
        {"fragments without end", hex("5c 85 88 84"), hex("5c 05") + Bytes(1400, 0xaa)},
        {"slices without marker", h264::keySlice, h264::laterKeySlice + Bytes(1400, 0xaa)},
        {"SEI without a picture", h264::sei, hex("06") + Bytes(1400, 0xaa)},
        {"a parameter set without end", hex("5c 87 42 c0"), hex("5c 07") + Bytes(1400, 0xaa)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        DepacketiserOptions options;
        options.maxFrameBytes = 512 * 1024;
        Bench bench(h264Format({h264::sps, h264::pps}), options);
        bench.push(c.begin, 1);
        for (int i = 0; i < 2000; ++i) {
            bench.push(c.next, 1);
            ASSERT_LE(bench.pool.usage().bytesOut, 640U * 1024);
        }
        EXPECT_EQ(bench.frames.size(), 0U);
        EXPECT_GE(bench.counters().oversizedFrames, 1U);
        bench.push(h264::slice, 2, true);  // ends the endless one, whatever it was
        bench.pushAll({h264::keySlice}, 3);
        bench.pushAll({h264::sps, h264::pps, h264::keySlice}, 4);
        EXPECT_EQ(bench.frames.back().data, annexB({h264::sps, h264::pps, h264::keySlice}));
    }
}

TEST(EndlessInput, ofPicturesAndTablesIsBounded)
{
    DepacketiserOptions options;
    options.maxFrameBytes = 256 * 1024;
    Bench bench(jpegFormat(), options);
    std::uint32_t offset = 0;
    for (int i = 0; i < 20000; ++i) {
        Bytes payload = hex("00 000000 01 32 02 01") + Bytes(1400, 0x11);
        for (int shift = 16, at = 1; shift >= 0; shift -= 8, ++at)
            payload[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(offset >> shift);
        offset += 1400;
        bench.push(payload, 1);
        ASSERT_LE(bench.pool.usage().bytesOut, 384U * 1024);
    }
    EXPECT_EQ(bench.frames.size(), 0U);
    EXPECT_GE(bench.counters().oversizedFrames, 1U);
    for (std::uint32_t q = 128; q < 256; ++q)  // a table for each there is, again and again
        bench.push(Bytes{0, 0, 0, 0, 1, static_cast<std::uint8_t>(q), 2, 1, 0, 3, 1, 0} + Bytes(256, 1) + hex("01"), q,
                   true);
    EXPECT_EQ(bench.frames.size(), 128U);
    EXPECT_EQ(bench.pool.usage().buffersOut, 0U);
}

TEST(EndlessInput, ofParameterSetsIsBounded)
{
    Bench bench(h264Format());
    std::mt19937 random(1);
    for (int i = 0; i < 5000; ++i) {
        Bytes pps = h264::pps + Bytes(1000, static_cast<std::uint8_t>(i));
        pps[1] = static_cast<std::uint8_t>(random());
        pps[2] = static_cast<std::uint8_t>(random());
        bench.push(pps, static_cast<std::uint32_t>(i));
    }
    bench.pushAll({h264::sps, h264::keySlice}, 9999);
    EXPECT_GT(bench.counters().malformed, 0U);
    EXPECT_LE(bench.pool.usage().bytesOut, 80U * 1024);
}
}  // namespace Tavro8::media

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
        if (!GDRV::isVideo(frame.codec))
            return;
        ASSERT_GE(frame.data.size(), 5U);
        EXPECT_EQ(toHex(frame.data.first(4)), "00 00 00 01 ");
        EXPECT_TRUE(mayBeDamaged || !frame.damaged);
        EXPECT_FALSE(frame.damaged && frame.keyFrame);
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

TrackFormat formatOf(GDRV::MediaCodec codec)
{
    TrackFormat format = codec == GDRV::MediaCodec::h265 ? h265Format({h265::vps, h265::sps, h265::pps})
                                                         : h264Format({h264::sps, h264::pps});
    format.codec = codec;
    format.channelCount = 2;  // sound in odd lengths is malformed then
    return format;
}

std::vector<Bytes> samplesOf(GDRV::MediaCodec codec)
{
    if (codec == GDRV::MediaCodec::h265) {
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
    for (const Bytes& payload : samplesOf(GetParam())) {
        const Bytes whole = Packet{.payload = payload, .marker = true}.bytes();
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
            Bytes payload = samples[pick(samples.size())];
            if (pick(4) == 0)
                payload[pick(payload.size())] = static_cast<std::uint8_t>(random());
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
            const Packet packet{.payload = std::move(payload),
                                .timestamp = timestamp,
                                .marker = pick(3) == 0,
                                .sequence = sequence,
                                .ssrc = pick(2000) == 0 ? 2U : 1U};
            receiver->onRtp(packet.bytes(), now);
            ASSERT_LE(pool->usage().buffersOut, 1U);
            ASSERT_LE(pool->usage().bytesOut, 32U * 1024);
        }
        EXPECT_GT(inspector.count, 100U);
        const auto statistics = receiver->statistics();
        EXPECT_EQ(statistics.frames, inspector.count);
        EXPECT_GT(statistics.malformedPackets, 0U);
        EXPECT_EQ(statistics.damagedFrames > 0, GDRV::isVideo(GetParam()));
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, HostileInput,
                         ::testing::Values(GDRV::MediaCodec::h264, GDRV::MediaCodec::h265, GDRV::MediaCodec::g711A),
                         [](const auto& parameter) {
                             return std::string(parameter.param == GDRV::MediaCodec::h264   ? "H264"
                                                : parameter.param == GDRV::MediaCodec::h265 ? "H265"
                                                                                            : "G711");
                         });

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

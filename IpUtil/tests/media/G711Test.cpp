#include "media/G711.h"

#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace Tavro8::media
{
using testkit::Bytes;

TEST(G711, decodesTheValuesOfTheRecommendation)
{
    // ITU-T G.711 tables 1a, 1b, 2a, 2b: decoder output values, times 4 (u-law) or 8 (A-law).
    const struct {
        std::uint8_t code;
        int uLaw;
    } uLaw[] = {{0x80, 8031 * 4},  {0x8f, 4191 * 4},  {0x9f, 2079 * 4}, {0xaf, 1023 * 4}, {0xbf, 495 * 4},
                {0xcf, 231 * 4},   {0xdf, 99 * 4},    {0xef, 33 * 4},   {0xfe, 2 * 4},    {0xff, 0},
                {0x00, -8031 * 4}, {0x0f, -4191 * 4}, {0x6f, -33 * 4},  {0x7e, -2 * 4},   {0x7f, 0}};
    for (const auto& c : uLaw)
        EXPECT_EQ(g711::decodeULaw(c.code), c.uLaw) << int{c.code};
    const struct {
        std::uint8_t code;
        int aLaw;
    } aLaw[] = {{0xff ^ 0x55, 4032 * 8},  {0xf0 ^ 0x55, 2112 * 8}, {0xe0 ^ 0x55, 1056 * 8}, {0xd0 ^ 0x55, 528 * 8},
                {0xc0 ^ 0x55, 264 * 8},   {0xb0 ^ 0x55, 132 * 8},  {0xa0 ^ 0x55, 66 * 8},   {0x80 ^ 0x55, 1 * 8},
                {0x7f ^ 0x55, -4032 * 8}, {0x00 ^ 0x55, -1 * 8}};
    for (const auto& c : aLaw)
        EXPECT_EQ(g711::decodeALaw(c.code), c.aLaw) << int{c.code};
}

TEST(G711, hasTheMilliwattSequenceOfTheRecommendation)
{
    // One period of 1 kHz at the nominal level (ITU-T G.711 tables 5 and 6): symmetric about zero.
    const std::uint8_t aLaw[] = {0x34, 0x21, 0x21, 0x34, 0xb4, 0xa1, 0xa1, 0xb4};
    const std::uint8_t uLaw[] = {0x1e, 0x0b, 0x0b, 0x1e, 0x9e, 0x8b, 0x8b, 0x9e};
    std::int16_t samples[8];
    g711::decodeALaw(aLaw, samples);
    const int expectedA[] = {-8960, -20992, -20992, -8960, 8960, 20992, 20992, 8960};
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(samples[i], expectedA[i]);
    std::uint8_t codes[8];
    g711::encodeALaw(samples, codes);
    EXPECT_TRUE(std::ranges::equal(codes, aLaw));
    g711::decodeULaw(uLaw, samples);
    const int expectedU[] = {-8828, -20860, -20860, -8828, 8828, 20860, 20860, 8828};
    for (std::size_t i = 0; i < 8; ++i)
        EXPECT_EQ(samples[i], expectedU[i]);
    g711::encodeULaw(samples, codes);
    EXPECT_TRUE(std::ranges::equal(codes, uLaw));
}

TEST(G711, encodesEachCodeBackToItself)
{
    for (int code = 0; code < 256; ++code) {
        const auto byte = static_cast<std::uint8_t>(code);
        EXPECT_EQ(g711::encodeALaw(g711::decodeALaw(byte)), byte);
        if (byte != 0x7f) {  // negative zero; zero is encoded as positive
            EXPECT_EQ(g711::encodeULaw(g711::decodeULaw(byte)), byte);
        }
    }
    EXPECT_EQ(g711::encodeULaw(0), 0xff);
    EXPECT_EQ(g711::encodeALaw(0), 0xd5);
}

TEST(G711, choosesANearestValueForEverySample)
{
    for (int sample = -32768; sample <= 32767; ++sample) {
        const auto linear = static_cast<std::int16_t>(sample);
        const int magnitude = std::abs(sample);
        const int u = g711::decodeULaw(g711::encodeULaw(linear));
        const int a = g711::decodeALaw(g711::encodeALaw(linear));
        if (magnitude <= 32635) {
            ASSERT_LE(std::abs(u - sample), std::max(4, magnitude / 16 / 2 + 8)) << sample;
        }
        ASSERT_LE(std::abs(a - sample), std::max(8, magnitude / 16)) << sample;
    }
    EXPECT_EQ(g711::encodeULaw(32767), 0x80);
    EXPECT_EQ(g711::encodeULaw(-32768), 0x00);
    EXPECT_EQ(g711::encodeALaw(32767), 0xaa);
    EXPECT_EQ(g711::encodeALaw(-32768), 0x2a);
}

TEST(G711, convertsAsMuchAsBothSpansHave)
{
    const std::int16_t samples[] = {0, 1000, -1000};
    std::uint8_t codes[2] = {};
    g711::encodeULaw(samples, codes);
    EXPECT_EQ(codes[0], 0xff);
    EXPECT_EQ(codes[1], g711::encodeULaw(1000));
}

TEST(G711Depacketiser, makesAFrameOfEachPacket)
{
    TrackFormat format;
    format.codec = GDRV::MediaCodec::g711U;
    format.payloadTypes = {0};
    testkit::Bench bench(format);
    ASSERT_TRUE(bench.depacketiser);
    const struct {
        std::size_t bytes;
        std::uint32_t milliseconds;
    } cases[] = {{160, 20}, {240, 30}, {320, 40}, {400, 50}, {480, 60}, {560, 70}};
    std::uint32_t timestamp = 0xfffffff0;
    for (const auto& c : cases) {
        Bytes payload(c.bytes);
        for (std::size_t i = 0; i < payload.size(); ++i)
            payload[i] = static_cast<std::uint8_t>(i * 7);
        bench.push(payload, timestamp);
        const testkit::Frame& frame = bench.frames.back();
        EXPECT_EQ(frame.data, payload);
        EXPECT_EQ(frame.info.codec, GDRV::MediaCodec::g711U);
        EXPECT_EQ(frame.info.sampleCount, c.bytes);
        EXPECT_EQ(frame.info.durationMs, c.milliseconds);
        EXPECT_EQ(frame.info.sampleRate, 8000U);
        EXPECT_EQ(frame.info.channelCount, 1U);
        EXPECT_TRUE(frame.info.keyFrame);
        EXPECT_FALSE(frame.info.lostPacketsBefore);
        EXPECT_EQ(frame.rtpTimestamp, timestamp);
        timestamp += static_cast<std::uint32_t>(c.bytes);
    }
    EXPECT_EQ(bench.frames.size(), std::size(cases));
}

TEST(G711Depacketiser, tellsOfLossAndChannels)
{
    TrackFormat format;
    format.codec = GDRV::MediaCodec::g711A;
    format.payloadTypes = {97};
    format.clockRate = 16000;
    format.channelCount = 2;
    testkit::Bench bench(format);
    bench.push(Bytes(640, 0xd5), 0);
    bench.push(Bytes(641, 0xd5), 320);  // half a sample
    bench.push({}, 640, false, true);   // nothing in it, but something was lost
    bench.push(Bytes(640, 0xd5), 640);
    bench.push(Bytes(640, 0xd5), 960);
    bench.depacketiser->reset();
    bench.push(Bytes(640, 0xd5), 5);
    ASSERT_EQ(bench.frames.size(), 4U);
    EXPECT_EQ(bench.frames[0].info.codec, GDRV::MediaCodec::g711A);
    EXPECT_EQ(bench.frames[0].info.sampleCount, 320U);
    EXPECT_EQ(bench.frames[0].info.sampleRate, 16000U);
    EXPECT_EQ(bench.frames[0].info.channelCount, 2U);
    EXPECT_EQ(bench.frames[0].info.durationMs, 20U);
    EXPECT_FALSE(bench.frames[0].info.lostPacketsBefore);
    EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
    EXPECT_FALSE(bench.frames[2].info.lostPacketsBefore);
    EXPECT_TRUE(bench.frames[3].info.lostPacketsBefore);
    EXPECT_EQ(bench.counters().malformed, 1U);
}
}  // namespace Tavro8::media

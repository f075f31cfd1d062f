#include "media/AacDepacketiser.h"

#include "MediaTestKit.h"

#include <gtest/gtest.h>

namespace Tavro8::media
{
using namespace testkit;

namespace
{
const Bytes lc16kMono = hex("1408");
const Bytes lc48kStereo = hex("1190");

/// AU-headers of AAC-hbr (13 bits size, 3 bits index), their length in front.
Bytes headers(std::initializer_list<std::size_t> sizes)
{
    Bytes bytes{0, static_cast<std::uint8_t>(16 * sizes.size())};
    for (const std::size_t size : sizes)
        bytes = std::move(bytes) + Bytes{static_cast<std::uint8_t>(size >> 5), static_cast<std::uint8_t>(size << 3)};
    return bytes;
}

const Bytes one = hex("01 02 03 04 05");
const Bytes two = hex("11 12 13");
const Bytes three = hex("21 22 23 24");

TrackFormat withParameters(std::vector<std::pair<std::string, std::string>> parameters)
{
    TrackFormat format = aacFormat(lc16kMono, 16000, "generic");
    for (auto& parameter : parameters)
        format.formatParameters.push_back(std::move(parameter));
    return format;
}
}  // namespace

TEST(AacConfig, isReadInAllItsForms)
{
    const struct {
        const char* what;
        Bytes config;
        AacConfig expected;
    } cases[] = {
        {"LC, 16 kHz, mono", hex("1408"), {16000, 1, 1024}},
        {"LC, 48 kHz, stereo", hex("1190"), {48000, 2, 1024}},
        {"LC, 8 kHz, 5.1", hex("15b0"), {8000, 6, 1024}},
        {"LC, 7.1", hex("11b8"), {48000, 8, 1024}},
        {"LC, frames of 960", hex("1194"), {48000, 2, 960}},
        {"LC, rate of its own: 22000", hex("17 80 2a f8 08"), {22000, 1, 1024}},
        {"band replication first: 24 kHz coded, 48 kHz put out", hex("2b11 8800"), {48000, 2, 2048}},
        {"band replication behind: 24 kHz coded, 48 kHz put out", hex("1310 56e5 98"), {48000, 2, 2048}},
        {"behind it: none", hex("1310 56e5 00"), {24000, 2, 1024}},
        {"parametric stereo: mono coded", hex("eb09 8800"), {48000, 2, 2048}},
        {"parametric stereo behind", hex("1308 56e5 9d48 80"), {48000, 2, 2048}},
        {"low delay", hex("b988 00"), {48000, 1, 512}},
        {"channels by their elements: one pair", hex("1180 04c4 0000 20"), {48000, 2, 1024}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto config = readAacConfig(c.config);
        ASSERT_TRUE(config);
        EXPECT_EQ(config->sampleRate, c.expected.sampleRate);
        EXPECT_EQ(config->channelCount, c.expected.channelCount);
        EXPECT_EQ(config->samplesPerUnit, c.expected.samplesPerUnit);
    }
}

TEST(AacConfig, refusesWhatSaysNothing)
{
    for (const Bytes& config : {Bytes{}, hex("14"), hex("1680"), hex("17 ff ff ff 88"), hex("17 80 00 00 08"),
                                hex("1440"), hex("1400"), hex("ff"), hex("2b"), hex("2b 19")}) {
        SCOPED_TRACE(toHex(config));
        EXPECT_FALSE(readAacConfig(config));
    }
}

TEST(AacConfig, isMadeWhereTheDeviceTellsNone)
{
    for (const std::uint32_t rate : {8000U, 16000U, 44100U, 48000U, 22000U, 96000U}) {
        for (const std::uint32_t channels : {1U, 2U, 6U, 8U}) {
            SCOPED_TRACE(::testing::Message() << rate << ' ' << channels);
            const auto config = readAacConfig(makeAacConfig(rate, channels));
            ASSERT_TRUE(config);
            EXPECT_EQ(config->sampleRate, rate);
            EXPECT_EQ(config->channelCount, channels);
        }
    }
    EXPECT_EQ(makeAacConfig(16000, 1), lc16kMono);
    EXPECT_EQ(makeAacConfig(48000, 2), lc48kStereo);
    EXPECT_TRUE(makeAacConfig(16000, 7).empty());
    EXPECT_TRUE(makeAacConfig(16000, 0).empty());
    EXPECT_TRUE(readAacConfig(makeAacConfig(192000, 1)));
    for (const std::uint32_t rate : {0U, 192001U, 300000U, 0x1000000U, 0x1003e80U, 0xffffffffU})
        EXPECT_TRUE(makeAacConfig(rate, 1).empty()) << rate;
}

TEST(AacDepacketiser, isMadeForWhatItUnderstands)
{
    EXPECT_EQ(refusalOf(aacFormat(lc16kMono, 16000)), nullptr);
    EXPECT_EQ(refusalOf(aacFormat(lc16kMono, 16000, "aac-HBR")), nullptr);
    EXPECT_EQ(refusalOf(aacFormat(lc16kMono, 16000, "AAC-lbr")), nullptr);
    EXPECT_EQ(refusalOf(aacFormat({}, 16000)), nullptr) << "rate and channels will do";
    TrackFormat format = aacFormat({}, 16000);
    format.channelCount = 7;
    EXPECT_STREQ(refusalOf(format),
                 "the AAC track names neither a configuration nor a usable rate and number of channels");
    EXPECT_STREQ(refusalOf(aacFormat(lc16kMono, 16000, "CELP-cbr")),
                 "the mode of the mpeg4-generic track is not one of AAC");
    EXPECT_STREQ(refusalOf(withParameters({{"sizelength", "33"}})),
                 "the AAC track describes header fields of more than 32 bits");
    EXPECT_STREQ(refusalOf(withParameters({{"sizelength", "13"}, {"maxdisplacement", "5"}})),
                 "AAC in interleaved packets (maxDisplacement) is not supported");
}

TEST(AacDepacketiser, isNotMadeForAnImpossibleRate)
{
    for (const std::uint32_t rate : {192001U, 300000U, 0x1000000U, 0x1003e80U, 0xffffffffU}) {
        for (const Bytes& config : {Bytes{}, lc16kMono, hex("17 ff ff ff 88")}) {
            SCOPED_TRACE(::testing::Message() << rate << ' ' << toHex(config));
            Bench bench(aacFormat(config, rate));
            EXPECT_EQ(bench.depacketiser, nullptr);
            EXPECT_STREQ(refusalOf(aacFormat(config, rate)), "the sound track names a clock rate above 192 kHz");
            if (bench.depacketiser != nullptr)
                bench.push(headers({5}) + one, 0, true);
        }
    }
}

TEST(AacDepacketiser, goesByTheUsualRateWhereNoneIsNamed)
{
    Bench bench(aacFormat({}, 0));
    bench.push(headers({5}) + one, 0, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(bench.frames[0].info.sampleRate, 8000U);
    EXPECT_EQ(bench.frames[0].info.durationMs, 128U);
}

TEST(AacDepacketiser, handsOutOneUnit)
{
    Bench bench(aacFormat(lc16kMono, 16000));
    bench.push(headers({5}) + one, 100, true);
    bench.push(headers({3}) + two, 1124, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    const Frame& frame = bench.frames[0];
    EXPECT_EQ(frame.data, one);
    EXPECT_EQ(frame.parameterSets, lc16kMono);
    EXPECT_EQ(frame.rtpTimestamp, 100U);
    EXPECT_EQ(frame.info.codec, GDRV::MediaCodec::aac);
    EXPECT_TRUE(frame.info.keyFrame);
    EXPECT_FALSE(frame.info.lostPacketsBefore);
    EXPECT_EQ(frame.info.sampleRate, 16000U);
    EXPECT_EQ(frame.info.channelCount, 1U);
    EXPECT_EQ(frame.info.sampleCount, 1024U);
    EXPECT_EQ(frame.info.durationMs, 64U);
    EXPECT_EQ(bench.frames[1].data, two);
    EXPECT_TRUE(bench.frames[1].parameterSets.empty()) << "they have not changed";
    EXPECT_EQ(bench.counters().malformed, 0U);
}

TEST(AacDepacketiser, keepsTheConfigurationInTheMemoryOfTheFrame)
{
    struct Keeper final : AccessUnitSink {
        void onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t) override { kept.emplace_back(frame); }
        std::vector<GDRV::FrameReference> kept;
    } keeper;
    auto pool = std::make_unique<FramePool>();
    auto depacketiser = makeDepacketiser(aacFormat(lc16kMono, 16000), *pool, keeper);
    depacketiser->push(Packet{.payload = headers({5}) + one, .marker = true}.view(), false);
    depacketiser.reset();
    pool.reset();
    ASSERT_EQ(keeper.kept.size(), 1U);
    const auto& frame = *keeper.kept[0];
    EXPECT_EQ(Bytes(frame.parameterSets.begin(), frame.parameterSets.end()), lc16kMono);
    EXPECT_EQ(Bytes(frame.data.begin(), frame.data.end()), one);
}

TEST(AacDepacketiser, timesTheUnitsOfAPacketOneAfterTheOther)
{
    const struct {
        const char* what;
        Bytes config;
        std::uint32_t clockRate;
        std::uint32_t step;
    } cases[] = {
        {"1024 samples", lc16kMono, 16000, 1024},
        {"960 samples", hex("1194"), 48000, 960},
        {"doubled rate", hex("2b11 8800"), 48000, 2048},
        {"doubled rate, clock of the core", hex("2b11 8800"), 24000, 1024},
        {"video clock", lc16kMono, 90000, 5760},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(aacFormat(c.config, c.clockRate));
        bench.push(headers({5, 3, 4}) + one + two + three, 0xffffff00, true);
        ASSERT_EQ(bench.frames.size(), 3U);
        EXPECT_EQ(bench.frames[0].data, one);
        EXPECT_EQ(bench.frames[1].data, two);
        EXPECT_EQ(bench.frames[2].data, three);
        for (std::uint32_t i = 0; i < 3; ++i)
            EXPECT_EQ(bench.frames[i].rtpTimestamp, 0xffffff00U + i * c.step);
        EXPECT_FALSE(bench.frames[0].parameterSets.empty());
        EXPECT_TRUE(bench.frames[2].parameterSets.empty());
    }
}

TEST(AacDepacketiser, readsEveryLayoutOfHeaders)
{
    const struct {
        const char* what;
        std::vector<std::pair<std::string, std::string>> parameters;
        Bytes payload;
        std::vector<Bytes> units;
    } cases[] = {
        // 6 bits size, 2 bits index
        {"low rate",
         {{"sizelength", "6"}, {"indexlength", "2"}, {"indexdeltalength", "2"}},
         hex("0010 14 0c") + one + two,
         {one, two}},
        {"quoted, with blanks",
         {{"sizelength", " \"6\" "}, {"indexlength", "2"}, {"indexdeltalength", "2"}},
         hex("0008 14") + one,
         {one}},
        {"sizes alone", {{"sizelength", "16"}}, hex("0020 0005 0003") + one + two, {one, two}},
        // 8 size, 1 index: 9 bits, then 8 size, 4 delta: 12 bits -> 21 bits and padding
        {"index and delta of different widths",
         {{"sizelength", "8"}, {"indexlength", "1"}, {"indexdeltalength", "4"}},
         hex("0015 05 01 80") + one + two,
         {one, two}},
        // 8 size, CTS flag 1 with 8 bits, DTS flag 0, RAP 1, 4 bits state: 8+1+8+1+1+4 = 23 bits
        {"every field there is",
         {{"sizelength", "8"},
          {"ctsdeltalength", "8"},
          {"dtsdeltalength", "8"},
          {"randomaccessindication", "1"},
          {"streamstateindication", "4"}},
         hex("0017 05 d5 3e") + one,
         {one}},
        {"auxiliary data",
         {{"sizelength", "8"}, {"auxiliarydatasizelength", "8"}},
         hex("0008 05 0c aaaa") + one,
         {one}},
        {"constant size without headers", {{"constantsize", "5"}}, one + one, {one, one}},
        {"constant size with indexes",
         {{"constantsize", "5"}, {"indexlength", "4"}, {"indexdeltalength", "4"}},
         hex("0008 00") + one + one,
         {one, one}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(withParameters(c.parameters));
        ASSERT_NE(bench.depacketiser, nullptr);
        bench.push(c.payload, 0, true);
        ASSERT_EQ(bench.frames.size(), c.units.size());
        for (std::size_t i = 0; i < c.units.size(); ++i) {
            EXPECT_EQ(toHex(bench.frames[i].data), toHex(c.units[i]));
            EXPECT_EQ(bench.frames[i].rtpTimestamp, 1024 * i);
        }
        EXPECT_EQ(bench.counters().malformed, 0U);
    }
}

TEST(AacDepacketiser, joinsFragments)
{
    for (const bool marked : {true, false}) {
        SCOPED_TRACE(marked);
        Bench bench(aacFormat(lc48kStereo, 48000));
        for (std::uint32_t unit = 0; unit < 3; ++unit) {
            bench.push(headers({5}) + part(one, 0, 2), unit * 1024);
            bench.push(headers({5}) + part(one, 2, 2), unit * 1024);
            bench.push(headers({5}) + part(one, 4, 1), unit * 1024, marked);
        }
        ASSERT_EQ(bench.frames.size(), 3U);
        for (std::uint32_t unit = 0; unit < 3; ++unit) {
            EXPECT_EQ(bench.frames[unit].data, one);
            EXPECT_EQ(bench.frames[unit].rtpTimestamp, unit * 1024);
        }
        EXPECT_EQ(bench.frames[0].parameterSets, lc48kStereo);
        EXPECT_EQ(bench.counters().malformed, 0U);
    }
}

TEST(AacDepacketiser, dropsAUnitOfWhichAFragmentIsMissing)
{
    for (std::size_t lost = 0; lost < 3; ++lost) {
        SCOPED_TRACE(lost);
        Bench bench(aacFormat(lc16kMono, 16000));
        bench.push(headers({3}) + two, 0, true);
        const std::vector<Bytes> fragments{part(one, 0, 2), part(one, 2, 2), part(one, 4, 1)};
        for (std::size_t i = 0; i < 3; ++i) {
            if (i != lost)
                bench.push(headers({5}) + fragments[i], 1024, i == 2, i == lost + 1);
        }
        bench.push(headers({4}) + three, 2048, true, lost == 2);
        bench.push(headers({3}) + two, 3072, true);
        ASSERT_EQ(bench.frames.size(), 3U);
        EXPECT_EQ(bench.frames[1].data, three);
        EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
        EXPECT_FALSE(bench.frames[2].info.lostPacketsBefore);
        EXPECT_EQ(bench.counters().malformed, 0U) << "loss is no fault of the format";
        EXPECT_GE(bench.counters().damagedFrames, 1U);
    }
}

TEST(AacDepacketiser, endsUnitsWithoutSizeAtMarkerOrTimestamp)
{
    Bench bench(withParameters({}));
    bench.push(part(one, 3, 2), 0, true);  // joined in the middle, for all we know
    bench.push(part(one, 0, 3), 1024);
    bench.push(part(one, 3, 2), 1024, true);
    bench.push(two, 2048);
    bench.push(three, 3072);
    bench.depacketiser->flush();
    ASSERT_EQ(bench.frames.size(), 3U);
    EXPECT_EQ(bench.frames[0].data, one);
    EXPECT_EQ(bench.frames[1].data, two);
    EXPECT_EQ(bench.frames[1].rtpTimestamp, 2048U);
    EXPECT_EQ(bench.frames[2].data, three);

    bench.push(part(one, 0, 3), 4096);
    bench.push(part(one, 4, 1), 4096, true, true);
    bench.push(two, 5120, true);
    ASSERT_EQ(bench.frames.size(), 4U);
    EXPECT_EQ(bench.frames[3].data, two);
    EXPECT_TRUE(bench.frames[3].info.lostPacketsBefore);
}

TEST(AacDepacketiser, refusesPacketsAgainstTheFormat)
{
    const struct {
        const char* what;
        Bytes payload;
        std::size_t units;  // in front of the break
    } cases[] = {
        {"half a length", hex("00"), 0},
        {"no headers", hex("0000 01 02"), 0},
        {"headers beyond the end", hex("0020 0028 00"), 0},
        {"a header cut off", hex("0008 00") + one, 0},
        {"a second unit beyond the end", headers({5, 3}) + one + hex("11"), 1},
        {"the longest headers", hex("ffff 0028") + one, 0},
        {"bytes left over", headers({3}) + one, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(aacFormat(lc16kMono, 16000));
        bench.push(c.payload, 0, true);
        EXPECT_EQ(bench.frames.size(), c.units);
        EXPECT_EQ(bench.counters().malformed, 1U);
        bench.push(headers({5}) + one, 1024, true);
        ASSERT_EQ(bench.frames.size(), c.units + 1);
        EXPECT_EQ(bench.frames.back().data, one);
    }
}

TEST(AacDepacketiser, handsOutABoundedNumberOfUnitsOfAPacket)
{
    const struct {
        const char* what;
        std::vector<std::pair<std::string, std::string>> parameters;
        bool hasHeaders;  // of 8 bits, each
    } cases[] = {
        {"with headers", {{"sizelength", "8"}}, true},
        {"of one size", {{"constantsize", "1"}}, false},
    };
    const auto packetOf = [](std::size_t units, bool hasHeaders) {
        const std::size_t bits = units * 8;
        const Bytes head{static_cast<std::uint8_t>(bits >> 8), static_cast<std::uint8_t>(bits)};
        return hasHeaders ? head + Bytes(units, 1) + Bytes(units, 0x55) : Bytes(units, 0x55);
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(withParameters(c.parameters));
        bench.push(packetOf(maxUnitsPerPacket, c.hasHeaders), 0, true);
        EXPECT_EQ(bench.frames.size(), maxUnitsPerPacket);
        EXPECT_EQ(bench.counters().malformed, 0U);
        bench.push(packetOf(maxUnitsPerPacket + 1, c.hasHeaders), 1 << 20, true);
        EXPECT_LE(bench.frames.size(), 2 * maxUnitsPerPacket);
        EXPECT_EQ(bench.counters().malformed, 1U);
        const std::size_t before = bench.frames.size();
        bench.push(packetOf(1, c.hasHeaders), 2 << 20, true);
        ASSERT_EQ(bench.frames.size(), before + 1);
        EXPECT_TRUE(bench.frames.back().info.lostPacketsBefore);
    }
}

TEST(AacDepacketiser, noticesFragmentsThatDoNotFit)
{
    const struct {
        const char* what;
        std::vector<Bytes> payloads;
    } cases[] = {
        {"too much", {headers({5}) + part(one, 0, 3), headers({5}) + part(one, 0, 3)}},
        {"another size", {headers({5}) + part(one, 0, 3), headers({6}) + part(one, 3, 2)}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(aacFormat(lc16kMono, 16000));
        bench.pushAll(c.payloads, 0);
        EXPECT_EQ(bench.frames.size(), 0U);
        EXPECT_EQ(bench.counters().malformed, 1U);
        bench.push(headers({5}) + one, 1024, true);
        ASSERT_EQ(bench.frames.size(), 1U);
    }
    // A whole unit in the middle of a fragmented one.
    Bench bench(aacFormat(lc16kMono, 16000));
    bench.push(headers({5}) + part(one, 0, 3), 0);
    bench.push(headers({3}) + two, 0, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(bench.frames[0].data, two);
    EXPECT_EQ(bench.counters().damagedFrames, 1U);
}

TEST(AacDepacketiser, givesUpUnitsBeyondTheLimit)
{
    DepacketiserOptions options;
    options.maxFrameBytes = 100;
    Bench bench(aacFormat(lc16kMono, 16000), options);
    bench.push(headers({200}) + Bytes(50, 1), 0);
    bench.push(headers({200}) + Bytes(150, 1), 0, true);
    EXPECT_EQ(bench.frames.size(), 0U);
    EXPECT_EQ(bench.counters().oversizedFrames, 2U);
    EXPECT_EQ(bench.pool.usage().buffersOut, 0U);
    bench.push(headers({100}) + Bytes(100, 1), 1024, true);
    EXPECT_EQ(bench.frames.size(), 1U);

    Bench unsized(withParameters({}), options);
    unsized.push(two, 0, true);
    for (int i = 0; i < 100; ++i)
        unsized.push(Bytes(60, 1), 1);
    EXPECT_EQ(unsized.frames.size(), 0U);
    EXPECT_GT(unsized.counters().oversizedFrames, 0U);
}

TEST(AacDepacketiser, startsAfreshAfterAReset)
{
    Bench bench(aacFormat(lc16kMono, 16000));
    bench.push(headers({5}) + part(one, 0, 3), 0);
    bench.depacketiser->reset();
    bench.push(headers({5}) + part(one, 3, 2), 0, true);
    bench.push(headers({3}) + two, 1024, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(bench.frames[0].data, two);
    EXPECT_TRUE(bench.frames[0].info.lostPacketsBefore);
}

/// A recorded stream and what its encoder wrote.
struct RecordedSound {
    const char* packets;
    const char* units;
    Bytes config;
    std::uint32_t rate;
    std::uint32_t channels;
    std::size_t count;  // of units that were packed
};

class RecordedAac : public ::testing::TestWithParam<RecordedSound> {};

TEST_P(RecordedAac, comesOutAsItWasEncoded)
{
    const auto& recorded = GetParam();
    const auto units = readAdts(std::string(recorded.units) + ".adts");
    ASSERT_GE(units.size(), recorded.count);
    Bench bench(aacFormat(recorded.config, recorded.rate));
    for (const Bytes& bytes : readPackets(std::string(recorded.packets) + ".rtp")) {
        RtpPacket packet;
        ASSERT_EQ(parseRtpPacket(bytes, packet), RtpFault::none);
        bench.depacketiser->push(packet, false);
    }
    ASSERT_EQ(bench.frames.size(), recorded.count);
    for (std::size_t i = 0; i < recorded.count; ++i) {
        SCOPED_TRACE(i);
        const Frame& frame = bench.frames[i];
        EXPECT_EQ(toHex(frame.data), toHex(units[i]));
        EXPECT_EQ(frame.info.sampleRate, recorded.rate);
        EXPECT_EQ(frame.info.channelCount, recorded.channels);
        EXPECT_EQ(frame.parameterSets, i == 0 ? recorded.config : Bytes{});
        // The payloader rounds times to nanoseconds first.
        EXPECT_NEAR(frame.rtpTimestamp - bench.frames[0].rtpTimestamp, 1024.0 * static_cast<double>(i), 1);
    }
    EXPECT_EQ(bench.counters().malformed, 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Streams, RecordedAac,
    ::testing::Values(RecordedSound{"aac_16k_mono", "aac_16k_mono", lc16kMono, 16000, 1, 12},
                      RecordedSound{"aac_16k_mono_several_a_packet", "aac_16k_mono", lc16kMono, 16000, 1, 10},
                      RecordedSound{"aac_48k_stereo_fragments", "aac_48k_stereo_fragments", lc48kStereo, 48000, 2, 12}),
    [](const auto& parameter) { return std::string(parameter.param.packets); });
}  // namespace Tavro8::media

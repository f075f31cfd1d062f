#include <IpUtil/AudioFilters.h>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

namespace
{
using namespace Tavro8::Utility;
using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<std::int16_t>;

Bytes bytesOf(std::span<const std::uint8_t> view)
{
    return {view.begin(), view.end()};
}

/// 0, 1, 2, ...
Bytes counted(std::size_t size)
{
    Bytes bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0});
    return bytes;
}

/// The end of a list of filters.
struct Collector {
    std::vector<Bytes>* pieces;
    void process(std::span<const std::uint8_t> piece) { pieces->push_back(bytesOf(piece)); }
};

TEST(TimeStamp, isTheSamePointOnAnotherClock)
{
    const struct {
        TimeStamp time;
        std::uint32_t wanted;
        std::uint64_t ticks;
    } cases[] = {
        {{0, 8000}, 8000, 0},
        {{160, 8000}, 8000, 160},
        {{160, 8000}, 90000, 1800},
        {{1, 3}, 8000, 2666},  // rounded down
        {{44100, 44100}, 1, 1},
        {{5, 0}, 8000, 0},  // a clock that stands still
        {{0xFFFF'FFFF'FFFF, 8000}, 8000, 0xFFFF'FFFF'FFFF},
        {{0xFFFF'FFFF'FFFF'0000, 1'000'000'000}, 8000, 147'573'952'589'675},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.time.toFrequency(c.wanted), c.ticks) << c.time.ticks << '/' << c.time.frequency;
}

TEST(PCMTimeStampGenerator, givesTheTimeOfTheNextSample)
{
    PCMTimeStampGenerator generator(8000, 8000);
    EXPECT_EQ(generator.inc(160).toFrequency(8000), 0U);
    EXPECT_EQ(generator.inc(160).toFrequency(8000), 160U);
    EXPECT_EQ(generator.inc(0).toFrequency(8000), 320U);
    EXPECT_EQ(generator.inc(1).toFrequency(8000), 320U);
}

TEST(PCMTimeStampGenerator, countsOnAClockOfItsOwn)
{
    PCMTimeStampGenerator generator(90000, 8000);
    generator.inc(160);
    const TimeStamp second = generator.inc(160);
    EXPECT_EQ(second.frequency, 90000U);
    EXPECT_EQ(second.ticks, 1800U);
}

TEST(PcmPacketizingFilter, cutsWhateverComesIntoPacketsOfOneSize)
{
    const Bytes sound = counted(500);
    for (std::size_t piece = 1; piece <= sound.size(); ++piece) {
        SCOPED_TRACE(piece);
        PcmPacketizingFilter filter;
        filter.setPacketSize(160);
        Bytes out;
        for (std::size_t at = 0; at < sound.size(); at += piece) {
            filter.process(std::span(sound).subspan(at, std::min(piece, sound.size() - at)));
            for (auto packet = filter.consume(); !packet.empty(); packet = filter.consume()) {
                ASSERT_EQ(packet.size(), 160U);
                out.insert(out.end(), packet.begin(), packet.end());
            }
        }
        ASSERT_EQ(out, Bytes(sound.begin(), sound.begin() + 480));
    }
}

TEST(PcmPacketizingFilter, keepsWhatNobodyHasTaken)
{
    PcmPacketizingFilter filter;
    filter.setPacketSize(2);
    filter.process(Bytes{1, 2, 3});
    filter.process(Bytes{4, 5});
    EXPECT_EQ(bytesOf(filter.consume()), (Bytes{1, 2}));
    EXPECT_EQ(bytesOf(filter.consume()), (Bytes{3, 4}));
    EXPECT_TRUE(filter.consume().empty());
    EXPECT_TRUE(filter.consume().empty());
}

TEST(PcmPacketizingFilter, withoutASizePassesEachPieceOn)
{
    PcmPacketizingFilter filter;
    filter.process(Bytes{1, 2, 3});
    EXPECT_EQ(bytesOf(filter.consume()), (Bytes{1, 2, 3}));
    EXPECT_TRUE(filter.consume().empty());
    filter.process({});
    EXPECT_TRUE(filter.consume().empty());
}

TEST(G711EncodingFilter, convertsToTheLawThatIsSet)
{
    // The milliwatt sequence of ITU-T G.711, tables 5 and 6.
    const struct {
        G711Law law;
        Samples samples;
        Bytes codes;
    } cases[] = {
        {G711Law::uLaw,
         {-8828, -20860, -20860, -8828, 8828, 20860, 20860, 8828},
         {0x1e, 0x0b, 0x0b, 0x1e, 0x9e, 0x8b, 0x8b, 0x9e}},
        {G711Law::aLaw,
         {-8960, -20992, -20992, -8960, 8960, 20992, 20992, 8960},
         {0x34, 0x21, 0x21, 0x34, 0xb4, 0xa1, 0xa1, 0xb4}},
        {G711Law::uLaw, {0, 32767, -32768}, {0xff, 0x80, 0x00}},
        {G711Law::aLaw, {0, 32767, -32768}, {0xd5, 0xaa, 0x2a}},
    };
    for (const auto& c : cases) {
        G711EncodingFilter filter;
        EXPECT_TRUE(filter.consume().empty());
        filter.setLaw(c.law);
        filter.process(c.samples);
        EXPECT_EQ(bytesOf(filter.consume()), c.codes);
        EXPECT_TRUE(filter.consume().empty());
    }
}

TEST(StreamFilterList, sendsEachPieceThroughAllFilters)
{
    std::vector<Bytes> pieces;
    StreamFilterList<G711EncodingFilter, PcmPacketizingFilter, Collector> list(
        G711EncodingFilter{}, PcmPacketizingFilter{}, Collector{&pieces});
    list.get<PcmPacketizingFilter>().setPacketSize(3);
    list.process(std::span<const std::int16_t>(Samples(2, 0)));
    EXPECT_TRUE(pieces.empty());
    list.get<G711EncodingFilter>().setLaw(G711Law::aLaw);
    list.process(std::span<const std::int16_t>(Samples(5, 0)));
    EXPECT_EQ(pieces, (std::vector<Bytes>{{0xff, 0xff, 0xd5}, {0xd5, 0xd5, 0xd5}}));
}
}  // namespace

#include "media/ParameterSets.h"

#include "media/BitReader.h"
#include "media/H264.h"
#include "media/H265.h"

#include "MediaTestKit.h"

#include <gtest/gtest.h>

namespace Tavro8::media
{
using testkit::Bytes;
using testkit::hex;

namespace
{
/// Writes a NAL unit bit by bit, with emulation prevention.
class BitWriter {
public:
    explicit BitWriter(Bytes nalHeader) : header(std::move(nalHeader)) {}

    BitWriter& bits(std::uint64_t value, unsigned count)
    {
        for (unsigned i = count; i > 0; --i)
            stream.push_back(((value >> (i - 1)) & 1U) != 0);
        return *this;
    }
    BitWriter& ue(std::uint32_t value)
    {
        unsigned length = 0;
        while (((std::uint64_t{value} + 1) >> (length + 1)) != 0)
            ++length;
        return bits(0, length).bits(std::uint64_t{value} + 1, length + 1);
    }
    BitWriter& se(std::int32_t value) { return ue(static_cast<std::uint32_t>(value > 0 ? 2 * value - 1 : -2 * value)); }
    Bytes nal() const
    {
        std::vector<bool> padded = stream;
        padded.push_back(true);
        while (padded.size() % 8 != 0)
            padded.push_back(false);
        Bytes result = header;
        int zeros = 0;
        for (std::size_t i = 0; i < padded.size(); i += 8) {
            unsigned byte = 0;
            for (std::size_t k = 0; k < 8; ++k)
                byte = byte << 1 | (padded[i + k] ? 1U : 0U);
            if (zeros >= 2 && byte <= 3) {
                result.push_back(3);
                zeros = 0;
            }
            zeros = byte == 0 ? zeros + 1 : 0;
            result.push_back(static_cast<std::uint8_t>(byte));
        }
        return result;
    }

private:
    Bytes header;
    std::vector<bool> stream;
};

PictureSize sizeOfH264(const Bytes& nal)
{
    const auto info = H264::readParameterSet(NalRole::sequenceSet, nal);
    return info ? info->size : PictureSize{1, 1};
}

PictureSize sizeOfH265(const Bytes& nal)
{
    const auto info = H265::readParameterSet(NalRole::sequenceSet, nal);
    return info ? info->size : PictureSize{1, 1};
}
}  // namespace

TEST(BitReader, stepsOverEmulationPrevention)
{
    const Bytes bytes = hex("00 00 03 01 00 00 03 00 00 03 03");
    BitReader reader(bytes);
    EXPECT_EQ(reader.bits(24), 1U);
    EXPECT_EQ(reader.bits(32), 0U);
    EXPECT_EQ(reader.bits(8), 3U);
    EXPECT_FALSE(reader.failed());
    EXPECT_EQ(reader.bit(), 0U);
    EXPECT_TRUE(reader.failed());
}

TEST(BitReader, readsGolombCodes)
{
    BitWriter writer({});
    const std::uint32_t values[] = {0, 1, 2, 7, 254, 255, 65535, 0x7fffffff, 0xfffffffe};
    for (const std::uint32_t value : values)
        writer.ue(value);
    for (const std::int32_t value : {0, 1, -1, 25, -26, 100000, -100000})
        writer.se(value);
    const Bytes bytes = writer.nal();
    BitReader reader(bytes);
    for (const std::uint32_t value : values)
        EXPECT_EQ(reader.unsignedGolomb(), value);
    for (const std::int32_t value : {0, 1, -1, 25, -26, 100000, -100000})
        EXPECT_EQ(reader.signedGolomb(), value);
    EXPECT_FALSE(reader.failed());
}

TEST(BitReader, endsAtEndlessZeros)
{
    const Bytes zeros(10000, 0);
    BitReader reader(zeros);
    EXPECT_EQ(reader.unsignedGolomb(), 0U);
    EXPECT_TRUE(reader.failed());
}

TEST(H264SequenceSet, tellsThePictureSizeOfRealStreams)
{
    const struct {
        const char* what;
        const char* nal;
        PictureSize size;
    } cases[] = {
        {"high, 4:2:0, cropped", "67640028acd940780227e5c044000003000400000300c83c60c658", {1920, 1080}},
        {"main", "674d401feca02802dd80880000030008000003019078c18cb0", {1280, 720}},
        {"constrained baseline", "6742c00dd9016096c044000003000400000300c83c50a920", {352, 288}},
        {"high 4:2:2", "677a001ebcd940a02ff89c0440000003004000000c83c58b6580", {640, 360}},
        {"high 4:4:4, odd crop", "67f4000d919b282a10f1f1f808800000030080000019078a14cb", {322, 242}},
        {"interlaced", "67640028acd94078044fde0220000003002000000643e2c5b2c0", {1920, 1080}},
        {"4CIF", "6764001eacd940b0126c0440000003004000000c83c58b6580", {704, 576}},
        {"high 10", "676e0032a6cd9402880f5f97011000000300100000030320f1831960", {2592, 1944}},
        {"monochrome", "6764000cf3650404f9e3f016c80000030008000003019078a14cb0", {250, 130}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const PictureSize size = sizeOfH264(hex(c.nal));
        EXPECT_EQ(size.width, c.size.width);
        EXPECT_EQ(size.height, c.size.height);
    }
}

TEST(H264SequenceSet, stepsOverScalingListsAndPictureOrderCycles)
{
    BitWriter writer({0x67});
    writer.bits(100, 8).bits(0x0028, 16).ue(3);      // profile, level, id
    writer.ue(3).bits(0, 1).ue(0).ue(0).bits(0, 1);  // 4:4:4
    writer.bits(1, 1);                               // scaling matrix: 12 lists
    writer.bits(1, 1);                               // 16 entries, explicit
    for (int i = 0; i < 16; ++i)
        writer.se(i % 2 == 0 ? 3 : -3);
    writer.bits(1, 1).se(-8);  // next scale 0: the rest is the last one
    writer.bits(0, 4);
    writer.bits(1, 1);  // 64 entries
    for (int i = 0; i < 64; ++i)
        writer.se(1);
    writer.bits(0, 5);
    writer.ue(4).ue(1).bits(0, 1).se(-2).se(5).ue(3).se(1).se(-1).se(2);  // picture order type 1
    writer.ue(4).bits(0, 1).ue(44).ue(35).bits(1, 1).bits(1, 1);          // 45 x 36 macroblocks
    writer.bits(1, 1).ue(3).ue(5).ue(0).ue(7);
    const auto info = H264::readParameterSet(NalRole::sequenceSet, writer.nal());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->id, 3U);
    EXPECT_EQ(info->size.width, 720U - 8U);
    EXPECT_EQ(info->size.height, 576U - 7U);
}

TEST(H264SequenceSet, isUnknownWhenTruncatedOrAbsurd)
{
    const Bytes whole = hex("67640028acd940780227e5c044000003000400000300c83c60c658");
    for (std::size_t length = 1; length < 11; ++length) {
        SCOPED_TRACE(length);
        const auto info = H264::readParameterSet(NalRole::sequenceSet, testkit::part(whole, 0, length));
        EXPECT_TRUE(!info || (info->size == PictureSize{}));
    }
    BitWriter cropped({0x67});
    cropped.bits(66, 8).bits(0, 16).ue(0).ue(0).ue(2).ue(1).bits(0, 1).ue(9).ue(9).bits(3, 2).bits(1, 1);
    cropped.ue(40).ue(40).ue(0).ue(0);
    EXPECT_EQ(sizeOfH264(cropped.nal()), PictureSize{});
    BitWriter huge({0x67});
    huge.bits(66, 8).bits(0, 16).ue(0).ue(0).ue(2).ue(1).bits(0, 1).ue(0xfffffffe).ue(0xfffffffe).bits(3, 2).bits(0, 1);
    EXPECT_EQ(sizeOfH264(huge.nal()), PictureSize{});
    BitWriter id({0x67});
    id.bits(66, 8).bits(0, 16).ue(32).ue(0).ue(2).ue(1).bits(0, 1).ue(9).ue(9).bits(3, 2).bits(0, 1);
    EXPECT_FALSE(H264::readParameterSet(NalRole::sequenceSet, id.nal()));
}

TEST(H265SequenceSet, tellsThePictureSizeOfRealStreams)
{
    const struct {
        const char* what;
        const char* nal;
        PictureSize size;
    } cases[] = {
        {"main, cropped",
         "420101016000000300900000030000030078a003c08010e596566924caf0168080000003008000000c84",
         {1920, 1080}},
        {"main, 4K",
         "420101016000000300900000030000030096a001e020021c596566924caf016808000003000800000300c840",
         {3840, 2160}},
        {"4:2:2, 10 bits",
         "4201010408000003009d0800000300005db00280802d1f6d96566924caf0168080000003008000000c84",
         {1280, 718}},
        {"4:4:4", "4201010408000003009e0800000300003c90014901f39e7cb2b349265780b4040000030004000003006420", {322, 242}},
        {"CIF", "42010101600000030090000003000003003ca00b08048596566924caf0168080000003008000000c84", {352, 288}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const PictureSize size = sizeOfH265(hex(c.nal));
        EXPECT_EQ(size.width, c.size.width);
        EXPECT_EQ(size.height, c.size.height);
    }
}

TEST(H265SequenceSet, stepsOverSubLayers)
{
    BitWriter writer({0x42, 0x01});
    writer.bits(0, 4).bits(2, 3).bits(1, 1);  // two sub-layers below the highest
    writer.bits(0x12345678, 32).bits(0, 32).bits(0, 24).bits(93, 8);
    writer.bits(3, 2).bits(1, 2).bits(0, 12);  // profile and level, level alone
    writer.bits(0, 64).bits(0, 24).bits(90, 8).bits(60, 8);
    writer.ue(5).ue(1).ue(648).ue(368).bits(1, 1).ue(1).ue(3).ue(2).ue(2);
    const auto info = H265::readParameterSet(NalRole::sequenceSet, writer.nal());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->id, 5U);
    EXPECT_EQ(info->size.width, 640U);
    EXPECT_EQ(info->size.height, 360U);
}

TEST(H265SequenceSet, isUnknownWhenTruncated)
{
    const Bytes whole = testkit::h265::sps;
    for (std::size_t length = 2; length < 22; ++length) {
        SCOPED_TRACE(length);
        const auto info = H265::readParameterSet(NalRole::sequenceSet, testkit::part(whole, 0, length));
        EXPECT_TRUE(!info || (info->size == PictureSize{}));
    }
}

TEST(ParameterSets, keepOneOfEachIdInDecodingOrder)
{
    ParameterSets sets;
    EXPECT_EQ(sets.version(), 0U);
    const auto put = [&](NalRole kind, std::uint32_t id, const Bytes& nal) {
        return sets.put(kind, ParameterSetInfo{id, 0, {}}, nal);
    };
    EXPECT_TRUE(put(NalRole::pictureSet, 1, hex("cc 01")));
    EXPECT_TRUE(put(NalRole::sequenceSet, 0, hex("bb 00")));
    EXPECT_TRUE(put(NalRole::pictureSet, 0, hex("cc 00")));
    EXPECT_TRUE(put(NalRole::videoSet, 0, hex("aa 00")));
    EXPECT_EQ(sets.version(), 4U);
    EXPECT_TRUE(put(NalRole::pictureSet, 1, hex("cc 01")));
    EXPECT_EQ(sets.version(), 4U) << "nothing new";
    EXPECT_TRUE(put(NalRole::pictureSet, 1, hex("cc 01 02")));
    EXPECT_EQ(sets.version(), 5U);
    EXPECT_EQ(testkit::toHex(sets.annexB()),
              "00 00 00 01 aa 00 00 00 00 01 bb 00 00 00 00 01 cc 00 00 00 00 01 cc 01 02 ");
}

TEST(ParameterSets, findTheSizeByWayOfThePictureSet)
{
    ParameterSets sets;
    const Bytes nal = hex("01");
    sets.put(NalRole::sequenceSet, {0, 0, {640, 480}}, nal);
    sets.put(NalRole::sequenceSet, {1, 0, {320, 240}}, nal);
    sets.put(NalRole::pictureSet, {0, 0, {}}, nal);
    sets.put(NalRole::pictureSet, {1, 1, {}}, nal);
    EXPECT_EQ(sets.sizeFor(0).width, 640U);
    EXPECT_EQ(sets.sizeFor(1).width, 320U);
    EXPECT_EQ(sets.sizeFor(9).width, 320U) << "the newest sequence set when the slice names none we know";
}

TEST(ParameterSets, tellTheNewSizeAfterAChange)
{
    ParameterSets sets;
    sets.put(NalRole::sequenceSet, {0, 0, {640, 480}}, Bytes{0x67, 1});
    sets.put(NalRole::pictureSet, {0, 0, {}}, Bytes{0x68, 1});
    EXPECT_EQ(sets.sizeFor(0).width, 640U);
    sets.put(NalRole::sequenceSet, {0, 0, {1920, 1080}}, Bytes{0x67, 2});
    EXPECT_EQ(sets.sizeFor(0).width, 1920U);
}

TEST(ParameterSets, areBounded)
{
    ParameterSets sets;
    const Bytes large(10'000, 1);
    unsigned taken = 0;
    for (std::uint32_t id = 0; id < 256; ++id)
        taken += sets.put(NalRole::pictureSet, {id, 0, {}}, large) ? 1U : 0U;
    EXPECT_EQ(taken, 6U);
    EXPECT_LE(sets.annexB().size(), ParameterSets::maxTotalBytes);
    EXPECT_TRUE(sets.put(NalRole::pictureSet, {0, 0, {}}, hex("01"))) << "a smaller one in place of a large one";
}
}  // namespace Tavro8::media

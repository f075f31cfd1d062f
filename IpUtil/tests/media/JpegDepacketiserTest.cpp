#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <map>

namespace Tavro8::media
{
using namespace testkit;

namespace
{
/// A JPEG file as its segments: everything in front of the scan by marker, in order of appearance, then the scan.
struct Parts {
    std::vector<std::pair<std::uint8_t, Bytes>> segments;
    Bytes scan;
    bool ends = false;  // with EOI

    /// Bodies of the segments with that marker, one behind the other.
    Bytes all(std::uint8_t marker) const
    {
        Bytes bytes;
        for (const auto& [found, body] : segments) {
            if (found == marker)
                bytes = std::move(bytes) + body;
        }
        return bytes;
    }
};

Parts takeApart(const Bytes& file)
{
    Parts parts;
    if (part(file, 0, 2) != hex("ffd8"))
        throw std::runtime_error("no SOI");
    std::size_t at = 2;
    std::uint8_t marker = 0;
    while (marker != 0xda) {
        if (at + 4 > file.size() || file[at] != 0xff)
            throw std::runtime_error("no marker");
        marker = file[at + 1];
        const std::size_t length = static_cast<std::size_t>(file[at + 2] << 8 | file[at + 3]);
        parts.segments.emplace_back(marker, part(file, at + 4, length - 2));
        at += 2 + length;
    }
    parts.ends = file.size() >= at + 2 && part(file, file.size() - 2, 2) == hex("ffd9");
    parts.scan = part(file, at, file.size() - at - (parts.ends ? 2 : 0));
    return parts;
}

/// Huffman or quantisation tables by id, however many of them a segment holds.
std::map<unsigned, Bytes> tablesOf(Bytes bodies, bool huffman)
{
    std::map<unsigned, Bytes> tables;
    while (!bodies.empty()) {
        std::size_t length = 1 + 64 * (1U + (bodies[0] >> 4U));
        if (huffman) {
            length = 17;
            for (std::size_t i = 1; i <= 16; ++i)
                length += bodies.at(i);
        }
        tables[bodies[0]] = part(bodies, 1, length - 1);
        bodies = part(bodies, length, bodies.size());
    }
    return tables;
}

/// The tables of a decodable picture 16 wide and 8 high.
const Bytes luma(64, 0x11);
const Bytes chroma(64, 0x22);

/// Main header: offset below 256, type, Q, 16x8.
Bytes mainHeader(std::uint8_t offset, std::uint8_t type = 1, std::uint8_t q = 255)
{
    return {0, 0, 0, offset, type, q, 2, 1};
}

const Bytes scan = hex("01 02 03 04 05 06 07 08 09 0a");
const Bytes inBand = hex("00 00 00 80") + luma + chroma;

/// A picture with tables of its own in two packets.
void sendPicture(Bench& bench, std::uint32_t timestamp, bool lostBefore = false)
{
    bench.push(mainHeader(0) + inBand + part(scan, 0, 6), timestamp, false, lostBefore);
    bench.push(mainHeader(6) + part(scan, 6, 4), timestamp, true);
}
}  // namespace

TEST(JpegDepacketiser, makesACompleteFile)
{
    Bench bench(jpegFormat());
    sendPicture(bench, 90);
    ASSERT_EQ(bench.frames.size(), 1U);
    const Frame& frame = bench.frames[0];
    EXPECT_EQ(frame.info.codec, GDRV::MediaCodec::mjpeg);
    EXPECT_TRUE(frame.info.keyFrame);
    EXPECT_FALSE(frame.info.damaged);
    EXPECT_FALSE(frame.info.lostPacketsBefore);
    EXPECT_EQ(frame.info.width, 16U);
    EXPECT_EQ(frame.info.height, 8U);
    EXPECT_EQ(frame.rtpTimestamp, 90U);
    EXPECT_TRUE(frame.parameterSets.empty());

    const Parts parts = takeApart(frame.data);
    EXPECT_TRUE(parts.ends);
    EXPECT_EQ(toHex(parts.scan), toHex(scan));
    EXPECT_EQ(part(parts.all(0xe0), 0, 5), (Bytes{'J', 'F', 'I', 'F', 0}));
    const auto tables = tablesOf(parts.all(0xdb), false);
    EXPECT_EQ(tables.at(0), luma);
    EXPECT_EQ(tables.at(1), chroma);
    EXPECT_EQ(toHex(parts.all(0xc0)), toHex(hex("08 0008 0010 03 01 22 00 02 11 01 03 11 01")));
    EXPECT_EQ(toHex(parts.all(0xda)), toHex(hex("03 01 00 02 11 03 11 00 3f 00")));
    EXPECT_EQ(tablesOf(parts.all(0xc4), true).size(), 4U);
    EXPECT_TRUE(parts.all(0xdd).empty()) << "no restart markers";
}

TEST(JpegDepacketiser, knowsBothSamplingsWithAndWithoutRestartMarkers)
{
    const struct {
        std::uint8_t type;
        std::uint8_t sampling;
        bool restarts;
    } cases[] = {{0, 0x21, false}, {1, 0x22, false}, {64, 0x21, true}, {65, 0x22, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(int{c.type});
        Bench bench(jpegFormat());
        bench.push(mainHeader(0, c.type) + (c.restarts ? hex("0004 ffff") : Bytes{}) + inBand + scan, 0, true);
        ASSERT_EQ(bench.frames.size(), 1U);
        const Parts parts = takeApart(bench.frames[0].data);
        EXPECT_EQ(parts.all(0xc0).at(7), c.sampling);
        EXPECT_EQ(parts.all(0xdd), c.restarts ? hex("0004") : Bytes{});
        EXPECT_EQ(parts.scan, scan);
    }
}

TEST(JpegDepacketiser, scalesTheTablesOfTheStandardByQ)
{
    const struct {
        std::uint8_t q;
        Bytes firstOfLuma;
        std::uint8_t lastOfChroma;
    } cases[] = {
        {1, Bytes(4, 255), 255},        // 5000 %
        {25, hex("20 16 18 1c"), 198},  // 200 %
        {50, hex("10 0b 0c 0e"), 99},   // as in the standard
        {75, hex("08 06 06 07"), 50},   // 50 %
        {99, hex("01 01 01 01"), 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(int{c.q});
        Bench bench(jpegFormat());
        bench.push(mainHeader(0, 1, c.q) + scan, 0, true);
        ASSERT_EQ(bench.frames.size(), 1U);
        const Parts parts = takeApart(bench.frames[0].data);
        const auto tables = tablesOf(parts.all(0xdb), false);
        EXPECT_EQ(toHex(part(tables.at(0), 0, 4)), toHex(c.firstOfLuma));
        EXPECT_EQ(tables.at(1).back(), c.lastOfChroma);
        EXPECT_EQ(parts.scan, scan);
    }
}

TEST(JpegDepacketiser, remembersTheTablesOfAQ)
{
    Bench bench(jpegFormat());
    const Bytes noTables = hex("00 00 00 00");
    bench.push(mainHeader(0, 1, 130) + noTables + scan, 0, true);  // not seen yet
    EXPECT_EQ(bench.frames.size(), 0U);
    bench.push(mainHeader(0, 1, 130) + inBand + scan, 1, true);
    bench.push(mainHeader(0, 1, 131) + hex("00 00 00 40") + chroma + scan, 2, true);
    bench.push(mainHeader(0, 1, 130) + noTables + scan, 3, true);
    bench.push(mainHeader(0, 1, 131) + noTables + scan, 4, true);
    bench.push(mainHeader(0, 1, 255) + noTables + scan, 5, true);  // Q 255 means: not the same as before
    ASSERT_EQ(bench.frames.size(), 4U);
    EXPECT_EQ(bench.frames[2].data, bench.frames[0].data);
    EXPECT_EQ(bench.frames[3].data, bench.frames[1].data);
    const Parts single = takeApart(bench.frames[1].data);
    EXPECT_EQ(tablesOf(single.all(0xdb), false), (std::map<unsigned, Bytes>{{0, chroma}}));
    EXPECT_EQ(toHex(single.all(0xc0)), toHex(hex("08 0008 0010 03 01 22 00 02 11 00 03 11 00"))) << "all use the one";
    EXPECT_EQ(bench.counters().malformed, 2U);

    // The device may change its mind.
    bench.push(mainHeader(0, 1, 130) + hex("00 00 00 80") + chroma + luma + scan, 6, true);
    bench.push(mainHeader(0, 1, 130) + noTables + scan, 7, true);
    EXPECT_EQ(tablesOf(takeApart(bench.frames.back().data).all(0xdb), false).at(0), chroma);
}

TEST(JpegDepacketiser, takesTablesOfSixteenBits)
{
    Bench bench(jpegFormat());
    const Bytes wide(128, 0x33);
    bench.push(mainHeader(0) + hex("00 02 00 c0") + luma + wide + scan, 0, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    const Parts parts = takeApart(bench.frames[0].data);
    const auto tables = tablesOf(parts.all(0xdb), false);
    EXPECT_EQ(tables.at(0), luma);
    EXPECT_EQ(tables.at(0x11), wide);
    EXPECT_TRUE(parts.all(0xc0).empty()) << "the baseline has no such tables";
    EXPECT_FALSE(parts.all(0xc1).empty());
}

TEST(JpegDepacketiser, learnsALargeSizeFromTheHeaderExtension)
{
    // 2592x1944 as 4:2:2, filled up to whole words with FF; a comment in front.
    const Bytes segments = hex("fffe 0004 6162 ffc0 0011 08 0798 0a20 03 00 21 00 01 11 01 02 11 01 ff ffff");
    const Bytes replay = Bytes(12, 0x55);  // NTP time, flags, CSeq
    const struct {
        const char* what;
        std::uint16_t profile;
        Bytes extension;
    } cases[] = {
        {"alone", 0xffd8, segments},
        {"behind that of replay", 0xabac, replay + hex("ffd8 0007") + segments},
        {"with the beginning of a file", 0xffd8, hex("ffd8") + segments + hex("0000")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(jpegFormat());
        Packet packet{.payload = hex("00 000000 00 ff 00 00") + inBand + scan, .marker = true};
        packet.extensionProfile = c.profile;
        packet.extension = c.extension;
        bench.pushPacket(packet);
        ASSERT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.frames[0].info.width, 2592U);
        EXPECT_EQ(bench.frames[0].info.height, 1944U);
        const Parts parts = takeApart(bench.frames[0].data);
        EXPECT_EQ(toHex(parts.all(0xc0)), toHex(hex("08 0798 0a20 03 00 21 00 01 11 01 02 11 01")));
        EXPECT_EQ(toHex(parts.all(0xda)), toHex(hex("03 00 00 01 11 02 11 00 3f 00"))) << "the ids of that frame";
        EXPECT_EQ(parts.scan, scan);
        EXPECT_EQ(bench.counters().malformed, 0U);
    }
}

TEST(JpegDepacketiser, takesTablesAndRestartIntervalFromTheHeaderExtension)
{
    Bench bench(jpegFormat());
    Packet packet{.payload = mainHeader(0, 1, 50) + scan, .marker = true};
    packet.extensionProfile = 0xffd8;
    const Bytes table(64, 0x44);
    const Bytes huffman = hex("00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 07");
    packet.extension = hex("ffdb 0043 01") + table + hex("ffc4 0014") + huffman + hex("ffdd 0004 0009 ffff ff");
    bench.pushPacket(packet);
    ASSERT_EQ(bench.frames.size(), 1U);
    const Parts parts = takeApart(bench.frames[0].data);
    EXPECT_EQ(tablesOf(parts.all(0xdb), false).at(1), table) << "what comes last holds";
    EXPECT_EQ(tablesOf(parts.all(0xc4), true).at(0), part(huffman, 1, 17));
    EXPECT_EQ(parts.all(0xdd), hex("0009"));
}

TEST(JpegDepacketiser, refusesExtensionsThatMakeNoDecodablePicture)
{
    const struct {
        const char* what;
        Bytes extension;
    } cases[] = {
        {"progressive", hex("ffc2 0011 08 0798 0a20 03 00 21 00 01 11 01 02 11 01 ff")},
        {"twelve bits a sample", hex("ffc0 0011 0c 0798 0a20 03 00 21 00 01 11 01 02 11 01 ff")},
        {"without a size", hex("ffc0 0011 08 0000 0a20 03 00 21 00 01 11 01 02 11 01 ff")},
        {"without components", hex("ffc0 0008 08 0798 0a20 00 ff ff")},
        {"five components", hex("ffc0 0017 08 0798 0a20 05 00 21 00 01 11 01 02 11 01 03 11 01 04 11 01 ff ffff")},
        {"fewer components than said", hex("ffc0 000b 08 0798 0a20 03 00 21 00 ff ffff")},
        {"sampling by nothing", hex("ffc0 0011 08 0798 0a20 03 00 20 00 01 11 01 02 11 01 ff")},
        {"a table that nobody gave", hex("ffc0 0011 08 0798 0a20 03 00 21 00 01 11 02 02 11 02 ff")},
        {"a table with an id out of range", hex("ffc0 0011 08 0798 0a20 03 00 21 00 01 11 09 02 11 09 ff")},
        {"two frames", hex("ffc0 000b 08 0010 0010 01 00 11 00 ffc0 000b 08 0010 0010 01 00 11 00 ffff")},
        {"half a quantisation table", hex("ffdb 0006 00 010203")},
        {"a restart interval of one byte", hex("ffdd 0003 09 ffffff")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(jpegFormat());
        Packet packet{.payload = mainHeader(0) + inBand + scan, .marker = true};
        packet.extensionProfile = 0xffd8;
        packet.extension = c.extension;
        bench.pushPacket(packet);
        EXPECT_EQ(bench.frames.size(), 0U);
        EXPECT_EQ(bench.counters().malformed, 1U);
        EXPECT_EQ(bench.counters().droppedFrames, 1U);
        sendPicture(bench, 5);
        ASSERT_EQ(bench.frames.size(), 1U) << "the next one is in order";
    }
}

TEST(JpegDepacketiser, ignoresOtherExtensionsAndFillBytes)
{
    for (const Bytes& extension :
         {Bytes{}, hex("00000000"), hex("ffffffff"), hex("12345678"), hex("ffc0 ffff"), hex("ffe1 0002 ffff ffff")}) {
        SCOPED_TRACE(toHex(extension));
        for (const int profile : {0xffd8, 0xabac, 0xbede}) {
            Bench bench(jpegFormat());
            Packet packet{.payload = mainHeader(0) + inBand + scan, .marker = true};
            packet.extensionProfile = static_cast<std::uint16_t>(profile);
            packet.extension = extension;
            bench.pushPacket(packet);
            ASSERT_EQ(bench.frames.size(), 1U);
            EXPECT_EQ(bench.frames[0].info.width, 16U);
        }
    }
}

TEST(JpegDepacketiser, combinesTheDescribedSizeWithThatOfThePackets)
{
    const struct {
        PictureSize described;
        std::uint8_t width;
        std::uint8_t height;
        PictureSize result;
    } cases[] = {
        {{}, 240, 135, {1920, 1080}},          {{2592, 1944}, 0, 0, {2592, 1944}},    // larger than the fields can say
        {{2592, 1944}, 68, 243, {2592, 1944}},                                        // low eight bits: 324 and 243
        {{4096, 2160}, 0, 14, {4096, 2160}},   {{500, 270}, 63, 34, {500, 270}},      // rounded up to whole blocks
        {{640, 480}, 40, 30, {320, 240}},                                             // a description of another time
        {{1280, 0}, 160, 90, {1280, 720}},     {{70000, 70000}, 40, 30, {320, 240}},  // no file could say so
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.described.width << 'x' << c.described.height);
        Bench bench(jpegFormat(c.described));
        bench.push(Bytes{0, 0, 0, 0, 1, 255, c.width, c.height} + inBand + scan, 0, true);
        ASSERT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.frames[0].info.width, c.result.width);
        EXPECT_EQ(bench.frames[0].info.height, c.result.height);
        const Bytes frame = takeApart(bench.frames[0].data).all(0xc0);
        EXPECT_EQ(frame[1] << 8 | frame[2], static_cast<int>(c.result.height));
        EXPECT_EQ(frame[3] << 8 | frame[4], static_cast<int>(c.result.width));
    }
    Bench bench(jpegFormat());
    bench.push(Bytes{0, 0, 0, 0, 1, 255, 0, 0} + inBand + scan, 0, true);
    EXPECT_EQ(bench.frames.size(), 0U) << "nobody knows its size";
    EXPECT_EQ(bench.counters().malformed, 1U);
}

TEST(JpegDepacketiser, endsAPictureWithoutMarkerAtTheNextTimestamp)
{
    Bench bench(jpegFormat());
    std::uint32_t timestamp = 0xfffff000;  // wraps
    for (std::size_t i = 0; i < 4; ++i) {
        bench.push(mainHeader(0) + inBand + part(scan, 0, 6), timestamp);
        bench.push(mainHeader(6) + part(scan, 6, 4), timestamp);
        EXPECT_EQ(bench.frames.size(), i);
        timestamp += 3600;
    }
    bench.depacketiser->flush();
    bench.depacketiser->flush();
    ASSERT_EQ(bench.frames.size(), 4U);
    EXPECT_EQ(takeApart(bench.frames[3].data).scan, scan);
    EXPECT_EQ(bench.counters().damagedFrames, 0U);
}

TEST(JpegDepacketiser, damagesNoPictureByAFlushBetweenTwo)
{
    Bench bench(jpegFormat());
    bench.push(mainHeader(0) + inBand + scan, 0, true);
    bench.depacketiser->flush();
    bench.push(mainHeader(0) + inBand + scan, 3600, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_FALSE(bench.frames[1].info.damaged);
    EXPECT_EQ(bench.counters().damagedFrames, 0U);

    bench.push(mainHeader(0) + inBand + part(scan, 0, 6), 7200);
    bench.depacketiser->flush();
    EXPECT_EQ(bench.frames.size(), 2U) << "this camera marks its pictures, so that the rest may be on its way";
}

TEST(JpegDepacketiser, takesEachFieldForAPicture)
{
    Bench bench(jpegFormat());
    for (const int field : {1, 2}) {
        Bytes header = mainHeader(0);
        header[0] = static_cast<std::uint8_t>(field);
        bench.push(header + inBand + scan, 7, field == 2);
    }
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[0].data, bench.frames[1].data);
    EXPECT_EQ(bench.frames[1].rtpTimestamp, 7U);
    EXPECT_FALSE(bench.frames[1].info.lostPacketsBefore);
}

TEST(JpegDepacketiser, doesNotRepeatTheEndOfImage)
{
    Bench bench(jpegFormat());
    bench.push(mainHeader(0) + inBand + scan + hex("ff d9"), 0, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(takeApart(bench.frames[0].data).scan, scan);
}

TEST(JpegDepacketiser, acceptsTablesInAPacketWithoutData)
{
    Bench bench(jpegFormat());
    bench.push(mainHeader(0) + inBand, 0);
    bench.push(mainHeader(0) + inBand + part(scan, 0, 5), 0);
    bench.push(mainHeader(5) + part(scan, 5, 5), 0, true);
    bench.push({}, 0, true);
    bench.push({}, 1, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(takeApart(bench.frames[0].data).scan, scan);
    EXPECT_EQ(bench.counters().droppedFrames, 0U);
}

TEST(JpegDepacketiser, dropsAPictureWithAHoleAndNoOther)
{
    const std::vector<Bytes> payloads{mainHeader(0) + inBand + part(scan, 0, 4), mainHeader(4) + part(scan, 4, 3),
                                      mainHeader(7) + part(scan, 7, 3)};
    for (const bool markers : {true, false}) {
        for (std::size_t lost = 0; lost < payloads.size(); ++lost) {
            SCOPED_TRACE(::testing::Message() << markers << lost);
            Bench bench(jpegFormat());
            bench.pushAll(payloads, 0, markers);
            for (std::size_t i = 0; i < payloads.size(); ++i) {
                if (i != lost)
                    bench.push(payloads[i], 1, markers && i == 2, i == lost + 1);
            }
            const bool lastLost = lost == 2;
            bench.push(payloads[0], 2, false, lastLost);
            bench.push(payloads[1], 2);
            bench.push(payloads[2], 2, true);
            bench.pushAll(payloads, 3);
            // Nobody can tell whether a missing packet was the first of one picture or the last of an unmarked one.
            const bool bothDoubtful = !markers && lost == 0;
            const std::size_t before = bothDoubtful ? 0 : 1;
            ASSERT_EQ(bench.frames.size(), before + 2);
            EXPECT_EQ(bench.frames[before].rtpTimestamp, 2U);
            EXPECT_EQ(bench.frames[before].info.lostPacketsBefore, !bothDoubtful);
            EXPECT_FALSE(bench.frames[before + 1].info.lostPacketsBefore);
            for (const Frame& frame : bench.frames.all) {
                EXPECT_EQ(takeApart(frame.data).scan, scan);
                EXPECT_FALSE(frame.info.damaged);
            }
            EXPECT_EQ(bench.counters().damagedFrames, bothDoubtful ? 2U : 1U);
            EXPECT_EQ(bench.counters().malformed, 0U) << "loss is no fault of the format";
        }
    }
}

TEST(JpegDepacketiser, flagsAPictureWithAHoleWhenAskedTo)
{
    Bench bench(jpegFormat(), flagging());
    bench.push(mainHeader(0) + inBand + part(scan, 0, 4), 0);
    bench.push(mainHeader(7) + part(scan, 7, 3), 0, true, true);
    bench.push(mainHeader(7) + part(scan, 7, 3), 1, true, true);  // nothing to hand out without its beginning
    sendPicture(bench, 2);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_TRUE(bench.frames[0].info.damaged);
    EXPECT_FALSE(bench.frames[0].info.keyFrame);
    EXPECT_EQ(takeApart(bench.frames[0].data).scan, part(scan, 0, 4) + part(scan, 7, 3));
    EXPECT_FALSE(bench.frames[1].info.damaged);
    EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
}

TEST(JpegDepacketiser, canBeJoinedInTheMiddleOfAPicture)
{
    Bench bench(jpegFormat());
    bench.push(mainHeader(7) + part(scan, 7, 3), 0, true);
    EXPECT_EQ(bench.frames.size(), 0U);
    EXPECT_EQ(bench.counters().malformed, 0U);
    sendPicture(bench, 1);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_FALSE(bench.frames[0].info.lostPacketsBefore) << "there is no frame before it";
}

TEST(JpegDepacketiser, startsAfreshAfterAReset)
{
    Bench bench(jpegFormat());
    sendPicture(bench, 0);
    bench.push(mainHeader(0) + inBand + part(scan, 0, 6), 1);
    bench.depacketiser->reset();
    bench.push(mainHeader(6) + part(scan, 6, 4), 1, true);
    sendPicture(bench, 2);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
    EXPECT_EQ(bench.counters().malformed, 0U);
}

TEST(JpegDepacketiser, refusesPacketsAgainstTheFormat)
{
    const struct {
        const char* what;
        Bytes payload;
    } cases[] = {
        {"half a main header", part(mainHeader(6), 0, 7)},
        {"an unknown type", mainHeader(6, 2)},
        {"an unknown type with restart markers", mainHeader(6, 66) + hex("0004 ffff")},
        {"a dynamic type", mainHeader(6, 128)},
        {"half a restart header", mainHeader(6, 65) + hex("0004 ff")},
        {"Q 0", mainHeader(6, 1, 0)},
        {"Q 100", mainHeader(6, 1, 100)},
        {"Q 127", mainHeader(6, 1, 127)},
        {"an offset behind the end so far", mainHeader(9) + hex("01")},
        {"an offset within what has come", mainHeader(3) + hex("01")},
        {"the largest offset", hex("00 ffffff 01 ff 02 01 55")},
        {"another type", mainHeader(6, 0) + hex("01")},
        {"another Q", mainHeader(6, 1, 200) + hex("01")},
        {"another size", hex("00 000006 01 ff 02 02 55")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(jpegFormat());
        sendPicture(bench, 0);
        bench.push(mainHeader(0) + inBand + part(scan, 0, 6), 1);
        bench.push(c.payload, 1);
        bench.push(mainHeader(6) + part(scan, 6, 4), 1, true);
        EXPECT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.counters().malformed, 1U);
        sendPicture(bench, 2);
        ASSERT_EQ(bench.frames.size(), 2U);
        EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
    }
}

TEST(JpegDepacketiser, refusesBrokenTables)
{
    const struct {
        const char* what;
        Bytes tables;
    } cases[] = {
        {"none", {}},
        {"half a header", hex("00 00 00")},
        {"more than the packet holds", hex("00 00 ff ff") + luma},
        {"less than one table", hex("00 00 00 20") + part(luma, 0, 32)},
        {"one and a half", hex("00 00 00 60") + luma + part(luma, 0, 32)},
        {"sixteen bits in eight", hex("00 01 00 40") + luma},
        {"no table at all", hex("00 00 00 00")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(jpegFormat(), flagging());
        bench.push(mainHeader(0) + c.tables, 0);
        bench.push(mainHeader(5) + scan, 0, true);
        EXPECT_EQ(bench.frames.size(), 0U);
        EXPECT_EQ(bench.counters().malformed, 1U);
        EXPECT_EQ(bench.counters().droppedFrames, 1U);
    }
    Bench bench(jpegFormat());
    bench.push(mainHeader(0) + hex("00 00 00 c0") + luma + chroma + luma + scan, 0, true);  // one more than is used
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(takeApart(bench.frames[0].data).scan, scan);
}

TEST(JpegDepacketiser, givesUpAPictureBeyondTheLimit)
{
    DepacketiserOptions options;
    options.maxFrameBytes = 1000;
    for (const LossPolicy policy : {LossPolicy::dropUntilKeyFrame, LossPolicy::flag}) {
        options.lossPolicy = policy;
        Bench bench(jpegFormat(), options);
        bench.push(mainHeader(0) + inBand + Bytes(200, 1), 0);
        bench.push(mainHeader(200) + Bytes(500, 1), 0, true);
        EXPECT_EQ(bench.frames.size(), 0U);
        EXPECT_EQ(bench.counters().oversizedFrames, 1U);
        EXPECT_EQ(bench.counters().droppedFrames, 1U);
        EXPECT_EQ(bench.pool.usage().buffersOut, 0U);
        sendPicture(bench, 1);
        EXPECT_EQ(bench.frames.size(), 1U);
    }
}

TEST(JpegDepacketiser, knowsTheTablesOfAnIndependentEncoderByQ)
{
    // The encoder was given the quality 70 and tells its tables in band. Without them, with Q 70 instead, the file has
    // to be the same.
    Bench told(jpegFormat());
    Bench scaled(jpegFormat());
    for (const Bytes& bytes : readPackets("jpeg_420.rtp")) {
        RtpPacket packet;
        ASSERT_EQ(parseRtpPacket(bytes, packet), RtpFault::none);
        told.depacketiser->push(packet, false);
        Bytes payload(packet.payload.begin(), packet.payload.end());
        payload[5] = 70;
        if (part(payload, 1, 3) == hex("000000"))
            payload = part(payload, 0, 8) + part(payload, 8 + 4 + 128, payload.size());
        packet.payload = payload;
        scaled.depacketiser->push(packet, false);
    }
    ASSERT_EQ(told.frames.size(), 3U);
    ASSERT_EQ(scaled.frames.size(), 3U);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(scaled.frames[i].data, told.frames[i].data);
}

/// A recorded stream and what its encoder wrote: how another program packs it is what we have to understand.
struct RecordedPictures {
    const char* name;
    PictureSize described;
    PictureSize size;
    std::size_t count;
};

class RecordedJpeg : public ::testing::TestWithParam<RecordedPictures> {};

TEST_P(RecordedJpeg, comesOutAsItWasEncoded)
{
    const auto& recorded = GetParam();
    const auto pictures = readPictures(std::string(recorded.name) + ".mjpeg");
    ASSERT_EQ(pictures.size(), recorded.count);
    Frames frames;
    const auto receiver = TrackReceiver::make(jpegFormat(recorded.described), std::make_shared<FramePool>(), frames);
    for (const Bytes& packet : readPackets(std::string(recorded.name) + ".rtp"))
        receiver->onRtp(packet, {});
    ASSERT_EQ(frames.size(), pictures.size());
    for (std::size_t i = 0; i < pictures.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(frames[i].info.width, recorded.size.width);
        EXPECT_EQ(frames[i].info.height, recorded.size.height);
        const Parts ours = takeApart(frames[i].data);
        const Parts theirs = takeApart(pictures[i]);
        EXPECT_TRUE(ours.ends);
        EXPECT_EQ(toHex(ours.scan), toHex(theirs.scan));
        EXPECT_EQ(tablesOf(ours.all(0xc4), true), tablesOf(theirs.all(0xc4), true));
        EXPECT_EQ(ours.all(0xdd), theirs.all(0xdd));
        // Tables by component, since the encoder may share one where we write two.
        const auto tables = tablesOf(ours.all(0xdb), false);
        const auto theirTables = tablesOf(theirs.all(0xdb), false);
        const Bytes frame = ours.all(0xc0);
        const Bytes theirFrame = theirs.all(0xc0);
        EXPECT_EQ(part(frame, 0, 6), part(theirFrame, 0, 6));
        for (std::size_t component = 0; component < 3; ++component) {
            EXPECT_EQ(frame.at(7 + 3 * component), theirFrame.at(7 + 3 * component));
            EXPECT_EQ(tables.at(frame.at(8 + 3 * component)), theirTables.at(theirFrame.at(8 + 3 * component)));
        }
    }
    EXPECT_EQ(receiver->statistics().malformedPackets, 0U);
}

TEST_P(RecordedJpeg, neverPassesADamagedPictureForWholeWhicheverPacketIsMissing)
{
    const auto& recorded = GetParam();
    const auto pictures = readPictures(std::string(recorded.name) + ".mjpeg");
    const auto packets = readPackets(std::string(recorded.name) + ".rtp");
    for (std::size_t lost = 0; lost < packets.size(); ++lost) {
        SCOPED_TRACE(lost);
        Frames frames;
        const auto receiver =
            TrackReceiver::make(jpegFormat(recorded.described), std::make_shared<FramePool>(), frames);
        for (std::size_t i = 0; i < packets.size(); ++i) {
            if (i != lost)
                receiver->onRtp(packets[i], {});
        }
        receiver->flush();
        ASSERT_EQ(frames.size(), pictures.size() - 1);
        std::size_t picture = 0;
        for (const Frame& frame : frames.all) {
            const Bytes scanOfFrame = takeApart(frame.data).scan;
            while (picture < pictures.size() && takeApart(pictures[picture]).scan != scanOfFrame)
                ++picture;
            EXPECT_LT(picture, pictures.size());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Streams, RecordedJpeg,
                         ::testing::Values(RecordedPictures{"jpeg_420", {}, {160, 120}, 3},
                                           RecordedPictures{"jpeg_422", {}, {160, 120}, 3},
                                           RecordedPictures{"jpeg_restart_markers", {}, {160, 120}, 3},
                                           RecordedPictures{"jpeg_2592_wide", {2592, 48}, {2592, 48}, 2}),
                         [](const auto& parameter) { return std::string(parameter.param.name); });
}  // namespace Tavro8::media

#include "MediaTestKit.h"

#include <gtest/gtest.h>

namespace Tavro8::media
{
using namespace testkit;
using namespace testkit::h265;

namespace
{
Bytes withType(Bytes nal, unsigned type)
{
    nal[0] = static_cast<std::uint8_t>((nal[0] & 0x81U) | type << 1);
    return nal;
}
}  // namespace

TEST(H265Depacketiser, stepsOverDecodingOrderNumbers)
{
    for (const char* value : {"3", " 32767 "}) {
        TrackFormat format = h265Format();
        format.formatParameters = {{"sprop-max-don-diff", value}};
        ASSERT_EQ(refusalOf(format), nullptr);
        Bench bench(format);
        // A delimiter and sets behind the numbers 65534 to 1: they wrap.
        bench.push(hex("4601 fffe") + part(delimiter, 2, 9), 0);
        bench.push(hex("6001 ffff") + Bytes{0, 24} + vps + hex("00") + Bytes{0, static_cast<std::uint8_t>(sps.size())} +
                       sps + hex("00") + Bytes{0, static_cast<std::uint8_t>(pps.size())} + pps,
                   0);
        auto fragments = fragmentH265(keySlice, 4);
        fragments[0] = part(fragments[0], 0, 3) + hex("0005") + part(fragments[0], 3, 9);
        bench.pushAll(fragments, 0);
        bench.push(part(slice, 0, 2) + hex("0006") + part(slice, 2, 99), 1, true);
        bench.push(part(slice, 0, 2) + hex("0007") + part(slice, 2, 99), 2);
        bench.push(part(laterSlice, 0, 2) + hex("0007") + part(laterSlice, 2, 99), 2, true);
        ASSERT_EQ(bench.frames.size(), 3U);
        EXPECT_EQ(toHex(bench.frames[0].data), toHex(annexB({delimiter, vps, sps, pps, keySlice})));
        EXPECT_EQ(bench.frames[0].parameterSets, annexB({vps, sps, pps}));
        EXPECT_EQ(bench.frames[1].data, annexB({slice}));
        EXPECT_EQ(bench.frames[2].data, annexB({slice, laterSlice}));
        EXPECT_EQ(bench.counters().malformed, 0U);
    }
    TrackFormat format = h265Format();
    format.formatParameters = {{"sprop-max-don-diff", "0"}};
    Bench plain(format);
    plain.pushAll({aggregateH265({vps, sps, pps}), keySlice}, 0);
    EXPECT_EQ(plain.frames.size(), 1U);
}

TEST(H265Depacketiser, refusesUnitsOutOfTheirDecodingOrder)
{
    const struct {
        const char* what;
        Bytes payload;
    } cases[] = {
        {"an earlier unit", part(slice, 0, 2) + hex("0004") + part(slice, 2, 99)},
        {"an earlier fragment", hex("62 01 81 0004 d0")},
        {"an earlier aggregate", hex("60 01 0004 0003 02 01 d0")},
        {"a unit without number", hex("02 01 00")},
        {"a fragment without anything behind its number", hex("62 01 81 0006")},
        {"an aggregate with half a number", hex("60 01 00")},
        {"an aggregate without the second number", hex("60 01 0006 0003 02 01 d0 00")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TrackFormat format = h265Format({vps, sps, pps});
        format.formatParameters = {{"sprop-max-don-diff", "1"}};
        Bench bench(format);
        bench.push(part(keySlice, 0, 2) + hex("0005") + part(keySlice, 2, 99), 0, true);
        bench.push(c.payload, 1, true);
        bench.push(part(slice, 0, 2) + hex("0008") + part(slice, 2, 99), 1, true);
        EXPECT_EQ(bench.frames.size(), 1U) << "nothing of the damaged picture, nor what depends on it";
        EXPECT_EQ(bench.counters().malformed, 1U);
        bench.depacketiser->reset();  // a new source counts from elsewhere
        bench.push(part(keySlice, 0, 2) + hex("0001") + part(keySlice, 2, 99), 0, true);
        EXPECT_EQ(bench.frames.size(), 2U);
    }
}

TEST(H265Depacketiser, acceptsAUnitInASingleFragment)
{
    Bench bench(h265Format({vps, sps, pps}));
    bench.push(hex("62 01 d3") + part(keySlice, 2, 99), 0, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(bench.frames[0].data, annexB({vps, sps, pps, keySlice}));
}

TEST(H265Depacketiser, noticesFragmentsThatDoNotFit)
{
    const auto fragments = fragmentH265(slice, 4);
    const struct {
        const char* what;
        std::vector<Bytes> payloads;
        std::uint64_t malformed;
    } cases[] = {
        {"no end", {fragments[0], fragments[1]}, 0},
        {"begins twice", {fragments[0], fragments[0], fragments[1], fragments[2]}, 0},
        {"a unit in between", {fragments[0], laterSlice, fragments[1]}, 1},
        {"goes on behind its end", {slice, fragments[1]}, 1},
        {"no beginning", {fragments[1], fragments[2]}, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(h265Format({vps, sps, pps}));
        bench.pushAll({keySlice}, 0);
        bench.pushAll(c.payloads, 1);
        bench.pushAll({slice}, 2);
        EXPECT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.counters().damagedFrames, 1U);
        EXPECT_EQ(bench.counters().malformed, c.malformed);
        bench.pushAll({keySlice}, 3);
        EXPECT_EQ(bench.frames.size(), 2U);
    }
}

TEST(H265Depacketiser, handsNothingOutOfATruncatedAggregate)
{
    const Bytes whole = aggregateH265({slice, laterSlice});
    for (std::size_t length = 2; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        Bench bench(h265Format({vps, sps, pps}));
        bench.pushAll({keySlice}, 0);
        bench.push(part(whole, 0, length), 1, true);
        const bool cutBetweenUnits = length == 4 + slice.size();  // one whole unit: no sign of another
        EXPECT_EQ(bench.frames.size(), cutBetweenUnits ? 2U : 1U);
    }
}

TEST(H265Depacketiser, makesFramesOfAllThreePacketKinds)
{
    Bench bench(h265Format());
    bench.pushAll({vps, sps, pps, keySlice, laterKeySlice}, 0);
    bench.pushAll({aggregateH265({vps, sps, pps, sei}), keySlice}, 1);
    bench.push(slice, 2);
    bench.pushAll(fragmentH265(laterSlice, 3), 2);
    ASSERT_EQ(bench.frames.size(), 3U);
    EXPECT_EQ(bench.frames[0].data, annexB({vps, sps, pps, keySlice, laterKeySlice}));
    EXPECT_EQ(bench.frames[0].parameterSets, annexB({vps, sps, pps}));
    EXPECT_TRUE(bench.frames[0].info.keyFrame);
    EXPECT_EQ(bench.frames[0].info.codec, GDRV::MediaCodec::h265);
    EXPECT_EQ(bench.frames[0].info.width, 1920U);
    EXPECT_EQ(bench.frames[0].info.height, 1080U);
    EXPECT_EQ(bench.frames[1].data, annexB({vps, sps, pps, sei, keySlice}));
    EXPECT_TRUE(bench.frames[1].parameterSets.empty());
    EXPECT_EQ(bench.frames[2].data, annexB({slice, laterSlice}));
    EXPECT_FALSE(bench.frames[2].info.keyFrame);
    EXPECT_EQ(bench.counters().malformed, 0U);
}

TEST(H265Depacketiser, joinsFragmentsOfAnySize)
{
    for (std::size_t bodyBytes = 1; bodyBytes <= keySlice.size(); ++bodyBytes) {
        SCOPED_TRACE(bodyBytes);
        Bench bench(h265Format({vps, sps, pps}));
        bench.pushAll(fragmentH265(keySlice, bodyBytes), 0);
        ASSERT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.frames[0].data, annexB({vps, sps, pps, keySlice}));
    }
}

TEST(H265Depacketiser, knowsItsKeyFrames)
{
    for (unsigned type = 0; type < 32; ++type) {
        SCOPED_TRACE(type);
        Bench bench(h265Format({vps, sps, pps}), flagging());
        bench.push(withType(keySlice, type), 0, true);
        const bool isSlice = type <= 9 || (type >= 16 && type <= 21);
        ASSERT_EQ(bench.frames.size(), isSlice ? 1U : 0U) << "reserved types are left out";
        if (isSlice) {
            EXPECT_EQ(bench.frames[0].info.keyFrame, type >= 16);
        }
    }
}

TEST(H265Depacketiser, managesWithoutADescribedVideoSet)
{
    Bench bench(h265Format({sps, pps}));
    bench.pushAll({keySlice}, 0);
    bench.pushAll({vps, keySlice}, 1);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, keySlice}));
    EXPECT_TRUE(bench.frames[0].info.keyFrame);
    EXPECT_EQ(bench.frames[1].data, annexB({vps, sps, pps, keySlice}));
    EXPECT_EQ(bench.frames[1].parameterSets, annexB({vps, sps, pps}));
}

TEST(H265Depacketiser, distrustsAKeyFrameWhoseVideoSetMayBeMissing)
{
    Bench bench(h265Format());
    bench.push(slice, 0, true);
    bench.push(sps, 1, false, true);
    bench.pushAll({pps, keySlice}, 1);  // a decoder would ask for the set that was lost
    EXPECT_EQ(bench.frames.size(), 0U);
    bench.pushAll({sps, pps, keySlice}, 2);  // this camera has none
    bench.push(sps, 3, false, true);
    bench.pushAll({pps, keySlice}, 3);
    EXPECT_EQ(bench.frames.size(), 2U);

    Bench repeating(h265Format());
    repeating.pushAll({vps, sps, pps, keySlice}, 0);
    repeating.push(sps, 1, false, true);
    repeating.pushAll({pps, keySlice}, 1);  // the missing packet may have changed it
    EXPECT_EQ(repeating.frames.size(), 1U);
}

TEST(H265Depacketiser, tellsWhenParameterSetsChangeInTheMiddle)
{
    Bench bench(h265Format({vps, sps, pps}));
    bench.pushAll({keySlice}, 0);
    bench.pushAll({aggregateH265({vps, otherSps, pps}), keySlice}, 1);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[1].parameterSets, annexB({vps, otherSps, pps}));
    EXPECT_EQ(bench.frames[1].info.width, 3840U);
    EXPECT_EQ(bench.frames[1].info.height, 2160U);
}

TEST(H265Depacketiser, keepsDelimiterAndSeiInPlace)
{
    Bench bench(h265Format({vps, sps, pps}));
    bench.pushAll({delimiter, sei, keySlice, suffixSei}, 0);
    bench.pushAll({delimiter, slice, suffixSei}, 1, false);
    bench.pushAll({delimiter, sei, slice}, 2);
    bench.pushAll({suffixSei}, 2);  // behind its frame's marker: of no use in front of the next
    bench.pushAll({slice}, 3);
    ASSERT_EQ(bench.frames.size(), 4U);
    EXPECT_EQ(bench.frames[0].data, annexB({delimiter, vps, sps, pps, sei, keySlice, suffixSei}));
    EXPECT_EQ(bench.frames[1].data, annexB({delimiter, slice, suffixSei}));
    EXPECT_EQ(bench.frames[2].data, annexB({delimiter, sei, slice}));
    EXPECT_EQ(bench.frames[3].data, annexB({slice}));
}

TEST(H265Depacketiser, neverPassesADamagedFrameForWhole)
{
    const auto fragments = fragmentH265(slice, 3);
    for (std::size_t lost = 0; lost < fragments.size(); ++lost) {
        for (const bool flag : {false, true}) {
            SCOPED_TRACE(::testing::Message() << lost << flag);
            Bench bench(h265Format({vps, sps, pps}), flag ? flagging() : DepacketiserOptions{});
            bench.pushAll({keySlice}, 0);
            for (std::size_t i = 0; i < fragments.size(); ++i) {
                if (i != lost)
                    bench.push(fragments[i], 1, i + 1 == fragments.size(), i == lost + 1);
            }
            bench.push(slice, 2, true, lost + 1 == fragments.size());
            bench.pushAll({keySlice}, 3);
            EXPECT_TRUE(bench.frames.back().info.keyFrame);
            if (!flag) {
                EXPECT_TRUE(bench.frames.back().info.lostPacketsBefore);
            }
            for (const Frame& frame : bench.frames.all) {
                if (!frame.info.damaged) {
                    EXPECT_TRUE(frame.data == annexB({vps, sps, pps, keySlice}) || frame.data == annexB({slice}));
                }
                EXPECT_TRUE(flag || !frame.info.damaged);
            }
            EXPECT_EQ(bench.counters().damagedFrames, 1U);
        }
    }
}

TEST(H265Depacketiser, checksWhereASliceBeginsAfterALoss)
{
    Bench bench(h265Format({vps, sps, pps}), flagging());
    bench.pushAll({keySlice}, 0);
    bench.push(slice, 2, true, true);
    bench.push(laterSlice, 4, true, true);
    ASSERT_EQ(bench.frames.size(), 3U);
    EXPECT_FALSE(bench.frames[1].info.damaged);
    EXPECT_TRUE(bench.frames[2].info.damaged);
}

TEST(H265Depacketiser, refusesWhatWasNotAgreedOn)
{
    const struct {
        const char* what;
        Bytes payload;
        bool damages;
    } cases[] = {
        {"a single byte", hex("02"), true},
        {"forbidden bit", hex("82 01 d0"), true},
        {"no temporal id", hex("02 00 d0"), true},
        {"aggregate without units", hex("60 01"), true},
        {"aggregate with half a length", hex("60 01 00"), true},
        {"aggregate beyond the end", hex("60 01 00 09 02 01 d0"), true},
        {"aggregate with a unit of one byte", hex("60 01 00 01 02"), true},
        {"aggregate within aggregate", hex("60 01 00 03 60 01 00"), true},
        {"fragment without header", hex("62 01"), true},
        {"fragment without body", hex("62 01 81"), true},
        {"fragment of an aggregate", hex("62 01 b0 00"), true},
        {"content information", hex("64 01 00 00"), true},
        {"type 51", hex("66 01 00 00"), false},
        {"type 63", hex("7e 01 00 00"), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(h265Format({vps, sps, pps}), flagging());
        bench.pushAll({keySlice}, 0);
        bench.push(slice, 1);
        bench.push(c.payload, 1);
        bench.push(laterSlice, 1, true);
        ASSERT_EQ(bench.frames.size(), 2U);
        EXPECT_EQ(bench.frames[1].info.damaged, c.damages);
        EXPECT_EQ(bench.frames[1].data, annexB({slice, laterSlice}));
        EXPECT_EQ(bench.counters().malformed, 1U);
    }
}

TEST(H265Depacketiser, leavesOutOtherLayers)
{
    Bench bench(h265Format({vps, sps, pps}));
    bench.pushAll({keySlice, hex("26 09 af 06 b8")}, 0);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(bench.frames[0].data, annexB({vps, sps, pps, keySlice}));
}
}  // namespace Tavro8::media

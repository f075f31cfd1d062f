#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <cstring>

namespace Tavro8::media
{
using namespace testkit;
using namespace testkit::h264;

namespace
{
/// Joins the stream with a key frame that carries its parameter sets.
void begin(Bench& bench, std::uint32_t timestamp = 0)
{
    bench.pushAll({sps, pps, keySlice}, timestamp);
    ASSERT_EQ(bench.frames.size(), 1U);
}
}  // namespace

TEST(H264Depacketiser, isMadeForWhatItUnderstands)
{
    EXPECT_EQ(refusalOf(h264Format()), nullptr);
    TrackFormat format = h264Format();
    format.formatParameters = {{"packetization-mode", "1"}};
    EXPECT_EQ(refusalOf(format), nullptr);
    format.formatParameters = {{"profile-level-id", "42c00d"}, {"packetization-mode", "2"}};
    EXPECT_STREQ(refusalOf(format), "H.264 in interleaved packets (packetization-mode 2) is not supported");
    EXPECT_EQ(Bench(format).depacketiser, nullptr);
    format = h264Format();
    format.payloadTypes = {};
    EXPECT_NE(refusalOf(format), nullptr);
    format.payloadTypes = {200};
    EXPECT_NE(refusalOf(format), nullptr);
    format = h264Format();
    format.codec = GDRV::MediaCodec::unknown;
    EXPECT_NE(refusalOf(format), nullptr);
    EXPECT_EQ(Bench(format).depacketiser, nullptr);
}

TEST(H264Depacketiser, makesAFrameOfSingleNalUnits)
{
    Bench bench(h264Format());
    bench.push(sps, 900);
    bench.push(pps, 900);
    bench.push(keySlice, 900, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    const Frame& frame = bench.frames[0];
    EXPECT_EQ(frame.data, annexB({sps, pps, keySlice}));
    EXPECT_EQ(frame.parameterSets, annexB({sps, pps}));
    EXPECT_TRUE(frame.setsInsideData);
    EXPECT_EQ(frame.rtpTimestamp, 900U);
    EXPECT_EQ(frame.info.codec, GDRV::MediaCodec::h264);
    EXPECT_TRUE(frame.info.keyFrame);
    EXPECT_FALSE(frame.info.damaged);
    EXPECT_FALSE(frame.info.lostPacketsBefore);
    EXPECT_EQ(frame.info.width, 352U);
    EXPECT_EQ(frame.info.height, 288U);
    EXPECT_EQ(frame.info.sampleRate, 0U);
    EXPECT_EQ(bench.counters().malformed, 0U);
}

TEST(H264Depacketiser, takesAggregatesApart)
{
    Bench bench(h264Format());
    bench.push(stapA({sps, pps, sei}), 0);
    bench.push(keySlice, 0, true);
    bench.push(stapA({slice, laterSlice}), 3600, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, sei, keySlice}));
    EXPECT_EQ(bench.frames[1].data, annexB({slice, laterSlice}));
    EXPECT_FALSE(bench.frames[1].info.keyFrame);
    EXPECT_TRUE(bench.frames[1].parameterSets.empty());
    EXPECT_EQ(bench.frames[1].info.width, 352U);
}

TEST(H264Depacketiser, joinsFragmentsOfAnySize)
{
    for (std::size_t bodyBytes = 1; bodyBytes <= keySlice.size(); ++bodyBytes) {
        SCOPED_TRACE(bodyBytes);
        Bench bench(h264Format());
        bench.push(stapA({sps, pps}), 0);
        bench.pushAll(fragmentH264(keySlice, bodyBytes), 0);
        ASSERT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, keySlice}));
        EXPECT_TRUE(bench.frames[0].info.keyFrame);
        EXPECT_EQ(bench.counters().malformed, 0U);
    }
}

TEST(H264Depacketiser, joinsAFragmentedParameterSet)
{
    Bench bench(h264Format());
    bench.pushAll(fragmentH264(sps, 5), 0, false);
    bench.push(pps, 0);
    bench.push(keySlice, 0, true);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, keySlice}));
    EXPECT_EQ(bench.frames[0].parameterSets, annexB({sps, pps}));
}

TEST(H264Depacketiser, keepsSlicesSeiAndDelimiterInOrder)
{
    Bench bench(h264Format());
    bench.pushAll({delimiter, sps, pps, sei, keySlice, laterKeySlice}, 0);
    bench.pushAll({delimiter, sei, slice, laterSlice}, 3600);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[0].data, annexB({delimiter, sps, pps, sei, keySlice, laterKeySlice}));
    EXPECT_EQ(bench.frames[1].data, annexB({delimiter, sei, slice, laterSlice}));
    EXPECT_TRUE(bench.frames[0].info.keyFrame);
    EXPECT_EQ(bench.frames[0].parameterSets, annexB({sps, pps}));
}

TEST(H264Depacketiser, endsAFrameWithoutMarkerAtTheNextTimestamp)
{
    Bench bench(h264Format({sps, pps}));
    std::uint32_t timestamp = 0xfffff000;  // wraps
    bench.pushAll(fragmentH264(keySlice, 4), timestamp, false);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(bench.frames.size(), static_cast<std::size_t>(i));
        timestamp += 3600;
        bench.pushAll({slice, laterSlice}, timestamp, false);
    }
    bench.depacketiser->flush();
    ASSERT_EQ(bench.frames.size(), 6U);
    EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, keySlice}));
    EXPECT_EQ(bench.frames[0].rtpTimestamp, 0xfffff000U);
    EXPECT_EQ(bench.frames[5].data, annexB({slice, laterSlice}));
    EXPECT_EQ(bench.counters().damagedFrames, 0U);
    bench.depacketiser->flush();
    EXPECT_EQ(bench.frames.size(), 6U) << "nothing is left";
}

TEST(H264Depacketiser, putsTheDescribedParameterSetsInFrontOfEachKeyFrame)
{
    Bench bench(h264Format({pps, sps}));
    bench.pushAll({keySlice, laterKeySlice}, 0);
    bench.pushAll({slice}, 1);
    bench.pushAll({sei, keySlice}, 2);
    bench.pushAll({delimiter, sei, keySlice}, 3);
    ASSERT_EQ(bench.frames.size(), 4U);
    EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, keySlice, laterKeySlice}));
    EXPECT_EQ(bench.frames[0].parameterSets, annexB({sps, pps}));
    EXPECT_EQ(bench.frames[0].info.width, 352U);
    EXPECT_EQ(bench.frames[1].data, annexB({slice}));
    EXPECT_EQ(bench.frames[2].data, annexB({sps, pps, sei, keySlice}));
    EXPECT_TRUE(bench.frames[2].parameterSets.empty()) << "they have not changed";
    EXPECT_EQ(bench.frames[3].data, annexB({delimiter, sps, pps, sei, keySlice}));
}

TEST(H264Depacketiser, completesAndSortsWhatTheCameraRepeats)
{
    Bench bench(h264Format({sps, pps}));
    bench.pushAll({pps, sei, keySlice}, 0);
    bench.pushAll({sps, sei, pps, keySlice}, 1);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, sei, keySlice}));
    EXPECT_EQ(bench.frames[1].data, annexB({sps, pps, sei, keySlice}));
    EXPECT_TRUE(bench.frames[1].parameterSets.empty());
}

TEST(H264Depacketiser, tellsWhenParameterSetsChangeInTheMiddle)
{
    Bench bench(h264Format({sps, pps}));
    bench.pushAll({keySlice}, 0);
    bench.pushAll({slice}, 1);
    bench.pushAll({stapA({otherSps, pps}), keySlice}, 2);
    bench.pushAll({slice}, 3);
    bench.pushAll({stapA({otherSps, pps}), keySlice}, 4);
    ASSERT_EQ(bench.frames.size(), 5U);
    EXPECT_EQ(bench.frames[1].info.width, 352U);
    EXPECT_EQ(bench.frames[2].data, annexB({otherSps, pps, keySlice}));
    EXPECT_EQ(bench.frames[2].parameterSets, annexB({otherSps, pps}));
    EXPECT_EQ(bench.frames[2].info.width, 1280U);
    EXPECT_EQ(bench.frames[2].info.height, 720U);
    EXPECT_EQ(bench.frames[3].info.width, 1280U);
    EXPECT_TRUE(bench.frames[4].parameterSets.empty());
}

TEST(H264Depacketiser, tellsAChangeInTheFrameThatUsesIt)
{
    Bench bench(h264Format({sps, pps}));
    bench.pushAll({keySlice}, 0);
    const Bytes otherPps = hex("68 ce 3c 80");
    bench.pushAll({otherPps, slice}, 1);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_FALSE(bench.frames[1].info.keyFrame);
    EXPECT_EQ(bench.frames[1].data, annexB({sps, otherPps, slice}));
    EXPECT_EQ(bench.frames[1].parameterSets, annexB({sps, otherPps}));
}

TEST(H264Depacketiser, joinsParameterSetsThatComeWithMarkerOrTimestampOfTheirOwn)
{
    for (const bool ownTimestamp : {false, true}) {
        for (const bool ownMarker : {false, true}) {
            SCOPED_TRACE(::testing::Message() << ownTimestamp << ownMarker);
            Bench bench(h264Format());
            bench.push(sps, ownTimestamp ? 50 : 100, ownMarker);
            bench.push(pps, ownTimestamp ? 60 : 100, ownMarker);
            bench.push(sei, ownTimestamp ? 70 : 100, ownMarker);
            bench.push(keySlice, 100, true);
            ASSERT_EQ(bench.frames.size(), 1U);
            EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, sei, keySlice}));
            EXPECT_EQ(bench.frames[0].rtpTimestamp, 100U);
        }
    }
}

TEST(H264Depacketiser, holdsBackEverythingBeforeTheFirstKeyFrame)
{
    Bench bench(h264Format());
    bench.pushAll({laterSlice}, 0);
    bench.pushAll({slice}, 1);
    bench.pushAll({keySlice}, 2);  // no parameter sets known: nothing can be decoded
    EXPECT_EQ(bench.frames.size(), 0U);
    EXPECT_EQ(bench.counters().droppedFrames, 3U);
    bench.pushAll({sps, pps, keySlice}, 3);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_FALSE(bench.frames[0].info.lostPacketsBefore) << "there is no frame before it";
}

TEST(H264Depacketiser, canBeJoinedInTheMiddleOfAFragmentedFrame)
{
    const auto fragments = fragmentH264(slice, 3);
    for (std::size_t first = 0; first < fragments.size(); ++first) {
        SCOPED_TRACE(first);
        Bench bench(h264Format({sps, pps}));
        for (std::size_t i = first; i < fragments.size(); ++i)
            bench.push(fragments[i], 0, i + 1 == fragments.size());
        EXPECT_EQ(bench.frames.size(), 0U);
        EXPECT_EQ(bench.counters().malformed, 0U) << "no fault of the device";
        bench.pushAll(fragmentH264(keySlice, 3), 1);
        ASSERT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, keySlice}));
    }
}

TEST(H264Depacketiser, takesIntraPicturesWithParameterSetsForKeyFrames)
{
    Bench bench(h264Format());
    bench.pushAll({intraSlice}, 0);
    EXPECT_EQ(bench.frames.size(), 0U);
    bench.pushAll({sps, pps, intraSlice}, 1);
    bench.pushAll({sps, pps, slice}, 2);
    bench.pushAll({intraSlice}, 3);
    ASSERT_EQ(bench.frames.size(), 3U);
    EXPECT_TRUE(bench.frames[0].info.keyFrame);
    EXPECT_FALSE(bench.frames[1].info.keyFrame) << "P slices";
    EXPECT_FALSE(bench.frames[2].info.keyFrame) << "no parameter sets";
}

TEST(H264Depacketiser, dropsADamagedFrameAndWhatDependsOnIt)
{
    const auto fragments = fragmentH264(slice, 3);
    for (std::size_t lost = 0; lost < fragments.size(); ++lost) {
        SCOPED_TRACE(lost);
        Bench bench(h264Format());
        begin(bench);
        for (std::size_t i = 0; i < fragments.size(); ++i) {
            if (i != lost)
                bench.push(fragments[i], 1, i + 1 == fragments.size(), i == lost + 1);
        }
        const bool lastLost = lost + 1 == fragments.size();
        bench.push(slice, 2, true, lastLost);
        bench.push(slice, 3, true);
        EXPECT_EQ(bench.frames.size(), 1U);
        bench.pushAll({sps, pps, keySlice}, 4);
        bench.pushAll({slice}, 5);
        ASSERT_EQ(bench.frames.size(), 3U);
        EXPECT_TRUE(bench.frames[1].info.keyFrame);
        EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
        EXPECT_FALSE(bench.frames[2].info.lostPacketsBefore);
        EXPECT_EQ(bench.counters().malformed, 0U) << "loss is no fault of the format";
    }
}

TEST(H264Depacketiser, flagsADamagedFrameWhenAskedTo)
{
    const auto fragments = fragmentH264(slice, 3);
    for (std::size_t lost = 0; lost < fragments.size(); ++lost) {
        SCOPED_TRACE(lost);
        Bench bench(h264Format(), flagging());
        begin(bench);
        for (std::size_t i = 0; i < fragments.size(); ++i) {
            if (i != lost)
                bench.push(fragments[i], 1, i + 1 == fragments.size(), i == lost + 1);
        }
        bench.push(slice, 2, true, lost + 1 == fragments.size());
        bench.push(slice, 3, true);
        bool anyDamaged = false;
        for (const Frame& frame : bench.frames.all) {
            anyDamaged = anyDamaged || frame.info.damaged;
            EXPECT_FALSE(frame.data.empty());
            if (frame.rtpTimestamp == 1) {
                EXPECT_TRUE(frame.info.damaged);
            }
            if (frame.rtpTimestamp == 2) {
                EXPECT_FALSE(frame.info.damaged);
            }
        }
        EXPECT_EQ(anyDamaged, lost != 0) << "without its first fragment there is nothing to hand out";
        EXPECT_EQ(bench.frames.back().rtpTimestamp, 3U);
        EXPECT_EQ(bench.counters().damagedFrames, 1U);
    }
}

TEST(H264Depacketiser, tellsMissingFramesFromMissingBeginnings)
{
    Bench bench(h264Format(), flagging());
    begin(bench);
    bench.push(slice, 2, true, true);       // begins a picture: whole frames are missing
    bench.push(laterSlice, 4, true, true);  // does not: its first slice is missing
    ASSERT_EQ(bench.frames.size(), 3U);
    EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
    EXPECT_FALSE(bench.frames[1].info.damaged);
    EXPECT_TRUE(bench.frames[2].info.lostPacketsBefore);
    EXPECT_TRUE(bench.frames[2].info.damaged);
}

TEST(H264Depacketiser, takesAnUnmarkedFrameForDamagedWhenPacketsAreMissingBehindIt)
{
    Bench bench(h264Format(), flagging());
    begin(bench);
    bench.push(slice, 1);
    bench.push(slice, 2, true, true);
    ASSERT_EQ(bench.frames.size(), 3U);
    EXPECT_TRUE(bench.frames[1].info.damaged);
    EXPECT_FALSE(bench.frames[2].info.damaged);
}

TEST(H264Depacketiser, acceptsAWholeKeyFrameRightAfterALoss)
{
    Bench bench(h264Format());
    begin(bench);
    bench.push(sps, 5, false, true);
    bench.push(pps, 5);
    bench.push(keySlice, 5, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
    EXPECT_FALSE(bench.frames[1].info.damaged);
}

TEST(H264Depacketiser, distrustsAKeyFrameWhoseParameterSetsMayBeMissing)
{
    Bench bench(h264Format());
    begin(bench);
    bench.push(keySlice, 5, true, true);  // this camera always sends them: the missing packet may have changed them
    EXPECT_EQ(bench.frames.size(), 1U);
    bench.pushAll({sps, pps, keySlice}, 6);
    EXPECT_EQ(bench.frames.size(), 2U);

    Bench described(h264Format({sps, pps}));
    described.pushAll({keySlice}, 0);
    described.push(keySlice, 5, true, true);  // this one never does
    EXPECT_EQ(described.frames.size(), 2U);
}

TEST(H264Depacketiser, marksAKeyFrameWhoseOnlyParameterSetWasLost)
{
    Bench bench(h264Format(), flagging());
    bench.push(pps, 0, false, true);
    bench.pushAll({keySlice}, 0);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_TRUE(bench.frames[0].info.damaged);
    EXPECT_FALSE(bench.frames[0].info.keyFrame);
}

TEST(H264Depacketiser, doesNotTakeTheParameterSetsOfALostFrameForThoseOfTheNext)
{
    Bench bench(h264Format());
    begin(bench);
    bench.push(stapA({otherSps, pps}), 5);  // the slices of this one are lost, and the next one's sequence set
    bench.push(pps, 6, false, true);
    bench.push(keySlice, 6, true);
    EXPECT_EQ(bench.frames.size(), 1U);
    bench.pushAll({sps, pps, keySlice}, 7);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[1].data, annexB({sps, pps, keySlice}));
}

TEST(H264Depacketiser, takesNoKeyFrameWhoseParameterSetsComeBehindItsFirstSlice)
{
    Bench bench(h264Format());
    bench.pushAll({keySlice, sps, pps, laterKeySlice}, 0);
    EXPECT_EQ(bench.frames.size(), 0U);
    bench.pushAll({keySlice}, 1);
    ASSERT_EQ(bench.frames.size(), 1U);
    EXPECT_EQ(bench.frames[0].data, annexB({sps, pps, keySlice}));
}

TEST(H264Depacketiser, startsAfreshAfterAReset)
{
    Bench bench(h264Format());
    begin(bench);
    bench.pushAll(fragmentH264(slice, 3), 1, false);
    bench.depacketiser->reset();
    bench.pushAll({keySlice}, 100);  // this camera repeats its sets: new ones may have been in front
    bench.pushAll({slice}, 101);
    EXPECT_EQ(bench.frames.size(), 1U);
    bench.pushAll({sps, pps, keySlice}, 102);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
    EXPECT_TRUE(bench.frames[1].parameterSets.empty());
}

TEST(H264Depacketiser, refusesWhatWasNotAgreedOn)
{
    const struct {
        const char* what;
        Bytes payload;
        bool damages;
    } cases[] = {
        {"STAP-B", hex("19 00 01 00 02 41 9a"), true},
        {"MTAP16", hex("1a 00 01 00 02 41 9a"), true},
        {"MTAP24", hex("1b 00 01 00 02 41 9a"), true},
        {"FU-B", hex("5d 81 00 01 9a 24"), true},
        {"forbidden bit", hex("c1 9a 24"), true},
        {"FU-A without body", hex("5c 81"), true},
        {"FU-A cut off", hex("5c"), true},
        {"FU-A of an aggregate", hex("5c 98 00"), true},
        {"FU-A of type 0", hex("5c 80 00"), true},
        {"STAP-A without units", hex("18"), true},
        {"STAP-A with half a length", hex("18 00"), true},
        {"STAP-A beyond the end", hex("18 00 05 41 9a"), true},
        {"STAP-A with an empty unit", hex("18 00 00 41"), true},
        {"STAP-A within STAP-A", hex("18 00 02 18 00"), true},
        {"type 0", hex("60 01 02"), false},
        {"type 30", hex("7e 01 02"), false},
        {"type 31", hex("7f 01 02"), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(h264Format(), flagging());
        begin(bench);
        bench.push(slice, 1);
        bench.push(c.payload, 1);
        bench.push(laterSlice, 1, true);
        ASSERT_EQ(bench.frames.size(), 2U);
        EXPECT_EQ(bench.frames[1].info.damaged, c.damages);
        EXPECT_EQ(bench.frames[1].data, annexB({slice, laterSlice}));
        EXPECT_EQ(bench.counters().malformed, 1U);
    }
}

TEST(H264Depacketiser, keepsTheUnitsInFrontOfABreak)
{
    Bench bench(h264Format(), flagging());
    begin(bench);
    bench.push(stapA({slice}) + hex("00 09 41"), 1, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[1].data, annexB({slice}));
    EXPECT_TRUE(bench.frames[1].info.damaged);
}

TEST(H264Depacketiser, noticesFragmentsThatDoNotFit)
{
    const auto fragments = fragmentH264(slice, 4);
    const struct {
        const char* what;
        std::vector<Bytes> payloads;
        std::uint64_t malformed;
    } cases[] = {
        {"no end", {fragments[0], fragments[1]}, 0},
        {"begins twice", {fragments[0], fragments[0], fragments[1], fragments[2], fragments[3]}, 0},
        {"a unit in between", {fragments[0], laterSlice, fragments[1]}, 1},
        {"goes on behind its end", {slice, fragments[1]}, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Bench bench(h264Format());
        begin(bench);
        bench.pushAll(c.payloads, 1);
        bench.pushAll({slice}, 2);
        EXPECT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.counters().damagedFrames, 1U);
        EXPECT_EQ(bench.counters().malformed, c.malformed);
    }
}

TEST(H264Depacketiser, acceptsAUnitInASingleFragment)
{
    Bench bench(h264Format());
    begin(bench);
    bench.push(Bytes{0x5c, 0xc1} + part(slice, 1, 100), 1, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[1].data, annexB({slice}));
}

TEST(H264Depacketiser, ignoresEmptyPayloadsAndFiller)
{
    Bench bench(h264Format());
    begin(bench);
    bench.push({}, 1);
    bench.push(slice, 1);
    bench.push(hex("0c ff ff ff 80"), 1);
    bench.push({}, 1, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_EQ(bench.frames[1].data, annexB({slice}));
    EXPECT_EQ(bench.counters().malformed, 0U);
}

TEST(H264Depacketiser, leavesOutReservedTypesAndDataPartitions)
{
    for (const unsigned type : {2U, 3U, 4U, 16U, 17U, 18U, 22U, 23U}) {
        SCOPED_TRACE(type);
        Bench bench(h264Format());
        begin(bench);
        const Bytes unit{static_cast<std::uint8_t>(0x40 | type), 0x9a, 0x24};
        bench.push(slice, 1);
        bench.push(unit, 1);
        bench.pushAll(fragmentH264(unit, 1), 1, false);
        bench.push(laterSlice, 1, true);
        ASSERT_EQ(bench.frames.size(), 2U);
        EXPECT_EQ(bench.frames[1].data, annexB({slice, laterSlice}));
        EXPECT_EQ(bench.counters().misfits, 3U);
    }
}

TEST(H264Depacketiser, handsNothingOutOfATruncatedAggregate)
{
    const Bytes whole = stapA({slice, laterSlice});
    for (std::size_t length = 1; length < whole.size(); ++length) {
        SCOPED_TRACE(length);
        Bench bench(h264Format());
        begin(bench);
        bench.push(part(whole, 0, length), 1, true);
        const bool cutBetweenUnits = length == 3 + slice.size();  // one whole unit: no sign of another
        EXPECT_EQ(bench.frames.size(), cutBetweenUnits ? 2U : 1U);
    }
}

TEST(H264Depacketiser, takesAChangeOfSizeInEachForm)
{
    const std::vector<std::vector<Bytes>> forms{
        {otherSps, pps, keySlice},
        {stapA({otherSps, pps}), keySlice},
        {stapA({otherSps, pps, keySlice})},
        {stapA({delimiter, otherSps, pps, sei}), keySlice, laterKeySlice},
    };
    for (std::size_t i = 0; i < forms.size(); ++i) {
        for (const bool marked : {true, false}) {
            SCOPED_TRACE(::testing::Message() << i << marked);
            Bench bench(h264Format({sps, pps}));
            bench.pushAll({keySlice}, 0);
            bench.pushAll({slice}, 1, marked);
            bench.pushAll(forms[i], 2, marked);
            bench.pushAll({slice}, 3);
            ASSERT_EQ(bench.frames.size(), 4U);
            EXPECT_EQ(bench.frames[1].info.width, 352U);
            EXPECT_EQ(bench.frames[2].info.width, 1280U);
            EXPECT_EQ(bench.frames[2].parameterSets, annexB({otherSps, pps}));
            EXPECT_TRUE(bench.frames[2].info.keyFrame);
            EXPECT_EQ(bench.frames[3].info.width, 1280U);
        }
    }
}

TEST(H264Depacketiser, doesNotPassAFrameForWholeWhoseMarkerIsMissingAtTheEnd)
{
    Bench bench(h264Format());
    begin(bench);
    bench.push(slice, 1);
    bench.depacketiser->flush();
    EXPECT_EQ(bench.frames.size(), 1U) << "this camera marks its frames, so that another slice may have followed";
}

TEST(H264Depacketiser, damagesNoFrameByAFlushBetweenTwo)
{
    Bench bench(h264Format());
    begin(bench);
    bench.depacketiser->flush();
    bench.push(slice, 1, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_FALSE(bench.frames[1].info.damaged);
    EXPECT_EQ(bench.counters().damagedFrames, 0U);
}

TEST(H264Depacketiser, leavesParameterSetsForTheirFrameAtAFlush)
{
    Bench bench(h264Format());
    begin(bench);
    bench.push(sps, 1);
    bench.push(pps, 1);
    bench.depacketiser->flush();
    bench.push(keySlice, 1, true);
    ASSERT_EQ(bench.frames.size(), 2U);
    EXPECT_TRUE(bench.frames[1].info.keyFrame);
    EXPECT_EQ(bench.frames[1].data, annexB({sps, pps, keySlice}));
}

TEST(H264Depacketiser, givesUpAFrameBeyondTheLimit)
{
    for (const bool flag : {false, true}) {
        SCOPED_TRACE(flag);
        DepacketiserOptions options;
        options.maxFrameBytes = 1000;
        options.lossPolicy = flag ? LossPolicy::flag : LossPolicy::dropUntilKeyFrame;
        Bench bench(h264Format(), options);
        begin(bench);
        bench.pushAll(fragmentH264(slice + Bytes(2000, 0xee), 100), 1);
        EXPECT_EQ(bench.frames.size(), 1U);
        EXPECT_EQ(bench.counters().oversizedFrames, 1U);
        EXPECT_EQ(bench.pool.usage().buffersOut, 0U);
        bench.pushAll({sps, pps, keySlice}, 2);
        ASSERT_EQ(bench.frames.size(), 2U);
        EXPECT_TRUE(bench.frames[1].info.lostPacketsBefore);
    }
}

TEST(H264Depacketiser, handsOutFramesThatCanBeKept)
{
    struct Keeper final : AccessUnitSink {
        void onAccessUnit(GDRV::MediaFrame& frame, std::uint32_t) override { kept.emplace_back(frame); }
        std::vector<GDRV::FrameReference> kept;
    } keeper;
    auto pool = std::make_unique<FramePool>();
    auto depacketiser = makeDepacketiser(h264Format({sps, pps}), *pool, keeper);
    for (std::uint32_t i = 0; i < 10; ++i)
        depacketiser->push(Packet{.payload = keySlice, .timestamp = i, .marker = true}.view(), false);
    EXPECT_EQ(pool->usage().buffersOut, 10U);
    depacketiser.reset();
    pool.reset();
    for (const auto& frame : keeper.kept) {
        EXPECT_EQ(Bytes(frame->data.begin(), frame->data.end()), annexB({sps, pps, keySlice}));
        EXPECT_NE(frame->buffer, nullptr);
    }
}
}  // namespace Tavro8::media

#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <map>

/// Real elementary streams, packed by a simple packetiser of the tests' own, must come out NAL by NAL.
namespace Tavro8::media
{
using namespace testkit;

namespace
{
struct Stream {
    const char* file;
    bool h265;

    unsigned typeOf(const Bytes& nal) const { return h265 ? (nal[0] >> 1) & 0x3fU : nal[0] & 0x1fU; }
    bool isDelimiter(const Bytes& nal) const { return typeOf(nal) == (h265 ? 35U : 9U); }
    bool isSei(const Bytes& nal) const { return h265 ? typeOf(nal) == 39 : typeOf(nal) == 6; }
    bool isSmall(const Bytes& nal) const
    {
        return h265 ? typeOf(nal) >= 32 && typeOf(nal) <= 34 : typeOf(nal) == 7 || typeOf(nal) == 8;
    }
};

struct Packing {
    std::size_t payloadBytes;
    bool aggregateSets;
    bool markers;
};

using AccessUnit = std::vector<Bytes>;

/// The encoder was told to put a delimiter in front of each access unit.
std::vector<AccessUnit> accessUnitsOf(const Stream& stream)
{
    std::vector<AccessUnit> units;
    for (const Bytes& nal : splitAnnexB(readData(stream.file))) {
        if (stream.isDelimiter(nal))
            units.emplace_back();
        units.back().push_back(nal);
    }
    return units;
}

std::vector<Packet> pack(const Stream& stream, const Packing& packing)
{
    std::vector<Packet> packets;
    std::uint32_t timestamp = 0xffffe000;
    std::uint16_t sequence = 65500;
    for (const AccessUnit& unit : accessUnitsOf(stream)) {
        std::vector<Bytes> payloads;
        std::vector<Bytes> sets;
        const auto flushSets = [&] {
            if (sets.size() == 3)
                payloads.push_back(aggregateH265({sets[0], sets[1], sets[2]}));
            else if (sets.size() == 2)
                payloads.push_back(stapA({sets[0], sets[1]}));
            sets.clear();
        };
        for (const Bytes& nal : unit) {
            if (packing.aggregateSets && stream.isSmall(nal)) {
                sets.push_back(nal);
                continue;
            }
            flushSets();
            if (nal.size() <= packing.payloadBytes) {
                payloads.push_back(nal);
                continue;
            }
            const auto fragments =
                stream.h265 ? fragmentH265(nal, packing.payloadBytes - 3) : fragmentH264(nal, packing.payloadBytes - 2);
            payloads.insert(payloads.end(), fragments.begin(), fragments.end());
        }
        for (std::size_t i = 0; i < payloads.size(); ++i)
            packets.push_back(Packet{.payload = payloads[i],
                                     .timestamp = timestamp,
                                     .marker = packing.markers && i + 1 == payloads.size(),
                                     .sequence = sequence++});
        timestamp += 3600;
    }
    return packets;
}

Frames receive(const Stream& stream, const std::vector<Packet>& packets, LossPolicy policy,
               std::size_t leftOut = SIZE_MAX)
{
    Frames frames;
    TrackReceiver::Options options;
    options.depacketiser.lossPolicy = policy;
    auto receiver =
        TrackReceiver::make(stream.h265 ? h265Format() : h264Format(), std::make_shared<FramePool>(), frames, options);
    for (std::size_t i = 0; i < packets.size(); ++i) {
        if (i != leftOut)
            receiver->onRtp(packets[i].bytes(), {});
    }
    receiver->flush();
    return frames;
}

/// The slices and parameter sets; delimiters and SEI are left out.
std::vector<Bytes> coreOf(const Stream& stream, std::vector<Bytes> nals)
{
    std::erase_if(nals, [&](const Bytes& nal) { return stream.isDelimiter(nal) || stream.isSei(nal); });
    return nals;
}

class ElementaryStream : public ::testing::TestWithParam<Stream> {};
}  // namespace

TEST_P(ElementaryStream, comesOutAsItWasEncoded)
{
    const auto units = accessUnitsOf(GetParam());
    ASSERT_EQ(units.size(), 12U);
    for (const Packing& packing : {Packing{1400, true, true}, Packing{1400, false, false}, Packing{200, true, false},
                                   Packing{60, false, true}, Packing{5, false, true}}) {
        SCOPED_TRACE(packing.payloadBytes);
        const Frames frames = receive(GetParam(), pack(GetParam(), packing), LossPolicy::dropUntilKeyFrame);
        ASSERT_EQ(frames.size(), units.size());
        for (std::size_t i = 0; i < units.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(splitAnnexB(frames[i].data), units[i]);
            EXPECT_EQ(frames[i].info.keyFrame, i % 6 == 0);
            EXPECT_EQ(frames[i].parameterSets.empty(), i != 0);
            EXPECT_EQ(frames[i].info.width, 176U);
            EXPECT_EQ(frames[i].info.height, 144U);
            EXPECT_EQ(frames[i].info.durationMs, i == 0 ? 0U : 40U);
        }
    }
}

TEST_P(ElementaryStream, neverPassesADamagedFrameForWholeWhicheverPacketIsMissing)
{
    const auto units = accessUnitsOf(GetParam());
    for (const Packing& packing : {Packing{300, true, true}, Packing{300, false, false}}) {
        const auto packets = pack(GetParam(), packing);
        for (std::size_t lost = 0; lost + 1 < packets.size(); ++lost) {
            SCOPED_TRACE(lost);
            std::size_t whole = 0;
            const Frames frames = receive(GetParam(), packets, LossPolicy::flag, lost);
            for (const Frame& frame : frames.all) {
                if (frame.info.damaged)
                    continue;
                ++whole;
                const auto nals = coreOf(GetParam(), splitAnnexB(frame.data));
                EXPECT_TRUE(std::ranges::any_of(
                    units, [&](const AccessUnit& unit) { return coreOf(GetParam(), unit) == nals; }));
            }
            EXPECT_GE(whole, units.size() - 2);

            for (const Frame& frame : receive(GetParam(), packets, LossPolicy::dropUntilKeyFrame, lost).all)
                EXPECT_FALSE(frame.info.damaged);
        }
    }
}

TEST_P(ElementaryStream, comesOutOfWhatAnotherProgramPacked)
{
    const auto units = accessUnitsOf(GetParam());
    const auto packets = readPackets(std::string(GetParam().file) + ".rtp");
    ASSERT_GT(packets.size(), 40U);
    const auto play = [&](std::size_t leftOut) {
        Frames frames;
        const auto receiver =
            TrackReceiver::make(GetParam().h265 ? h265Format() : h264Format(), std::make_shared<FramePool>(), frames);
        for (std::size_t i = 0; i < packets.size(); ++i) {
            if (i != leftOut)
                receiver->onRtp(packets[i], {});
        }
        receiver->flush();
        return frames;
    };
    const Frames whole = play(packets.size());
    ASSERT_EQ(whole.size(), units.size());
    for (std::size_t i = 0; i < units.size(); ++i)
        EXPECT_EQ(coreOf(GetParam(), splitAnnexB(whole[i].data)), coreOf(GetParam(), units[i]));

    for (std::size_t lost = 0; lost < packets.size(); ++lost) {
        SCOPED_TRACE(lost);
        for (const Frame& frame : play(lost).all) {
            const auto nals = coreOf(GetParam(), splitAnnexB(frame.data));
            EXPECT_TRUE(
                std::ranges::any_of(units, [&](const AccessUnit& unit) { return coreOf(GetParam(), unit) == nals; }));
        }
    }
}

TEST_P(ElementaryStream, isNoticedWhenItTakesThePlaceOfTheOtherCodec)
{
    const Stream own = GetParam();
    const Stream other =
        own.h265 ? Stream{"several_slices_per_frame.h264", false} : Stream{"several_slices_per_frame.h265", true};
    for (const Packing& packing : {Packing{1400, true, true}, Packing{300, true, true}, Packing{60, false, false}}) {
        for (const LossPolicy policy : {LossPolicy::dropUntilKeyFrame, LossPolicy::flag}) {
            SCOPED_TRACE(::testing::Message() << packing.payloadBytes << ' ' << static_cast<int>(policy));
            Frames frames;
            TrackReceiver::Options options;
            options.depacketiser.lossPolicy = policy;
            const auto receiver = TrackReceiver::make(own.h265 ? h265Format() : h264Format(),
                                                      std::make_shared<FramePool>(), frames, options);
            std::uint16_t sequence = 0;
            std::uint32_t timestamp = 0;
            const auto play = [&](const Stream& stream) {
                const auto packets = pack(stream, packing);
                for (Packet packet : packets) {
                    packet.sequence = sequence++;
                    packet.timestamp += timestamp;
                    receiver->onRtp(packet.bytes(), {});
                }
                timestamp += 12 * 3600;
            };
            for (int i = 0; i < 5; ++i) {
                play(own);
                EXPECT_FALSE(receiver->statistics().formatChanged);
            }
            const std::size_t framesOfOwn = frames.size();
            EXPECT_GE(framesOfOwn, 59U);
            for (int i = 0; i < 30 && !receiver->statistics().formatChanged; ++i)
                play(other);
            EXPECT_TRUE(receiver->statistics().formatChanged);
            EXPECT_GE(receiver->statistics().packetsSinceFrame, 100U);
            for (std::size_t i = framesOfOwn + 1; i < frames.size(); ++i)
                EXPECT_TRUE(frames[i].info.damaged);
            for (int i = 0; i < 2; ++i)
                play(own);
            EXPECT_FALSE(receiver->statistics().formatChanged) << "a whole frame clears the doubt";
        }
    }
}

TEST_P(ElementaryStream, isNotTakenForAnotherFormatWhileItWaitsOrLosesPackets)
{
    Frames frames;
    const auto receiver =
        TrackReceiver::make(GetParam().h265 ? h265Format() : h264Format(), std::make_shared<FramePool>(), frames);
    std::uint16_t sequence = 0;
    std::uint32_t timestamp = 0;
    std::size_t sent = 0;
    // A third of the packets is lost, so that hardly a frame survives.
    for (int round = 0; round < 150; ++round) {
        std::vector<Packet> packets = pack(GetParam(), Packing{200, true, true});
        for (std::size_t i = 0; i < packets.size(); ++i) {
            packets[i].sequence = sequence++;
            packets[i].timestamp += timestamp;
            if ((i + static_cast<std::size_t>(round)) % 3 == 0)
                continue;
            receiver->onRtp(packets[i].bytes(), {});
            ++sent;
            ASSERT_FALSE(receiver->statistics().formatChanged);
        }
        timestamp += 12 * 3600;
    }
    EXPECT_EQ(receiver->statistics().packets, sent);
    EXPECT_GT(receiver->statistics().droppedFrames, 1000U);
}

INSTANTIATE_TEST_SUITE_P(Codecs, ElementaryStream,
                         ::testing::Values(Stream{"several_slices_per_frame.h264", false},
                                           Stream{"several_slices_per_frame.h265", true}),
                         [](const auto& parameter) { return std::string(parameter.param.h265 ? "H265" : "H264"); });
}  // namespace Tavro8::media

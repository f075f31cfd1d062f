#include "media/TrackReceiver.h"

#include "MediaTestKit.h"

#include <gtest/gtest.h>
#include <optional>

namespace Tavro8::media
{
using namespace testkit;
using namespace testkit::h264;

namespace
{
using namespace std::chrono_literals;

constexpr std::int64_t startMs = 1'700'000'000'000;

ArrivalTime at(std::int64_t msSinceStart)
{
    const std::chrono::milliseconds since(msSinceStart);
    return {std::chrono::steady_clock::time_point(5000s) + since,
            std::chrono::system_clock::time_point(std::chrono::milliseconds(startMs)) + since};
}

SenderReport reportAt(std::int64_t utcMs, std::uint32_t rtpTimestamp, std::uint32_t ssrc)
{
    const auto seconds = static_cast<std::uint64_t>(utcMs / 1000) + 2'208'988'800;
    return {ssrc, seconds << 32 | (((static_cast<std::uint64_t>(utcMs % 1000) << 32) / 1000) + 1), rtpTimestamp};
}

class TrackReceiverTest : public ::testing::Test {
protected:
    TrackReceiverTest() : receiver(TrackReceiver::make(h264Format({sps, pps}), std::make_shared<FramePool>(), frames))
    {}

    /// A frame in one packet, 40 ms after the previous one.
    void frame(const Bytes& nal, std::uint32_t ssrc = 1)
    {
        Packet packet{.payload = nal, .timestamp = timestamp, .marker = true, .sequence = sequence++, .ssrc = ssrc};
        receiver->onRtp(packet.bytes(), at(timeMs));
        timestamp += 3600;
        timeMs += 40;
    }

    Frames frames;
    std::unique_ptr<TrackReceiver> receiver;
    std::uint16_t sequence = 65534;
    std::uint32_t timestamp = 0xffffff00;
    std::int64_t timeMs = 0;
};

/// Recorded media.
class RecordedReceiverTest : public TrackReceiverTest {
protected:
    void begin(const RtpReceiver::FirstPacket& first = {})
    {
        receiver->beginRecorded({recordedMs, first.timestamp, 1, {recordedMs, recordedMs + 3'600'000}}, first);
    }
    std::int64_t timeOf(std::size_t number) { return frames[number].info.timestampMs - recordedMs; }

    static constexpr std::int64_t recordedMs = 1'493'172'645'000;
};

/// Packets that come as datagrams.
class DatagramReceiverTest : public TrackReceiverTest {
protected:
    explicit DatagramReceiverTest(std::optional<std::uint32_t> announced = {}) { receiver->expectDatagrams(announced); }

    /// The bytes of a frame in one packet, to be delivered whenever the test likes.
    Bytes make(const Bytes& nal, std::uint32_t ssrc = 1)
    {
        const Packet packet{
            .payload = nal, .timestamp = timestamp, .marker = true, .sequence = sequence++, .ssrc = ssrc};
        timestamp += 3600;
        return packet.bytes();
    }
};

class AnnouncedReceiverTest : public DatagramReceiverTest {
protected:
    AnnouncedReceiverTest() : DatagramReceiverTest(1) {}
};
}  // namespace

TEST_F(TrackReceiverTest, stampsAndCountsFrames)
{
    frame(keySlice);
    for (int i = 0; i < 9; ++i)
        frame(slice);
    ASSERT_EQ(frames.size(), 10U);
    for (std::size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(frames[i].info.timestampMs, startMs + static_cast<std::int64_t>(i) * 40);
        EXPECT_EQ(frames[i].info.durationMs, i == 0 ? 0U : 40U);
    }
    const auto statistics = receiver->statistics();
    EXPECT_EQ(statistics.packets, 10U);
    EXPECT_EQ(statistics.packetBytes, 10 * 12 + keySlice.size() + 9 * slice.size());
    EXPECT_EQ(statistics.frames, 10U);
    EXPECT_EQ(statistics.keyFrames, 1U);
    EXPECT_EQ(statistics.frameBytes, annexB({sps, pps, keySlice}).size() + 9 * (slice.size() + 4));
    EXPECT_EQ(statistics.lostPackets, 0U);
    EXPECT_EQ(statistics.restarts, 0U);
}

TEST_F(TrackReceiverTest, dropsAStrayPayloadTypeBetweenTwoFrames)
{
    frame(keySlice);
    // Same source, the sequence number of the packet that follows, and the marker set.
    Packet stray{.payload = hex("01 02 03 04"),
                 .timestamp = timestamp,
                 .marker = true,
                 .sequence = sequence,
                 .ssrc = 1,
                 .payloadType = 50};
    receiver->onRtp(stray.bytes(), at(timeMs));
    frame(slice);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_FALSE(frames[1].info.lostPacketsBefore);
    EXPECT_EQ(receiver->statistics().lostPackets, 0U);
    EXPECT_EQ(receiver->statistics().latePackets, 0U);
    EXPECT_EQ(receiver->statistics().foreignPackets, 1U);
}

TEST_F(TrackReceiverTest, survivesARestartOfTheEncoder)
{
    frame(keySlice);
    frame(slice);
    sequence = 5;
    timestamp = 0x12345678;
    frame(slice, 2);  // the new source begins in the middle
    EXPECT_EQ(frames.size(), 2U);
    frame(keySlice, 2);
    frame(slice, 2);
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_TRUE(frames[2].info.keyFrame);
    EXPECT_TRUE(frames[2].info.lostPacketsBefore);
    EXPECT_EQ(frames[2].info.durationMs, 0U) << "unknown over a restart";
    EXPECT_EQ(frames[2].info.timestampMs, startMs + 120);
    EXPECT_EQ(frames[3].info.durationMs, 40U);
    EXPECT_EQ(receiver->statistics().lostPackets, 0U);
    EXPECT_EQ(receiver->statistics().restarts, 1U);
}

TEST_F(TrackReceiverTest, discardsTheFrameThatARestartCutsOff)
{
    frame(keySlice);
    Packet half{.payload = fragmentH264(slice, 4)[0], .timestamp = timestamp, .sequence = sequence, .ssrc = 1};
    receiver->onRtp(half.bytes(), at(timeMs));
    sequence = 30000;
    frame(keySlice, 2);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[1].data, annexB({sps, pps, keySlice}));
}

TEST_F(TrackReceiverTest, dropsDuplicates)
{
    frame(keySlice);
    const Packet packet{.payload = slice, .timestamp = timestamp, .marker = true, .sequence = sequence, .ssrc = 1};
    receiver->onRtp(packet.bytes(), at(timeMs));
    receiver->onRtp(packet.bytes(), at(timeMs));
    EXPECT_EQ(frames.size(), 2U);
    EXPECT_EQ(receiver->statistics().latePackets, 1U);
}

TEST_F(TrackReceiverTest, countsWhatIsNoRtp)
{
    frame(keySlice);
    receiver->onRtp(hex("00 01 02"), at(timeMs));
    EXPECT_EQ(receiver->getLastFault(), RtpFault::tooShort);
    receiver->onRtp(hex("00 60 00 01 00 00 00 02 00 00 00 03"), at(timeMs));
    EXPECT_EQ(receiver->getLastFault(), RtpFault::badVersion);
    receiver->onRtp({}, at(timeMs));
    frame(slice);
    EXPECT_EQ(frames.size(), 2U);
    EXPECT_EQ(receiver->statistics().malformedPackets, 3U);
}

TEST_F(TrackReceiverTest, usesASenderReportThatComesBeforeTheFirstPacket)
{
    receiver->onSenderReport(reportAt(startMs + 777'000, timestamp, 1), at(0));
    frame(keySlice);
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(frames[0].info.timestampMs, startMs + 777'000);
    EXPECT_NE(receiver->makeReport(at(100).monotonic)->lastSenderReport, 0U);
}

TEST_F(TrackReceiverTest, ignoresSenderReportsOfOtherSources)
{
    receiver->onSenderReport(reportAt(startMs + 777'000, timestamp, 99), at(0));
    frame(keySlice);
    receiver->onSenderReport(reportAt(startMs + 777'000, timestamp, 98), at(0));
    frame(slice);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[1].info.timestampMs, startMs + 40);
}

TEST_F(TrackReceiverTest, goesOnAfterAReconnection)
{
    frame(keySlice);
    receiver->onSenderReport(reportAt(startMs + 500, timestamp - 3600, 1), at(40));
    for (int i = 0; i < 200; ++i)  // until the correction is complete
        frame(slice);
    const auto last = frames.back().info.timestampMs;
    const auto carry = receiver->clockCarry();

    receiver = TrackReceiver::make(h264Format({sps, pps}), std::make_shared<FramePool>(), frames);
    receiver->resume(carry);
    timestamp = 0x55555555;
    sequence = 1;
    timeMs += 2000;
    frame(keySlice, 3);
    EXPECT_NEAR(static_cast<double>(frames.back().info.timestampMs - last), 2040, 2);
    EXPECT_TRUE(frames.back().info.lostPacketsBefore);
}

TEST_F(TrackReceiverTest, refusesWhatHasNoDepacketiser)
{
    TrackFormat format;
    format.payloadTypes = {107};
    EXPECT_EQ(TrackReceiver::make(format, std::make_shared<FramePool>(), frames), nullptr);
}

TEST_F(TrackReceiverTest, acceptsEachPayloadTypeOfTheTrack)
{
    TrackFormat format = h264Format({sps, pps});
    format.payloadTypes = {96, 98};
    receiver = TrackReceiver::make(format, std::make_shared<FramePool>(), frames);
    for (const std::uint8_t type : {std::uint8_t{96}, std::uint8_t{98}, std::uint8_t{97}})
        receiver->onRtp(
            Packet{.payload = keySlice, .timestamp = type, .marker = true, .sequence = type, .payloadType = type}
                .bytes(),
            at(0));
    EXPECT_EQ(frames.size(), 2U);
}

TEST_F(DatagramReceiverTest, makesFramesOfPacketsInAnyOrder)
{
    frame(keySlice);
    const Bytes second = make(slice);
    const Bytes third = make(laterSlice);
    receiver->onRtp(third, at(45));
    receiver->onRtp(third, at(46));
    EXPECT_EQ(frames.size(), 1U);
    receiver->onRtp(second, at(50));
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_EQ(frames[1].data, annexB({slice}));
    EXPECT_EQ(frames[2].data, annexB({laterSlice}));
    EXPECT_FALSE(frames[1].info.lostPacketsBefore);
    EXPECT_EQ(receiver->statistics().lostPackets, 0U);
    EXPECT_EQ(receiver->statistics().latePackets, 1U);
}

TEST_F(DatagramReceiverTest, givesAMissingPacketUpAtATick)
{
    frame(keySlice);
    make(slice);
    receiver->onRtp(make(keySlice), at(50));
    receiver->onTick(at(149).monotonic);
    EXPECT_EQ(frames.size(), 1U);
    receiver->onTick(at(150).monotonic);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_TRUE(frames[1].info.lostPacketsBefore);
    EXPECT_EQ(receiver->statistics().lostPackets, 1U);
}

TEST_F(DatagramReceiverTest, handsOutWhatWaitsWhenTheStreamEnds)
{
    frame(keySlice);
    make(slice);
    receiver->onRtp(make(keySlice), at(50));
    receiver->flush();
    EXPECT_EQ(frames.size(), 2U);
}

TEST_F(DatagramReceiverTest, beginsARestartWithThePacketThatAnnouncedIt)
{
    // The parameter sets of the new encoder are in the first packet: without it the key frame would be decoded wrongly.
    frame(keySlice);
    receiver->onRtp(make(slice), at(40));
    sequence = 40000;
    const Packet sets{.payload = stapA({otherSps, pps}), .timestamp = 5000, .sequence = 40000, .ssrc = 2};
    const Packet key{.payload = keySlice, .timestamp = 5000, .marker = true, .sequence = 40001, .ssrc = 2};
    receiver->onRtp(sets.bytes(), at(80));
    receiver->onRtp(key.bytes(), at(80));
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_EQ(frames[2].data, annexB({otherSps, pps, keySlice}));
    EXPECT_EQ(receiver->statistics().restarts, 1U);
    EXPECT_EQ(receiver->statistics().packets, 4U);
}

TEST_F(DatagramReceiverTest, forgetsWhatWaitedBeforeARestart)
{
    frame(keySlice);
    make(slice);
    receiver->onRtp(make(slice), at(40));  // waits
    sequence = 40000;
    receiver->onRtp(make(keySlice, 2), at(41));
    receiver->onRtp(make(slice, 2), at(42));
    receiver->onTick(at(1000).monotonic);
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_TRUE(frames[1].info.keyFrame);
}

TEST_F(DatagramReceiverTest, ignoresASinglePacketOfAnotherSource)
{
    frame(keySlice);
    receiver->onRtp(Packet{.payload = keySlice, .timestamp = 7, .marker = true, .sequence = 7, .ssrc = 99}.bytes(),
                    at(10));
    frame(slice);
    EXPECT_EQ(frames.size(), 2U);
    EXPECT_EQ(receiver->statistics().restarts, 0U);
}

TEST_F(DatagramReceiverTest, countsDatagramsThatWereCutOff)
{
    receiver->onTruncated();
    EXPECT_EQ(receiver->statistics().malformedPackets, 1U);
}

TEST_F(AnnouncedReceiverTest, beginsWithTheAnnouncedSource)
{
    receiver->onRtp(Packet{.payload = slice, .sequence = 7, .ssrc = 99}.bytes(), at(0));  // of an earlier session
    frame(keySlice);
    frame(slice);
    EXPECT_EQ(frames.size(), 2U);
    EXPECT_FALSE(frames[0].info.lostPacketsBefore);
}

TEST_F(AnnouncedReceiverTest, believesTheStreamRatherThanTheAnnouncement)
{
    frame(keySlice, 77);
    frame(slice, 77);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(frames[0].data, annexB({sps, pps, keySlice}));
    EXPECT_FALSE(frames[0].info.lostPacketsBefore);
    EXPECT_EQ(receiver->statistics().restarts, 0U);
    EXPECT_EQ(receiver->statistics().packets, 2U);
}

TEST(TrackReceiver, carriesSound)
{
    Frames frames;
    TrackFormat format;
    format.codec = GDRV::MediaCodec::g711A;
    format.payloadTypes = {8};
    auto receiver = TrackReceiver::make(format, std::make_shared<FramePool>(), frames);
    for (std::uint16_t i = 0; i < 50; ++i) {
        if (i == 20)
            continue;
        const Packet packet{.payload = Bytes(320, 0xd5), .timestamp = 320U * i, .sequence = i, .payloadType = 8};
        receiver->onRtp(packet.bytes(), at(i * 40));
    }
    ASSERT_EQ(frames.size(), 49U);
    EXPECT_EQ(frames[19].info.durationMs, 40U);
    EXPECT_EQ(frames[19].info.timestampMs, startMs + 19 * 40);
    EXPECT_TRUE(frames[20].info.lostPacketsBefore);
    EXPECT_EQ(frames[20].info.timestampMs, startMs + 21 * 40);
    EXPECT_FALSE(frames[21].info.lostPacketsBefore);
    EXPECT_EQ(receiver->statistics().keyFrames, 49U);
    EXPECT_EQ(receiver->statistics().lostPackets, 1U);
}

TEST_F(RecordedReceiverTest, onlyReportsOfItsOwnSourceSetTheTime)
{
    begin();
    const std::uint32_t first = timestamp;
    receiver->onSenderReport(reportAt(recordedMs + 2000, first, 1), at(0));
    receiver->onSenderReport(reportAt(recordedMs + 9000, 5, 2), at(0));
    frame(keySlice);
    receiver->onSenderReport(reportAt(recordedMs + 9000, 5, 2), at(0));
    frame(slice);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(timeOf(0), 2000);
    EXPECT_EQ(timeOf(1), 2040);
}

TEST_F(RecordedReceiverTest, theReportInFrontOfANewSourceIsKeptForIt)
{
    begin();
    frame(keySlice);
    timestamp = 1'000'000'000;
    sequence = 9;
    receiver->onSenderReport(reportAt(recordedMs + 600'000, timestamp, 2), at(0));
    frame(keySlice, 2);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_EQ(timeOf(1), 600'000);
}

TEST_F(RecordedReceiverTest, onlyBehindASeekIsSomethingMissing)
{
    begin();
    frame(keySlice);
    begin();
    frame(keySlice);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_FALSE(frames[0].info.lostPacketsBefore);
    EXPECT_TRUE(frames[1].info.lostPacketsBefore);
}

TEST_F(RecordedReceiverTest, reportsOfAnotherTimeAreCounted)
{
    begin();
    frame(keySlice);
    receiver->onSenderReport(reportAt(startMs, timestamp, 1), at(0));
    frame(slice);
    EXPECT_EQ(timeOf(1), 40);
    EXPECT_EQ(receiver->statistics().ignoredReports, 1U);
}

TEST_F(RecordedReceiverTest, packetsAndReportsOfTheOldPlaceAreDropped)
{
    begin();
    frame(keySlice);
    frame(slice);
    const std::uint32_t newTimestamp = timestamp + 900'000;
    begin({static_cast<std::uint16_t>(sequence + 2), newTimestamp});
    frame(keySlice);
    receiver->onSenderReport(reportAt(recordedMs + 80, timestamp, 1), at(0));
    frame(slice);
    EXPECT_EQ(frames.size(), 2U);
    timestamp = newTimestamp;
    frame(keySlice);
    frame(slice);
    ASSERT_EQ(frames.size(), 4U);
    EXPECT_EQ(timeOf(2), 0);
    EXPECT_EQ(timeOf(3), 40);
}

TEST_F(RecordedReceiverTest, goesOnWithAKeyFrameWhereFramesWereNotTaken)
{
    begin();
    frame(keySlice);
    receiver->awaitKeyFrame();
    frame(slice);
    frame(keySlice);
    ASSERT_EQ(frames.size(), 2U);
    EXPECT_TRUE(frames[1].info.lostPacketsBefore);
}
}  // namespace Tavro8::media

#include "media/RtpReceiver.h"

#include "MediaTestKit.h"

#include <gtest/gtest.h>

namespace Tavro8::media
{
using namespace std::chrono_literals;
using Admission = RtpReceiver::Admission;

namespace
{
constexpr std::uint8_t types[] = {96};

ArrivalTime at(std::chrono::nanoseconds sinceStart)
{
    return {std::chrono::steady_clock::time_point(1000s) + sinceStart, {}};
}

struct Seen {
    Admission admission;
    RtpReceiver::Continuity continuity;
};

class RtpReceiverTest : public ::testing::Test {
protected:
    explicit RtpReceiverTest(bool confirmRestart = false)
        : receiver(RtpReceiver::Settings{types, 90000, confirmRestart})
    {}

    Seen see(std::uint16_t sequence, std::uint32_t ssrc = 7, std::uint32_t timestamp = 0,
             std::chrono::nanoseconds time = 0s)
    {
        RtpPacket packet;
        packet.payloadType = 96;
        packet.sequenceNumber = sequence;
        packet.ssrc = ssrc;
        packet.timestamp = timestamp;
        Seen seen{receiver.admit(packet, at(time)), {}};
        if (seen.admission != Admission::foreign && seen.admission != Admission::suspect &&
            seen.admission != Admission::outdated)
            seen.continuity = receiver.follow(sequence);
        return seen;
    }

    RtpReceiver receiver;
};

class ConfirmingRtpReceiverTest : public RtpReceiverTest {
protected:
    ConfirmingRtpReceiverTest() : RtpReceiverTest(true) {}
};
}  // namespace

TEST_F(RtpReceiverTest, followsTheSequenceOverItsWrap)
{
    for (std::uint32_t sequence = 65530; sequence < 65550; ++sequence) {
        const Seen seen = see(static_cast<std::uint16_t>(sequence));
        EXPECT_EQ(seen.admission, Admission::accepted);
        EXPECT_TRUE(seen.continuity.inOrder);
        EXPECT_EQ(seen.continuity.lostBefore, 0U);
    }
    const auto report = receiver.makeReport({});
    ASSERT_TRUE(report);
    EXPECT_EQ(report->extendedHighestSequence, 65549U);
    EXPECT_EQ(report->cumulativeLost, 0);
}

TEST_F(RtpReceiverTest, countsMissingPacketsAlsoAcrossTheWrap)
{
    see(65534);
    EXPECT_EQ(see(2).continuity.lostBefore, 3U);
    EXPECT_EQ(see(4).continuity.lostBefore, 1U);
    EXPECT_EQ(receiver.getCounters().lost, 4U);
    const auto report = receiver.makeReport({});
    EXPECT_EQ(report->cumulativeLost, 4);
    EXPECT_EQ(report->fractionLost, 4 * 256 / 7);
    EXPECT_EQ(receiver.makeReport({})->fractionLost, 0) << "a new interval begins with each report";
}

TEST_F(RtpReceiverTest, dropsDuplicatesAndLatePackets)
{
    see(10);
    see(11);
    EXPECT_FALSE(see(11).continuity.inOrder);
    see(14);
    EXPECT_FALSE(see(12).continuity.inOrder);
    EXPECT_EQ(see(15).continuity.lostBefore, 0U);
    EXPECT_EQ(receiver.getCounters().duplicate, 1U);
    EXPECT_EQ(receiver.getCounters().late, 1U);
    EXPECT_EQ(receiver.getCounters().restarts, 0U);
}

TEST_F(RtpReceiverTest, looksAtThePayloadTypeBeforeTheSequence)
{
    see(10);
    RtpPacket stray;
    stray.payloadType = 50;
    stray.sequenceNumber = 11;
    stray.ssrc = 7;
    stray.marker = true;
    EXPECT_EQ(receiver.admit(stray, at(0s)), Admission::foreign);
    const Seen next = see(11);
    EXPECT_TRUE(next.continuity.inOrder);
    EXPECT_EQ(next.continuity.lostBefore, 0U);
    EXPECT_EQ(receiver.getCounters().foreign, 1U);
    EXPECT_EQ(receiver.getCounters().received, 2U);
}

TEST_F(RtpReceiverTest, startsAgainWithANewSourceWithoutInventingLoss)
{
    see(10);
    const Seen seen = see(60000, 8);
    EXPECT_EQ(seen.admission, Admission::restarted);
    EXPECT_EQ(seen.continuity.lostBefore, 0U);
    EXPECT_EQ(see(60001, 8).admission, Admission::accepted);
    EXPECT_EQ(receiver.getCounters().lost, 0U);
    EXPECT_EQ(receiver.getCounters().restarts, 1U);
    EXPECT_EQ(receiver.ssrc(), 8U);
    EXPECT_EQ(receiver.makeReport({})->cumulativeLost, 0);
}

TEST_F(RtpReceiverTest, takesLargeStepsForRestartsAndSmallOnesForLoss)
{
    const struct {
        std::uint16_t next;
        Admission admission;
        std::uint32_t lost;
    } cases[] = {
        {11 + 2998, Admission::accepted, 2998},
        {11 + 2999, Admission::restarted, 0},
        {static_cast<std::uint16_t>(10 - 101), Admission::restarted, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.next);
        receiver = RtpReceiver(RtpReceiver::Settings{types, 90000, false});
        see(10);
        const Seen seen = see(c.next);
        EXPECT_EQ(seen.admission, c.admission);
        EXPECT_EQ(seen.continuity.lostBefore, c.lost);
    }
}

TEST_F(RtpReceiverTest, dropsAPacketAHundredBehind)
{
    see(10);
    const Seen seen = see(static_cast<std::uint16_t>(10 - 100));
    EXPECT_EQ(seen.admission, Admission::accepted);
    EXPECT_FALSE(seen.continuity.inOrder);
    EXPECT_EQ(receiver.makeReport({})->extendedHighestSequence, 10U);
}

TEST_F(ConfirmingRtpReceiverTest, believesARestartWhenItsSuccessorComes)
{
    see(10);
    EXPECT_EQ(see(500, 9).admission, Admission::suspect);
    EXPECT_EQ(see(11).admission, Admission::accepted) << "the old source goes on undisturbed";
    EXPECT_EQ(see(20000, 9).admission, Admission::suspect);
    EXPECT_EQ(see(20001, 9).admission, Admission::restarted);
    EXPECT_EQ(see(20002, 9).admission, Admission::accepted);
    EXPECT_EQ(receiver.getCounters().suspect, 2U);
}

TEST_F(RtpReceiverTest, measuresJitter)
{
    // 40 ms frames that arrive 0, 10, 0, 10 ms late: |D| is 900 ticks from the second on.
    double expected = 0;
    for (int i = 0; i < 50; ++i) {
        see(static_cast<std::uint16_t>(i), 7, static_cast<std::uint32_t>(i) * 3600,
            std::chrono::milliseconds(i * 40 + (i % 2) * 10));
        if (i > 0)
            expected += (900 - expected) / 16;
    }
    EXPECT_NEAR(receiver.makeReport({})->jitter, expected, 2);
}

TEST_F(RtpReceiverTest, survivesTimestampsThatLeapByHalfTheirRange)
{
    for (int i = 0; i < 1000; ++i)
        see(static_cast<std::uint16_t>(i), 7, i % 2 == 0 ? 0 : 0x80000000U);
    EXPECT_GT(receiver.makeReport({})->jitter, 0x70000000U);
}

TEST_F(RtpReceiverTest, reportsTheDelaySinceTheSenderReport)
{
    EXPECT_FALSE(receiver.makeReport({}));
    EXPECT_FALSE(receiver.onSenderReport({7, 0x1122334455667788, 0}, at(0s))) << "no source known yet";
    see(1);
    EXPECT_EQ(receiver.makeReport(at(1s).monotonic)->lastSenderReport, 0U);
    EXPECT_FALSE(receiver.onSenderReport({8, 0x1122334455667788, 0}, at(1s)));
    EXPECT_TRUE(receiver.onSenderReport({7, 0x1122334455667788, 0}, at(1s)));
    const auto report = receiver.makeReport(at(3500ms).monotonic);
    EXPECT_EQ(report->ssrc, 7U);
    EXPECT_EQ(report->lastSenderReport, 0x33445566U);
    EXPECT_EQ(report->delaySinceLastSenderReport, 65536U * 5 / 2);
    see(1, 9);
    EXPECT_EQ(receiver.makeReport(at(4s).monotonic)->lastSenderReport, 0U) << "that report was of another source";
}

TEST_F(RtpReceiverTest, countsOnBeyondTheReportsSequence)
{
    // 2^32 packets are 124 days at 400 a second; steps of 2000 count as loss, which makes it quick.
    constexpr std::uint64_t step = 2000;
    std::uint64_t sequence = 0;
    for (; sequence < (std::uint64_t{1} << 32) - step; sequence += step)
        see(static_cast<std::uint16_t>(sequence));
    receiver.makeReport({});
    for (int i = 0; i < 2; ++i, sequence += step)
        see(static_cast<std::uint16_t>(sequence));
    const auto report = receiver.makeReport({});
    EXPECT_EQ(report->extendedHighestSequence, static_cast<std::uint32_t>(sequence - step));
    EXPECT_EQ(report->cumulativeLost, 0x7fffff);
    EXPECT_EQ(report->fractionLost, 1999 * 256 / 2000);
    EXPECT_EQ(receiver.getCounters().restarts, 0U);
}

TEST_F(RtpReceiverTest, keepsCumulativeLossWithinItsField)
{
    see(1);
    for (int i = 0; i < 9; ++i)
        see(1);
    const auto report = receiver.makeReport({});
    EXPECT_EQ(report->cumulativeLost, -9);
    EXPECT_EQ(report->fractionLost, 0);
}

TEST_F(RtpReceiverTest, whatGoesOnInFrontOfTheFirstPacketOfANewPlaceIsOutdated)
{
    const struct {
        const char* what;
        RtpReceiver::FirstPacket announced;
        std::uint16_t sequence;
        std::uint32_t ssrc;
        std::uint32_t timestamp;
        Admission expected;
    } cases[] = {
        {"nothing is known", {}, 11, 7, 3600, Admission::first},
        {"the announced packet", {500, {}}, 500, 7, 3600, Admission::first},
        {"one behind it, which was lost", {500, {}}, 502, 7, 3600, Admission::first},
        {"one in front of it", {13, {}}, 11, 7, 3600, Admission::outdated},
        {"one that goes on with the old numbers", {20'000, {}}, 11, 7, 3600, Admission::outdated},
        {"the announced time, another number", {20'000, 3600}, 11, 7, 3600, Admission::first},
        {"another time, no number", {{}, 900'000}, 11, 7, 3600, Admission::outdated},
        {"the announced time, no number", {{}, 900'000}, 11, 7, 903'600, Admission::first},
        {"other numbers than announced", {20'000, {}}, 40'000, 7, 3600, Admission::first},
        {"another source", {20'000, {}}, 11, 8, 3600, Admission::first},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        receiver.beginAnew({});
        see(10);
        receiver.beginAnew(c.announced);
        EXPECT_EQ(see(c.sequence, c.ssrc, c.timestamp).admission, c.expected);
    }
}

TEST_F(RtpReceiverTest, aWrongAnnouncementIsBelievedForASecondOnly)
{
    see(10);
    receiver.beginAnew({20'000, {}});
    EXPECT_EQ(see(11, 7, 0, 100ms).admission, Admission::outdated);
    EXPECT_EQ(see(12, 7, 0, 1100ms).admission, Admission::outdated);
    EXPECT_EQ(see(13, 7, 0, 1200ms).admission, Admission::first);
    EXPECT_EQ(see(14, 7, 0, 1300ms).admission, Admission::accepted);

    receiver.beginAnew({20'000, {}});
    std::uint16_t sequence = 15;
    while (see(sequence).admission == Admission::outdated)
        ++sequence;
    EXPECT_EQ(sequence, 1015) << "nor for more packets than a device has queued";
}

TEST_F(RtpReceiverTest, nothingIsOutdatedWhereNothingCameBefore)
{
    receiver.beginAnew({20'000, {}});
    EXPECT_EQ(see(11).admission, Admission::first);
}
}  // namespace Tavro8::media

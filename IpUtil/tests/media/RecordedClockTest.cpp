#include "media/RecordedClock.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

namespace Tavro8::media
{
namespace
{
constexpr std::int64_t recordedMs = 1'493'172'645'000;  // years ago
constexpr std::uint64_t ntpOffsetSeconds = 2'208'988'800;

SenderReport reportAt(std::int64_t utcMs, std::uint32_t rtpTimestamp)
{
    const auto seconds = static_cast<std::uint64_t>(utcMs / 1000) + ntpOffsetSeconds;
    const auto fraction = (static_cast<std::uint64_t>(utcMs % 1000) << 32) / 1000;
    return {1, seconds << 32 | fraction, rtpTimestamp};
}

constexpr std::uint32_t ticks(std::int64_t milliseconds)
{
    return static_cast<std::uint32_t>(milliseconds * 90);
}
}  // namespace

TEST(RecordedClock, theFirstFrameIsOfTheBeginOfTheRange)
{
    RecordedClock clock(90000, {recordedMs, {}, 1});
    EXPECT_EQ(clock.stamp(777), recordedMs);
    EXPECT_EQ(clock.stamp(777 + ticks(40)), recordedMs + 40);
}

TEST(RecordedClock, theTimestampNamedInTheAnswerIsThatOfTheBegin)
{
    RecordedClock clock(90000, {recordedMs, 777, 1});
    EXPECT_EQ(clock.stamp(777 + ticks(80)), recordedMs + 80);
}

TEST(RecordedClock, aCorrectionCountsUntilAFrameOrAReportHasCome)
{
    RecordedClock clock(90000, {recordedMs, {}, 1});
    clock.correct({recordedMs + 5000, 100, 1});
    EXPECT_EQ(clock.stamp(100), recordedMs + 5000);
    clock.correct({recordedMs + 9000, 100, 1});
    EXPECT_EQ(clock.stamp(100 + ticks(40)), recordedMs + 5040);

    RecordedClock reported(90000, {recordedMs, {}, 1});
    reported.onSenderReport(reportAt(recordedMs + 700, 100));
    reported.correct({recordedMs + 5000, 100, 1});
    EXPECT_EQ(reported.stamp(100), recordedMs + 700);
}

TEST(RecordedClock, reportsAreBelievedHoweverLongAgoTheyAre)
{
    RecordedClock clock(90000, {recordedMs + 1000, {}, 1});
    clock.onSenderReport(reportAt(recordedMs, 5000));
    EXPECT_EQ(clock.stamp(5000), recordedMs);
    clock.onSenderReport(reportAt(recordedMs + 7'200'000, 5000 + ticks(40)));
    EXPECT_EQ(clock.stamp(5000 + ticks(40)), recordedMs + 7'200'000);
}

TEST(RecordedClock, aReportHoldsFromItsOwnTimestampOn)
{
    RecordedClock clock(90000, {recordedMs, {}, 1});
    EXPECT_EQ(clock.stamp(0), recordedMs);
    clock.onSenderReport(reportAt(recordedMs + 3'600'000, ticks(80)));
    EXPECT_EQ(clock.stamp(ticks(40)), recordedMs + 40) << "the last frame in front of the gap";
    EXPECT_EQ(clock.stamp(ticks(80)), recordedMs + 3'600'000);
}

TEST(RecordedClock, timesNeverDecrease)
{
    RecordedClock clock(90000, {recordedMs, {}, 1});
    EXPECT_EQ(clock.stamp(ticks(1000)), recordedMs);
    EXPECT_EQ(clock.stamp(ticks(960)), recordedMs) << "pictures in decoding order";
}

TEST(RecordedClock, timesRunSlowerUntilAReportThatIsBehindHasCaughtUp)
{
    RecordedClock clock(90000, {recordedMs, 0, 1});
    EXPECT_EQ(clock.stamp(0), recordedMs);
    clock.onSenderReport(reportAt(recordedMs - 3000, 0));
    std::int64_t last = recordedMs;
    for (std::int64_t ms = 40; ms <= 6000; ms += 40) {
        const std::int64_t time = clock.stamp(ticks(ms));
        ASSERT_EQ(time - last, 20) << ms;
        last = time;
    }
    EXPECT_EQ(last, recordedMs + 3000);
    EXPECT_EQ(clock.stamp(ticks(6040)), recordedMs + 3040) << "right again";
}

TEST(RecordedClock, reportsWithoutATimeAreIgnored)
{
    RecordedClock clock(90000, {recordedMs, 0, 1});
    for (const std::uint64_t ntp : {std::uint64_t{0}, std::uint64_t{3600} << 32, (ntpOffsetSeconds + 5) << 32})
        clock.onSenderReport({1, ntp, 0});
    EXPECT_EQ(clock.stamp(ticks(40)), recordedMs + 40);
}

TEST(RecordedClock, fastPlayingInTheTimeOfTheRecordingNeedsNothing)
{
    RecordedClock clock(90000, {recordedMs, 0, 4});
    clock.onSenderReport(reportAt(recordedMs, 0));
    clock.onSenderReport(reportAt(recordedMs + 8000, ticks(8000)));
    EXPECT_EQ(clock.stamp(ticks(8040)), recordedMs + 8040);
}

TEST(RecordedClock, fastPlayingInTheTimeOfPlayingIsLearntFromTwoIntervalsThatAgree)
{
    RecordedClock clock(90000, {recordedMs, 0, 4});
    clock.onSenderReport(reportAt(recordedMs, 0));
    clock.onSenderReport(reportAt(recordedMs + 8000, ticks(2000)));
    clock.onSenderReport(reportAt(recordedMs + 16'000, ticks(4000)));
    EXPECT_EQ(clock.stamp(ticks(4010)), recordedMs + 16'040);
    clock.changeScale(1);
    EXPECT_EQ(clock.stamp(ticks(4050)), recordedMs + 16'080);
    clock.changeScale(2);
    EXPECT_EQ(clock.stamp(ticks(4090)), recordedMs + 16'120) << "at the speed of 1 both are the same again";
}

TEST(RecordedClock, aShortGapTeachesNoSpeed)
{
    RecordedClock clock(90000, {recordedMs, 0, 2});
    clock.onSenderReport(reportAt(recordedMs, 0));
    EXPECT_EQ(clock.stamp(0), recordedMs);
    // Five seconds played, then five that were not recorded: just what twice the speed would look like.
    clock.onSenderReport(reportAt(recordedMs + 10'000, ticks(5000)));
    for (const std::int64_t ms : {5000, 7000, 9900})
        EXPECT_EQ(clock.stamp(ticks(ms)), recordedMs + ms + 5000);
    clock.onSenderReport(reportAt(recordedMs + 15'000, ticks(10'000)));
    for (const std::int64_t ms : {10'000, 12'000, 14'000})
        EXPECT_EQ(clock.stamp(ticks(ms)), recordedMs + ms + 5000);
}

TEST(RecordedClock, aGapTeachesNoSpeed)
{
    RecordedClock clock(90000, {recordedMs, 0, 4});
    clock.onSenderReport(reportAt(recordedMs + 600'000, ticks(2000)));
    EXPECT_EQ(clock.stamp(ticks(2040)), recordedMs + 600'040);
}

TEST(RecordedClock, framesBehindANewBaseOfRtpTimeFollowTheLastUntilAReport)
{
    constexpr std::uint32_t base = 1'000'000'000;
    for (const bool told : {true, false}) {
        SCOPED_TRACE(told);
        RecordedClock clock(90000, {recordedMs, 0, 1, {recordedMs, recordedMs + 3'600'000}});
        clock.onSenderReport(reportAt(recordedMs, 0));
        EXPECT_EQ(clock.stamp(3600), recordedMs + 40);
        if (told)
            clock.onRestart(base);
        EXPECT_EQ(clock.stamp(base), recordedMs + 80);
        EXPECT_EQ(clock.stamp(base + ticks(40)), recordedMs + 120);
        EXPECT_TRUE(clock.onSenderReport(reportAt(recordedMs + 600'000, base + ticks(80))));
        EXPECT_EQ(clock.stamp(base + ticks(80)), recordedMs + 600'000);
        EXPECT_EQ(clock.stamp(base + ticks(60'080)), recordedMs + 660'000);
    }
}

TEST(RecordedClock, rtpTimeThatRunsBackBeginsAnewBehindTheLastFrame)
{
    RecordedClock clock(90000, {recordedMs, 0, 1});
    EXPECT_EQ(clock.stamp(0), recordedMs);
    EXPECT_EQ(clock.stamp(ticks(3'600'000)), recordedMs + 3'600'000);
    EXPECT_EQ(clock.stamp(0), recordedMs + 3'600'040);
    EXPECT_EQ(clock.stamp(ticks(40)), recordedMs + 3'600'080);
}

TEST(RecordedClock, aRestartWhoseRtpTimeGoesOnChangesNothing)
{
    RecordedClock clock(90000, {recordedMs, 0, 1});
    EXPECT_EQ(clock.stamp(0), recordedMs);
    clock.onRestart(ticks(5000));
    EXPECT_EQ(clock.stamp(ticks(5000)), recordedMs + 5000);
}

TEST(RecordedClock, aReportWellOutsideTheIntervalIsIgnored)
{
    constexpr std::int64_t today = 1'790'000'000'000;
    RecordedClock clock(90000, {recordedMs, 0, 1, {recordedMs, recordedMs + 3'600'000}});
    for (const std::int64_t wrong : {today, recordedMs - 3'600'000, recordedMs + 7'200'000}) {
        EXPECT_FALSE(clock.onSenderReport(reportAt(wrong, 0)));
        EXPECT_EQ(clock.stamp(ticks(40)), recordedMs + 40);
    }
    EXPECT_TRUE(clock.onSenderReport(reportAt(recordedMs + 80, ticks(80))));
    EXPECT_EQ(clock.stamp(ticks(80)), recordedMs + 80);
    EXPECT_TRUE(clock.onSenderReport(reportAt(recordedMs + 3'660'000, ticks(120)))) << "the last file, to its end";
}

TEST(RecordedClock, aLeapThatTheNextReportContradictsIsTakenBack)
{
    RecordedClock clock(90000, {recordedMs, 0, 1, {recordedMs, recordedMs + 3'600'000}});
    EXPECT_EQ(clock.stamp(0), recordedMs);
    clock.onSenderReport(reportAt(recordedMs + 3'000'000, ticks(40)));
    EXPECT_EQ(clock.stamp(ticks(40)), recordedMs + 3'000'000);
    clock.onSenderReport(reportAt(recordedMs + 80, ticks(80)));
    EXPECT_EQ(clock.stamp(ticks(80)), recordedMs + 80);
    EXPECT_EQ(clock.stamp(ticks(120)), recordedMs + 120);
}

TEST(RecordedClock, aLeapThatTwoReportsConfirmIsNotTakenBack)
{
    RecordedClock clock(90000, {recordedMs, 0, 1, {recordedMs, recordedMs + 3'600'000}});
    EXPECT_EQ(clock.stamp(0), recordedMs);
    for (const std::int64_t ms : {40, 5000, 10'000}) {
        clock.onSenderReport(reportAt(recordedMs + 3'000'000 + ms, ticks(ms)));
        EXPECT_EQ(clock.stamp(ticks(ms)), recordedMs + 3'000'000 + ms);
    }
    clock.onSenderReport(reportAt(recordedMs + 80, ticks(10'040)));
    EXPECT_GE(clock.stamp(ticks(10'040)), recordedMs + 3'010'000);
}

TEST(RecordedClock, aResumptionGoesByTheAnswerWhereRtpTimeDoesNotGoOn)
{
    constexpr std::uint32_t newBase = 3'000'000'000;
    const struct {
        const char* what;
        RecordedClock::Continuation said;
        std::uint32_t next;
        std::int64_t expectedMs;
    } cases[] = {
        {"goes on", {recordedMs, ticks(80), 1}, ticks(80), 80},
        {"goes on, the answer repeats the first", {recordedMs, 0, 1}, ticks(80), 80},
        {"a new base", {{}, newBase, 1}, newBase, 80},
        {"a new base and its time", {recordedMs + 2000, newBase, 1}, newBase + ticks(40), 2040},
        {"a new base and an old time", {recordedMs, newBase, 1}, newBase, 80},
        {"another place", {recordedMs + 60'000, {}, 1}, ticks(80), 60'000},
        {"a place that was not asked for", {recordedMs + 90'000'000, {}, 1}, ticks(80), 80},
        {"RTP time ran on", {recordedMs, ticks(30'000), 1}, ticks(30'000), 80},
        {"RTP time ran on, a later key frame", {recordedMs + 1000, ticks(30'000), 1}, ticks(30'040), 1040},
        {"the next key frame, at the place of the pause", {recordedMs, ticks(8000), 1}, ticks(8000), 8000},
        {"the device went on", {recordedMs + 30'000, ticks(30'000), 1}, ticks(30'000), 30'000},
        {"the device went on for a moment", {recordedMs + 2000, ticks(3000), 1}, ticks(3000), 3000},
        {"RTP time was said to run on", {recordedMs, ticks(30'000), 1}, ticks(80), 80},
        {"RTP time ran on, and no time is named", {{}, ticks(30'000), 1}, ticks(30'000), 30'000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        RecordedClock clock(90000, {recordedMs, 0, 1, {recordedMs, recordedMs + 3'600'000}});
        EXPECT_EQ(clock.stamp(ticks(40)), recordedMs + 40);
        clock.resume(c.said);
        EXPECT_EQ(clock.stamp(c.next), recordedMs + c.expectedMs);
    }
}

TEST(RecordedClock, framesThatAreFarApartAreNoRtpTimeThatRanOn)
{
    for (const std::int64_t stepMs : {4000, 9000, 15'000}) {
        SCOPED_TRACE(stepMs);
        RecordedClock clock(90000, {recordedMs, 0, 1, {recordedMs, recordedMs + 3'600'000}});
        for (int frame = 0; frame <= 4; ++frame)
            EXPECT_EQ(clock.stamp(ticks(frame * stepMs)), recordedMs + frame * stepMs);
        clock.resume({recordedMs + 4 * stepMs, ticks(5 * stepMs), 1});
        EXPECT_EQ(clock.stamp(ticks(5 * stepMs)), recordedMs + 5 * stepMs);
        clock.resume({recordedMs + 5 * stepMs, ticks(6 * stepMs + 30'000), 1});
        EXPECT_EQ(clock.stamp(ticks(6 * stepMs + 30'000)), recordedMs + 5 * stepMs + 40) << "this is";
    }
}

TEST(RecordedClock, rtpTimeThatRunsOnWhilePausedCountsForNothingUntilAReport)
{
    RecordedClock clock(90000, {recordedMs, 0, 1, {recordedMs, recordedMs + 3'600'000}});
    EXPECT_EQ(clock.stamp(0), recordedMs);
    for (std::int64_t pausedMs = 12'500; pausedMs <= 37'500; pausedMs += 12'500) {
        clock.resume({recordedMs, ticks(pausedMs), 1});
        EXPECT_EQ(clock.stamp(ticks(pausedMs)), recordedMs + pausedMs / 12'500 * 40);
    }
    EXPECT_TRUE(clock.onSenderReport(reportAt(recordedMs + 500, ticks(37'540))));
    EXPECT_EQ(clock.stamp(ticks(37'540)), recordedMs + 500);
    clock.resume({recordedMs, ticks(50'040), 1});
    clock.resume({recordedMs, ticks(62'540), 1});
    EXPECT_TRUE(clock.onSenderReport(reportAt(recordedMs + 600, ticks(62'540))));
    EXPECT_TRUE(clock.onSenderReport(reportAt(recordedMs + 600, ticks(62'540))));
    EXPECT_EQ(clock.stamp(ticks(62'540)), recordedMs + 600) << "paused twice without a frame, then two reports";
}

TEST(RecordedClock, rtpTimeThatRunsOnWhilePausedIsMeasuredInRecordedTime)
{
    RecordedClock clock(90000, {recordedMs, 0, 4, {recordedMs, recordedMs + 3'600'000}});
    for (const std::int64_t ms : {0, 2000, 4000})
        clock.onSenderReport(reportAt(recordedMs + 4 * ms, ticks(ms)));
    EXPECT_EQ(clock.stamp(ticks(4000)), recordedMs + 16'000);
    clock.resume({recordedMs + 16'000, ticks(7000), 4});
    EXPECT_EQ(clock.stamp(ticks(7000)), recordedMs + 16'040);
    EXPECT_EQ(clock.stamp(ticks(7010)), recordedMs + 16'080);
}

TEST(RecordedClock, withoutATimestampInTheAnswerTimeCountsFromTheFirstPacket)
{
    RecordedClock clock(90000, {recordedMs, {}, 1});
    clock.onFirstPacket(777);
    EXPECT_TRUE(clock.correct({recordedMs + 5000, {}, 1}));
    EXPECT_EQ(clock.stamp(777 + ticks(2000)), recordedMs + 7000) << "what came in front was no key frame";
}

TEST(RecordedClock, anAnnouncedTimestampThatTheFirstPacketIsNotNearIsIgnored)
{
    for (const std::uint32_t announced : {0U, 3'000'000'000U}) {
        for (const bool packetFirst : {true, false}) {
            SCOPED_TRACE(announced);
            constexpr std::uint32_t first = 1'000'000'000;
            RecordedClock clock(90000, {recordedMs, announced, 1, {recordedMs, recordedMs + 86'400'000}});
            if (packetFirst)
                clock.onFirstPacket(first);
            EXPECT_EQ(clock.stamp(first), recordedMs);
            EXPECT_EQ(clock.stamp(first + ticks(40)), recordedMs + 40);
        }
    }
}

TEST(RecordedClock, aCorrectionForAnotherPlaceThanTheFirstPacketsIsRefused)
{
    RecordedClock clock(90000, {recordedMs, {}, 1});
    clock.onFirstPacket(777);
    EXPECT_TRUE(clock.correct({recordedMs, 777, 1}));
    EXPECT_FALSE(clock.correct({recordedMs, 2'000'000'000, 1}));
}

TEST(RecordedClock, aResumptionInFrontOfTheFirstFrameIsBelievedWhereItCanBe)
{
    constexpr std::uint32_t first = 2'000'000'000;
    const struct {
        const char* what;
        RecordedClock::Continuation said;
        std::uint32_t next;
        std::int64_t expectedMs;
    } cases[] = {
        {"no timestamp", {recordedMs, {}, 1}, first + ticks(400), 400},
        {"that of the first packet", {recordedMs, first, 1}, first + ticks(400), 400},
        {"none at all", {recordedMs, 0, 1}, first + ticks(400), 400},
        {"none at all, at the place of the pause", {recordedMs + 1000, 0, 1}, first + ticks(1400), 1400},
        {"a new base", {recordedMs + 1000, 777, 1}, 777 + ticks(400), 1400},
        {"a new base, without a time", {{}, 777, 1}, 777 + ticks(400), 400},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        RecordedClock clock(90000, {recordedMs, first, 1, {recordedMs, recordedMs + 3'600'000}});
        clock.onFirstPacket(first);
        clock.resume(c.said);
        EXPECT_EQ(clock.stamp(c.next), recordedMs + c.expectedMs);
        EXPECT_EQ(clock.stamp(c.next + ticks(40)), recordedMs + c.expectedMs + 40);
    }
}

TEST(RecordedClock, playsOverTheEndOfTheNtpEra)
{
    constexpr std::int64_t eraMs = ((std::int64_t{1} << 32) - static_cast<std::int64_t>(ntpOffsetSeconds)) * 1000;
    constexpr std::int64_t beginMs = eraMs - 3 * 86'400'000LL;
    RecordedClock clock(90000, {beginMs, 0, 1});
    clock.onSenderReport(reportAt(eraMs - 1000, ticks(1000)));
    EXPECT_EQ(clock.stamp(ticks(1000)), eraMs - 1000);
    clock.onSenderReport(reportAt(eraMs + 1500, ticks(3000)));
    EXPECT_EQ(clock.stamp(ticks(3000)), eraMs + 1500);
}

TEST(RecordedClock, picturesInDecodingOrderKeepTheirTimesWhereThePairMovesOn)
{
    RecordedClock clock(90000, {recordedMs, 0, 1});
    clock.stamp(0);
    clock.onSenderReport(reportAt(recordedMs + 40, ticks(40)));
    constexpr std::int64_t farMs = (std::int64_t{1} << 30) / 90 + 1000;
    EXPECT_EQ(clock.stamp(ticks(farMs)), recordedMs + farMs);
    EXPECT_EQ(clock.stamp(ticks(farMs - 40)), recordedMs + farMs);
    EXPECT_EQ(clock.stamp(ticks(farMs + 40)), recordedMs + farMs + 40);
}

TEST(RecordedClock, slowTicksAndWildSpeedsStayWithinTheCalendar)
{
    RecordedClock clock(1, {std::numeric_limits<std::int64_t>::max(), 0, 1e9});
    std::int64_t last = 0;
    for (std::uint32_t i = 0; i < 100; ++i) {
        const std::int64_t time = clock.stamp(i * 0x4000'0001U);
        EXPECT_GE(time, last);
        EXPECT_LE(time, 253'402'300'799'999);
        last = time;
    }
}

TEST(RecordedClock, timestampsWrapAndGoOnForDaysWithoutAReport)
{
    RecordedClock clock(90000, {recordedMs, 0xffff0000, 1});
    constexpr std::int64_t stepMs = 3 * 3600 * 1000;
    for (std::int64_t ms = 0; ms <= 72 * 3600 * 1000; ms += stepMs)
        EXPECT_EQ(clock.stamp(0xffff0000 + ticks(ms)), recordedMs + ms);
}
}  // namespace Tavro8::media

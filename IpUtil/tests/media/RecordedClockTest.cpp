#include "media/RecordedClock.h"

#include <gtest/gtest.h>

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
    clock.onSenderReport(reportAt(recordedMs - 3000, ticks(1040)));
    EXPECT_EQ(clock.stamp(ticks(1040)), recordedMs);
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

TEST(RecordedClock, fastPlayingInTheTimeOfPlayingIsLearntFromTwoReports)
{
    RecordedClock clock(90000, {recordedMs, 0, 4});
    clock.onSenderReport(reportAt(recordedMs, 0));
    clock.onSenderReport(reportAt(recordedMs + 8000, ticks(2000)));
    EXPECT_EQ(clock.stamp(ticks(2010)), recordedMs + 8040);
    clock.changeScale(1);
    EXPECT_EQ(clock.stamp(ticks(2050)), recordedMs + 8080);
    clock.changeScale(2);
    EXPECT_EQ(clock.stamp(ticks(2090)), recordedMs + 8120) << "at the speed of 1 both are the same again";
}

TEST(RecordedClock, aGapTeachesNoSpeed)
{
    RecordedClock clock(90000, {recordedMs, 0, 4});
    clock.onSenderReport(reportAt(recordedMs + 600'000, ticks(2000)));
    EXPECT_EQ(clock.stamp(ticks(2040)), recordedMs + 600'040);
}

TEST(RecordedClock, timestampsWrapAndGoOnForDaysWithoutAReport)
{
    RecordedClock clock(90000, {recordedMs, 0xffff0000, 1});
    constexpr std::int64_t stepMs = 3 * 3600 * 1000;
    for (std::int64_t ms = 0; ms <= 72 * 3600 * 1000; ms += stepMs)
        EXPECT_EQ(clock.stamp(0xffff0000 + ticks(ms)), recordedMs + ms);
}
}  // namespace Tavro8::media

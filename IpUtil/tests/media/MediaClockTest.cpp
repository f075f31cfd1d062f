#include "media/MediaClock.h"

#include <gtest/gtest.h>

namespace Tavro8::media
{
namespace
{
using namespace std::chrono_literals;

constexpr std::int64_t startMs = 1'700'000'000'000;
constexpr std::uint64_t ntpOffsetSeconds = 2'208'988'800;

ArrivalTime at(std::int64_t msSinceStart)
{
    const std::chrono::milliseconds since(msSinceStart);
    return {std::chrono::steady_clock::time_point(5000s) + since,
            std::chrono::system_clock::time_point(std::chrono::milliseconds(startMs)) + since};
}

SenderReport reportAt(std::int64_t utcMs, std::uint32_t rtpTimestamp)
{
    const auto seconds = static_cast<std::uint64_t>(utcMs / 1000) + ntpOffsetSeconds;
    const auto fraction = (static_cast<std::uint64_t>(utcMs % 1000) << 32) / 1000 + 1;
    return {1, seconds << 32 | fraction, rtpTimestamp};
}

/// Frames of 40 ms whose packets arrive at once; returns the results.
struct Runner {
    std::int64_t step(std::int64_t arrivalLateMs = 0)
    {
        const std::int64_t ms = frame++ * 40;
        const auto timestamp = firstTimestamp + static_cast<std::uint32_t>(ms * 90);
        clock.onPacket(timestamp, at(ms + arrivalLateMs));
        last = clock.stamp(timestamp);
        return last - startMs;
    }
    std::uint32_t timestampOf(std::int64_t index) const
    {
        return firstTimestamp + static_cast<std::uint32_t>(index * 3600);
    }

    MediaClock clock{90000};
    std::uint32_t firstTimestamp = 0xffff0000;  // wraps within a second
    std::int64_t frame = 0;
    std::int64_t last = 0;
};
}  // namespace

TEST(MediaClock, goesByArrivalUntilASenderReportComes)
{
    Runner run;
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(run.step(), i * 40);
    EXPECT_FALSE(run.clock.isSenderClockUsed());
}

TEST(MediaClock, isNotMovedByPacketsThatComeLate)
{
    Runner run;
    for (int i = 0; i < 500; ++i)
        EXPECT_EQ(run.step(i % 3 == 0 ? 0 : 25), i * 40);
}

TEST(MediaClock, approachesEarlierArrivalsGradually)
{
    Runner run;
    EXPECT_EQ(run.step(200), 200) << "the first packet was delayed";
    std::int64_t previous = 200;
    for (int i = 1; i < 100; ++i) {
        const std::int64_t now = run.step();
        EXPECT_GE(now - previous, 35);
        EXPECT_LE(now - previous, 40);
        previous = now;
    }
    EXPECT_EQ(previous, 99 * 40);
}

TEST(MediaClock, followsADriftingDeviceClock)
{
    // The device's clock runs 0.1 % fast: after ten minutes its media time is 600 ms ahead.
    MediaClock clock(90000);
    std::int64_t result = 0;
    const int frames = 15000;
    for (int i = 0; i <= frames; ++i) {
        const auto timestamp = static_cast<std::uint32_t>(i) * 3604U;
        clock.onPacket(timestamp, at(i * 40));
        const std::int64_t now = clock.stamp(timestamp);
        EXPECT_GE(now, result);
        result = now;
    }
    EXPECT_NEAR(static_cast<double>(result - startMs), frames * 40.0, 10);
}

TEST(MediaClock, takesASenderReportAtOnceBeforeTheFirstFrame)
{
    Runner run;
    run.clock.onPacket(run.timestampOf(0), at(0));
    run.clock.onSenderReport(reportAt(startMs - 3'600'000, run.timestampOf(0)));
    EXPECT_EQ(run.clock.stamp(run.timestampOf(0)), startMs - 3'600'000);
    EXPECT_TRUE(run.clock.isSenderClockUsed());
}

TEST(MediaClock, approachesASmallCorrectionGradually)
{
    for (const int correction : {300, -300}) {
        SCOPED_TRACE(correction);
        Runner run;
        for (int i = 0; i < 10; ++i)
            run.step();
        run.clock.onSenderReport(reportAt(startMs + 400 + correction, run.timestampOf(10)));
        std::int64_t previous = run.last - startMs;
        for (int i = 10; i < 110; ++i) {
            const std::int64_t now = run.step();
            EXPECT_GE(now - previous, 35);
            EXPECT_LE(now - previous, 45);
            previous = now;
        }
        EXPECT_NEAR(static_cast<double>(previous), 109 * 40 + correction, 1);
    }
}

TEST(MediaClock, takesALargeStepAheadAtOnce)
{
    Runner run;
    run.step();
    run.clock.onSenderReport(reportAt(startMs + 3'600'000, run.timestampOf(0)));
    EXPECT_NEAR(static_cast<double>(run.step()), 3'600'040, 1);
}

TEST(MediaClock, neverRunsBackwardsForASenderClockSomeSecondsBehind)
{
    Runner run;
    for (int i = 0; i < 10; ++i)
        run.step();
    run.clock.onSenderReport(reportAt(startMs + 400 - 5000, run.timestampOf(10)));
    EXPECT_TRUE(run.clock.isSenderClockUsed());
    std::int64_t previous = run.last - startMs;
    for (int i = 10; i < 700; ++i) {
        const std::int64_t now = run.step();
        EXPECT_GE(now, previous);
        previous = now;
    }
    EXPECT_NEAR(static_cast<double>(previous), 699 * 40 - 5000, 1);
}

TEST(MediaClock, keepsToArrivalWhenTheSenderClockIsFarBehind)
{
    Runner run;
    run.step();
    run.clock.onSenderReport(reportAt(startMs - 3'600'000, run.timestampOf(0)));
    EXPECT_FALSE(run.clock.isSenderClockUsed());
    EXPECT_EQ(run.step(), 40);
}

TEST(MediaClock, ignoresReportsWithoutAWallClock)
{
    Runner run;
    run.step();
    run.clock.onSenderReport({1, 0, run.timestampOf(0)});
    run.clock.onSenderReport({1, std::uint64_t{3600} << 32, run.timestampOf(0)});
    EXPECT_FALSE(run.clock.isSenderClockUsed());
    EXPECT_EQ(run.step(), 40);
}

TEST(MediaClock, ignoresReportsOfAClockThatWasNeverSet)
{
    for (const std::uint64_t seconds : {std::uint64_t{0x80000000}, ntpOffsetSeconds + 3600}) {
        Runner run;
        run.clock.onPacket(run.timestampOf(0), at(0));
        run.clock.onSenderReport({1, seconds << 32 | 1, run.timestampOf(0)});
        EXPECT_FALSE(run.clock.isSenderClockUsed());
        EXPECT_EQ(run.step(), 0);
    }
}

TEST(MediaClock, understandsTheSecondNtpEra)
{
    constexpr std::int64_t in2040 = 2'208'988'800'000;  // 2040-01-01
    MediaClock clock(90000);
    const std::chrono::milliseconds utc(in2040);
    clock.onPacket(0, {{}, std::chrono::system_clock::time_point(utc)});
    const auto seconds = static_cast<std::uint32_t>(static_cast<std::uint64_t>(in2040 / 1000) + ntpOffsetSeconds);
    clock.onSenderReport({1, std::uint64_t{seconds + 2} << 32, 0});
    EXPECT_EQ(clock.stamp(0), in2040 + 2000);
}

TEST(MediaClock, keepsTheDeviceClockOverAReset)
{
    Runner run;
    run.clock.onPacket(run.timestampOf(0), at(0));
    run.clock.onSenderReport(reportAt(startMs - 3'600'000, run.timestampOf(0)));
    run.step();
    run.clock.reset();
    run.clock.onPacket(12345, at(80));
    EXPECT_NEAR(static_cast<double>(run.clock.stamp(12345) - startMs), -3'600'000 + 80, 1);
    EXPECT_FALSE(run.clock.isSenderClockUsed());
    run.clock.onSenderReport(reportAt(startMs - 3'600'000 + 80, 12345));
    EXPECT_TRUE(run.clock.isSenderClockUsed());
}

TEST(MediaClock, goesOnWhereThePreviousConnectionEnded)
{
    Runner run;
    run.clock.onPacket(run.timestampOf(0), at(0));
    run.clock.onSenderReport(reportAt(startMs + 1'000'000, run.timestampOf(0)));
    run.step();
    const std::int64_t before = run.last;

    MediaClock next(90000);
    next.resume(run.clock.carry());
    next.onPacket(777, at(2000));
    EXPECT_NEAR(static_cast<double>(next.stamp(777) - before), 2000, 1);
}

TEST(MediaClock, neverGoesBelowWhatItWasToldToResumeFrom)
{
    MediaClock clock(90000);
    clock.resume({startMs + 500, 0});
    clock.onPacket(0, at(0));
    EXPECT_EQ(clock.stamp(0), startMs + 500);
    clock.onPacket(3600, at(40));
    EXPECT_GE(clock.stamp(3600), startMs + 500 + 35) << "it does not stand still either";
}

namespace
{
/// A device and a host over days: frames each second, a report each five. Every clock may leap, and the device's RTP
/// clock may run fast or slow. Checks that times never run backwards.
struct Days {
    void run(std::int64_t seconds)
    {
        for (std::int64_t i = 0; i < seconds; ++i) {
            ++second;
            rtpTicks += 90000 + rtpDriftTicks;
            const ArrivalTime arrival{std::chrono::steady_clock::time_point(5000s) + std::chrono::seconds(second),
                                      std::chrono::system_clock::time_point(std::chrono::milliseconds(hostMs()))};
            const auto timestamp = static_cast<std::uint32_t>(rtpTicks);
            clock.onPacket(timestamp, arrival);
            if (reports && second % 5 == 0)
                clock.onSenderReport(reportAt(deviceMs(), timestamp));
            const std::int64_t now = clock.stamp(timestamp);
            EXPECT_GE(now, last) << "second " << second;
            last = now;
        }
    }
    std::int64_t trueMs() const { return startMs + second * 1000; }
    std::int64_t hostMs() const { return trueMs() + hostErrorMs; }
    std::int64_t deviceMs() const { return trueMs() + deviceErrorMs; }
    /// How far frames are off the truth.
    double errorMs() const { return static_cast<double>(last - trueMs()); }

    MediaClock clock{90000};
    bool reports = true;
    std::int64_t hostErrorMs = 0;
    std::int64_t deviceErrorMs = 0;
    std::int64_t rtpDriftTicks = 0;  // a second
    std::int64_t second = 0;
    std::int64_t rtpTicks = 0xF0000000;
    std::int64_t last = 0;
};

constexpr std::int64_t hour = 3600;
constexpr std::int64_t day = 24 * hour;
}  // namespace

TEST(MediaClock, isRightAgainAfterTheDevicesClockLeaptAheadAndBack)
{
    Days days;
    days.run(hour);
    EXPECT_NEAR(days.errorMs(), 0, 2);
    days.deviceErrorMs = 2 * hour * 1000;
    days.run(60);
    EXPECT_NEAR(days.errorMs(), 2.0 * hour * 1000, 2) << "the device says so";
    days.deviceErrorMs = 0;
    days.run(hour);
    EXPECT_NEAR(days.errorMs(), 1.5 * hour * 1000, 10'000) << "at half speed";
    days.run(4 * hour);
    EXPECT_NEAR(days.errorMs(), 0, 2);
    EXPECT_TRUE(days.clock.isSenderClockUsed());
}

TEST(MediaClock, staysRightWhenTheDevicesClockFallsBehind)
{
    for (const std::int64_t lag : {2 * hour, 20 * 365 * day}) {
        SCOPED_TRACE(lag);
        Days days;
        days.run(hour);
        days.deviceErrorMs = -lag * 1000;
        days.run(hour);
        EXPECT_NEAR(days.errorMs(), 0, 2) << "by arrival";
        EXPECT_FALSE(days.clock.isSenderClockUsed());
        days.deviceErrorMs = 40;
        days.run(hour);
        EXPECT_NEAR(days.errorMs(), 40, 2) << "the device has the time of day again";
        EXPECT_TRUE(days.clock.isSenderClockUsed());
    }
}

TEST(MediaClock, doesNotFollowADeviceIntoTheFarFuture)
{
    Days days;
    days.run(hour);
    days.deviceErrorMs = 70 * 365 * day * 1000;
    days.run(hour);
    EXPECT_NEAR(days.errorMs(), 0, 2);
    EXPECT_FALSE(days.clock.isSenderClockUsed());
}

TEST(MediaClock, doesNotBelieveADeviceThatBeginsWithoutATimeOfDay)
{
    // Frames of the first second are not out yet when the report comes.
    MediaClock clock(90000);
    clock.onPacket(0, at(0));
    clock.onSenderReport(reportAt(946'684'800'000, 0));  // the year 2000
    EXPECT_EQ(clock.stamp(0), startMs);
    EXPECT_FALSE(clock.isSenderClockUsed());
}

TEST(MediaClock, isRightAgainAfterOurClockLeapt)
{
    for (const std::int64_t leap : {2 * hour, -2 * hour}) {
        SCOPED_TRACE(leap);
        Days days;
        days.reports = false;
        days.hostErrorMs = -leap * 1000;  // until it is put right
        days.run(hour);
        EXPECT_NEAR(days.errorMs(), -static_cast<double>(leap) * 1000, 2);
        days.hostErrorMs = 0;
        days.run(leap > 0 ? 20 : 5 * hour);
        EXPECT_NEAR(days.errorMs(), 0, 2);
    }
}

TEST(MediaClock, isNotMovedByALeapOfOurClockWhileTheDeviceTellsTheTime)
{
    Days days;
    days.run(hour);
    days.hostErrorMs = 3 * hour * 1000;
    days.run(hour);
    days.hostErrorMs = -3 * hour * 1000;
    days.run(hour);
    EXPECT_NEAR(days.errorMs(), 0, 2);
}

TEST(MediaClock, followsTheDevicesTimeOfDayWhateverItsMediaClockDoes)
{
    // The RTP clock is 1/1000 fast or slow, a minute and a half a day; the reports hold it.
    for (const std::int64_t drift : {90, -90}) {
        SCOPED_TRACE(drift);
        Days days;
        days.rtpDriftTicks = drift;
        for (int i = 0; i < 24; ++i) {
            days.run(hour);
            EXPECT_NEAR(days.errorMs(), 0, 10);
        }
    }
}

TEST(MediaClock, doesNotDriftAwayWhenReportsStopComing)
{
    Days days;
    days.deviceErrorMs = 30'000;
    days.run(hour);
    EXPECT_NEAR(days.errorMs(), 30'000, 2);
    days.reports = false;
    days.rtpDriftTicks = 90;
    days.run(day);
    EXPECT_NEAR(days.errorMs(), 30'000, 400) << "the device's clock as it was, followed by arrival";
}

TEST(MediaClock, runsOnOverManyWrapsOfTheTimestamp)
{
    // 32 bits at 90 kHz last for 13 hours.
    Days days;
    days.run(3 * day);
    EXPECT_NEAR(days.errorMs(), 0, 2);
    days.reports = false;
    days.run(3 * day);
    EXPECT_NEAR(days.errorMs(), 0, 2);
}

TEST(MediaClock, isRightAgainAfterResumingFarAhead)
{
    Days days;
    days.clock.resume({startMs + 2 * hour * 1000, 0});
    days.run(1);
    EXPECT_NEAR(days.errorMs(), 2.0 * hour * 1000, 2000) << "not below what it resumed from";
    days.run(5 * hour);
    EXPECT_NEAR(days.errorMs(), 0, 2);
}

TEST(MediaClock, beginsAnewForATakerThatHasSeenNothing)
{
    MediaClock::Carry carry{startMs + 2 * hour * 1000, 0};
    carry.forgetFloor();
    MediaClock clock(90000);
    clock.resume(carry);
    clock.onPacket(0, at(0));
    EXPECT_EQ(clock.stamp(0), startMs);
}

TEST(MediaClock, takesALeapOfTheTimestampsForANewBeginning)
{
    Runner run;
    for (int i = 0; i < 10; ++i)
        run.step();
    run.firstTimestamp += 0x40000000;
    EXPECT_EQ(run.step(), 400);
    EXPECT_EQ(run.step(), 440);
}

TEST(MediaClock, doesNotStepBackForPicturesInDecodingOrder)
{
    MediaClock clock(90000);
    clock.onPacket(7200, at(0));
    EXPECT_EQ(clock.stamp(7200), startMs);
    clock.onPacket(3600, at(5));
    EXPECT_EQ(clock.stamp(3600), startMs);
    clock.onPacket(10800, at(40));
    EXPECT_EQ(clock.stamp(10800), startMs + 40);
}

TEST(MediaClock, convertsDurations)
{
    EXPECT_EQ(MediaClock(90000).ticksToMs(3600), 40U);
    EXPECT_EQ(MediaClock(90000).ticksToMs(3003), 33U);
    EXPECT_EQ(MediaClock(8000).ticksToMs(160), 20U);
    EXPECT_EQ(MediaClock(90000).ticksToMs(0xffffffffU), 47721859U);
    EXPECT_EQ(MediaClock(0).ticksToMs(90000), 1000U);
}

TEST(MediaClock, staysInOrderWhateverComes)
{
    MediaClock clock(90000);
    std::uint64_t random = 1;
    std::int64_t previous = 0;
    for (int i = 0; i < 20000; ++i) {
        random = random * 6364136223846793005U + 1442695040888963407U;
        const auto timestamp = static_cast<std::uint32_t>(random >> 32);
        if (i % 7 == 0)
            clock.onSenderReport({1, random, timestamp});
        if (i % 1000 == 0)
            clock.reset();
        clock.onPacket(timestamp, at(i));
        const std::int64_t now = clock.stamp(timestamp);
        ASSERT_GE(now, previous);
        previous = now;
    }
}
}  // namespace Tavro8::media

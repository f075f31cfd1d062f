#include "EndToEnd.h"
#include "JsonText.h"

#include <algorithm>
#include <cstdint>
#include <gmock/gmock.h>
#include <ostream>
#include <set>

// What a recorder holds, listed and played by the reference host through the shipped module.
namespace
{
using namespace kelvo::test;
using ::testing::HasSubstr;

constexpr std::uint64_t archiveEnd = 1792800000;  // 2026-10-24T00:00:00Z; thirty days end there
constexpr std::uint64_t monthBegin = archiveEnd - 30 * 86400;
constexpr const char* recordsPath = "/LAPI/V1.0/Channels/1/Media/Video/Streams/1/Records";

std::vector<std::string> recorder(std::vector<std::string> further = {})
{
    std::vector<std::string> arguments{"--kind", "recorder",        "--channels",
                                       "2",      "--records-until", std::to_string(archiveEnd)};
    arguments.insert(arguments.end(), further.begin(), further.end());
    return smallPictures(arguments);
}

/// The seconds that the device says it has recorded of the month, each counted once.
std::size_t recordedSecondsOf(const SimulatorProcess& device)
{
    std::set<std::uint64_t> seconds;
    for (std::size_t offset = 0;; offset += 1000) {
        const std::string query = "?Begin=" + std::to_string(monthBegin) + "&End=" + std::to_string(archiveEnd) +
                                  "&Offset=" + std::to_string(offset) + "&Limit=1000";
        const std::string answer = device.lapi(recordsPath + query).output;
        const Json::Value data = parseJson(answer.substr(0, answer.rfind('\n')))["Response"]["Data"];
        for (const Json::Value& record : data["RecordInfos"]) {
            for (std::uint64_t at = record["Begin"].asUInt64(); at < record["End"].asUInt64(); ++at)
                seconds.insert(at);
        }
        if (data["Nums"].asUInt() == 0 || offset + data["Nums"].asUInt() >= data["Total"].asUInt())
            return seconds.size();
    }
}

std::vector<std::string> listMonth()
{
    return {"recordings", "--begin", std::to_string(monthBegin), "--end", std::to_string(archiveEnd)};
}

class ArchiveEndToEnd : public ::testing::TestWithParam<const char*> {};

TEST_P(ArchiveEndToEnd, aMonthIsListedWithEachMomentOnce)
{
    const SimulatorProcess device(recorder({"--records-order", GetParam()}));
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device), listMonth());
    ASSERT_EQ(run.status, 0) << run.errors;
    std::uint64_t covered = monthBegin * 1000;
    std::uint64_t recorded = 0;
    for (const Json::Value& event : run.events) {
        if (event["event"] != "recording")
            continue;
        const std::uint64_t begin = event["beginMs"].asUInt64();
        const std::uint64_t end = event["endMs"].asUInt64();
        ASSERT_GE(begin, covered) << "told twice";
        ASSERT_GE(end, begin);
        recorded += end - begin;
        covered = end;
    }
    EXPECT_EQ(recorded, recordedSecondsOf(device) * 1000);
    EXPECT_EQ(run.event("summary")["recordedSeconds"].asDouble() * 1000, static_cast<double>(recorded));
}

INSTANTIATE_TEST_SUITE_P(Orders, ArchiveEndToEnd, ::testing::Values("oldest", "newest"),
                         [](const auto& of) { return std::string(of.param); });

TEST(RecordingsEndToEnd, endWithABarOfTheMonth)
{
    const SimulatorProcess device(recorder());
    const ScratchFolder folder;
    std::vector<std::string> command{programUnderTest("kelvo-host"), "--repository", folder.path().string(), "--device",
                                     deviceAddress(device)};
    for (const std::string& word : listMonth())
        command.push_back(word);
    const ProgramResult run = runProgram(command);
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_THAT(run.output, HasSubstr("2026-10-23T00:00:00Z  2026-10-23T00:30:00Z       30:00\n"));
    EXPECT_THAT(run.output, HasSubstr("on channel 0 from 2026-09-24T00:00:00Z to 2026-10-24T00:00:00Z\n"));
    EXPECT_THAT(run.output, HasSubstr("|10-02"));
}

TEST(RecordingsEndToEnd, oneRoundTripAPageAndNoMore)
{
    const SimulatorProcess device(recorder({"--records", "12345"}));
    const ScratchFolder folder;
    const HostRun run =
        runHost(folder, deviceAddress(device), {"recordings", "--begin", "2001-01-01", "--end", "2106-01-01"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(device.admin("GET", "counters")["archive"]["searches"].asUInt(), 124U);
    EXPECT_EQ(run.event("summary")["recordings"].asUInt(), 12345U) << "the empty ones, too";
}

/// What a device may do to its list, and what is left of it: of each eight of the 250 records one is empty, and of the
/// others the module tells the parts that are new.
struct OddList {
    const char* name;
    const char* fault;
    unsigned pages;         ///< asked for
    unsigned recordings;    ///< told that are not empty
    const char* complaint;  ///< null: none
    friend void PrintTo(const OddList& list, std::ostream* out) { *out << list.fault; }
};

class ListsEndToEnd : public ::testing::TestWithParam<OddList> {};

TEST_P(ListsEndToEnd, areReadAsFarAsTheyGo)
{
    const SimulatorProcess device(recorder({"--records", "250", "--fault", GetParam().fault}));
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device), listMonth());
    EXPECT_EQ(run.status, 0) << run.all();
    EXPECT_EQ(device.admin("GET", "counters")["archive"]["searches"].asUInt(), GetParam().pages);
    const auto lasts = [](const Json::Value& event) {
        return event["event"] == "recording" && event["beginMs"] != event["endMs"];
    };
    EXPECT_EQ(std::ranges::count_if(run.events, lasts), GetParam().recordings) << run.output;
    if (GetParam().complaint == nullptr)
        EXPECT_EQ(run.errors, "");
    else
        EXPECT_THAT(run.errors, HasSubstr(GetParam().complaint));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, ListsEndToEnd,
    ::testing::Values(OddList{"thatStandStill", "records-stall:100", 2, 88,
                              "Recordings list ends early: the page at 100 of 250 holds no further record"},
                      OddList{"thatAreEmptyFromTheBegin", "records-stall:0", 1, 0,
                              "Recordings list ends early: the page at 0 of 250 holds no further record"},
                      OddList{"whoseTotalIsZero", "records-total:0", 1, 88, nullptr},
                      OddList{"whoseTotalIsTooLow", "records-total:101", 2, 175, nullptr},
                      OddList{"whoseTotalIsTooHigh", "records-total:4294967295", 4, 219,
                              "Recordings list ends early: the page at 250 of 4294967295 holds no further record"},
                      OddList{"thatEndBeforeTheyBegin", "records-reversed@Offset=100", 3, 132,
                              "Recordings without a readable begin and end are left out: 87 of 100"},
                      OddList{"thatAreNotThere", "records-nolist@Offset=100", 3, 132, "Recording range list is empty."},
                      OddList{"thatAreNone", "records-noarray@Offset=100", 3, 132, "Recording range list is empty."}),
    [](const auto& of) { return std::string(of.param.name); });

TEST(RecordingsEndToEnd, aDeviceThatNeverAnswersIsNotWaitedForLongerThanTheUserSays)
{
    const SimulatorProcess device(recorder({"--fault", "hang@Records"}));
    const ScratchFolder folder;
    std::vector<std::string> words = listMonth();
    words.insert(words.end(), {"--timeout", "2"});
    const HostRun run = runHost(folder, deviceAddress(device), words);
    EXPECT_EQ(run.status, 4);
    EXPECT_THAT(run.errors, HasSubstr("the search did not end in time"));
}

TEST(RecordingsEndToEnd, aCameraWithoutAnArchiveSaysSo)
{
    const SimulatorProcess device(smallPictures());
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device), listMonth());
    EXPECT_EQ(run.event("failure")["code"], 514);
    EXPECT_THAT(run.errors, HasSubstr("(result 514); it has no archive of this channel\n"));
}

/// The caption of the first picture that ffmpeg gets, by itself or out of a file.
std::string captionOf(const std::vector<std::string>& input)
{
    std::vector<std::string> command{"ffmpeg", "-v", "error"};
    command.insert(command.end(), input.begin(), input.end());
    // The three lines in the middle: white letters on a dark ground, whatever the bars behind it.
    command.insert(command.end(),
                   {"-frames:v", "1", "-vf", "crop=360:172:140:84,format=gray,lutyuv=y=255*gt(val\\,200)", "-f",
                    "rawvideo", "-pix_fmt", "gray", "-"});
    return runProgram(command).output;
}

/// Part of the points in which two captions differ.
double difference(const std::string& one, const std::string& other)
{
    EXPECT_EQ(one.size(), 360U * 172U);
    if (one.size() != other.size() || one.empty())
        return 1;
    std::size_t points = 0;
    for (std::size_t i = 0; i < one.size(); ++i)
        points += (one[i] == 0) != (other[i] == 0) ? 1U : 0U;
    return static_cast<double>(points) / static_cast<double>(one.size());
}

TEST(PlaybackEndToEnd, theFirstPictureShowsTheMinuteThatWasAskedFor)
{
    const SimulatorProcess device(recorder());
    const ScratchFolder folder;
    const std::string file = folder.file("minute.mkv");
    const std::string picture = folder.file("minute.png");
    const HostRun run = runHost(folder, deviceAddress(device),
                                {"playback", "--begin", "2026-10-23T00:10:00Z", "--end", "2026-10-23T00:11:00Z",
                                 "--speed", "8", "--seconds", "1", "--output", file, "--snapshot", picture});
    ASSERT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.event("summary")["recordedBegin"].asString(), "2026-10-23T00:10:00Z");
    const auto direct = [&](const std::string& interval) {
        return captionOf({"-rtsp_transport", "tcp", "-analyzeduration", "200000", "-i",
                          device.rtspUrl("/c1/" + interval + "/replay/")});
    };
    const std::string wanted = direct("b1792714200/e1792714260");
    const std::string another = direct("b1792734480/e1792734540");
    EXPECT_LT(difference(captionOf({"-i", picture}), wanted), 0.01);
    EXPECT_LT(difference(captionOf({"-i", file}), wanted), 0.01);
    EXPECT_GT(difference(captionOf({"-i", file}), another), 0.01) << "another minute would have passed, too";
    EXPECT_EQ(decodeErrorsOf(file), "");
}

class PlaybackOverAGap : public ::testing::TestWithParam<const char*> {};

TEST_P(PlaybackOverAGap, isToldOfItAndGoesOnBehindIt)
{
    const SimulatorProcess device(recorder());
    const ScratchFolder folder;
    const std::string file = folder.file("gap.mkv");
    // Recorded until 01:45, and again from 02:00 on.
    const HostRun run = runHost(folder, deviceAddress(device),
                                {"playback", "--begin", "2026-10-23T01:44:58Z", "--end", "2026-10-23T02:00:02Z",
                                 "--speed", GetParam(), "--output", file});
    ASSERT_EQ(run.status, 0) << run.errors;
    const Json::Value gap = run.event("gap");
    EXPECT_EQ(gap["begin"].asString(), "2026-10-23T01:45:00Z");
    EXPECT_EQ(gap["end"].asString(), "2026-10-23T02:00:00Z");
    const Json::Value summary = run.event("summary");
    EXPECT_EQ(summary["gaps"], 1);
    EXPECT_EQ(summary["frames"], 40);
    EXPECT_EQ(summary["losses"].asUInt(), 0U);
    EXPECT_TRUE(summary["endReached"].asBool());
    const std::string length =
        runProgram({"ffprobe", "-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", file}).output;
    EXPECT_NEAR(std::stod(length), 4, 0.3) << "what was not recorded takes no time in the file";
}

INSTANTIATE_TEST_SUITE_P(Speeds, PlaybackOverAGap, ::testing::Values("1", "2", "8"),
                         [](const auto& of) { return "times" + std::string(of.param); });

TEST(PlaybackEndToEnd, keyFramesAloneWhereTheDeviceOffersThem)
{
    const std::vector<std::string> words{"playback", "--begin", "2026-10-23T00:10:00Z", "--end", "2026-10-23T00:10:08Z",
                                         "--speed",  "4",       "--key-frames"};
    const ScratchFolder folder;
    const SimulatorProcess able(recorder());
    const HostRun few = runHost(folder, deviceAddress(able), words);
    ASSERT_EQ(few.status, 0) << few.errors;
    EXPECT_EQ(few.event("summary")["frames"], 8);
    EXPECT_EQ(few.event("summary")["keyFrames"], 8);
    const SimulatorProcess unable(recorder({"--no-replay-key-frames"}));
    const HostRun all = runHost(folder, deviceAddress(unable), words);
    EXPECT_EQ(all.status, 0) << all.errors;
    EXPECT_EQ(all.event("summary")["frames"], 80);
    EXPECT_FALSE(all.event("summary")["speedRefused"].asBool());
    EXPECT_TRUE(all.event("summary")["keyFramesRefused"].asBool());
    EXPECT_THAT(all.errors, HasSubstr("the device does not offer to play key frames only (result 8); it plays every "
                                      "frame, 4 times as fast\n"));
}

TEST(PlaybackEndToEnd, whereNothingIsRecordedThereIsNothingToPlay)
{
    const SimulatorProcess device(recorder());
    const ScratchFolder folder;
    const HostRun run = runHost(folder, deviceAddress(device),
                                {"playback", "--begin", "2026-10-23T01:50:00Z", "--end", "2026-10-23T01:55:00Z"});
    EXPECT_EQ(run.status, 4);
    EXPECT_EQ(run.event("failure")["code"], 514);
}

/// Seconds count in 32 bits: both the search and the playback end with the last of them, in 2106.
TEST(IntervalEndToEnd, mayEndBehindTheLastSecondThereIs)
{
    const SimulatorProcess device(recorder({"--records", "8"}));
    const ScratchFolder folder;
    const std::vector<std::string> interval{"--begin", "2026-10-23T23:59:58Z", "--end", "2200-01-01"};
    const auto run = [&](std::vector<std::string> words) {
        words.insert(words.end(), interval.begin(), interval.end());
        return runHost(folder, deviceAddress(device), words);
    };
    const HostRun listed = run({"recordings"});
    EXPECT_EQ(listed.status, 0) << listed.errors;
    EXPECT_EQ(listed.event("summary")["recordedSeconds"].asDouble(), 2);
    const HostRun played = run({"playback"});
    EXPECT_EQ(played.status, 0) << played.errors;
    EXPECT_EQ(played.event("summary")["frames"], 20);
    EXPECT_TRUE(played.event("summary")["endReached"].asBool());
}

TEST(IntervalEndToEnd, mayBeTheLastSecondsThereAre)
{
    const SimulatorProcess device(smallPictures({"--kind", "recorder", "--records-until", "4294967295"}));
    const ScratchFolder folder;
    const HostRun run =
        runHost(folder, deviceAddress(device), {"playback", "--begin", "2106-02-07T06:28:13Z", "--end", "2106-02-08"});
    EXPECT_EQ(run.status, 0) << run.errors;
    EXPECT_EQ(run.event("summary")["recordedBegin"].asString(), "2106-02-07T06:28:13Z");
    EXPECT_EQ(run.event("summary")["frames"], 20);
    EXPECT_TRUE(run.event("summary")["endReached"].asBool());
}
}  // namespace

#include "ReplayRequest.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using namespace std::chrono_literals;

TEST(ReplayPath, namesChannelIntervalAndTrack)
{
    const auto path = parseReplayPath("rtsp://192.0.2.1:554/c12/b1494208846/e1494209026/replay/");
    ASSERT_TRUE(path);
    EXPECT_EQ(path->channelNumber, 12u);
    EXPECT_EQ(path->interval, (RecordedSpan{1494208846, 1494209026}));
    EXPECT_FALSE(path->track);
    EXPECT_TRUE(parseReplayPath("/c1/b1/e2/replay"));
    EXPECT_EQ(parseReplayPath("/c1/b1/e2/replay/stream=1")->track, 1u);
    EXPECT_EQ(parseReplayPath("/c1/b1/e2/replay//stream=0")->track, 0u);
    EXPECT_EQ(parseReplayPath("/c1/b2/e1/replay/")->interval, (RecordedSpan{2, 1})) << "for others to judge";
}

TEST(ReplayPath, hasOneForm)
{
    for (const char* path :
         {"", "/", "rtsp://host", "/c1/b1/e2", "/c/b1/e2/replay/", "/c1/b/e2/replay/", "/c1/b1/e4294967296/replay/",
          "/c1/b1x/e2/replay/", "/c1/b-1/e2/replay/", "/c1/b1/e2/replay/stream=", "/c1/b1/e2/replay/other",
          "/c1/b1/e2/replaystream=1", "/unicast/c1/s0/live"}) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(parseReplayPath(path));
    }
}

TEST(ReplayPath, isToldFromLiveOnesByTheFirstLine)
{
    EXPECT_TRUE(asksForReplay("DESCRIBE rtsp://host:554/c1/b1/e2/replay/ RTSP/1.0\r"));
    EXPECT_TRUE(asksForReplay("OPTIONS rtsp://host/c9/bx/e2/replay RTSP/1.0\r")) << "also a wrong one";
    EXPECT_FALSE(asksForReplay("OPTIONS * RTSP/1.0\r"));
    EXPECT_FALSE(asksForReplay("DESCRIBE rtsp://host:554/unicast/c1/s0/live RTSP/1.0\r"));
    EXPECT_FALSE(asksForReplay(""));
}

TEST(ReplayRange, isReadFromClockAndNpt)
{
    const struct {
        const char* text;
        std::optional<std::uint32_t> begin;
        std::optional<std::uint32_t> end;
    } cases[] = {
        {"clock=20170426T021045Z-20170426T021945Z", 1493172645, 1493173185},
        {"clock=20170426T021045.250Z-20170426T021945.250Z", 1493172645, 1493173186},
        {" Clock = 20170426T021045Z- ", 1493172645, std::nullopt},
        {"clock=-20170426T021045Z", std::nullopt, 1493172645},
        {"clock=20170426T021045Z-;time=19970123T143720Z", 1493172645, std::nullopt},
        {"npt=0.000-", 1000, std::nullopt},
        {"npt=10.5-20.5", 1010, 1021},
        {"npt=now-", std::nullopt, std::nullopt},
        {"clock=21060207T062814Z-21060207T062815Z", 4294967294, UINT32_MAX},
        {"clock=-21060207T062815.5Z", std::nullopt, UINT32_MAX},
        {"npt=0-4294966295", 1000, UINT32_MAX},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto range = parseReplayRange(c.text, 1000);
        ASSERT_TRUE(range);
        EXPECT_EQ(range->begin, c.begin);
        EXPECT_EQ(range->end, c.end);
    }
}

TEST(ReplayRange, isRefusedWhenItIsNone)
{
    for (const char* text :
         {"", "smpte=0:10:00-", "clock=", "clock=x-", "clock=20170426T021045-", "clock=20171326T021045Z-",
          "clock=20170230T021045Z-", "clock=20170426T241045Z-", "clock=20170426T021045.Z-", "clock=20170426T021045,5Z-",
          "clock=19691231T235959Z-", "clock=21060207T062816Z-", "clock=22000101T000000Z-", "npt=-1-", "npt=4294966296-",
          "npt=1e99-", "npt=nan-", "npt=1-x"}) {
        SCOPED_TRACE(text);
        const auto range = parseReplayRange(text, 1000);
        EXPECT_FALSE(range && (range->begin || range->end));
    }
}

TEST(ReplayRange, isWrittenWithAFractionWhereThereIsOne)
{
    EXPECT_EQ(writeReplayRange(1'493'172'645s, 1'493'173'185s), "clock=20170426T021045Z-20170426T021945Z");
    EXPECT_EQ(writeReplayRange(1'493'172'645'040ms, 1'493'173'185s), "clock=20170426T021045.040Z-20170426T021945Z");
}

TEST(ReplayScale, isOneOfFour)
{
    const struct {
        const char* text;
        unsigned scale;
    } cases[] = {{"", 1},      {"1", 1},   {"2.0", 2}, {"3.9", 2}, {"4", 4},
                 {"8.000", 8}, {"100", 8}, {"0.5", 1}, {"-2", 1},  {"x", 1}};
    for (const auto& c : cases)
        EXPECT_EQ(usableScale(c.text), c.scale) << c.text;
}

TEST(RtspInput, passesOverFramesAndBodies)
{
    using namespace std::string_literals;
    const std::string bytes = "PLAY rtsp://h/c1 RTSP/1.0\r\nCSeq: 1\r\nSCALE:  2 \r\n\r\n"
                              "$\x01\x00\x04\r\n\r\n"
                              "SET_PARAMETER * RTSP/1.0\r\nContent-Length: 4\r\n\r\n\r\n\r\n"
                              "\r\nPAUSE * RTSP/1.0\r\n\r\n"s;
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        SCOPED_TRACE(cut);
        RtspInput input;
        std::vector<RtspQuestion> questions;
        for (const std::string& part : {bytes.substr(0, cut), bytes.substr(cut)}) {
            input.append(part);
            for (auto next = input.next(); !std::holds_alternative<RtspInput::NeedMore>(next); next = input.next()) {
                ASSERT_TRUE(std::holds_alternative<RtspQuestion>(next));
                questions.push_back(std::get<RtspQuestion>(next));
            }
        }
        ASSERT_EQ(questions.size(), 3u);
        EXPECT_EQ(questions[0].method, "PLAY");
        EXPECT_EQ(questions[0].url, "rtsp://h/c1");
        EXPECT_EQ(questions[0].header("scale"), "2");
        EXPECT_EQ(questions[0].header("range"), "");
        EXPECT_EQ(questions[1].method, "SET_PARAMETER");
        EXPECT_EQ(questions[2].method, "PAUSE");
    }
}

TEST(RtspInput, refusesWhatIsNoRequest)
{
    for (const std::string& text :
         {std::string("GET / HTTP/1.1\r\n\r\n"), std::string("PLAY\r\n\r\n"), std::string(20'000, 'x'),
          std::string("PLAY * RTSP/1.0\r\nContent-Length: x\r\n\r\n"),
          std::string("PLAY * RTSP/1.0\r\nContent-Length: 1000000\r\n\r\n")}) {
        SCOPED_TRACE(text.substr(0, 60));
        RtspInput input;
        input.append(text);
        EXPECT_TRUE(std::holds_alternative<RtspInput::Malformed>(input.next()));
    }
}

}  // namespace
}  // namespace simulator

#include <utility>

#include "RecordingSearch.h"

#include "DeviceFixture.h"
#include "EventFixture.h"
#include "RecordingHandlers.h"

#include <Tavro8/ResultCode.h>
#include <cstdint>
#include <future>
#include <limits>
#include <string>
#include <vector>

namespace
{
using namespace Uniview;
using namespace kelvo::test;
using Tavro8::LogSeverity;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::GDRV::DateTimeRange;
using Ranges = std::vector<DateTimeRange>;
using Results = std::vector<std::int32_t>;
using Seconds = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

constexpr DateTimeRange day{1'000'000, 2'000'000};  // seconds 1000 to 2000

class RecordingSearchTest : public Uniview::test::DeviceFixture {
protected:
    /// The device goes before those that hear of its recordings.
    ~RecordingSearchTest() override
    {
        if (search != nullptr)
            search->Destroy();
        if (device != nullptr)
            std::exchange(device, nullptr)->Destroy();
    }

    void makeSearch(int deviceType = 0, std::uint32_t channels = 1)
    {
        make(channels);
        peer.answer(Uniview::test::infoPath, 200, Uniview::test::deviceInfo(deviceType));
        connect();
        ASSERT_EQ(device->CreateRecordingSearch(&search), 0);
    }
    static std::string path(std::uint64_t offset, std::uint32_t channel = 0)
    {
        return "/LAPI/V1.0/Channels/" + std::to_string(channel) +
               "/Media/Video/Streams/1/Records?Begin=1000&End=2000&Offset=" + std::to_string(offset) + "&Limit=100";
    }
    static std::string page(const Seconds& bounds, std::uint64_t offset, std::uint64_t total)
    {
        std::string records;
        for (const auto& [begin, end] : bounds) {
            records += records.empty() ? "" : ",";
            records += "{\"Begin\":\t" + std::to_string(begin) + ",\"End\":\t" + std::to_string(end) + "}";
        }
        return pageOf(std::to_string(bounds.size()), std::to_string(offset), std::to_string(total),
                      '[' + records + ']');
    }
    static std::string pageOf(const std::string& count, const std::string& offset, const std::string& total,
                              const std::string& records)
    {
        return Uniview::test::replyWithData("{\"Nums\":" + count + ",\"Total\":" + total + ",\"Offset\":" + offset +
                                            ",\"RecordInfos\":" + records + '}');
    }
    void answer(const std::string& body, std::uint64_t offset = 0) { peer.answer(path(offset), 200, body); }

    std::int32_t find(std::uint32_t channel = 0, DateTimeRange interval = day)
    {
        return search->FindRecordings(channel, interval, &handler);
    }
    /// The result of a search that has been taken.
    std::int32_t findAndWait()
    {
        EXPECT_EQ(find(), 0);
        EXPECT_TRUE(handler.waitCompleted());
        return handler.completions().empty() ? -1 : handler.completions().front();
    }
    std::vector<std::string> listRequests() const
    {
        auto all = peer.requests();
        std::erase_if(all, [](const std::string& request) { return request.find("/Records?") == std::string::npos; });
        return all;
    }

    SearchHandler handler;
    Tavro8::GDRV::IRecordingSearch* search = nullptr;
};

TEST_F(RecordingSearchTest, findsWhatIsRecordedAndNamesBothTracks)
{
    makeSearch();
    answer(page({{1100, 1200}, {1150, 1300}}, 0, 2));
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(handler.ranges(), (Ranges{{1100000, 1200000}, {1200000, 1300000}}));
    const auto first = handler.recordings().front();
    EXPECT_EQ(first.channel, 0U);
    const Ranges whole{first.range};
    EXPECT_EQ(first.tracks, (std::vector<SearchHandler::Track>{{"video", whole}, {"audio", whole}}));
    const auto line = logger.find("Recording search for interval (");
    EXPECT_EQ(line.severity, LogSeverity::info);
    EXPECT_NE(line.message.find("(1970-01-01T00:16:40Z - 1970-01-01T00:33:20Z)"), std::string::npos) << line.message;
    EXPECT_EQ(line.function, "Uniview::RecordingSearch::FindRecordings");
}

TEST_F(RecordingSearchTest, tellsOfEmptyRecordingsAsTheRuleLeavesThem)
{
    makeSearch();
    answer(page({{1100, 1200}, {1150, 1200}, {1300, 1300}, {1400, 1500}, {1500, 1500}}, 0, 5));
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(
        handler.ranges(),
        (Ranges{{1100000, 1200000}, {1200000, 1200000}, {1300000, 1300000}, {1400000, 1500000}, {1500000, 1500000}}));
}

TEST_F(RecordingSearchTest, pagesFollowEachOtherUntilTheTotalIsReached)
{
    makeSearch();
    Seconds hundred;
    for (std::uint64_t i = 0; i < 100; ++i)
        hundred.emplace_back(1000 + 2 * i, 1001 + 2 * i);
    answer(page(hundred, 0, 250));
    for (auto& [begin, end] : hundred) {
        begin += 200;
        end += 200;
    }
    answer(page(hundred, 100, 250), 100);
    hundred.resize(50);
    for (auto& [begin, end] : hundred) {
        begin += 200;
        end += 200;
    }
    answer(page(hundred, 200, 250), 200);
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(handler.recordings().size(), 250U);
    EXPECT_EQ(listRequests(), (std::vector<std::string>{"GET " + path(0), "GET " + path(100), "GET " + path(200)}));
    EXPECT_EQ(handler.completions(), Results{0});
}

TEST_F(RecordingSearchTest, aPageGoesOnWhereTheCoverageOfTheLastEnds)
{
    makeSearch();
    answer(page({{900, 1200}, {1300, 1400}}, 0, 5));
    answer(page({{1320, 1380}, {1350, 1500}, {1450, 1500}}, 2, 5), 2);
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(handler.ranges(),
              (Ranges{{1000000, 1200000}, {1300000, 1400000}, {1400000, 1500000}, {1500000, 1500000}}));
    EXPECT_EQ(logger.count("Merged overlapped recording range (1970-01-01T00:22:00Z - 1970-01-01T00:23:00Z)"), 1U);
    EXPECT_EQ(logger.count("Merged overlapped recording range ("), 1U);
}

TEST_F(RecordingSearchTest, pagesThatComeNewestFirstLoseNothing)
{
    makeSearch();
    answer(page({{1800, 1900}, {1700, 1800}}, 0, 5));
    answer(page({{1600, 1650}, {1500, 1600}}, 2, 5), 2);
    answer(page({{900, 1100}}, 4, 5), 4);
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(
        handler.ranges(),
        (Ranges{{1000000, 1100000}, {1500000, 1600000}, {1600000, 1650000}, {1700000, 1800000}, {1800000, 1900000}}));
}

TEST_F(RecordingSearchTest, aListThatGrowsWhileItIsReadGivesNothingTwice)
{
    makeSearch();
    answer(page({{1800, 1900}, {1700, 1750}}, 0, 3));
    answer(page({{1700, 1750}, {1500, 1600}}, 2, 4), 2);  // a new record has moved all others on
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(handler.ranges(), (Ranges{{1500000, 1600000}, {1700000, 1750000}, {1800000, 1900000}}));
    EXPECT_EQ(logger.count("Merged overlapped recording range (1970-01-01T00:28:20Z - 1970-01-01T00:29:10Z)"), 1U);
}

TEST_F(RecordingSearchTest, aThousandPagesTakeAThousandRequestsAndComeOutWhole)
{
    constexpr std::uint64_t total = 100'000;
    makeSearch();
    const DateTimeRange years{0, total * 10'000};
    for (std::uint64_t offset = 0; offset < total; offset += 100) {
        Seconds bounds;
        for (std::uint64_t i = offset; i < offset + 100; ++i)
            bounds.emplace_back((total - 1 - i) * 10, (total - 1 - i) * 10 + 9);
        peer.answer("/LAPI/V1.0/Channels/0/Media/Video/Streams/1/Records?Begin=0&End=1000000&Offset=" +
                        std::to_string(offset) + "&Limit=100",
                    200, page(bounds, offset, total));
    }
    ASSERT_EQ(find(0, years), 0);
    ASSERT_TRUE(handler.waitCompleted());
    EXPECT_EQ(handler.completions(), Results{0});
    EXPECT_EQ(listRequests().size(), total / 100);
    const Ranges ranges = handler.ranges();
    ASSERT_EQ(ranges.size(), total);
    EXPECT_EQ(ranges.front(), (DateTimeRange{0, 9'000}));
    EXPECT_EQ(ranges.back(), (DateTimeRange{999'990'000, 999'999'000}));
}

TEST_F(RecordingSearchTest, channelsOfARecorderCountFromOne)
{
    makeSearch(1, 4);
    peer.answer(path(0, 3), 200, page({}, 0, 0));
    ASSERT_EQ(find(2), 0);
    ASSERT_TRUE(handler.waitCompleted());
    EXPECT_EQ(listRequests(), std::vector<std::string>{"GET " + path(0, 3)});
    EXPECT_EQ(handler.completions(), Results{0});
}

TEST_F(RecordingSearchTest, partsOfASecondAreAskedForAsWholeOnes)
{
    makeSearch();
    answer(page({{1000, 1100}}, 0, 1));
    ASSERT_EQ(find(0, {1'000'500, 1'999'001}), 0);
    ASSERT_TRUE(handler.waitCompleted());
    EXPECT_EQ(handler.ranges(), (Ranges{{1'000'500, 1'100'000}}));
}

TEST_F(RecordingSearchTest, aPageThatMakesNoProgressEndsTheSearch)
{
    const struct {
        const char* count;
        const char* offset;
    } cases[] = {{"0", "2"}, {"1", "1"}, {"0", "0"}};
    makeSearch();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.offset);
        answer(page({{1100, 1200}, {1300, 1400}}, 0, 9));
        answer(pageOf(c.count, c.offset, "9", "[]"), 2);
        SearchHandler once;
        ASSERT_EQ(search->FindRecordings(0, day, &once), 0);
        ASSERT_TRUE(once.waitCompleted());
        service->barrier();  // the call has returned when its handler goes
        EXPECT_EQ(once.completions(), Results{0});
        EXPECT_EQ(once.recordings().size(), 2U);
    }
    EXPECT_EQ(logger.count("Recordings list ends early: the page at 2 of 9"), 3U);
}

TEST_F(RecordingSearchTest, anOffsetBeyondTheTotalEndsTheSearch)
{
    makeSearch();
    answer(pageOf("1", "4294967295", "5", "[{\"Begin\":1100,\"End\":1200}]"));
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(handler.recordings().size(), 1U);
    EXPECT_EQ(listRequests().size(), 1U);
}

TEST_F(RecordingSearchTest, aPageWithoutRecordsIsLoggedAndPagingGoesOn)
{
    makeSearch();
    for (const char* const records : {"null", "{}", "7"}) {
        SCOPED_TRACE(records);
        answer(pageOf("3", "0", "4", records));
        answer(page({{1100, 1200}}, 3, 4), 3);
        SearchHandler once;
        ASSERT_EQ(search->FindRecordings(0, day, &once), 0);
        ASSERT_TRUE(once.waitCompleted());
        service->barrier();  // the call has returned when its handler goes
        EXPECT_EQ(once.ranges(), (Ranges{{1100000, 1200000}}));
    }
    EXPECT_EQ(logger.count("Recording range list is empty."), 3U);
}

TEST_F(RecordingSearchTest, missingNumbersCountAsNoneAndTheOffsetAsTheOneAskedFor)
{
    makeSearch();
    answer(Uniview::test::replyWithData("{\"Nums\":1,\"Total\":2,\"RecordInfos\":[{\"Begin\":1100,\"End\":1200}]}"));
    peer.answer(
        path(1), 200,
        Uniview::test::replyWithData("{\"Nums\":1,\"Total\":2,\"RecordInfos\":[{\"Begin\":1300,\"End\":1400}]}"));
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(handler.recordings().size(), 2U);
    EXPECT_EQ(listRequests().size(), 2U);
}

TEST_F(RecordingSearchTest, aListWithoutEndEndsTheSearch)
{
    makeSearch();
    search->Destroy();
    search = RecordingSearch::create(device.get(), {.recordsOfPage = 3, .records = 4, .pages = 2});
    const auto refused = [&](std::size_t requests) {
        const std::size_t before = listRequests().size();
        SearchHandler once;
        ASSERT_EQ(search->FindRecordings(0, day, &once), 0);
        ASSERT_TRUE(once.waitCompleted());
        service->barrier();  // the call has returned when its handler goes
        EXPECT_EQ(once.completions(), Results{toResult(ResultCode::responseTooLarge)});
        EXPECT_TRUE(once.recordings().empty());
        EXPECT_EQ(listRequests().size() - before, requests);
    };
    const std::string same = "{\"Begin\":1100,\"End\":1200}";
    answer(page({{1100, 1200}, {1100, 1200}, {1100, 1200}, {1100, 1200}}, 0, 4));
    refused(1);  // too many in one page
    answer(page({{1100, 1200}, {1100, 1200}, {1100, 1200}}, 0, 6));
    answer(page({{1100, 1200}, {1100, 1200}, {1100, 1200}}, 3, 6), 3);
    refused(2);  // too many in all, though they are merged into one
    for (std::uint64_t offset = 0; offset < 3; ++offset)
        answer(pageOf("1", std::to_string(offset), "4294967295", '[' + same + ']'), offset);
    refused(3);  // too many pages
    EXPECT_EQ(logger.count("Recordings list is too long: "), 3U);
}

TEST_F(RecordingSearchTest, aListUpToTheLimitsIsTaken)
{
    makeSearch();
    search->Destroy();
    search = RecordingSearch::create(device.get(), {.recordsOfPage = 2, .records = 4, .pages = 2});
    answer(page({{1100, 1200}, {1300, 1400}}, 0, 4));
    answer(page({{1500, 1600}, {1700, 1800}}, 2, 4), 2);
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_EQ(handler.recordings().size(), 4U);
}

TEST_F(RecordingSearchTest, aDeviceWithoutRecordingsFindsNone)
{
    makeSearch();
    answer(Uniview::test::replyWithData("{}"));
    EXPECT_EQ(findAndWait(), 0);
    EXPECT_TRUE(handler.recordings().empty());
}

TEST_F(RecordingSearchTest, whatCannotBeReadEndsTheSearch)
{
    const std::string bodies[] = {
        "{",
        "[]",
        Uniview::test::replyWithData("[]"),
        Uniview::test::replyWithData("7"),
        pageOf("\"1\"", "0", "1", "[]"),
        pageOf("1", "-1", "1", "[]"),
        pageOf("1", "0", "4294967296", "[]"),
    };
    std::size_t lines = 0;
    makeSearch();
    for (const std::string& body : bodies) {
        SCOPED_TRACE(body);
        answer(body);
        ASSERT_EQ(find(), 0);
        ASSERT_TRUE(handler.waitCompleted(++lines));
        EXPECT_EQ(handler.completions().back(), toResult(ResultCode::malformedReply));
        EXPECT_EQ(logger.count("Can't parse recording list data"), lines);
    }
    EXPECT_TRUE(handler.recordings().empty());
}

TEST_F(RecordingSearchTest, failuresOfTheDeviceEndTheSearchWithTheirLine)
{
    makeSearch();
    const auto attempt = [&](std::int32_t expected, const std::string& line) {
        SCOPED_TRACE(line);
        const std::size_t before = handler.completions().size();
        ASSERT_EQ(find(), 0);
        ASSERT_TRUE(handler.waitCompleted(before + 1));
        EXPECT_EQ(handler.completions().back(), expected);
        EXPECT_EQ(logger.find(line).severity, LogSeverity::error);
        EXPECT_TRUE(logger.contains(line));
    };
    peer.answer(path(0), 599, "");
    attempt(toResult(ResultCode::resourceNotFound),
            "Recordings list HTTP response has error code:599, reason:Scripted, request:" + path(0));
    answer("");
    attempt(toResult(ResultCode::emptyReply), "Recordings list HTTP responce is empty, request:" + path(0));
    answer("{\"Response\":{\"ResponseCode\":1,\"ResponseString\":\"Not Supported\",\"StatusString\":\"no\"}}");
    attempt(toResult(ResultCode::apiError), "Recordings list Internal API error :Not Supported, status :no");
    peer.answerRaw(path(0), "nonsense\r\n\r\n");
    attempt(toResult(ResultCode::malformedResponse), "Recordings list HTTP request is finished with error:");
}

TEST_F(RecordingSearchTest, aFailureOfALaterPageHandsNothingOver)
{
    makeSearch();
    answer(page({{1100, 1200}}, 0, 2));
    EXPECT_EQ(findAndWait(), toResult(ResultCode::resourceNotFound));
    EXPECT_TRUE(handler.recordings().empty());
}

TEST_F(RecordingSearchTest, argumentsThatMakeNoSenseAreRefused)
{
    makeSearch();
    EXPECT_EQ(search->FindRecordings(0, day, nullptr), toResult(ResultCode::invalidArgument));
    EXPECT_EQ(find(0, {5, 5}), toResult(ResultCode::invalidArgument));
    EXPECT_EQ(find(0, {6, 5}), toResult(ResultCode::invalidArgument));
    EXPECT_EQ(find(1), toResult(ResultCode::notFound));
    EXPECT_EQ(find(0, {4'294'967'296'000, 4'294'967'297'000}), toResult(ResultCode::outOfRange));
    EXPECT_TRUE(listRequests().empty());
}

TEST_F(RecordingSearchTest, anIntervalMayReachToTheEndOfTime)
{
    makeSearch();
    const std::string wanted = "/LAPI/V1.0/Channels/0/Media/Video/Streams/1/Records?Begin=1000&End=4294967295"
                               "&Offset=0&Limit=100";
    peer.answer(wanted, 200, page({}, 0, 0));
    ASSERT_EQ(find(0, {1'000'000, std::numeric_limits<std::uint64_t>::max()}), 0);
    ASSERT_TRUE(handler.waitCompleted());
    EXPECT_EQ(handler.completions(), Results{0});
}

TEST_F(RecordingSearchTest, isRefusedBeforeTheDeviceHasConnected)
{
    make();
    ASSERT_EQ(device->CreateRecordingSearch(&search), 0);
    EXPECT_EQ(find(), toResult(ResultCode::invalidState));
}

TEST_F(RecordingSearchTest, aSecondSearchIsRefusedWhileOneIsUnderWay)
{
    makeSearch();
    peer.staySilent(path(0));
    ASSERT_EQ(find(), 0);
    EXPECT_EQ(find(), toResult(ResultCode::invalidState));
    ASSERT_TRUE(peer.waitForRequest("GET " + path(0)));
    answer(page({{1100, 1200}}, 0, 1));
    peer.breakSilence(200, page({{1100, 1200}}, 0, 1));
    ASSERT_TRUE(handler.waitCompleted());
    EXPECT_EQ(find(), 0);
    EXPECT_TRUE(handler.waitCompleted(2));
    EXPECT_EQ(handler.completions(), (Results{0, 0}));
}

TEST_F(RecordingSearchTest, cancelWhileAPageIsUnderWayCompletesWithOne)
{
    makeSearch();
    answer(page({{1100, 1200}}, 0, 2));
    peer.staySilent(path(1));
    ASSERT_EQ(find(), 0);
    ASSERT_TRUE(peer.waitForRequest("GET " + path(1)));
    search->Cancel();
    ASSERT_TRUE(handler.waitCompleted());
    search->Cancel();
    service->barrier();
    EXPECT_EQ(handler.completions(), Results{toResult(ResultCode::cancelled)});
    EXPECT_TRUE(handler.recordings().empty());
    EXPECT_EQ(handler.completions().size(), 1U);
    EXPECT_EQ(this->DeviceFixture::handler.lostTotal(), 0) << "what was taken back says nothing about the device";
}

TEST_F(RecordingSearchTest, closingTheDeviceCompletesWithOne)
{
    makeSearch();
    answer(page({{1100, 1200}}, 0, 2));
    peer.staySilent(path(1));
    ASSERT_EQ(find(), 0);
    ASSERT_TRUE(peer.waitForRequest("GET " + path(1)));
    device->Close();
    ASSERT_TRUE(handler.waitCompleted());
    EXPECT_EQ(handler.completions(), Results{toResult(ResultCode::cancelled)});
    EXPECT_TRUE(handler.recordings().empty());
}

TEST_F(RecordingSearchTest, openingAnotherDeviceCompletesWithOneAndAsksThatForNothing)
{
    makeSearch();
    answer(page({{1100, 1200}}, 0, 2));
    peer.staySilent(path(1));
    ASSERT_EQ(find(), 0);
    ASSERT_TRUE(peer.waitForRequest("GET " + path(1)));
    kelvo::test::ScriptedHttpPeer another;
    another.answer(Uniview::test::portPath, 200, "{\"Response\":{\"Data\":{\"HTTPPort\":80,\"RTSPPort\":\t8554}}}");
    another.answer(Uniview::test::infoPath, 200, Uniview::test::deviceInfo(0));
    ASSERT_EQ(device->Open(("http://admin:secret@" + another.address()).c_str()), 0);
    ASSERT_TRUE(handler.waitCompleted());
    EXPECT_EQ(handler.completions(), Results{toResult(ResultCode::cancelled)});
    ASSERT_TRUE(this->DeviceFixture::handler.waitConnected(2));
    peer.breakSilence(200, page({{1300, 1400}}, 1, 3));
    service->barrier();
    for (const std::string& request : another.requests())
        EXPECT_EQ(request.find("/Records?"), std::string::npos) << request;
    std::exchange(search, nullptr)->Destroy();
    leave();
}

TEST_F(RecordingSearchTest, cancelWithoutASearchIsHarmless)
{
    makeSearch();
    search->Cancel();
    answer(page({}, 0, 0));
    EXPECT_EQ(findAndWait(), 0);
}

TEST_F(RecordingSearchTest, aNewSearchMayBeginInsideTheCompletionOfTheLast)
{
    makeSearch();
    answer(page({{1100, 1200}}, 0, 1));
    std::int32_t second = -1;
    handler.onCompleted = [&](Tavro8::GDRV::IRecordingSearch* done) {
        if (second == -1)
            second = done->FindRecordings(0, day, &handler);
    };
    ASSERT_EQ(find(), 0);
    ASSERT_TRUE(handler.waitCompleted(2));
    service->barrier();  // the call that reads `second` has returned
    EXPECT_EQ(second, 0);
    EXPECT_EQ(handler.completions(), (Results{0, 0}));
}

TEST_F(RecordingSearchTest, destroyWhileAPageIsUnderWayIsSilent)
{
    makeSearch();
    peer.staySilent(path(0));
    ASSERT_EQ(find(), 0);
    ASSERT_TRUE(peer.waitForRequest("GET " + path(0)));
    std::exchange(search, nullptr)->Destroy();
    std::exchange(device, nullptr)->Destroy();
    service->barrier();
    EXPECT_TRUE(handler.completions().empty());
}

TEST_F(RecordingSearchTest, destroyRightBehindTheCallIsSilent)
{
    makeSearch();
    answer(page({{1100, 1200}}, 0, 1));
    ASSERT_EQ(find(), 0);
    std::exchange(search, nullptr)->Destroy();
    const auto before = handler.completions().size();
    service->barrier();
    EXPECT_EQ(handler.completions().size(), before);
}

TEST_F(RecordingSearchTest, destroyFromInsideEitherCallbackIsTheLastCall)
{
    makeSearch();
    answer(page({{1100, 1200}, {1300, 1400}}, 0, 2));
    for (const bool atTheFirst : {true, false}) {
        SCOPED_TRACE(atTheFirst);
        if (search == nullptr) {
            ASSERT_EQ(device->CreateRecordingSearch(&search), 0);
        }
        SearchHandler once;
        std::promise<void> destroyed;
        auto& callback = atTheFirst ? once.onFound : once.onCompleted;
        callback = [&](Tavro8::GDRV::IRecordingSearch* done) {
            done->Destroy();
            destroyed.set_value();
        };
        ASSERT_EQ(std::exchange(search, nullptr)->FindRecordings(0, day, &once), 0);
        destroyed.get_future().get();
        service->barrier();
        EXPECT_EQ(once.recordings().size(), atTheFirst ? 1U : 2U);
        EXPECT_EQ(once.completions().size(), atTheFirst ? 0U : 1U);
    }
}

TEST_F(RecordingSearchTest, cancelWhileResultsAreHandedOverEndsThem)
{
    makeSearch();
    constexpr std::size_t total = 3 * RecordingSearch::recordsPerTurn;
    Seconds bounds;
    for (std::uint64_t i = 0; i < total; ++i)
        bounds.emplace_back(1000 + i, 1000 + i);
    answer(page(bounds, 0, total));
    handler.onFound = [](Tavro8::GDRV::IRecordingSearch* going) { going->Cancel(); };
    EXPECT_EQ(findAndWait(), toResult(ResultCode::cancelled));
    EXPECT_LT(handler.recordings().size(), total);
    EXPECT_EQ(handler.completions().size(), 1U);
}

TEST_F(RecordingSearchTest, offersItsContracts)
{
    makeSearch();
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IRecordingSearch>(search), search);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::ITelemetry>(search), nullptr);
    EXPECT_EQ(device->CreateRecordingSearch(nullptr), toResult(ResultCode::invalidArgument));
}
}  // namespace

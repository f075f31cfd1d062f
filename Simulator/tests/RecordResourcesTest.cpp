#include "RecordResources.h"

#include "LapiEnvelope.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

constexpr std::uint32_t until = 1'790'000'000;

Options eightRecords(Kind kind = Kind::recorder, RecordOrder order = RecordOrder::oldestFirst)
{
    Options options;
    options.kind = kind;
    options.channels = kind == Kind::camera ? 1 : 2;
    options.archive = true;
    options.records = 8;
    options.recordsUntil = until;
    options.recordOrder = order;
    return options;
}

class RecordResourcesTest : public testing::Test {
protected:
    explicit RecordResourcesTest(const Options& options = eightRecords()) : device(options), archive(options, 0)
    {
        addRecordResources(router, device, archive, faults);
    }

    Reply ask(const std::string& query, const std::string& channel = "1", const std::string& stream = "1")
    {
        Call call;
        call.method = "GET";
        call.path = "/LAPI/V1.0/Channels/" + channel + "/Media/Video/Streams/" + stream + "/Records";
        call.query = query;
        auto match = router.find(call.method, call.path);
        if (match.handler == nullptr)
            return {.status = 599};
        call.captures = match.captures;
        return (*match.handler)(call);
    }

    Json::Value dataOf(const std::string& query) { return ask(query).data; }
    void inject(const char* text) { faults.add(std::get<Fault>(parseFault(text))); }

    Router router;
    DeviceState device;
    FaultTable faults;
    Archive archive;
};

struct CameraRecordsTest : RecordResourcesTest {
    CameraRecordsTest() : RecordResourcesTest(eightRecords(Kind::camera)) {}
};
struct NewestRecordsTest : RecordResourcesTest {
    NewestRecordsTest() : RecordResourcesTest(eightRecords(Kind::recorder, RecordOrder::newestFirst)) {}
};

/// Documents are compared as text: a number read is never equal to one of another integer type.
std::string json(const char* text)
{
    const auto value = parseJson(text);
    return value ? compactPrint(*value) : std::string();
}

TEST_F(RecordResourcesTest, listsWhatIsInTheInterval)
{
    EXPECT_EQ(compactPrint(dataOf("Begin=1789999640&End=1789999770&Offset=0&Limit=100")), json(R"({
        "Nums": 3, "Total": 3, "Offset": 0,
        "RecordInfos": [{"Begin": 1789999640, "End": 1789999715, "Type": 0},
                        {"Begin": 1789999700, "End": 1789999760, "Type": 0},
                        {"Begin": 1789999760, "End": 1789999780, "Type": 0}]})"));
}

TEST_F(RecordResourcesTest, listsPageByPage)
{
    EXPECT_EQ(compactPrint(dataOf("Begin=0&End=4294967295&Offset=5&Limit=2")), json(R"({
        "Nums": 2, "Total": 8, "Offset": 5,
        "RecordInfos": [{"Begin": 1789999820, "End": 1789999880, "Type": 0},
                        {"Begin": 1789999880, "End": 1789999880, "Type": 0}]})"));
    EXPECT_EQ(compactPrint(dataOf("Begin=0&End=4294967295&Offset=8&Limit=2")),
              json(R"({"Nums": 0, "Total": 8, "Offset": 8, "RecordInfos": []})"));
    EXPECT_EQ(compactPrint(dataOf("Begin=1&End=2")),
              json(R"({"Nums": 0, "Total": 0, "Offset": 0, "RecordInfos": []})"));
}

TEST_F(NewestRecordsTest, beginWithTheNewest)
{
    EXPECT_EQ(compactPrint(dataOf("Offset=0&Limit=1")), json(R"({
        "Nums": 1, "Total": 8, "Offset": 0,
        "RecordInfos": [{"Begin": 1789999940, "End": 1790000000, "Type": 0}]})"));
}

TEST_F(RecordResourcesTest, refusesWhatItDoesNotUnderstand)
{
    for (const char* query : {"Begin=2&End=1", "Begin=x&End=1", "Begin=1&Begin=1", "Begin", "Begin=-1", "Limit=0",
                              "Limit=1001", "Offset=4294967296"}) {
        SCOPED_TRACE(query);
        EXPECT_EQ(ask(query).status, 200u);
        EXPECT_EQ(ask(query).code, 2);
    }
    EXPECT_EQ(ask("", "0").status, 599u);
    EXPECT_EQ(ask("", "3").status, 599u);
    EXPECT_EQ(ask("", "1", "2").status, 599u);
}

TEST_F(CameraRecordsTest, areThoseOfChannelZero)
{
    EXPECT_EQ(ask("", "0").data["Total"], 8u);
    EXPECT_EQ(ask("", "1").status, 599u);
}

TEST_F(RecordResourcesTest, misbehaveAsTold)
{
    inject("records-total:500@Offset=7");
    EXPECT_EQ(dataOf("Offset=7")["Total"], 500u);
    EXPECT_EQ(dataOf("Offset=7")["Nums"], 1u);
    EXPECT_EQ(dataOf("Offset=6")["Total"], 8u);
    inject("records-total:2");
    EXPECT_EQ(dataOf("")["Total"], 2u);

    faults.clear();
    inject("records-stall:4");
    EXPECT_EQ(dataOf("Offset=3")["Nums"], 5u);
    EXPECT_EQ(compactPrint(dataOf("Offset=4")), json(R"({"Nums": 0, "Total": 8, "Offset": 4, "RecordInfos": []})"));

    faults.clear();
    inject("records-nolist");
    EXPECT_EQ(compactPrint(dataOf("Limit=2")), json(R"({"Nums": 2, "Total": 8, "Offset": 0})"));

    faults.clear();
    inject("records-noarray");
    EXPECT_EQ(compactPrint(dataOf("Limit=2")), json(R"({"Nums": 2, "Total": 8, "Offset": 0, "RecordInfos": {}})"));

    faults.clear();
    inject("records-reversed");
    EXPECT_EQ(compactPrint(dataOf("Limit=1")["RecordInfos"]),
              json(R"([{"Begin": 1789999580, "End": 1789999520, "Type": 0}])"));
}

TEST_F(RecordResourcesTest, areRemembered)
{
    dataOf("Begin=1789999640&End=1789999770&Offset=1&Limit=1");
    ask("", "2");
    EXPECT_EQ(compactPrint(archive.counters()), json(R"({"searches": 2, "records": 9})"));
    EXPECT_EQ(compactPrint(archive.state()), json(R"({
        "channels": [{"records": 8, "begin": 1789999520, "end": 1790000000},
                     {"records": 8, "begin": 1789999520, "end": 1790000000}],
        "searches": [{"channel": 0, "begin": 1789999640, "end": 1789999770, "offset": 1, "limit": 1,
                      "records": 1, "total": 3},
                     {"channel": 1, "begin": 0, "end": 4294967295, "offset": 0, "limit": 100,
                      "records": 8, "total": 8}]})"));
    archive.clearCounters();
    EXPECT_EQ(compactPrint(archive.counters()), json(R"({"searches": 0, "records": 0})"));
}

}  // namespace
}  // namespace simulator

#include "Lapi.h"

#include "GroupingLocale.h"
#include "SettingsText.h"

#include <Tavro8/ResultCode.h>
#include <gtest/gtest.h>
#include <string>

namespace
{
using namespace Uniview;
using kelvo::test::GroupingLocale;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::http::HttpResponse;
using Uniview::test::jsonOf;

constexpr const char* path = "/LAPI/V1.0/System/DeviceInfo";
constexpr const char* envelope =
    "{\n\t\"Response\":\t{\n\t\t\"ResponseURL\":\t\"/LAPI/V1.0/System/DeviceInfo\",\n\t\t\"CreatedID\":\t-1,\n"
    "\t\t\"ResponseCode\":\t0,\n\t\t\"SubResponseCode\":\t0,\n\t\t\"ResponseString\":\t\"Succeed\",\n"
    "\t\t\"StatusCode\":\t0,\n\t\t\"StatusString\":\t\"Succeed\",\n\t\t\"Data\":\t{\"DeviceType\":\t2}\n\t}\n}";

std::vector<char> bytes(const std::string& text)
{
    return {text.begin(), text.end()};
}

HttpResponse replyWith(unsigned status, const std::string& reason = "Reason")
{
    HttpResponse response;
    response.status = status;
    response.reason = reason;
    return response;
}

lapi::Reply judged(const std::string& body, lapi::Expect expect = lapi::Expect::success)
{
    return lapi::judge({}, replyWith(200), bytes(body), expect);
}

TEST(LapiReply, acceptsTwoHundredsAndThe302Redirect)
{
    const struct {
        unsigned status;
        bool accepted;
    } cases[] = {
        {199, false}, {200, true}, {299, true}, {300, false}, {301, false}, {302, true}, {303, false}, {404, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        const auto reply = lapi::judge({}, replyWith(c.status), bytes(envelope));
        EXPECT_EQ(static_cast<bool>(reply), c.accepted);
        EXPECT_EQ(reply.result == 0, c.accepted);
    }
}

TEST(LapiReply, givesTheDataOfTheEnvelope)
{
    const auto reply = judged(envelope);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply.data["DeviceType"].asInt(), 2);
    EXPECT_EQ(lapi::describe(reply, path), "");
}

TEST(LapiReply, transportFailureIsJudgedBeforeTheStatus)
{
    const auto failure = make_error_code(ResultCode::timedOut);
    const auto reply = lapi::judge(failure, replyWith(404), bytes(envelope));
    EXPECT_EQ(reply.failure, lapi::Failure::transport);
    EXPECT_EQ(reply.result, toResult(ResultCode::timedOut));
    EXPECT_EQ(lapi::describe(reply, path),
              " HTTP request is finished with error:258, message:the device did not answer "
              "in time, request:/LAPI/V1.0/System/DeviceInfo");
}

TEST(LapiReply, rejectedStatusNamesStatusReasonAndRequest)
{
    const auto reply = lapi::judge({}, replyWith(404, "Not Found"), bytes(envelope));
    EXPECT_EQ(reply.failure, lapi::Failure::status);
    EXPECT_EQ(lapi::describe(reply, path),
              " HTTP response has error code:404, reason:Not Found, request:/LAPI/V1.0/System/DeviceInfo");
}

TEST(LapiReply, emptyBodyFailsWhereDataAreExpected)
{
    const auto reply = judged("");
    EXPECT_EQ(reply.failure, lapi::Failure::empty);
    EXPECT_NE(reply.result, 0);
    EXPECT_EQ(lapi::describe(reply, path), " HTTP responce is empty, request:/LAPI/V1.0/System/DeviceInfo");
    EXPECT_TRUE(judged("", lapi::Expect::status));
}

TEST(LapiReply, responseCodeOtherThanZeroFailsWithTheDevicesWords)
{
    const auto reply =
        judged(R"({"Response":{"ResponseCode":1,"ResponseString":"Not Supported","StatusString":"Common Error"}})");
    EXPECT_EQ(reply.failure, lapi::Failure::api);
    EXPECT_EQ(reply.code, 1);
    EXPECT_NE(reply.result, 0);
    EXPECT_EQ(lapi::describe(reply, path), " Internal API error :Not Supported, status :Common Error");
}

TEST(LapiReply, everyFailureCanBeExplained)
{
    const std::string malformed = lapi::explain(judged("<html>"), path);
    EXPECT_TRUE(malformed.starts_with(" HTTP response cannot be read, request:/LAPI/V1.0/System/DeviceInfo, reason:* "))
        << malformed;
    EXPECT_EQ(
        lapi::explain(judged("[]"), path),
        " HTTP response cannot be read, request:/LAPI/V1.0/System/DeviceInfo, reason:the reply is not a JSON object");
    for (const lapi::Reply& other :
         {lapi::judge(make_error_code(ResultCode::timedOut), replyWith(200), {}),
          lapi::judge({}, replyWith(404, "Not Found"), {}), judged(""), judged(R"({"Response":{"ResponseCode":1}})")}) {
        EXPECT_NE(lapi::explain(other, path), "");
        EXPECT_EQ(lapi::explain(other, path), lapi::describe(other, path));
    }
}

TEST(LapiReply, emptyMalformedAndRefusedRepliesHaveResultsOfTheirOwn)
{
    const auto empty = judged("").result;
    const auto malformed = judged("{").result;
    const auto refused = judged(R"({"Response":{"ResponseCode":1}})").result;
    EXPECT_NE(empty, malformed);
    EXPECT_NE(empty, refused);
    EXPECT_NE(malformed, refused);
}

TEST(LapiReply, wrongShapesAreMalformedAndNeverThrow)
{
    const char* const bodies[] = {
        "{",
        "not json",
        "[]",
        "3",
        "\"text\"",
        "null",
        R"({"Response":3})",
        R"({"Response":[1,2]})",
        R"({"Response":{}})",
        R"({"Response":{"ResponseCode":"0"}})",
        R"({"Response":{"ResponseCode":[0]}})",
        R"({"Response":{"ResponseCode":99999999999}})",
        R"({"Response":{"ResponseCode":0,"Data":1.2.3}})",
    };
    for (const char* const body : bodies) {
        SCOPED_TRACE(body);
        const auto reply = judged(body);
        EXPECT_EQ(reply.failure, lapi::Failure::malformed);
        EXPECT_EQ(lapi::describe(reply, path), "");
    }
}

TEST(LapiReply, deepNestingIsMalformed)
{
    EXPECT_EQ(judged(std::string(100000, '[')).failure, lapi::Failure::malformed);
    EXPECT_EQ(judged(R"({"Response":)" + std::string(5000, '{')).failure, lapi::Failure::malformed);
}

TEST(LapiReply, failureTextsOfTheWrongTypeAreLeftOut)
{
    const auto reply = judged(R"({"Response":{"ResponseCode":5,"ResponseString":[1],"StatusString":{}}})");
    EXPECT_EQ(reply.failure, lapi::Failure::api);
    EXPECT_EQ(lapi::describe(reply, path), " Internal API error :, status :");
}

std::string envelopeSaying(const std::string& text)
{
    return R"({"Response":{"ResponseCode":5,"ResponseString":")" + text + R"(","StatusString":")" + text + "\"}}";
}

TEST(LapiReply, failureTextsCannotControlALogOrTerminal)
{
    const struct {
        std::string sent;
        std::string shown;
    } cases[] = {
        {R"(No\nSuch\r\tThing)", "No Such  Thing"},
        {R"(\u001b[31mred\u0007\u007f\u0000)", " [31mred   "},
        {"a\u009b[2J", "a [2J"},  // the same as ESC [ in one character
        {"Zugriff verweigert: \u00e4\u4e2d\U0001f512", "Zugriff verweigert: \u00e4\u4e2d\U0001f512"},
        {"\xff\xfe", "\ufffd\ufffd"},
    };
    for (const auto& c : cases) {
        const auto reply = judged(envelopeSaying(c.sent));
        EXPECT_EQ(lapi::describe(reply, path), " Internal API error :" + c.shown + ", status :" + c.shown);
    }
    const auto status = lapi::judge({}, replyWith(500, "a\x1b[2Jb\xfc\x7f"), {});
    EXPECT_EQ(lapi::describe(status, "/p", lapi::Wording::telemetry),
              " HTTP response has error: a [2Jb\ufffd , request: /p");
}

TEST(LapiReply, longFailureTextsAreClippedBetweenCharacters)
{
    EXPECT_EQ(judged(envelopeSaying(std::string(256, 'x'))).message, std::string(256, 'x'));
    EXPECT_EQ(judged(envelopeSaying(std::string(257, 'x'))).message, std::string(256, 'x') + "...");
    EXPECT_EQ(judged(envelopeSaying(std::string(100'000, 'x'))).statusString, std::string(256, 'x') + "...");
    EXPECT_EQ(lapi::judge({}, replyWith(404, std::string(60'000, 'x')), {}).message, std::string(256, 'x') + "...");
    for (const std::string character : {"\u00e4", "\u4e2d", "\U0001f512"}) {
        for (std::size_t before = 250; before <= 256; ++before) {
            const std::string kept(before, 'x');
            std::string text = kept;
            for (int i = 0; i < 5; ++i)
                text += character;
            const std::size_t whole = (256 - before) / character.size();
            EXPECT_EQ(judged(envelopeSaying(text)).message, text.substr(0, before + whole * character.size()) + "...");
        }
    }
    // Bytes that begin no character are not searched for a boundary for ever, and become three bytes each.
    EXPECT_LE(judged(envelopeSaying(std::string(4096, '\x80'))).message.size(), 3U * 256U + 3U);
}

TEST(LapiReply, eachFamilyOfCallsHasItsOwnWording)
{
    const auto transport = lapi::judge(make_error_code(ResultCode::connectionLost), {}, {});
    const auto status = lapi::judge({}, replyWith(500, "Oops"), {});
    const auto empty = judged("");
    const auto api = judged(R"({"Response":{"ResponseCode":7,"ResponseString":"R","StatusString":"S"}})");
    using lapi::Wording;
    const std::string lost = "the connection to the device was lost";

    EXPECT_EQ(lapi::describe(transport, "/p", Wording::subscription),
              " HTTP request is finished with error: 257, message: " + lost + ", request: /p");
    EXPECT_EQ(lapi::describe(status, "/p", Wording::subscription),
              " HTTP response has error code: 500, reason: Oops, request: /p");
    EXPECT_EQ(lapi::describe(empty, "/p", Wording::subscription), " HTTP responce is empty, request: /p");

    EXPECT_EQ(lapi::describe(transport, "/p", Wording::io),
              "HTTP request is finished with error:257, message:" + lost + ", request:/p");
    EXPECT_EQ(lapi::describe(status, "/p", Wording::io), "HTTP response has error code:500, reason:Oops, request:/p");
    EXPECT_EQ(lapi::describe(empty, "/p", Wording::io), "HTTP responce is empty, request:/p");

    EXPECT_EQ(lapi::describe(transport, "/p", Wording::telemetry),
              " HTTP request is finished with error: " + lost + ", request: /p");
    EXPECT_EQ(lapi::describe(status, "/p", Wording::telemetry), " HTTP response has error: Oops, request: /p");
    EXPECT_EQ(lapi::describe(empty, "/p", Wording::telemetry), "HTTP responce is empty, request: /p");
    EXPECT_EQ(lapi::describe(api, "/p", Wording::telemetry), "HTTP response has error code: 7, reason: R, message: S");
}

TEST(LapiReply, textsAreTheSameUnderAGroupingLocale)
{
    const GroupingLocale grouping;
    EXPECT_EQ(lapi::describe(lapi::judge({}, replyWith(32000), {}), "/p"),
              " HTTP response has error code:32000, reason:Reason, request:/p");
}

TEST(LapiJson, readsFractionsAlikeUnderEveryLocale)
{
    const GroupingLocale grouping;
    const auto reply = judged(R"({"Response":{"ResponseCode":0,"Data":{"Longitude":359.999,"List":[-0.5,2e3,1],)"
                              R"("Text":"1.5 \" 2.5","Key1.5":7}}})");
    ASSERT_TRUE(reply);
    EXPECT_DOUBLE_EQ(reply.data["Longitude"].asDouble(), 359.999);
    EXPECT_DOUBLE_EQ(reply.data["List"][0].asDouble(), -0.5);
    EXPECT_DOUBLE_EQ(reply.data["List"][1].asDouble(), 2000);
    EXPECT_TRUE(reply.data["List"][2].isInt());
    EXPECT_EQ(reply.data["Text"].asString(), "1.5 \" 2.5");
    EXPECT_EQ(reply.data["Key1.5"].asInt(), 7);
}

TEST(LapiJson, leavesTextsWithControlCharactersAlone)
{
    const auto reply = judged(R"({"Response":{"ResponseCode":0,"Data":{"Text":"\u00011.5","Number":2.5}}})");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply.data["Text"].asString(), "\x01"
                                             "1.5");
    EXPECT_DOUBLE_EQ(reply.data["Number"].asDouble(), 2.5);
}

TEST(LapiJson, readsFractionsAlikeBesideControlCharacters)
{
    const GroupingLocale grouping;
    const auto reply =
        judged("{\"Response\":{\"ResponseCode\":0,\"Data\":{\"Text\":\"\\u00011.5\x02 \\u0003\",\"Number\":2.5}}}");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply.data["Text"].asString(), "\x01"
                                             "1.5\x02 \x03");
    EXPECT_DOUBLE_EQ(reply.data["Number"].asDouble(), 2.5);
}

TEST(LapiJson, readsADocumentWithEveryMarkAsItIs)
{
    Json::Value document;
    std::string error;
    ASSERT_TRUE(lapi::parseJson(R"(["\u0001\u0002\u0003\u0004\u0005\u0006\u0007\u0008", 2.5])", document, error));
    EXPECT_EQ(document[0].asString(), "\1\2\3\4\5\6\7\10");
    EXPECT_DOUBLE_EQ(document[1].asDouble(), 2.5);
}

TEST(LapiJson, aDocumentWithEveryMarkCanBeReadOnceItIsWritten)
{
    const std::string texts[] = {
        R"({"\u0001\u0002\u0003\u0004\u0005\u0006\u0007":2.5})",
        R"({"\b\u0001\u0002\u0003\u0004\u0005\u0006\u0007":2.5})",
        "{\"\b\1\2\3\4\5\6\7\":18446744073709551616}",
        R"({"":"\u0001\u0002\u0003\u0004\u0005\u0006\u0007","Big":18446744073709551616})",
    };
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        const Json::Value document = jsonOf(text);
        const Json::Value again = jsonOf(lapi::writeJson(document));
        ASSERT_EQ(again.getMemberNames(), document.getMemberNames());
        for (const std::string& name : document.getMemberNames())
            EXPECT_EQ(again[name].type(), document[name].type()) << "a number stays one";
        EXPECT_EQ(lapi::writeJson(again), lapi::writeJson(document));
    }
}

TEST(LapiJson, integersOfAnyLengthAreWrittenBackAsTheyCame)
{
    const std::string texts[] = {
        "[18446744073709551615,-9223372036854775808,9223372036854775808]",
        "[18446744073709551616,-9223372036854775809,12345678901234567890123]",
        "[-0,0,1]",
        R"({"Big":18446744073709551616,"Text":"18446744073709551616"})",
        R"(["\u0001x","\u0002","\u00048",18446744073709551616])",
        "[-0]",
        "18446744073709551616",
    };
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        const Json::Value document = jsonOf(text);
        EXPECT_EQ(lapi::writeJson(document), text);
        EXPECT_EQ(lapi::writeJson(Json::Value(document)), text) << "a copy says the same";
        EXPECT_EQ(lapi::writeJson(jsonOf(lapi::writeJson(document))), text);
    }
}

TEST(LapiJson, integersBeyond64BitsAreFractionsForWhoAsks)
{
    Json::Value document = jsonOf(R"({"Big":18446744073709551616,"Zero":-0})");
    EXPECT_DOUBLE_EQ(document["Big"].asDouble(), 18446744073709551616.0);
    EXPECT_FALSE(document["Big"].isInt64());
    EXPECT_EQ(document["Zero"], 0);
    document["Big"] = 7;
    document["Zero"] = "none";
    EXPECT_EQ(lapi::writeJson(document), R"({"Big":7,"Zero":"none"})") << "what is replaced is gone";
}

TEST(LapiJson, refusesWhatIsNoNumber)
{
    const char* const texts[] = {"{1.5:3}",    "{18446744073709551616:3}",
                                 "{-0 : 3}",   "{1:3}",
                                 "[007]",      "[-01]",
                                 "[1.]",       "[.5]",
                                 "[1e]",       "[1e+]",
                                 "[-]",        "[1-2]",
                                 "[01.5]",     "[+1]",
                                 "[1e400]",    "[--1]",
                                 "[1.2.3]",    "[NaN,1.5]",
                                 "[-Infinity]"};
    for (const char* const text : texts) {
        Json::Value document;
        std::string error;
        EXPECT_FALSE(lapi::parseJson(text, document, error)) << text;
        EXPECT_NE(error, "") << text;
    }
}

TEST(LapiJson, refusesComments)
{
    Json::Value document;
    std::string error;
    EXPECT_FALSE(lapi::parseJson("[1, /* \" */ 2.5, \"3.5\"]", document, error));
    EXPECT_FALSE(lapi::parseJson("// 1\n[1]", document, error));
}

TEST(LapiJson, readsNoMoreThanADocumentMayHave)
{
    const auto ofSize = [](std::size_t size) { return "[" + std::string(size - 2, ' ') + "]"; };
    Json::Value document;
    std::string error;
    EXPECT_TRUE(lapi::parseJson(ofSize(lapi::maxDocumentBytes), document, error)) << error;
    EXPECT_FALSE(lapi::parseJson(ofSize(lapi::maxDocumentBytes + 1), document, error));
    EXPECT_EQ(error, "1048577 bytes are more than the 1048576 of a document");
}

TEST(LapiReply, longerOneThanADocumentMayBeIsNotRead)
{
    const std::string prefix = R"({"Response":{"ResponseCode":0,"Data":[)";
    const std::string longest = prefix + std::string(lapi::maxDocumentBytes - prefix.size() - 3, ' ') + "]}}";
    EXPECT_TRUE(judged(longest));
    const auto reply = judged(longest + ' ');
    EXPECT_EQ(reply.failure, lapi::Failure::malformed);
    EXPECT_EQ(reply.result, toResult(ResultCode::responseTooLarge));
    EXPECT_EQ(reply.message, "1048577 bytes are more than the 1048576 of a document");
}

TEST(LapiJson, reportsTheReadersWordsInOneShortLine)
{
    Json::Value document;
    std::string error;
    EXPECT_FALSE(lapi::parseJson("{\"a\" 1}", document, error));
    EXPECT_NE(error.find("Missing ':'"), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    EXPECT_FALSE(lapi::parseJson("[1" + std::string(100'000, '2') + "-]", document, error));
    EXPECT_LT(error.size(), 300U);
}
}  // namespace

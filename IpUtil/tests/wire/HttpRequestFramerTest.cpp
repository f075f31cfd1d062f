#include "wire/HttpRequestFramer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Tavro8::wire
{
namespace
{
using Framer = HttpRequestFramer;

const std::string alarmHead = "POST /LAPI/V1.0/System/Event/Notification/Alarm HTTP/1.1\r\n"
                              "Host: 192.0.2.1:32000\r\nContent-Type: application/json\r\n";
const std::string alarmBody = R"({"AlarmInfo": {"AlarmType": "MotionAlarmOn", "AlarmSrcID": 1}})";

std::string withLength(const std::string& body)
{
    return alarmHead + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string chunkedHead = alarmHead + "Transfer-Encoding: chunked\r\n\r\n";

/// What a connection gave, message by message; other bytes begin with "~".
struct Outcome {
    std::vector<std::string> messages{};
    std::string rule{};  ///< that broke
    std::uint64_t offset = 0;
    bool brokeOff = false;  ///< it ended inside a message
    bool operator==(const Outcome&) const = default;
};

std::string textOf(const Framer::Message& message)
{
    return (message.isRequest ? "" : "~") + std::string(message.bytes);
}

Outcome readPieces(const std::vector<std::string>& pieces)
{
    Framer framer;
    Outcome outcome;
    for (const std::string& piece : pieces) {
        std::string_view input = piece;
        for (;;) {
            const auto result = framer.next(input);
            if (const auto* message = std::get_if<Framer::Message>(&result)) {
                outcome.messages.push_back(textOf(*message));
            } else if (const auto* malformed = std::get_if<Framer::Malformed>(&result)) {
                outcome.rule = malformed->rule;
                outcome.offset = malformed->offset;
                return outcome;
            } else {
                EXPECT_TRUE(input.empty());
                break;
            }
        }
    }
    outcome.brokeOff = framer.isInsideMessage();
    if (const auto last = framer.finish())
        outcome.messages.push_back(textOf(*last));
    return outcome;
}

Outcome readWhole(const std::string& stream)
{
    return readPieces({stream});
}

std::vector<std::string> bytesOf(const std::string& stream)
{
    std::vector<std::string> bytes;
    for (const char c : stream)
        bytes.emplace_back(1, c);
    return bytes;
}

/// The same must come out whole, cut in two at every place, and byte by byte.
void expectHoweverSplit(const std::string& stream, const Outcome& expected)
{
    EXPECT_EQ(readWhole(stream).messages, expected.messages);
    EXPECT_EQ(readWhole(stream).rule, expected.rule);
    EXPECT_EQ(readWhole(stream), expected);
    for (std::size_t cut = 1; cut < stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        ASSERT_EQ(readPieces({stream.substr(0, cut), stream.substr(cut)}), expected);
    }
    EXPECT_EQ(readPieces(bytesOf(stream)), expected);
}

void expectMessages(const std::string& stream, const std::vector<std::string>& messages)
{
    expectHoweverSplit(stream, {.messages = messages});
}

Outcome brokenBy(const std::string& rule, std::vector<std::string> before = {}, std::uint64_t offset = 0)
{
    return {.messages = std::move(before), .rule = rule, .offset = offset};
}
}  // namespace

TEST(HttpRequestFramer, handsOutHeadAndBodyInOnePieceHoweverTheyAreSplit)
{
    expectMessages(withLength(alarmBody), {withLength(alarmBody)});
}

TEST(HttpRequestFramer, tellsMessagesThatFollowEachOtherApart)
{
    const std::string second = withLength(R"({"other": "}{"})");
    expectMessages(withLength(alarmBody) + second + withLength(""), {withLength(alarmBody), second, withLength("")});
}

TEST(HttpRequestFramer, doesNotCopyAMessageThatIsThereAsAWhole)
{
    const std::string stream = withLength(alarmBody) + withLength(alarmBody);
    std::string_view input = stream;
    Framer framer;
    for (const std::size_t at : {std::size_t{0}, stream.size() / 2}) {
        const auto message = std::get<Framer::Message>(framer.next(input));
        EXPECT_EQ(message.bytes.data(), stream.data() + at);
    }
    EXPECT_EQ(framer.keptBytes(), std::string().capacity());
}

TEST(HttpRequestFramer, skipsEmptyLinesBetweenMessages)
{
    const std::string message = withLength(alarmBody);
    expectMessages("\r\n" + message + "\r\n\n\r\n" + message + "\r\n", {message, message});
}

TEST(HttpRequestFramer, takesBareLineFeeds)
{
    const std::string message = "PUT /a HTTP/1.1\nContent-Length: 2\n\n{}";
    expectMessages(message + message, {message, message});
}

TEST(HttpRequestFramer, readsHeaderNamesInAnyCaseAndWithBlanks)
{
    const std::string message = "POST /a HTTP/1.1\r\ncontent-LENGTH :  \t2 \r\nstray words\r\n\r\n{}";
    expectMessages(message, {message});
}

TEST(HttpRequestFramer, putsAChunkedBodyTogether)
{
    expectMessages(chunkedHead + "3\r\nabc\r\n00A;name=\"v\"\r\n0123456789\r\n1 \nx\n0\r\nTrailer: v\r\n\r\n" +
                       withLength(alarmBody),
                   {chunkedHead + "abc0123456789x", withLength(alarmBody)});
}

TEST(HttpRequestFramer, letsChunkedWinOverALength)
{
    const std::string head = alarmHead + "Content-Length: 3\r\nTransfer-Encoding: Chunked\r\n\r\n";
    expectMessages(head + "5\r\n{   }\r\n0\r\n\r\n", {head + "{   }"});
}

TEST(HttpRequestFramer, takesARequestWithoutALengthForOneWithoutABody)
{
    const std::string get = "GET /alive HTTP/1.1\r\nHost: a\r\n\r\n";
    const std::string post = alarmHead + "\r\n";
    expectMessages(get + post + get, {get, post, get});
}

TEST(HttpRequestFramer, takesWhatFollowsARequestThatEndsItsConnectionForItsBody)
{
    const std::string message = alarmHead + "Connection: Keep, Close\r\n\r\n" + alarmBody;
    expectHoweverSplit(message, {.messages = {message}, .brokeOff = true});
    const std::string old = "POST /a HTTP/1.0\r\n\r\n" + alarmBody;
    expectHoweverSplit(old, {.messages = {old}, .brokeOff = true});
    const std::string get = "GET /a HTTP/1.0\r\n\r\n";
    expectMessages(get + get, {get, get});
}

TEST(HttpRequestFramer, handsOnWhatIsNoHttpAsItWasRead)
{
    const char* const texts[] = {
        "{\"AlarmInfo\": {}}", "event 5",   "POST\r\n\r\n",        "POST x HTTP/1.1\r\n\r\n",
        "\x01\x02\xff",        "Post /a b", "POST /a FTP/1.1\r\n", "POST /a HTTP/x.1\r\n",
    };
    for (const char* text : texts) {
        SCOPED_TRACE(text);
        EXPECT_EQ(readWhole(text), (Outcome{.messages = {std::string("~") + text}}));
    }
    EXPECT_EQ(readPieces({"{\"a\"", ": 1}"}), (Outcome{.messages = {"~{\"a\"", "~: 1}"}}));
}

TEST(HttpRequestFramer, handsOnUndecidedBytesOnceTheyAreKnown)
{
    EXPECT_EQ(readPieces({"AB", "C", "d and", "E"}), (Outcome{.messages = {"~ABCd and", "~E"}, .brokeOff = true}));
    EXPECT_EQ(readPieces({"POST /a ", "HTTP/1.", "b\r\nrest"}), (Outcome{.messages = {"~POST /a HTTP/1.b\r\nrest"}}));
}

TEST(HttpRequestFramer, findsTheNextRequestAfterOtherBytes)
{
    const std::string message = withLength(alarmBody);
    // Some firmware counts letters where it should count bytes.
    EXPECT_EQ(readPieces({message + "}\r\n", message}), (Outcome{.messages = {message, "~}\r\n", message}}));
}

TEST(HttpRequestFramer, dropsHalfAMessageAtTheEnd)
{
    const std::string message = withLength(alarmBody);
    const std::string chunked = chunkedHead + "3\r\nabc\r\n0\r\n\r\n";
    for (const std::string& stream : {message, chunked}) {
        for (std::size_t cut = stream.find('/') + 1; cut < stream.size(); ++cut) {
            SCOPED_TRACE(cut);
            ASSERT_EQ(readWhole(stream.substr(0, cut)), (Outcome{.brokeOff = true}));
        }
    }
}

TEST(HttpRequestFramer, refusesLengthsThatMakeNoSense)
{
    const struct {
        const char* headers;
        const char* rule;
    } cases[] = {
        {"Content-Length: many\r\n", "Content-Length is no number"},
        {"Content-Length: -1\r\n", "Content-Length is no number"},
        {"Content-Length: +1\r\n", "Content-Length is no number"},
        {"Content-Length: 0x1\r\n", "Content-Length is no number"},
        {"Content-Length:\r\n 5\r\n", "Content-Length is no number"},
        {"Content-Length: 99999999999999999999999\r\n", "Content-Length is no number"},
        {"Content-Length: 18446744073709551615\r\n", "Content-Length is beyond the limit"},
        {"Content-Length: 1048576\r\n", "Content-Length is beyond the limit"},
        {"Content-Length: 2\r\nContent-Length: 3\r\n", "two Content-Length headers contradict each other"},
        {"Content-Length: 2, 3\r\n", "two Content-Length headers contradict each other"},
        {"Transfer-Encoding: gzip, chunked\r\n", "the body has a transfer coding other than chunked"},
    };
    const std::string before = withLength(alarmBody);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.headers);
        expectHoweverSplit(before + "POST /a HTTP/1.1\r\n" + c.headers + "\r\n{}",
                           brokenBy(c.rule, {before}, before.size()));
    }
}

TEST(HttpRequestFramer, takesTheSameLengthTwice)
{
    const std::string message = "POST /a HTTP/1.1\r\nContent-Length: 2\r\nContent-Length: 2, 02\r\n\r\n{}";
    expectMessages(message, {message});
}

TEST(HttpRequestFramer, refusesBrokenChunks)
{
    const struct {
        std::string body;
        const char* rule;
    } cases[] = {
        {"\r\nabc", "a chunk does not begin with its size"},
        {"x\r\n", "a chunk does not begin with its size"},
        {"-1\r\n", "a chunk does not begin with its size"},
        {"3x\r\nabc\r\n", "a chunk does not begin with its size"},
        {"3\r\nabcd\r\n", "a chunk is longer than its size"},
        {"3\r\nabc\r\r\n", "a chunk is longer than its size"},
        {"ffffffff\r\n", "the chunks of a message are beyond the limit"},
        {"fffffffff\r\n", "a chunk is beyond the limit"},
        {"3;" + std::string(300, 'e'), "the line before a chunk is beyond the limit"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        expectHoweverSplit(chunkedHead + c.body, brokenBy(c.rule));
    }
    EXPECT_EQ(readWhole(chunkedHead + "0\r\n" + std::string(9000, 't')).rule,
              "the trailer of a message is beyond the limit");
}

TEST(HttpRequestFramer, staysBrokenForGood)
{
    Framer framer;
    const std::string bad = "POST /a HTTP/1.1\r\nContent-Length: x\r\n\r\n";
    const std::string good = withLength(alarmBody);
    std::string_view input = bad;
    ASSERT_TRUE(std::holds_alternative<Framer::Malformed>(framer.next(input)));
    input = good;
    EXPECT_TRUE(std::holds_alternative<Framer::Malformed>(framer.next(input)));
    EXPECT_FALSE(framer.finish());
}

TEST(HttpRequestFramer, takesAMessageOfExactlyTheLimitAndNoLonger)
{
    const auto messageOf = [](std::size_t bytes) {
        std::string message = "POST /a HTTP/1.1\r\nContent-Length: ";
        constexpr std::size_t digitsAndEmptyLine = 7 + 4;
        const std::size_t body = bytes - message.size() - digitsAndEmptyLine;
        message += (body < 1000000 ? "0" : "") + std::to_string(body) + "\r\n\r\n";
        return message + std::string(body, 'j');
    };
    const std::string longest = messageOf(Framer::maxMessageBytes);
    ASSERT_EQ(longest.size(), Framer::maxMessageBytes);
    EXPECT_EQ(readWhole(longest + longest).messages.size(), 2U);
    EXPECT_EQ(readWhole(messageOf(Framer::maxMessageBytes + 1)).rule, "Content-Length is beyond the limit");
}

TEST(HttpRequestFramer, refusesAHeadWithoutEnd)
{
    const std::string pieces[] = {"POST /" + std::string(Framer::maxHeadBytes, 'a'),
                                  "POST /a HTTP/1.1\r\n" + std::string(Framer::maxHeadBytes, 'h'),
                                  "POST /a HTTP/1.1\r\n" + std::string(Framer::maxHeadBytes, 'h') + "\r\n\r\n"};
    for (const std::string& stream : pieces) {
        EXPECT_EQ(readWhole(stream).rule, "the head of a request is beyond the limit");
        EXPECT_EQ(readPieces(bytesOf(stream)).rule, "the head of a request is beyond the limit");
    }
}

TEST(HttpRequestFramer, refusesABodyWithoutLengthBeyondTheLimit)
{
    EXPECT_EQ(readWhole("POST /a HTTP/1.0\r\n\r\n" + std::string(Framer::maxMessageBytes, 'b')).rule,
              "a body without a length is beyond the limit");
    std::vector<std::string> chunks{chunkedHead};
    for (int i = 0; i < 20; ++i)
        chunks.push_back("10000\r\n" + std::string(0x10000, 'c') + "\r\n");
    EXPECT_EQ(readPieces(chunks).rule, "the chunks of a message are beyond the limit");
}

TEST(HttpRequestFramer, givesTheMemoryOfALargeMessageBack)
{
    Framer framer;
    const std::string large = withLength(std::string(500000, 'x'));
    std::string_view front(large.data(), 400000);
    std::string_view rest(large.data() + 400000, large.size() - 400000);
    ASSERT_TRUE(std::holds_alternative<Framer::NeedMore>(framer.next(front)));
    EXPECT_GE(framer.keptBytes(), 400000U);
    ASSERT_EQ(std::get<Framer::Message>(framer.next(rest)).bytes, large);
    ASSERT_TRUE(std::holds_alternative<Framer::NeedMore>(framer.next(rest)));
    EXPECT_LT(framer.keptBytes(), 100U);
}
}  // namespace Tavro8::wire

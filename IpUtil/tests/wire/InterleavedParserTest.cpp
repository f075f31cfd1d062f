#include "wire/InterleavedParser.h"

#include "WireTestSupport.h"

#include <algorithm>

namespace Tavro8::wire
{
namespace
{
using testing::dataBytes;

/// Plays the socket's owner: keeps the unread tail, adds what "arrives", writes down what was found.
class Feeder {
public:
    void feed(ByteView chunk)
    {
        tail.insert(tail.end(), chunk.begin(), chunk.end());
        const Bytes exact(tail);  // without spare capacity, so that a sanitiser sees the first byte read beyond it
        ByteView input(exact);
        while (take(input)) {
        }
        tail.assign(input.begin(), input.end());
    }

    std::vector<std::string> found;
    std::optional<InterleavedParser::Malformed> malformed;
    std::size_t atLeast = 0;
    Bytes tail;
    InterleavedParser parser;

private:
    bool take(ByteView& input)
    {
        const std::uint64_t before = parser.position();
        const std::size_t sizeBefore = input.size();
        const InterleavedParser::Result result = parser.next(input);
        EXPECT_EQ(parser.position() - before, sizeBefore - input.size());
        if (const auto* need = std::get_if<InterleavedParser::NeedMore>(&result)) {
            atLeast = need->atLeast;
            return false;
        }
        if (const auto* broken = std::get_if<InterleavedParser::Malformed>(&result)) {
            malformed = *broken;
            return false;
        }
        if (const auto* frame = std::get_if<InterleavedFrame>(&result))
            found.push_back("frame " + std::to_string(frame->channel) + ' ' + encodeHex(frame->payload));
        if (const auto* message = std::get_if<ReceivedMessage>(&result))
            found.push_back("message " + write(*message));
        return true;
    }

    static std::string write(const ReceivedMessage& message)
    {
        return std::visit([](const auto& kind) { return wire::write(kind); }, *message);
    }
};

Feeder feedWhole(ByteView bytes)
{
    Feeder feeder;
    feeder.feed(bytes);
    return feeder;
}

void expectSame(const Feeder& expected, const Feeder& actual)
{
    EXPECT_EQ(expected.found, actual.found);
    EXPECT_EQ(expected.parser.position(), actual.parser.position());
    EXPECT_EQ(expected.parser.skippedBytes(), actual.parser.skippedBytes());
    ASSERT_EQ(expected.malformed.has_value(), actual.malformed.has_value());
    if (expected.malformed) {
        EXPECT_EQ(expected.malformed->offset, actual.malformed->offset);
        EXPECT_STREQ(expected.malformed->rule, actual.malformed->rule);
    }
}

/// Whole, cut in two at every position, and byte by byte: always the same outcome, which is returned.
Feeder feedInEveryWay(const Bytes& bytes)
{
    const Feeder whole = feedWhole(bytes);
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        SCOPED_TRACE(cut);
        Feeder halves;
        halves.feed(ByteView(bytes).first(cut));
        halves.feed(ByteView(bytes).subspan(cut));
        expectSame(whole, halves);
    }
    SCOPED_TRACE("byte by byte");
    Feeder single;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        single.feed(ByteView(bytes).subspan(i, 1));
    expectSame(whole, single);
    return whole;
}

Bytes bytesOf(std::string_view text)
{
    return {text.begin(), text.end()};
}

Bytes frameOf(std::uint8_t channel, std::size_t payloadBytes)
{
    Bytes frame(4 + payloadBytes, 0x80);
    frame[0] = '$';
    frame[1] = channel;
    frame[2] = static_cast<std::uint8_t>(payloadBytes >> 8);
    frame[3] = static_cast<std::uint8_t>(payloadBytes);
    return frame;
}

RtspResponse responseIn(const Bytes& bytes)
{
    InterleavedParser parser;
    ByteView input(bytes);
    const InterleavedParser::Result result = parser.next(input);
    const auto* message = std::get_if<ReceivedMessage>(&result);
    EXPECT_NE(message, nullptr);
    if (message == nullptr || message->response() == nullptr)
        return {};
    return *message->response();
}

void expectMalformed(const Bytes& bytes, std::uint64_t offset)
{
    const Feeder feeder = feedWhole(bytes);
    ASSERT_TRUE(feeder.malformed);
    EXPECT_EQ(feeder.malformed->offset, offset);
    EXPECT_NE(feeder.malformed->rule, nullptr);
}
}  // namespace

TEST(InterleavedParser, readsAnAnswerWithABodyAndNoContentType)
{
    const Bytes bytes = dataBytes("describe_without_content_type.rtsp");
    const Feeder feeder = feedInEveryWay(bytes);
    ASSERT_EQ(feeder.found.size(), 1U);
    EXPECT_EQ(feeder.found[0], "message " + std::string(asText(bytes)));
    const RtspResponse response = responseIn(bytes);
    EXPECT_EQ(response.status, 200U);
    EXPECT_EQ(response.reason, "OK");
    EXPECT_EQ(cseqOf(response.headers), 2U);
    EXPECT_TRUE(response.body.starts_with("v=0\r\n"));
    EXPECT_TRUE(response.body.ends_with("trackID=2\r\n"));
}

TEST(InterleavedParser, readsBareLineFeeds)
{
    const Bytes bytes = dataBytes("bare_line_feeds.rtsp");
    EXPECT_EQ(feedInEveryWay(bytes).found.size(), 1U);
    EXPECT_TRUE(MethodList(responseIn(bytes).headers).contains("GET_PARAMETER"));
}

TEST(InterleavedParser, joinsFoldedHeadersAndPassesOverAStrayWord)
{
    const Bytes bytes = dataBytes("folded_header_and_a_stray_word.rtsp");
    EXPECT_EQ(feedInEveryWay(bytes).found.size(), 1U);
    const RtspResponse response = responseIn(bytes);
    EXPECT_EQ(response.headers.size(), 3U);
    EXPECT_EQ(cseqOf(response.headers), 7U);
    EXPECT_EQ(response.headers.get("PUBLIC"), "OPTIONS, PLAY, TEARDOWN");
    EXPECT_EQ(response.headers.get("session"), "88 ; timeout=20");
}

TEST(InterleavedParser, foldedHeadersHaveNoBlanksAroundThem)
{
    const std::string text = "RTSP/1.0 200 OK\r\nPublic:\r\n  PLAY\r\nServer: a\r\n \r\n\tb\r\n \r\n\r\n";
    const RtspResponse response = responseIn(Bytes(text.begin(), text.end()));
    EXPECT_EQ(response.headers.get("Public"), "PLAY");
    EXPECT_EQ(response.headers.get("Server"), "a b");
}

TEST(InterleavedParser, passesOverEmptyLinesBetweenMessages)
{
    const Feeder feeder = feedInEveryWay(dataBytes("empty_lines_between_answers.rtsp"));
    ASSERT_EQ(feeder.found.size(), 2U);
    EXPECT_EQ(feeder.found[1], "message RTSP/1.0 404 Stream Not Found\r\nCSeq: 2\r\n\r\n");
    EXPECT_EQ(feeder.parser.skippedBytes(), 0U);
}

TEST(InterleavedParser, findsAnAnswerBetweenFrames)
{
    const Feeder feeder = feedInEveryWay(dataBytes("keep_alive_answer_between_frames.bin"));
    ASSERT_EQ(feeder.found.size(), 4U);
    EXPECT_EQ(feeder.found[0], "frame 0 806000010000006411223344616263");
    EXPECT_EQ(feeder.found[1], "message RTSP/1.0 200 OK\r\nCSeq: 5\r\nSession: 88\r\n\r\n");
    EXPECT_EQ(feeder.found[3], "frame 0 80e000020000006411223344646566");
    EXPECT_TRUE(feeder.tail.empty());
}

TEST(InterleavedParser, takesFramesOfAnyChannelAndEmptyOnes)
{
    const Feeder feeder = feedInEveryWay(dataBytes("rtcp_on_odd_channel_before_first_rtp.bin"));
    ASSERT_EQ(feeder.found.size(), 4U);
    EXPECT_EQ(feeder.found[0], "frame 3 80c9000111223344");
    EXPECT_EQ(feeder.found[3], "frame 0 ");
}

TEST(InterleavedParser, readsRequestsOfTheServer)
{
    const Feeder feeder = feedInEveryWay(dataBytes("server_asks_between_frames.bin"));
    ASSERT_EQ(feeder.found.size(), 4U);
    EXPECT_EQ(feeder.found[1], "message SET_PARAMETER rtsp://192.0.2.1/media RTSP/1.0\r\nCSeq: 17\r\n"
                               "Content-Type: text/parameters\r\nContent-Length: 10\r\n\r\nping: yes\n");
    EXPECT_EQ(feeder.found[2], "message FROBNICATE * RTSP/1.0\r\nCSeq: 18\r\n\r\n");
}

TEST(InterleavedParser, findsTheNextFrameBehindStrayBytes)
{
    const Feeder feeder = feedInEveryWay(dataBytes("stray_bytes_between_frames.bin"));
    ASSERT_EQ(feeder.found.size(), 3U);
    EXPECT_EQ(feeder.found[1], "frame 0 80600002000000021122334474776f");
    EXPECT_EQ(feeder.parser.skippedBytes(), 17U);
    EXPECT_FALSE(feeder.malformed);
}

TEST(InterleavedParser, findsAnAnswerBehindStrayBytes)
{
    const Feeder feeder = feedInEveryWay(dataBytes("stray_bytes_before_an_answer.bin"));
    ASSERT_EQ(feeder.found.size(), 2U);
    EXPECT_EQ(feeder.found[1], "message RTSP/1.0 200 OK\r\nCSeq: 6\r\n\r\n");
    EXPECT_EQ(feeder.parser.skippedBytes(), 14U);
}

TEST(InterleavedParser, goesOnBehindABodyThatIsLongerThanStated)
{
    const Feeder feeder = feedInEveryWay(dataBytes("body_longer_than_stated.bin"));
    ASSERT_EQ(feeder.found.size(), 2U);
    EXPECT_TRUE(feeder.found[0].ends_with("\r\n\r\nv=0\r\n"));
    EXPECT_TRUE(feeder.found[1].find("CSeq: 3") != std::string::npos);
}

TEST(InterleavedParser, oneMessageLeavesNoTraceInTheNext)
{
    // Start lines of every length, so that each place where the first message had a line end is met.
    for (std::size_t length = 0; length < 30; ++length) {
        const std::string second = "RTSP/1.0 200 " + std::string(length, 'x') + "\r\nCSeq: 2\r\n\r\n";
        const Feeder feeder = feedWhole(bytesOf("RTSP/1.0 200 OK\r\n\r\n" + second));
        ASSERT_EQ(feeder.found.size(), 2U) << length;
        EXPECT_EQ(feeder.found[1], "message " + second);
    }
}

TEST(InterleavedParser, amongStrayBytesAFrameHasToLookLikeRtp)
{
    const std::string notRtp("$\0\0\x08\x12\x34\x56\x78\x12\x34\x56\x78", 12);
    const std::string badChannel("$\x7f\0\x08\x80\x34\x56\x78\x12\x34\x56\x78", 12);
    const std::string tooShort("$\0\0\x07\x80\x34\x56\x78\x12\x34\x56", 11);
    for (const std::string& lookalike : {notRtp, badChannel, tooShort}) {
        Bytes bytes = bytesOf("\xff" + lookalike);
        const Bytes genuine = frameOf(0, 8);
        bytes.insert(bytes.end(), genuine.begin(), genuine.end());
        bytes.insert(bytes.end(), genuine.begin(), genuine.end());
        const Feeder feeder = feedInEveryWay(bytes);
        EXPECT_EQ(feeder.found.size(), 2U);
        EXPECT_EQ(feeder.parser.skippedBytes(), 1 + lookalike.size());

        // In step, whatever the frame holds is the caller's to judge.
        EXPECT_EQ(feedInEveryWay(bytesOf(lookalike)).found.size(), 1U);
    }
}

TEST(InterleavedParser, amongStrayBytesAFrameNeedsAUnitBehindIt)
{
    Bytes bytes = bytesOf("\xff");
    for (const std::size_t payload : {20U, 30U}) {
        const Bytes frame = frameOf(0, payload);
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    bytes[4] = 19;  // the first one's length is wrong
    const Bytes genuine = frameOf(0, 8);
    bytes.insert(bytes.end(), genuine.begin(), genuine.end());
    const Feeder feeder = feedInEveryWay(bytes);
    EXPECT_EQ(feeder.found.size(), 2U);
    EXPECT_EQ(feeder.parser.skippedBytes(), 25U);
}

TEST(InterleavedParser, countsLineEndsAmongStrayBytesOnly)
{
    Bytes bytes = bytesOf("\r\n\xff\r\n\r\nRTSP/1.0 200 OK\r\n\r\n\r\n");
    EXPECT_EQ(feedInEveryWay(bytes).parser.skippedBytes(), 5U);
}

TEST(InterleavedParser, saysHowManyBytesAreMissing)
{
    const Bytes frame = frameOf(0, 100);
    const struct {
        std::size_t present;
        std::size_t atLeast;
    } cases[] = {{1, 3}, {3, 1}, {4, 100}, {50, 54}, {103, 1}, {104, 0}};
    for (const auto& c : cases) {
        Feeder feeder;
        feeder.feed(ByteView(frame).first(c.present));
        EXPECT_EQ(feeder.atLeast, c.atLeast) << c.present;
    }
    Feeder body;
    body.feed(bytesOf("RTSP/1.0 200 OK\r\nContent-Length: 10\r\n\r\nabc"));
    EXPECT_EQ(body.atLeast, 7U);
}

TEST(InterleavedParser, framesPointIntoTheCallersBuffer)
{
    const Bytes frame = frameOf(5, 1400);
    InterleavedParser parser;
    ByteView input(frame);
    const InterleavedParser::Result result = parser.next(input);
    const auto& found = std::get<InterleavedFrame>(result);
    EXPECT_EQ(found.payload.data(), frame.data() + 4);
    EXPECT_EQ(found.payload.size(), 1400U);
    EXPECT_TRUE(input.empty());
}

TEST(InterleavedParser, aBodyMayBeginWithADollar)
{
    const Bytes bytes = bytesOf("RTSP/1.0 200 OK\r\nContent-Length: 6\r\n\r\n$$$$$$$\1\0\0");
    const Feeder feeder = feedInEveryWay(bytes);
    ASSERT_FALSE(feeder.found.empty());
    EXPECT_TRUE(feeder.found[0].ends_with("\r\n\r\n$$$$$$"));
}

TEST(InterleavedParser, givesUpOnEndlessStrayBytes)
{
    Bytes bytes = frameOf(0, 8);
    bytes.resize(12 + InterleavedParser::maxSkippedBytes + 100, 0x55);
    Feeder feeder = feedWhole(bytes);
    ASSERT_TRUE(feeder.malformed);
    EXPECT_EQ(feeder.malformed->offset, 12 + InterleavedParser::maxSkippedBytes + 1);
    // It stays so, whatever comes.
    feeder.malformed.reset();
    feeder.feed(frameOf(0, 8));
    EXPECT_TRUE(feeder.malformed);
    EXPECT_EQ(feeder.found.size(), 1U);

    feeder.parser.reset();
    feeder.malformed.reset();
    feeder.tail.clear();
    feeder.feed(frameOf(0, 8));
    EXPECT_EQ(feeder.found.size(), 2U);
    EXPECT_FALSE(feeder.malformed);
}

TEST(InterleavedParser, theBudgetForStrayBytesBeginsAnewBehindEachUnit)
{
    Bytes bytes;
    for (int round = 0; round < 3; ++round) {
        bytes.resize(bytes.size() + InterleavedParser::maxSkippedBytes - 1, 0x55);
        const Bytes answer = bytesOf("RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n");
        bytes.insert(bytes.end(), answer.begin(), answer.end());
    }
    const Feeder feeder = feedWhole(bytes);
    EXPECT_EQ(feeder.found.size(), 3U);
    EXPECT_FALSE(feeder.malformed);
    EXPECT_EQ(feeder.parser.skippedBytes(), 3 * (InterleavedParser::maxSkippedBytes - 1));
}

TEST(InterleavedParser, givesUpOnEndlessEmptyLines)
{
    EXPECT_TRUE(feedWhole(Bytes(InterleavedParser::maxSkippedBytes + 1, '\n')).malformed);
}

TEST(InterleavedParser, refusesBrokenMessages)
{
    const std::string head = "RTSP/1.0 200 OK\r\n";
    expectMalformed(bytesOf(head + "Content-Length: ten\r\n\r\n"), 0);
    expectMalformed(bytesOf(head + "Content-Length: -1\r\n\r\n"), 0);
    expectMalformed(bytesOf(head + "Content-Length: 99999999999999999999\r\n\r\n"), 0);
    expectMalformed(bytesOf(head + "Content-Length: 1048577\r\n\r\n"), 0);
    expectMalformed(bytesOf(head + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n"), 0);
    expectMalformed(bytesOf("RTSP/1.0 OK 200\r\n\r\n"), 0);
    expectMalformed(bytesOf("RTSP/1.0 42 OK\r\n\r\n"), 0);
    expectMalformed(bytesOf("OPTIONS rtsp://host\r\n\r\n"), 0);
    expectMalformed(bytesOf("OPTIONS  RTSP/1.0\r\n\r\n"), 0);

    Bytes second = frameOf(0, 8);
    const Bytes bad = bytesOf(head + "Content-Length: x\r\n\r\n");
    second.insert(second.end(), bad.begin(), bad.end());
    expectMalformed(second, 12);
}

TEST(InterleavedParser, namesAPeerThatSpeaksHttp)
{
    const Feeder feeder = feedWhole(bytesOf("HTTP/1.1 400 Bad Request\r\nServer: x\r\n\r\n"));
    ASSERT_TRUE(feeder.malformed);
    EXPECT_STREQ(feeder.malformed->rule, "the device answers in HTTP, not in RTSP");
}

TEST(InterleavedParser, limitsTheHeadOfAMessage)
{
    std::string lines = "RTSP/1.0 200 OK\r\n";
    for (std::size_t i = 0; i < InterleavedParser::maxHeaderCount; ++i)
        lines += "X: y\r\n";
    EXPECT_EQ(feedWhole(bytesOf(lines + "\r\n")).found.size(), 1U);
    EXPECT_TRUE(feedWhole(bytesOf(lines + "X: y\r\n\r\n")).malformed);

    const std::string start = "RTSP/1.0 200 OK\r\nX: ";
    const std::string fits(InterleavedParser::maxHeadBytes - start.size() - 4, 'x');
    EXPECT_EQ(feedWhole(bytesOf(start + fits + "\r\n\r\n")).found.size(), 1U);
    EXPECT_TRUE(feedWhole(bytesOf(start + fits + "x\r\n\r\n")).malformed);
    EXPECT_TRUE(feedWhole(bytesOf(start + fits + fits)).malformed);
}

TEST(InterleavedParser, looksAtEachByteOfAHeadOnce)
{
    // An end of head put where the parser has already been goes unnoticed, byte after byte.
    Bytes bytes = bytesOf("RTSP/1.0 200 OK\r\nServer: xxxxxxxx\r\nCSeq: 1\r\n\r\n");
    constexpr std::size_t searched = 26;
    InterleavedParser parser;
    ByteView input = ByteView(bytes).first(searched + 4);
    ASSERT_TRUE(std::holds_alternative<InterleavedParser::NeedMore>(parser.next(input)));
    bytes[searched] = bytes[searched + 1] = '\n';
    for (std::size_t end = searched + 5; end < bytes.size(); ++end) {
        input = ByteView(bytes).first(end);
        ASSERT_TRUE(std::holds_alternative<InterleavedParser::NeedMore>(parser.next(input))) << end;
    }
    input = ByteView(bytes);
    EXPECT_TRUE(std::holds_alternative<ReceivedMessage>(parser.next(input)));
    EXPECT_TRUE(input.empty());
}

TEST(InterleavedParser, randomBytesEndInAResultAndNeverOverrun)
{
    std::mt19937 generator(2326);
    const std::string_view pieces[] = {"RTSP/1.0 200 OK\r\n", "\r\n", "Content-Length: 3\r\n", "$",
                                       "OPTIONS * RTSP/1.0\r\n"};
    for (int round = 0; round < 2000; ++round) {
        Bytes bytes;
        for (int piece = 0; piece < 12; ++piece) {
            const Bytes noise = testing::randomBytes(generator, generator() % 24);
            bytes.insert(bytes.end(), noise.begin(), noise.end());
            const std::string_view known = pieces[generator() % std::size(pieces)];
            bytes.insert(bytes.end(), known.begin(), known.end());
        }
        const std::size_t cut = generator() % bytes.size();
        Feeder whole = feedWhole(bytes);
        Feeder halves;
        halves.feed(ByteView(bytes).first(cut));
        halves.feed(ByteView(bytes).subspan(cut));
        expectSame(whole, halves);
    }
}

TEST(InterleavedParser, findsItsWayBackAfterAFrameWithAWrongLength)
{
    // The device states 60 bytes too few for one frame in the middle; the rest of it is out of step.
    std::mt19937 generator(10);
    Bytes bytes;
    for (int i = 0; i < 20; ++i) {
        Bytes frame = frameOf(0, 1000);
        const Bytes noise = testing::randomBytes(generator, 988);
        std::copy(noise.begin(), noise.end(), frame.begin() + 16);
        if (i == 5)
            frame[3] = static_cast<std::uint8_t>(frame[3] - 60);
        bytes.insert(bytes.end(), frame.begin(), frame.end());
    }
    const Feeder feeder = feedWhole(bytes);
    EXPECT_EQ(feeder.found.size(), 20U);
    EXPECT_EQ(feeder.parser.skippedBytes(), 60U);
    EXPECT_FALSE(feeder.malformed);
}
}  // namespace Tavro8::wire

#include "http/ResponseReader.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using Progress = ResponseReader::Progress;

Progress feed(ResponseReader& reader, std::string_view bytes)
{
    Progress progress = Progress::needMore;
    while (!bytes.empty() && progress == Progress::needMore) {
        const auto room = reader.prepare();
        const std::size_t count = std::min(room.size(), bytes.size());
        std::copy_n(bytes.data(), count, room.data());
        progress = reader.commit(count);
        bytes.remove_prefix(count);
    }
    return progress;
}

std::string bodyOf(ResponseReader& reader)
{
    const std::vector<char>& body = reader.getBody();
    return {body.begin(), body.end()};
}

struct Example {
    const char* name;
    std::string bytes;
    bool endsWithConnection = false;
    unsigned status = 200;
    std::string reason = "OK";
    std::string body = "hello world";
    bool leavesOpen = true;
};

std::vector<Example> examples()
{
    return {
        {"length", "HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\nhello world"},
        {"length, names in any case", "HTTP/1.1 200 OK\r\ncONTENT-lENGTH:11\r\n\r\nhello world"},
        {"chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n6\r\nhello \r\n5\r\nworld\r\n0\r\n\r\n"},
        {"chunked with extension and trailer",
         "HTTP/1.1 200 OK\r\ntransfer-encoding: Chunked\r\n\r\n6;a=b\r\nhello \r\n5\r\nworld\r\n0\r\nX: y\r\n\r\n"},
        {"until the end", "HTTP/1.1 200 OK\r\n\r\nhello world", true, 200, "OK", "hello world", false},
        {"old protocol", "HTTP/1.0 200 OK\r\nContent-Length: 11\r\n\r\nhello world", false, 200, "OK", "hello world",
         false},
        {"asked to close", "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 11\r\n\r\nhello world", false, 200,
         "OK", "hello world", false},
        {"no content", "HTTP/1.1 204 No Content\r\n\r\n", false, 204, "No Content", ""},
        {"unknown status", "HTTP/1.1 599 \r\nContent-Length: 2\r\n\r\n{}", false, 599, "", "{}"},
        {"after an interim response",
         "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\nhello world"},
    };
}

void expectExample(ResponseReader& reader, const Example& example, Progress progress)
{
    if (example.endsWithConnection) {
        ASSERT_EQ(progress, Progress::needMore);
        progress = reader.finish();
    }
    ASSERT_EQ(progress, Progress::done) << reader.getError().message();
    const HttpResponse& response = reader.getResponse();
    EXPECT_EQ(response.status, example.status);
    EXPECT_EQ(response.reason, example.reason);
    EXPECT_FALSE(response.transportError);
    EXPECT_EQ(bodyOf(reader), example.body);
    EXPECT_EQ(reader.leavesConnectionOpen(), example.leavesOpen);
}

TEST(ResponseReader, readsEveryFramingWhole)
{
    for (const Example& example : examples()) {
        SCOPED_TRACE(example.name);
        ResponseReader reader(HttpLimits{});
        EXPECT_FALSE(reader.hasStarted());
        const Progress progress = feed(reader, example.bytes);
        EXPECT_TRUE(reader.hasStarted());
        expectExample(reader, example, progress);
    }
}

TEST(ResponseReader, readsEveryFramingCutAtEachPosition)
{
    for (const Example& example : examples()) {
        for (std::size_t cut = 1; cut < example.bytes.size(); ++cut) {
            SCOPED_TRACE(std::string(example.name) + " cut at " + std::to_string(cut));
            ResponseReader reader(HttpLimits{});
            ASSERT_EQ(feed(reader, example.bytes.substr(0, cut)), Progress::needMore);
            expectExample(reader, example, feed(reader, example.bytes.substr(cut)));
        }
    }
}

TEST(ResponseReader, readsEveryFramingByteByByte)
{
    for (const Example& example : examples()) {
        SCOPED_TRACE(example.name);
        ResponseReader reader(HttpLimits{});
        Progress progress = Progress::needMore;
        for (const char& byte : example.bytes)
            progress = feed(reader, {&byte, 1});
        expectExample(reader, example, progress);
    }
}

TEST(ResponseReader, losesTheConnectionWhenTheResponseBreaksOff)
{
    for (const Example& example : examples()) {
        if (example.endsWithConnection)
            continue;  // its end cannot be told from a break
        const std::size_t firstBreak = example.bytes.starts_with("HTTP/1.1 100") ? 26 : 1;
        for (std::size_t cut = firstBreak; cut < example.bytes.size(); ++cut) {
            SCOPED_TRACE(std::string(example.name) + " broken off at " + std::to_string(cut));
            ResponseReader reader(HttpLimits{});
            ASSERT_EQ(feed(reader, example.bytes.substr(0, cut)), Progress::needMore);
            ASSERT_EQ(reader.finish(), Progress::failed);
            EXPECT_EQ(reader.getError(), make_error_code(ResultCode::connectionLost));
        }
    }
    ResponseReader silent(HttpLimits{});
    ASSERT_EQ(silent.finish(), Progress::failed);
    EXPECT_EQ(silent.getError(), make_error_code(ResultCode::connectionLost));
}

TEST(ResponseReader, refusesWhatIsNoHttp)
{
    const char* const texts[] = {
        "SSH-2.0-server\r\n",
        "RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n",
        "HTTP/1.1 2x0 OK\r\n\r\n",
        "HTTP/1.1 000 OK\r\n\r\n",
        "HTTP/1.1 099 Continue\r\n\r\n",
        "HTTP/1.1 200 OK\r\nno colon\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\n",
        "HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n",
        "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nabc\r\n",
        "\x80\xff\x01\x02 garbage that goes on for a while",
    };
    for (const char* const text : texts) {
        SCOPED_TRACE(text);
        ResponseReader reader(HttpLimits{});
        ASSERT_EQ(feed(reader, text), Progress::failed);
        EXPECT_EQ(reader.getError(), make_error_code(ResultCode::malformedResponse));
    }
}

TEST(ResponseReader, refusesWhatIsBeyondTheLimits)
{
    HttpLimits limits;
    limits.bodyBytes = 100;
    limits.headerBytes = 1000;
    const std::string head = "HTTP/1.1 200 OK\r\n";
    const std::string chunk = "32\r\n" + std::string(50, 'x') + "\r\n";
    const std::string texts[] = {
        head + "Content-Length: 101\r\n\r\n",
        head + "Content-Length: 18446744073709551615\r\n\r\n",
        head + "Transfer-Encoding: chunked\r\n\r\n" + chunk + chunk + chunk,
        head + "Transfer-Encoding: chunked\r\n\r\nFFFFFFFF\r\n",
        head + "\r\n" + std::string(101, 'x'),
        head + "X: " + std::string(2000, 'x'),
        head + "Transfer-Encoding: chunked\r\n\r\n1;" + std::string(2000, 'x'),
    };
    for (const std::string& text : texts) {
        SCOPED_TRACE(text.substr(0, 80));
        ResponseReader reader(limits);
        ASSERT_EQ(feed(reader, text), Progress::failed);
        EXPECT_EQ(reader.getError(), make_error_code(ResultCode::responseTooLarge));
    }
}

TEST(ResponseReader, takesABodyOfExactlyTheLimit)
{
    HttpLimits limits;
    limits.bodyBytes = 100;
    const std::string body(100, 'x');
    ResponseReader reader(limits);
    ASSERT_EQ(feed(reader, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + body), Progress::done);
    EXPECT_EQ(bodyOf(reader), body);
}

TEST(ResponseReader, waitsNotForEverForTheRealResponse)
{
    ResponseReader reader(HttpLimits{});
    Progress progress = Progress::needMore;
    for (int i = 0; i < 100 && progress == Progress::needMore; ++i)
        progress = feed(reader, "HTTP/1.1 100 Continue\r\n\r\n");
    ASSERT_EQ(progress, Progress::failed);
    EXPECT_EQ(reader.getError(), make_error_code(ResultCode::malformedResponse));
}

TEST(ResponseReader, keepsSeveralHeadersOfOneName)
{
    ResponseReader reader(HttpLimits{});
    ASSERT_EQ(feed(reader, "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"a\"\r\n"
                           "www-authenticate: Digest realm=\"a\"\r\nContent-Length: 0\r\n\r\n"),
              Progress::done);
    const HttpResponse& response = reader.getResponse();
    ASSERT_EQ(response.headers.all().size(), 3U);
    EXPECT_EQ(response.headers.all()[0].second, "Basic realm=\"a\"");
    EXPECT_EQ(response.headers.all()[1].second, "Digest realm=\"a\"");
}

TEST(ResponseReader, takesAStatusLineThatNoStandardKnows)
{
    ResponseReader reader(HttpLimits{});
    ASSERT_EQ(feed(reader, "HTTP/1.1 599 Unknown Path\r\nContent-Length: 0\r\n\r\n"), Progress::done);
    EXPECT_EQ(reader.getResponse().status, 599U);
    EXPECT_EQ(reader.getResponse().reason, "Unknown Path");
}

TEST(ResponseReader, distrustsAConnectionWithBytesBehindTheResponse)
{
    ResponseReader reader(HttpLimits{});
    ASSERT_EQ(feed(reader, "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nxyz"), Progress::done);
    EXPECT_EQ(bodyOf(reader), "x");
    EXPECT_FALSE(reader.leavesConnectionOpen());
}
}  // namespace

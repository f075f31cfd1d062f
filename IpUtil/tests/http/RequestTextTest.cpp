#include "http/RequestText.h"

#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;

std::string format(const char* method, const std::string& path, const std::string& address,
                   const HttpHeaders& headers = {}, const std::string& body = {}, const std::string& authorization = {})
{
    HttpRequest request;
    request.method = method;
    request.target = requestTarget(path);
    request.body = body;
    request.headers = headers;
    return formatRequest(request, *asio::parseConnectionInfo(address), authorization);
}

TEST(RequestText, saysNoMoreThanNeededInAGet)
{
    EXPECT_EQ(format("GET", "/LAPI/V1.0/Network/Port", "admin:secret@192.0.2.10"),
              "GET /LAPI/V1.0/Network/Port HTTP/1.1\r\n"
              "Host: 192.0.2.10\r\n"
              "\r\n");
}

TEST(RequestText, namesThePortWhenItIsNotTheSchemesOwn)
{
    const struct {
        const char* address;
        const char* host;
    } cases[] = {
        {"192.0.2.10:8080", "192.0.2.10:8080"},     {"https://192.0.2.10:443", "192.0.2.10"},
        {"https://192.0.2.10:80", "192.0.2.10:80"}, {"[2001:db8::1]", "[2001:db8::1]"},
        {"[2001:db8::1]:81", "[2001:db8::1]:81"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.address);
        EXPECT_EQ(format("GET", "/", c.address), "GET / HTTP/1.1\r\nHost: " + std::string(c.host) + "\r\n\r\n");
    }
}

TEST(RequestText, sendsABodyWithItsTypeAndLength)
{
    EXPECT_EQ(format("PUT", "/a", "host", {}, "{\"Enabled\":1}"), "PUT /a HTTP/1.1\r\n"
                                                                  "Host: host\r\n"
                                                                  "Content-Type: application/json\r\n"
                                                                  "Content-Length: 13\r\n"
                                                                  "\r\n"
                                                                  "{\"Enabled\":1}");
}

TEST(RequestText, statesTheLengthOfAnEmptyPostToo)
{
    EXPECT_EQ(format("POST", "/a", "host"), "POST /a HTTP/1.1\r\nHost: host\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(format("DELETE", "/a", "host"), "DELETE /a HTTP/1.1\r\nHost: host\r\n\r\n");
}

TEST(RequestText, carriesAuthorizationAndTheCallersHeaders)
{
    HttpHeaders headers;
    headers.set(HTTP_HEADER_CONNECTION, "close");
    headers.set("content-type", "text/plain");
    EXPECT_EQ(format("POST", "/a", "host", headers, "x", "Basic eA=="), "POST /a HTTP/1.1\r\n"
                                                                        "Host: host\r\n"
                                                                        "Authorization: Basic eA==\r\n"
                                                                        "Connection: close\r\n"
                                                                        "content-type: text/plain\r\n"
                                                                        "Content-Length: 1\r\n"
                                                                        "\r\n"
                                                                        "x");
}

TEST(RequestText, letsNothingBreakOutOfThePathOrAHeader)
{
    HttpHeaders headers;
    headers.set("X", "1\r\nY: 2");
    EXPECT_EQ(format("GET", "a b\r\nX: 1", "host", headers),
              "GET /a%20b%0D%0AX:%201 HTTP/1.1\r\nHost: host\r\nX: 1Y: 2\r\n\r\n");
}

TEST(RequestText, recognisesTheWishToClose)
{
    HttpRequest request;
    EXPECT_FALSE(request.asksToClose());
    request.headers.set("connection", "Close");
    EXPECT_TRUE(request.asksToClose());
    request.headers.set("Connection", "keep-alive");
    EXPECT_FALSE(request.asksToClose());
}
}  // namespace

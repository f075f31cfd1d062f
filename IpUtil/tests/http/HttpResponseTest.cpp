#include <IpUtil/Http.h>
#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;

TEST(HttpHeaders, findsANameInAnyCase)
{
    HttpHeaders headers;
    headers.append("content-TYPE", "application/json");
    ASSERT_NE(headers.find(HTTP_HEADER_CONTENT_TYPE), nullptr);
    EXPECT_EQ(*headers.find(HTTP_HEADER_CONTENT_TYPE), "application/json");
    EXPECT_EQ(headers.find(HTTP_HEADER_CONNECTION), nullptr);
}

TEST(HttpHeaders, givesTheFirstOfSeveral)
{
    HttpHeaders headers;
    headers.append("A", "1");
    headers.append("a", "2");
    EXPECT_EQ(*headers.find("A"), "1");
    EXPECT_EQ(headers.all().size(), 2U);
}

TEST(HttpHeaders, replacesEveryFieldOfTheName)
{
    HttpHeaders headers;
    headers.append("A", "1");
    headers.append("B", "2");
    headers.append("a", "3");
    headers.set("A", "4");
    ASSERT_EQ(headers.all().size(), 2U);
    EXPECT_EQ(*headers.find("a"), "4");
    EXPECT_EQ(*headers.find("b"), "2");
}

TEST(HttpStatus, becomesAHostResult)
{
    const struct {
        unsigned status;
        std::int32_t result;
    } cases[] = {
        {0, 256},   {100, 517}, {199, 517}, {200, 0},   {204, 0},   {299, 0},   {300, 517},
        {301, 517}, {302, 0},   {303, 517}, {400, 512}, {401, 513}, {403, 513}, {404, 514},
        {405, 512}, {499, 512}, {500, 516}, {503, 515}, {598, 516}, {599, 514}, {600, 516},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        HttpResponse response;
        response.status = c.status;
        EXPECT_EQ(translateResponseError(response), c.result);
        EXPECT_EQ(isAccepted(c.status), c.result == 0);
    }
}
}  // namespace

#include "LoggedErrors.h"

#include <gtest/gtest.h>

namespace Host
{
namespace
{
TEST(LoggedErrors, tellWhatWentWrongWithoutWhatStandsInFrontOfALine)
{
    const struct {
        const char* logged;
        const char* told;
    } cases[] = {
        {"it broke", "it broke"},
        {" it broke", "it broke"},
        {"[192.0.2.10:80] it broke", "it broke"},
        {"[192.0.2.10:80] tc 0: [collapsed 1] HTTP response has error: Busy, request: /x",
         "HTTP response has error: Busy, request: /x"},
        {"[[2001:db8::1]:80] tc 12: Error: zoom speed value out of range", "Error: zoom speed value out of range"},
        {"[192.0.2.10:80] tc 0: [collapsed 50]HTTP responce is empty, request: /x",
         "HTTP responce is empty, request: /x"},
        {"vs 0.1: it broke", "it broke"},
        {"Error: pan or tilt speed value out of range", "Error: pan or tilt speed value out of range"},
        {"request 5 failed: no answer", "request 5 failed: no answer"},
        {"tour : it broke", "tour : it broke"},
        {"tc 0", "tc 0"},
        {"[unfinished", "[unfinished"},
        {"", ""},
    };
    for (const auto& c : cases) {
        const LoggedErrors errors;
        LoggedErrors::note(c.logged);
        EXPECT_EQ(errors.first(), c.told);
    }
}

TEST(LoggedErrors, tellTheFirstWhileTheObjectLives)
{
    LoggedErrors::note("before");
    {
        const LoggedErrors errors;
        EXPECT_EQ(errors.first(), "");
        LoggedErrors::note("first");
        LoggedErrors::note("second");
        EXPECT_EQ(errors.first(), "first");
    }
    LoggedErrors::note("after");
    EXPECT_EQ(LoggedErrors().first(), "");
}
}  // namespace
}  // namespace Host

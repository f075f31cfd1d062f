#include "Output.h"

#include <gtest/gtest.h>
#include <json/value.h>
#include <sstream>

namespace Host
{
namespace
{
TEST(Output, writesOneJsonObjectALineWithTheEventInFront)
{
    std::ostringstream stream;
    Output output(stream, true, nullptr);
    Json::Value fields(Json::objectValue);
    fields["name"] = "J\xC3\xBCrgen \"x\"";
    fields["a"] = 25.4;
    output.event("one", fields, "readable\n");
    output.event("two", Json::Value(Json::objectValue), {});
    EXPECT_EQ(stream.str(),
              "{\"event\":\"one\",\"a\":25.4,\"name\":\"J\xC3\xBCrgen \\\"x\\\"\"}\n{\"event\":\"two\"}\n");
    EXPECT_FALSE(output.hasFailed());
}

TEST(Output, writesTheReadableFormOtherwise)
{
    std::ostringstream stream;
    Output output(stream, false, nullptr);
    output.event("one", Json::Value(Json::objectValue), "readable\n");
    output.event("two", Json::Value(Json::objectValue), {});
    EXPECT_EQ(stream.str(), "readable\n");
}

TEST(Output, remembersThatWritingFailed)
{
    std::ostringstream stream;
    Output output(stream, false, nullptr);
    stream.setstate(std::ios::badbit);
    output.event("one", Json::Value(Json::objectValue), "readable\n");
    EXPECT_TRUE(output.hasFailed());
}
}  // namespace
}  // namespace Host

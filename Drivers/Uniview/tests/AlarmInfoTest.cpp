#include "AlarmInfo.h"

#include "AlarmText.h"

#include <locale>
#include <optional>
#include <string>

namespace
{
using namespace Uniview::events;
using kelvo::test::alarm;

std::optional<std::int64_t> timeOf(const char* value)
{
    const Json::Value parsed = alarm(value);
    return readTimeMs(&parsed);
}

std::optional<std::uint32_t> numberOf(const char* value)
{
    const Json::Value parsed = alarm(value);
    return readNumber(&parsed);
}

TEST(AlarmInfo, hasMembersOnlyAsAnObject)
{
    EXPECT_NE(findMember(alarm("{\"a\":1}"), "a"), nullptr);
    EXPECT_NE(findMember(alarm("{\"a\":null}"), "a"), nullptr);
    EXPECT_EQ(findMember(alarm("{\"a\":1}"), "A"), nullptr);
    for (const char* const shape : kelvo::test::oddShapes) {
        SCOPED_TRACE(shape);
        EXPECT_EQ(findMember(alarm(shape), "a"), nullptr);
    }
}

TEST(AlarmInfo, secondsBecomeMilliseconds)
{
    EXPECT_EQ(timeOf("1489040894"), 1489040894000);
    EXPECT_EQ(timeOf("\"1489040894\""), 1489040894000);
    EXPECT_EQ(timeOf("1489040894.25"), 1489040894250);
    EXPECT_EQ(timeOf("1.489040894e9"), 1489040894000);
    EXPECT_EQ(timeOf("0"), 0);
    EXPECT_EQ(timeOf("4102444800"), 4102444800000);  // beyond 32 bits with a sign
}

TEST(AlarmInfo, millisecondsStayMilliseconds)
{
    EXPECT_EQ(timeOf("1489040894123"), 1489040894123);
    EXPECT_EQ(timeOf("\"1489040894123\""), 1489040894123);
    EXPECT_EQ(timeOf("99999999999"), 99999999999000);
    EXPECT_EQ(timeOf("100000000000"), 100000000000);
    EXPECT_EQ(timeOf("253402300799999"), 253402300799999);
}

TEST(AlarmInfo, whatIsNoTimeGivesNone)
{
    for (const char* const value : {"null", "true", "[]", "{}", "-1", "-0.5", "253402300800000", "18446744073709551615",
                                    "1e300", "\"\"", "\"yesterday\"", "\"-5\"", "\"+5\"", "\" 5\"", "\"5 \"",
                                    "\"1489040894.5\"", "\"99999999999999999999\"", "\"1\\u0000\""}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(timeOf(value), std::nullopt);
    }
    EXPECT_EQ(readTimeMs(nullptr), std::nullopt);
}

TEST(AlarmInfo, sourcesAreWholeNumbersOf32Bits)
{
    EXPECT_EQ(numberOf("0"), 0U);
    EXPECT_EQ(numberOf("1"), 1U);
    EXPECT_EQ(numberOf("2.0"), 2U);
    EXPECT_EQ(numberOf("4294967295"), 4294967295U);
    for (const char* const value : {"-1", "0.5", "4294967296", "4294967297", "18446744073709551615", "1e300", "\"1\"",
                                    "null", "true", "[1]", "{\"ID\":1}"}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(numberOf(value), std::nullopt);
    }
    EXPECT_EQ(readNumber(nullptr), std::nullopt);
}

TEST(AlarmInfo, fieldsHaveTheTypesOfParameters)
{
    const auto fields = readFields(alarm(
        "{\"AlarmType\":\"EnterArea\",\"AlarmSeq\":327,\"Low\":-5,\"Armed\":true,\"Score\":0.5,\"Whole\":2.0,"
        "\"Big\":1489040894123,\"Huge\":18446744073709551615,\"None\":null,\"AlarmConfig\":{\"a\":1},\"List\":[1]}"));
    ASSERT_EQ(fields.size(), 8U);
    EXPECT_EQ(boost::any_cast<std::string>(fields.at("AlarmType")), "EnterArea");
    EXPECT_EQ(boost::any_cast<int>(fields.at("AlarmSeq")), 327);
    EXPECT_EQ(boost::any_cast<int>(fields.at("Low")), -5);
    EXPECT_TRUE(boost::any_cast<bool>(fields.at("Armed")));
    EXPECT_DOUBLE_EQ(boost::any_cast<double>(fields.at("Score")), 0.5);
    EXPECT_DOUBLE_EQ(boost::any_cast<double>(fields.at("Whole")), 2.0);
    EXPECT_DOUBLE_EQ(boost::any_cast<double>(fields.at("Big")), 1489040894123.0);
    EXPECT_DOUBLE_EQ(boost::any_cast<double>(fields.at("Huge")), 18446744073709551615.0);
}

TEST(AlarmInfo, fieldsAreUtf8)
{
    const auto fields = readFields(alarm("{\"AlarmSrcName\":\"Cam\xE9ra\",\"\xFF\":\"k\",\"Ort\":\"T\xC3\xBCr\"}"));
    EXPECT_EQ(boost::any_cast<std::string>(fields.at("AlarmSrcName")), "Cam\xEF\xBF\xBDra");
    EXPECT_EQ(boost::any_cast<std::string>(fields.at("\xEF\xBF\xBD")), "k");
    EXPECT_EQ(boost::any_cast<std::string>(fields.at("Ort")), "T\xC3\xBCr");
}

TEST(AlarmInfo, textsKeepTheirZeros)
{
    const auto fields = readFields(alarm("{\"a\":\"x\\u0000y\"}"));
    EXPECT_EQ(boost::any_cast<std::string>(fields.at("a")), std::string("x\0y", 3));
}

TEST(AlarmInfo, whatIsNoObjectHasNoFields)
{
    for (const char* const shape : {"null", "[1]", "7", "\"text\"", "{}"}) {
        SCOPED_TRACE(shape);
        EXPECT_TRUE(readFields(alarm(shape)).empty());
    }
}
}  // namespace

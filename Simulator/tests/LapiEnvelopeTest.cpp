#include "LapiEnvelope.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

TEST(PrettyPrint, writesTabsAsDevicesDo)
{
    const auto value = parseJson(R"({"Num":3,"List":[{"A":true},{"A":null}],"Text":"a\"b","Real":25.4,"Empty":{}})");
    ASSERT_TRUE(value);
    EXPECT_EQ(prettyPrint(*value), "{\n"
                                   "\t\"Empty\":\t{\n\t},\n"
                                   "\t\"List\":\t[{\n\t\t\t\"A\":\ttrue\n\t\t}, {\n\t\t\t\"A\":\tnull\n\t\t}],\n"
                                   "\t\"Num\":\t3,\n"
                                   "\t\"Real\":\t25.4,\n"
                                   "\t\"Text\":\t\"a\\\"b\"\n"
                                   "}");
}

TEST(PrettyPrint, isReadBackTheSame)
{
    const auto value = parseJson(R"({"a":[1,-2,[],{}],"b":{"c":"\u00e4\n","d":18446744073709551615}})");
    ASSERT_TRUE(value);
    EXPECT_EQ(parseJson(prettyPrint(*value)), value);
}

TEST(ParseJson, refusesWhatIsNone)
{
    for (const std::string& text :
         {std::string(), std::string("{"), std::string("{} x"), std::string("not json"), std::string(5000, '[')})
        EXPECT_FALSE(parseJson(text)) << text.substr(0, 20);
}

TEST(LapiEnvelope, hasTheMembersInTheDevicesOrder)
{
    Reply reply;
    reply.data["RTSPPort"] = 554;
    EXPECT_EQ(lapiEnvelope("/LAPI/V1.0/Network/Port", reply), "{\n\t\"Response\":\t{\n"
                                                              "\t\t\"ResponseURL\":\t\"/LAPI/V1.0/Network/Port\",\n"
                                                              "\t\t\"CreatedID\":\t-1,\n"
                                                              "\t\t\"ResponseCode\":\t0,\n"
                                                              "\t\t\"SubResponseCode\":\t0,\n"
                                                              "\t\t\"ResponseString\":\t\"Succeed\",\n"
                                                              "\t\t\"StatusCode\":\t0,\n"
                                                              "\t\t\"StatusString\":\t\"Succeed\",\n"
                                                              "\t\t\"Data\":\t{\n\t\t\t\"RTSPPort\":\t554\n\t\t}\n"
                                                              "\t}\n}");
}

TEST(LapiEnvelope, mayLackItsData)
{
    const auto envelope = parseJson(lapiEnvelope("/x", {.status = 599, .code = 1, .text = "Common Error"}, false));
    ASSERT_TRUE(envelope);
    const Json::Value& response = (*envelope)["Response"];
    EXPECT_FALSE(response.isMember("Data"));
    EXPECT_EQ(response["ResponseCode"], 1);
    EXPECT_EQ(response["ResponseString"], "Common Error");
}

}  // namespace
}  // namespace simulator

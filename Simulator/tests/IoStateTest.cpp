#include "IoState.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

TEST(IoState, switchesTheRelaysThatAreNamed)
{
    IoState io(4, 3);
    EXPECT_EQ(io.switchRelays(R"({"Num":1,"IDs":[1],"AlarmAction":1})"), std::nullopt);
    EXPECT_TRUE(io.relay(0));
    EXPECT_FALSE(io.relay(1));
    EXPECT_EQ(io.switchRelays(R"({"Num":2,"IDs":[3,2],"AlarmAction":1})"), std::nullopt);
    EXPECT_EQ(io.switchRelays(R"({"Num":1,"IDs":[1],"AlarmAction":0})"), std::nullopt);
    EXPECT_FALSE(io.relay(0));
    EXPECT_TRUE(io.relay(1));
    EXPECT_TRUE(io.relay(2));
}

TEST(IoState, refusesNonsenseAndSwitchesNothing)
{
    const struct {
        const char* body;
        const char* part;
    } cases[] = {
        {"", "no JSON"},
        {"[1]", "no JSON object"},
        {"{}", "\"Num\" is missing"},
        {R"({"Num":1,"AlarmAction":1})", "\"IDs\" is missing"},
        {R"({"Num":1,"IDs":[1]})", "\"AlarmAction\" is missing"},
        {R"({"Num":1,"IDs":[1],"AlarmAction":2})", "\"AlarmAction\""},
        {R"({"Num":1,"IDs":[1],"AlarmAction":true})", "\"AlarmAction\""},
        {R"({"Num":"1","IDs":[1],"AlarmAction":1})", "\"Num\""},
        {R"({"Num":0,"IDs":[],"AlarmAction":1})", "\"Num\""},
        {R"({"Num":2,"IDs":[1],"AlarmAction":1})", "no list of \"Num\" numbers"},
        {R"({"Num":1,"IDs":1,"AlarmAction":1})", "no list of \"Num\" numbers"},
        {R"({"Num":1,"IDs":{"1":1},"AlarmAction":1})", "no list of \"Num\" numbers"},
        {R"({"Num":1,"IDs":[0],"AlarmAction":1})", "not there"},
        {R"({"Num":1,"IDs":[3],"AlarmAction":1})", "not there"},
        {R"({"Num":1,"IDs":["1"],"AlarmAction":1})", "not there"},
        {R"({"Num":2,"IDs":[1,-1],"AlarmAction":1})", "not there"},
    };
    IoState io(4, 2);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        const auto why = io.switchRelays(c.body);
        ASSERT_TRUE(why);
        EXPECT_NE(why->find(c.part), std::string::npos) << *why;
        EXPECT_FALSE(io.relay(0));
        EXPECT_FALSE(io.relay(1));
    }
    IoState none(0, 0);
    EXPECT_TRUE(none.switchRelays(R"({"Num":1,"IDs":[1],"AlarmAction":1})"));
}

TEST(IoState, listsInputsAndRelaysFromOne)
{
    IoState io(2, 1);
    io.setInput(1, true);
    const Json::Value inputs = io.inputInformation();
    EXPECT_EQ(inputs["Num"], 2u);
    ASSERT_EQ(inputs["BasicInfos"].size(), 2u);
    EXPECT_EQ(inputs["BasicInfos"][0]["ID"], 1u);
    EXPECT_EQ(inputs["BasicInfos"][0]["Status"], 0);
    EXPECT_EQ(inputs["BasicInfos"][1]["ID"], 2u);
    EXPECT_EQ(inputs["BasicInfos"][1]["Status"], 1);
    EXPECT_EQ(inputs["BasicInfos"][1]["Name"], "Input2");
    EXPECT_EQ(io.relayInformation()["BasicInfos"][0]["Name"], "Output1");
    EXPECT_EQ(IoState(0, 0).inputInformation()["Num"], 0u);
    EXPECT_EQ(io.inputStates()[1], true);
    EXPECT_EQ(io.relayStates()[0], false);
}

}  // namespace
}  // namespace simulator

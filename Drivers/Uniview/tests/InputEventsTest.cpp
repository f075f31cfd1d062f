#include "InputEvents.h"

#include "AlarmText.h"
#include "EventNames.h"

#include <vector>

namespace
{
using namespace Uniview;
using kelvo::test::alarm;
using kelvo::test::alarmOf;
using Kind = InputDecision::Kind;

class InputEvents : public ::testing::Test {
protected:
    InputDecision decide(const Json::Value& info) { return decideInput(info, states); }
    InputDecision on(const char* members) { return decide(alarmOf("InputAlarmOn", members)); }
    InputDecision off(const char* members) { return decide(alarmOf("InputAlarmOff", members)); }

    std::vector<InputState> states{InputState::unknown, InputState::unknown};
};

TEST_F(InputEvents, theFirstStateOfAnInputIsNewWhateverItIs)
{
    const auto first = off("\"AlarmSrcID\":1");
    EXPECT_EQ(first.kind, Kind::changed);
    EXPECT_EQ(first.input, 0U);
    EXPECT_FALSE(first.state);
    EXPECT_EQ(off("\"AlarmSrcID\":1").kind, Kind::unchanged);
    const auto closed = on("\"AlarmSrcID\":1");
    EXPECT_EQ(closed.kind, Kind::changed);
    EXPECT_TRUE(closed.state);
    EXPECT_EQ(on("\"AlarmSrcID\":2").kind, Kind::changed);
    EXPECT_EQ(states, (std::vector<InputState>{InputState::on, InputState::on}));
}

TEST_F(InputEvents, withoutASourceTheFirstInputIsMeant)
{
    const auto decision = on("\"TimeStamp\":1");
    EXPECT_EQ(decision.kind, Kind::changed);
    EXPECT_EQ(decision.input, 0U);
    EXPECT_EQ(states[0], InputState::on);
}

TEST_F(InputEvents, inputsBeyondTheDevicesAreOutOfRange)
{
    const struct {
        const char* source;
        std::uint32_t input;
    } cases[] = {{"3", 2}, {"0", 4294967295}, {"4294967295", 4294967294}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source);
        const auto decision = on((std::string("\"AlarmSrcID\":") + c.source).c_str());
        EXPECT_EQ(decision.kind, Kind::outOfRange);
        EXPECT_EQ(decision.input, c.input);
        EXPECT_FALSE(decision.isTaken());
    }
    EXPECT_EQ(states, (std::vector<InputState>(2, InputState::unknown)));
}

TEST_F(InputEvents, withoutInputsEveryEventIsOutOfRange)
{
    states.clear();
    EXPECT_EQ(on("\"AlarmSrcID\":1").kind, Kind::outOfRange);
    EXPECT_EQ(on("\"AlarmSeq\":1").kind, Kind::outOfRange);
}

TEST_F(InputEvents, sourcesThatAreNoNumberOfAnInputAreMalformed)
{
    for (const char* const source : {"\"1\"", "-1", "0.5", "1.5", "4294967297", "18446744073709551615", "1e300", "null",
                                     "true", "[1]", "{}", "\"\xff\""}) {
        SCOPED_TRACE(source);
        const auto decision = on((std::string("\"AlarmSrcID\":") + source).c_str());
        EXPECT_EQ(decision.kind, Kind::malformed);
        EXPECT_FALSE(decision.isTaken());
    }
    EXPECT_EQ(states, (std::vector<InputState>(2, InputState::unknown)));
}

/// The other firmware's name of the source is that of video analytics; inputs do not have it.
TEST_F(InputEvents, theOtherNameOfTheSourceIsNotAnInputs)
{
    EXPECT_EQ(on("\"SourceID\":2").input, 0U);
    EXPECT_EQ(on("\"SourceID\":1,\"AlarmSrcID\":2").input, 1U);
}

TEST_F(InputEvents, otherEventsAreForeign)
{
    for (const char* const name : {events::motionAlarmOn, events::abnormalAudioOff, events::enterArea, "inputalarmon",
                                   "InputAlarm", "InputAlarmOn ", "InputAlarmOn\\u0000", "", "\xff"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(decide(alarmOf(name, "\"AlarmSrcID\":1")).kind, Kind::foreign);
    }
    EXPECT_EQ(states, (std::vector<InputState>(2, InputState::unknown)));
}

TEST_F(InputEvents, otherShapesAreForeign)
{
    for (const char* const shape : kelvo::test::oddShapes) {
        SCOPED_TRACE(shape);
        EXPECT_EQ(decide(alarm(shape)).kind, Kind::foreign);
        EXPECT_EQ(decide(alarm(std::string("{\"AlarmSrcID\":1,\"AlarmType\":") + shape + '}')).kind, Kind::foreign);
    }
    EXPECT_EQ(decide(Json::Value(Json::stringValue)).kind, Kind::foreign);
}
}  // namespace

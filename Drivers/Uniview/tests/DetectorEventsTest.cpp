#include "DetectorEvents.h"

#include "AlarmText.h"
#include "EventNames.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace
{
using namespace Uniview;
using kelvo::test::alarm;
using kelvo::test::alarmOf;
using Kind = DetectorDecision::Kind;
using Tavro8::GDRV::DetectorState;

/// A detector of a device with several channels.
class Decider {
public:
    explicit Decider(const char* detectionType, std::uint32_t channel = 0, bool everySource = false)
        : events(*findDetectorType(detectionType), channel), everySource(everySource)
    {}
    DetectorDecision operator()(const char* alarmType, const std::string& members = "\"AlarmSrcID\":1")
    {
        return (*this)(alarmOf(alarmType, members));
    }
    DetectorDecision operator()(const Json::Value& info) { return events.decide(info, everySource); }
    void forget() { events.forget(); }

private:
    DetectorEvents events;
    const bool everySource;
};

constexpr const char* allEvents[] = {
    events::abnormalAudioOn,
    events::abnormalAudioOff,
    events::lineDetectorCrossed,
    events::crowdDensity,
    events::enterArea,
    events::objectIsRecognized,
    events::inputAlarmOn,
    events::inputAlarmOff,
    events::fieldDetectorObjectsInside,
    events::leaveArea,
    events::maskImageAlarmOn,
    events::maskImageAlarmOff,
    events::motionAlarmOn,
    events::motionAlarmOff,
    events::peopleCounting,
    events::thermalTemperatureDetectOff,
    events::temperatureDetectionAlarm,
};

TEST(DetectorTypes, areTheNineThatHostsKnow)
{
    std::set<std::string> names;
    for (const DetectorType& type : detectorTypes())
        names.insert(type.detectionType);
    EXPECT_EQ(names, (std::set<std::string>{"motion", "motionTCP", "temperatureDetectType", "crossLineDetectType",
                                            "enterAreaDetectType", "leaveAreaDetectType", "intrusionDetectType",
                                            "audioDetectType", "smartAudioDetectType"}));
    EXPECT_EQ(detectorTypes().size(), names.size());
    for (const char* const other : {"", "Motion", "motion ", "tamper", "peopleCounting"})
        EXPECT_EQ(findDetectorType(other), nullptr) << other;
}

TEST(DetectorEvents, eachTypeTellsItsOwnEventsAndNoOther)
{
    const struct {
        const char* detectionType;
        std::vector<std::string> names;
        std::vector<DetectorState> states;
    } cases[] = {
        {"motion", {"MotionAlarmOn", "MotionAlarmOff"}, {DetectorState::begin, DetectorState::end}},
        {"motionTCP", {"MotionAlarmOn", "MotionAlarmOff"}, {DetectorState::begin, DetectorState::end}},
        {"audioDetectType", {"AbnormalAudioOn", "AbnormalAudioOff"}, {DetectorState::begin, DetectorState::end}},
        {"smartAudioDetectType", {"AbnormalAudioOn", "AbnormalAudioOff"}, {DetectorState::begin, DetectorState::end}},
        {"temperatureDetectType",
         {"TemperatureDetectionAlarm", "ThermalTemperatureDetectOff"},
         {DetectorState::begin, DetectorState::end}},
        {"crossLineDetectType", {"LineDetectorCrossed"}, {DetectorState::momentary}},
        {"enterAreaDetectType", {"EnterArea"}, {DetectorState::momentary}},
        {"leaveAreaDetectType", {"LeaveArea"}, {DetectorState::momentary}},
        {"intrusionDetectType", {"FieldDetectorObjectsInside"}, {DetectorState::momentary}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.detectionType);
        Decider decide(c.detectionType);
        for (std::size_t i = 0; i < c.names.size(); ++i) {
            const auto decision = decide(c.names[i].c_str(), "\"AlarmSrcID\":1,\"TimeStamp\":1489040894");
            EXPECT_EQ(decision.kind, Kind::event);
            EXPECT_EQ(decision.state, c.states[i]);
            EXPECT_EQ(decision.alarmType, c.names[i]);
            EXPECT_EQ(decision.deviceTimeMs, 1489040894000);
            EXPECT_TRUE(decision.timeFound);
        }
        for (const char* const name : allEvents) {
            if (std::ranges::count(c.names, name) == 0) {
                EXPECT_EQ(decide(name).kind, Kind::foreign) << name;
            }
        }
    }
}

TEST(DetectorEvents, namesCompareExactly)
{
    Decider decide("motion");
    for (const char* const name :
         {"motionAlarmOn", "MotionAlarmOn ", "MotionAlarm", "MotionAlarmOn\\u0000", "", "\xff"})
        EXPECT_EQ(decide(name).kind, Kind::foreign) << name;
}

TEST(DetectorEvents, beginAndEndComeInTurns)
{
    Decider decide("motion");
    EXPECT_EQ(decide("MotionAlarmOff").kind, Kind::repeated) << "an end without a beginning";
    EXPECT_EQ(decide("MotionAlarmOn").kind, Kind::event);
    EXPECT_EQ(decide("MotionAlarmOn").kind, Kind::repeated) << "a beginning twice";
    EXPECT_EQ(decide("MotionAlarmOff").kind, Kind::event);
    EXPECT_EQ(decide("MotionAlarmOff").kind, Kind::repeated);
    EXPECT_EQ(decide("MotionAlarmOn").kind, Kind::event);
}

TEST(DetectorEvents, momentsMayRepeat)
{
    Decider decide("enterAreaDetectType");
    EXPECT_EQ(decide("EnterArea").kind, Kind::event);
    EXPECT_EQ(decide("EnterArea").kind, Kind::event);
}

TEST(DetectorEvents, aMomentThatComesByTwoWaysIsToldOnce)
{
    constexpr const char* first = R"("AlarmSeq":327,"TimeStamp":1489040894,"AlarmSrcID":1)";
    Decider decide("crossLineDetectType");
    EXPECT_EQ(decide("LineDetectorCrossed", first).kind, Kind::event);
    EXPECT_EQ(decide("LineDetectorCrossed", first).kind, Kind::repeated);
    EXPECT_EQ(decide("LineDetectorCrossed", R"("Z":9,"AlarmSrcID":1,"TimeStamp":"1489040894","AlarmSeq":327)").kind,
              Kind::repeated)
        << "the other members do not matter, nor how they are written";
    EXPECT_EQ(decide("EnterArea", R"("AlarmSeq":328,"TimeStamp":1489040895,"AlarmSrcID":1)").kind, Kind::foreign);
    EXPECT_EQ(decide("LineDetectorCrossed", first).kind, Kind::repeated);

    Decider another("crossLineDetectType");
    EXPECT_EQ(another("LineDetectorCrossed", first).kind, Kind::event) << "two detectors hear of it independently";
    decide.forget();
    EXPECT_EQ(decide("LineDetectorCrossed", first).kind, Kind::event);
}

TEST(DetectorEvents, momentsThatDifferInAnythingAreAllTold)
{
    Decider decide("enterAreaDetectType", 0, true);
    for (const char* const members : {
             R"("AlarmSeq":327,"TimeStamp":1489040894,"AlarmSrcID":1)",
             R"("AlarmSeq":328,"TimeStamp":1489040894,"AlarmSrcID":1)",
             R"("AlarmSeq":328,"TimeStamp":1489040895,"AlarmSrcID":1)",
             R"("AlarmSeq":328,"TimeStamp":1489040895,"AlarmSrcID":2)",
             R"("AlarmSeq":328,"TimeStamp":1489040895)",
             R"("AlarmSeq":18446744073709551615,"TimeStamp":1489040895)",
             R"("AlarmSeq":4294967295,"TimeStamp":1489040895)",
         }) {
        SCOPED_TRACE(members);
        EXPECT_EQ(decide("EnterArea", members).kind, Kind::event);
        EXPECT_EQ(decide("EnterArea", members).kind, Kind::repeated);
    }
}

TEST(DetectorEvents, momentsThatCannotBeToldApartAreAllTold)
{
    for (const char* const members : {
             R"("TimeStamp":1489040894,"AlarmSrcID":1)",
             R"("AlarmSeq":null,"TimeStamp":1489040894,"AlarmSrcID":1)",
             R"("AlarmSeq":"327","TimeStamp":1489040894,"AlarmSrcID":1)",
             R"("AlarmSeq":-1,"TimeStamp":1489040894,"AlarmSrcID":1)",
             R"("AlarmSeq":{},"TimeStamp":1489040894,"AlarmSrcID":1)",
             R"("AlarmSeq":327,"AlarmSrcID":1)",
             R"("AlarmSeq":327,"TimeStamp":"now","AlarmSrcID":1)",
         }) {
        SCOPED_TRACE(members);
        Decider decide("leaveAreaDetectType");
        EXPECT_EQ(decide("LeaveArea", members).kind, Kind::event);
        EXPECT_EQ(decide("LeaveArea", members).kind, Kind::event);
    }
}

TEST(DetectorEvents, theEndOfWhatWasForgottenIsNotTold)
{
    Decider decide("audioDetectType");
    EXPECT_EQ(decide("AbnormalAudioOn").kind, Kind::event);
    decide.forget();
    EXPECT_EQ(decide("AbnormalAudioOff").kind, Kind::repeated);
    EXPECT_EQ(decide("AbnormalAudioOn").kind, Kind::event);
}

TEST(DetectorEvents, otherChannelsChangeNothing)
{
    Decider decide("motion", 1);
    EXPECT_EQ(decide("MotionAlarmOn", "\"AlarmSrcID\":1").kind, Kind::foreign);
    EXPECT_EQ(decide("MotionAlarmOn", "\"AlarmSrcID\":2").kind, Kind::event);
    EXPECT_EQ(decide("MotionAlarmOff", "\"AlarmSrcID\":1").kind, Kind::foreign);
    EXPECT_EQ(decide("MotionAlarmOff", "\"AlarmSrcID\":2").kind, Kind::event);
}

TEST(DetectorEvents, bothNamesOfTheSourceAreRead)
{
    const struct {
        const char* members;
        Kind kind;
    } cases[] = {
        {"\"SourceID\":3", Kind::event},
        {"\"AlarmSrcID\":3", Kind::event},
        {"\"SourceID\":3,\"AlarmSrcID\":1", Kind::event},
        {"\"SourceID\":1,\"AlarmSrcID\":3", Kind::foreign},
        {"\"SourceID\":null,\"AlarmSrcID\":3", Kind::withoutSource},
        {"\"SourceID\":\"3\",\"AlarmSrcID\":3", Kind::withoutSource},
        {"\"AlarmSrcID\":0", Kind::foreign},
        {"\"AlarmSrcID\":-3", Kind::withoutSource},
        {"\"AlarmSrcID\":3.5", Kind::withoutSource},
        {"\"AlarmSrcID\":4294967299", Kind::withoutSource},
        {"\"AlarmSrcID\":\"3\"", Kind::withoutSource},
        {"\"AlarmSrcID\":[3]", Kind::withoutSource},
        {"\"TimeStamp\":1", Kind::withoutSource},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.members);
        Decider decide("intrusionDetectType", 2);
        EXPECT_EQ(decide("FieldDetectorObjectsInside", c.members).kind, c.kind);
    }
}

TEST(DetectorEvents, theLargestChannelHasNoSourceNumber)
{
    Decider decide("enterAreaDetectType", 4294967295);
    EXPECT_EQ(decide("EnterArea", "\"AlarmSrcID\":0").kind, Kind::foreign);
}

TEST(DetectorEvents, withASingleChannelTheSourceDoesNotMatter)
{
    Decider decide("leaveAreaDetectType", 0, true);
    for (const char* const members : {"\"AlarmSrcID\":0", "\"AlarmSrcID\":1", "\"AlarmSrcID\":9", "\"SourceID\":7",
                                      "\"AlarmSrcID\":\"x\"", "\"TimeStamp\":1"}) {
        SCOPED_TRACE(members);
        EXPECT_EQ(decide("LeaveArea", members).kind, Kind::event);
    }
}

TEST(DetectorEvents, anEventWithoutATimeIsToldWithTimeZero)
{
    Decider decide("enterAreaDetectType", 0, true);
    for (const char* const members :
         {"\"AlarmSrcID\":1", "\"TimeStamp\":null", "\"TimeStamp\":{}", "\"TimeStamp\":\"now\"", "\"TimeStamp\":-1"}) {
        SCOPED_TRACE(members);
        const auto decision = decide("EnterArea", members);
        EXPECT_EQ(decision.kind, Kind::event);
        EXPECT_FALSE(decision.timeFound);
        EXPECT_EQ(decision.deviceTimeMs, 0);
    }
}

TEST(DetectorEvents, eventsCarryTheNotificationsOwnFields)
{
    Decider decide("enterAreaDetectType");
    const auto decision = decide(alarm("{\"AlarmType\":\t\"EnterArea\",\t\"AlarmSrcID\":\t1,\t\"AlarmSeq\":\t327,\t"
                                       "\"AlarmSrcName\":\t\"Camera1\",\t\"AlarmConfig\":\t{\"Rule\":\t1}}"));
    ASSERT_EQ(decision.kind, Kind::event);
    EXPECT_EQ(boost::any_cast<int>(decision.fields.at("AlarmSeq")), 327);
    EXPECT_EQ(boost::any_cast<std::string>(decision.fields.at("AlarmSrcName")), "Camera1");
    EXPECT_EQ(decision.fields.count("AlarmConfig"), 0U);
}

TEST(DetectorEvents, withoutATypeNothingIsDecided)
{
    for (const DetectorType& type : detectorTypes()) {
        SCOPED_TRACE(type.detectionType);
        Decider decide(type.detectionType, 0, true);
        EXPECT_EQ(decide(alarm("{\"AlarmSrcID\":1}")).kind, Kind::withoutType);
        EXPECT_EQ(decide(Json::Value(Json::stringValue)).kind, Kind::withoutType);
        for (const char* const shape : kelvo::test::oddShapes) {
            SCOPED_TRACE(shape);
            EXPECT_EQ(decide(alarm(shape)).kind, Kind::withoutType);
            const bool isText = *shape == '"';
            EXPECT_EQ(decide(alarm(std::string("{\"AlarmType\":") + shape + '}')).kind,
                      isText ? Kind::foreign : Kind::withoutType);
        }
    }
}
}  // namespace

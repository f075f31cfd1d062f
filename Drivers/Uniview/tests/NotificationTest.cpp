#include "Notification.h"

#include "EventFixture.h"

#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using kelvo::test::RecordingLogger;

class Notification : public ::testing::Test {
protected:
    Json::Value read(const std::string& chunk) { return notification::readAlarmInfo(chunk, helper); }
    void deliver(const std::string& chunk, std::vector<RecordingSubscriber*> subscribers)
    {
        notification::deliver(chunk, subscribers, helper);
    }

    RecordingLogger logger;
    const Tavro8::LoggerHelper helper{&logger, "source"};
};

TEST_F(Notification, isReadFromItsFirstBrace)
{
    const auto info = read(kelvo::test::notification(alarm("MotionAlarmOn")));
    EXPECT_EQ(info["AlarmType"].asString(), "MotionAlarmOn");
    EXPECT_EQ(read("}garbage[" + alarm("x"))["AlarmType"].asString(), "x");
    EXPECT_TRUE(logger.lines().empty()) << logger.text();
}

TEST_F(Notification, withoutABraceThrowsThePrescribedText)
{
    for (const std::string chunk : {"", "POST /Alarm HTTP/1.1\r\nContent-Length: 10\r\n\r\n", "[1]", "\0\xff"}) {
        SCOPED_TRACE(chunk);
        try {
            read(chunk);
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::out_of_range& e) {
            EXPECT_STREQ(e.what(), "string_view::substr");
        }
    }
}

TEST_F(Notification, thatIsSplitIsLostInBothParts)
{
    const std::string whole = kelvo::test::notification(alarm("MotionAlarmOn"));
    const std::size_t middle = whole.find("AlarmType");
    EXPECT_TRUE(read(whole.substr(0, middle)).isNull());
    EXPECT_EQ(logger.count("Can't parse data: "), 1U);
    EXPECT_THROW(read("\"AlarmType\": 1 }}"), std::out_of_range);
}

TEST_F(Notification, thatIsNoJsonIsLoggedWithTheReadersWords)
{
    EXPECT_TRUE(read("{\"AlarmInfo\": }").isNull());
    const auto line = logger.find("Can't parse data: * Line 1, Column 15");
    EXPECT_EQ(line.severity, Tavro8::LogSeverity::error) << logger.text();
    EXPECT_EQ(line.function, "Uniview::EventListener::processData");
}

TEST_F(Notification, ofBoundlessNestingIsLogged)
{
    std::string bomb = "{\"AlarmInfo\":";
    bomb.append(100000, '[');
    EXPECT_TRUE(read(bomb).isNull());
    std::string objects;
    for (int i = 0; i < 5000; ++i)
        objects += "{\"a\":";
    EXPECT_TRUE(read(objects).isNull());
    EXPECT_EQ(logger.count("Can't parse data: "), 2U);
}

TEST_F(Notification, withoutAlarmInfoIsLogged)
{
    for (const char* const chunk :
         {"{}", "{\"AlarmInfo\":null}", "{\"alarminfo\":{}}", "{\"StructureInfo\":{\"a\":[]}}"})
        EXPECT_TRUE(read(chunk).isNull()) << chunk;
    EXPECT_EQ(logger.count("AlarmInfo is not found in notification."), 4U);
    const auto line = logger.find("AlarmInfo is not found in notification.");
    EXPECT_EQ(line.severity, Tavro8::LogSeverity::error);
    EXPECT_EQ(line.message, "AlarmInfo is not found in notification.");
    EXPECT_EQ(line.function, "Uniview::EventListener::processData");
    EXPECT_EQ(logger.errorCount(), 4U);
}

TEST_F(Notification, isOfferedWhateverShapeItHas)
{
    const struct {
        const char* chunk;
        const char* offered;
    } cases[] = {
        {"{\"AlarmInfo\":[1,2]}", "[1,2]"},
        {"{\"AlarmInfo\":0}", "0"},
        {"{\"AlarmInfo\":\"\xff\xfe\"}", "\"\xff\xfe\""},
        {"{\"AlarmInfo\":false}", "false"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.chunk);
        const auto info = read(c.chunk);
        EXPECT_FALSE(info.isNull());
    }
    RecordingSubscriber subscriber;
    deliver("{\"AlarmInfo\":[1,2]}", {&subscriber});
    deliver("{\"AlarmInfo\":0}", {&subscriber});
    deliver("{\"AlarmInfo\":false}", {&subscriber});
    EXPECT_EQ(subscriber.seen(), (std::vector<std::string>{"[1,2]", "0", "false"}));
}

TEST_F(Notification, goesToTheFirstThatClaimsIt)
{
    RecordingSubscriber indifferent(false);
    RecordingSubscriber first(true);
    RecordingSubscriber second(true);
    deliver(alarm("EnterArea"), {&indifferent, &first, &second});
    EXPECT_EQ(indifferent.seen(), std::vector<std::string>{"EnterArea"});
    EXPECT_EQ(first.seen(), std::vector<std::string>{"EnterArea"});
    EXPECT_TRUE(second.seen().empty());
}

TEST_F(Notification, thatNobodyClaimsIsDroppedSilently)
{
    RecordingSubscriber indifferent(false);
    deliver(alarm("CrowdDensity"), {&indifferent});
    deliver(alarm("CrowdDensity"), {});
    EXPECT_EQ(indifferent.seen().size(), 1U);
    EXPECT_TRUE(logger.lines().empty());
}

TEST_F(Notification, endsWhenASubscriberThrows)
{
    RecordingSubscriber throwing(false, [](const std::string&) { throw std::runtime_error("subscriber"); });
    RecordingSubscriber next;
    EXPECT_THROW(deliver(alarm("EnterArea"), {&throwing, &next}), std::runtime_error);
    EXPECT_TRUE(next.seen().empty());
}
}  // namespace

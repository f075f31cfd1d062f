#include "EventCommand.h"

#include "LapiEnvelope.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using namespace std::chrono_literals;

EventCommand parsed(const std::string& text)
{
    auto result = parseEventCommand(parseJson(text).value());
    if (const auto* const why = std::get_if<std::string>(&result)) {
        ADD_FAILURE() << text << ": " << *why;
        return {};
    }
    return std::get<EventCommand>(std::move(result));
}

TEST(EventCommand, isAnAlarmOfTheFirstChannelUnlessTold)
{
    const EventCommand command = parsed(R"({"type": "MotionAlarmOn"})");
    const auto& alarm = std::get<Alarm>(command.content);
    EXPECT_EQ(alarm.type, "MotionAlarmOn");
    EXPECT_EQ(alarm.source, 1u);
    EXPECT_FALSE(alarm.fromInput);
    EXPECT_FALSE(alarm.time);
    EXPECT_EQ(command.path, "/LAPI/V1.0/System/Event/Notification/Alarm");
    EXPECT_EQ(command.form, Form::whole);
    EXPECT_EQ(command.count, 1u);
    EXPECT_FALSE(command.freshConnection);
}

TEST(EventCommand, isReadInFull)
{
    const EventCommand command = parsed(R"({"type": "EnterArea", "channel": 2, "level": 3, "time": 1489040894,
        "fields": {"SourceID": 9}, "path": "/other", "form": "split", "interval": 7, "count": 5,
        "connection": "fresh"})");
    const auto& alarm = std::get<Alarm>(command.content);
    EXPECT_EQ(alarm.source, 3u) << "counts from 1 on the wire";
    EXPECT_EQ(alarm.level, 3u);
    EXPECT_EQ(alarm.time, 1489040894);
    EXPECT_EQ(alarm.fields["SourceID"], 9);
    EXPECT_EQ(command.path, "/other");
    EXPECT_EQ(command.form, Form::split);
    EXPECT_EQ(command.interval, 7ms);
    EXPECT_EQ(command.count, 5u);
    EXPECT_TRUE(command.freshConnection);
    EXPECT_EQ(command.name(), "EnterArea x 5 (split)");
}

TEST(EventCommand, mayComeFromAnInput)
{
    const EventCommand command = parsed(R"({"type": "InputAlarmOff", "input": 3})");
    EXPECT_TRUE(std::get<Alarm>(command.content).fromInput);
    EXPECT_EQ(std::get<Alarm>(command.content).source, 4u);
    const EventCommand own = inputEvent(3, false);
    EXPECT_EQ(std::get<Alarm>(own.content).type, "InputAlarmOff");
    EXPECT_EQ(std::get<Alarm>(own.content).source, 4u);
    EXPECT_EQ(own.path, command.path);
    EXPECT_EQ(std::get<Alarm>(inputEvent(0, true).content).type, "InputAlarmOn");
}

TEST(EventCommand, mayBeAPictureOrAnyText)
{
    const EventCommand picture = parsed(R"({"pictureBytes": 300000})");
    EXPECT_EQ(std::get<Picture>(picture.content).bytes, 300'000u);
    EXPECT_EQ(picture.path, "/LAPI/V1.0/System/Event/Notification/Structure");
    EXPECT_EQ(picture.name(), "a picture of 300000 bytes (whole)");
    EXPECT_EQ(std::get<Text>(parsed(R"({"body": "[]"})").content).body, "[]");
}

TEST(EventCommand, needsNoContentWhereNoneIsSent)
{
    EXPECT_EQ(parsed(R"({"form": "garbage"})").form, Form::garbage);
    EXPECT_EQ(parsed(R"({"form": "headonly"})").form, Form::headOnly);
    EXPECT_EQ(parsed(R"({"form": "endless"})").form, Form::endless);
}

TEST(EventCommand, pausesAsItsFormDoes)
{
    EXPECT_EQ(parsed(R"({"type": "x", "form": "slow"})").interval, 1s);
    EXPECT_EQ(parsed(R"({"type": "x", "form": "slow", "interval": 3})").interval, 3ms);
    EXPECT_EQ(parsed(R"({"type": "x", "form": "split"})").interval, 20ms);
    EXPECT_EQ(parsed(R"({"type": "x", "form": "bytes"})").interval, 0ms);
}

TEST(EventCommand, saysWhatIsWrongWithIt)
{
    const struct {
        const char* text;
        const char* part;
    } cases[] = {
        {"[]", "no JSON object"},
        {"3", "no JSON object"},
        {"null", "no JSON object"},
        {"{}", "one of \"type\", \"pictureBytes\" and \"body\""},
        {R"({"type": "x", "body": "y"})", "one of \"type\", \"pictureBytes\" and \"body\""},
        {R"({"type": 3})", "\"type\" is no text"},
        {R"({"type": "x", "channel": -1})", "\"channel\""},
        {R"({"type": "x", "channel": "1"})", "\"channel\""},
        {R"({"type": "x", "channel": 65535})", "\"channel\""},
        {R"({"type": "x", "channel": 0, "input": 0})", "from a \"channel\" or from an \"input\""},
        {R"({"type": "x", "level": []})", "\"level\""},
        {R"({"type": "x", "time": "now"})", "\"time\""},
        {R"({"type": "x", "time": 1e300})", "\"time\""},
        {R"({"type": "x", "fields": []})", "\"fields\" is no JSON object"},
        {R"({"type": "x", "form": "sideways"})", "no \"form\" 'sideways'"},
        {R"({"type": "x", "form": 3})", "\"form\" is no text"},
        {R"({"type": "x", "interval": 600001})", "\"interval\""},
        {R"({"type": "x", "count": 0})", "\"count\""},
        {R"({"type": "x", "count": 1001})", "\"count\""},
        {R"({"type": "x", "count": 2, "form": "cut"})", "does not go with the form 'cut'"},
        {R"({"pictureBytes": 10, "count": 2})", "\"count\" goes with \"type\" only"},
        {R"({"pictureBytes": 0})", "\"pictureBytes\""},
        {R"({"pictureBytes": 16777217})", "\"pictureBytes\""},
        {R"({"body": {}})", "\"body\" is no text"},
        {R"({"type": "x", "connection": "new"})", "\"connection\""},
        {R"({"type": "x", "path": "a"})", "\"path\" is no path"},
        {R"({"type": "x", "path": "/a b"})", "\"path\" is no path"},
        {R"({"type": "x", "path": "/a\r\nHost: b"})", "\"path\" is no path"},
        {R"({"type": "x", "chanel": 1})", "no member \"chanel\""},
        {R"({"body": "x", "channel": 1})", "no member \"channel\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto result = parseEventCommand(parseJson(c.text).value());
        const auto* const why = std::get_if<std::string>(&result);
        ASSERT_NE(why, nullptr);
        EXPECT_NE(why->find(c.part), std::string::npos) << *why;
    }
}

TEST(EventCommands, areOneOrSeveral)
{
    const auto read = [](const char* text) { return parseEventCommands(parseJson(text).value()); };
    EXPECT_EQ(std::get<0>(read(R"({"type": "x"})")).size(), 1u);
    EXPECT_EQ(std::get<0>(read(R"([{"type": "x"}, {"body": "y"}])")).size(), 2u);
    EXPECT_EQ(std::get<0>(read("[]")).size(), 0u);
    EXPECT_EQ(std::get<1>(read(R"([{"type": "x"}, {"type": 1}])")), "[1]: \"type\" is no text");
    EXPECT_EQ(std::get<1>(read("7")), "this is no JSON object");
}

TEST(EventCommand, formsAreAllDescribed)
{
    const std::string help = describeForms();
    for (const char* name : {"whole", "split", "bytes", "slow", "chunked", "headonly", "cut", "brokenjson",
                             "wronglength", "oversized", "garbage", "endless"})
        EXPECT_NE(help.find(std::string("  ") + name + ' '), std::string::npos) << name;
}

}  // namespace
}  // namespace simulator

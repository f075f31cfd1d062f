#include <utility>  // ahead of Asio, which forgets it

#include "EventScript.h"

#include "Options.h"
#include "ScriptPlayer.h"
#include "TemporaryFile.h"

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace simulator
{
namespace
{

using namespace std::chrono_literals;

EventScript parsed(const std::string& text)
{
    auto result = parseEventScript(text, 2);
    if (const auto* const why = std::get_if<std::string>(&result)) {
        ADD_FAILURE() << *why;
        return {};
    }
    return std::get<EventScript>(std::move(result));
}

TEST(EventScript, isReadInTheOrderOfTime)
{
    const EventScript script = parsed(R"({"repeat": 3, "steps": [
        {"at": 2.5, "input": 1, "state": true},
        {"at": 0, "event": {"type": "MotionAlarmOn"}}]})");
    ASSERT_EQ(script.steps.size(), 2u);
    EXPECT_EQ(script.steps[0].at, 0ms);
    EXPECT_EQ(std::get<Alarm>(std::get<EventCommand>(script.steps[0].what).content).type, "MotionAlarmOn");
    EXPECT_EQ(script.steps[1].at, 2500ms);
    EXPECT_EQ(std::get<EventScript::InputChange>(script.steps[1].what).index, 1u);
    EXPECT_TRUE(std::get<EventScript::InputChange>(script.steps[1].what).state);
    EXPECT_EQ(script.repeat, 3s);
    EXPECT_FALSE(parsed(R"({"steps": [{"at": 1, "event": {"form": "garbage"}}]})").repeat);
}

TEST(EventScript, saysWhatIsWrongAndWhere)
{
    const struct {
        const char* text;
        const char* why;
    } cases[] = {
        {"[]", "this is no JSON object"},
        {"{}", "\"steps\" is missing"},
        {R"({"steps": []})", "\"steps\" is no list of steps"},
        {R"({"steps": {}})", "\"steps\" is no list of steps"},
        {R"({"step": [], "steps": [{}]})", "there is no member \"step\""},
        {"{\"steps\": [\n\n{}]}", "Line 3, steps[0]: \"at\" is missing"},
        {"{\"steps\": [\n1]}", "Line 2, steps[0]: this is no JSON object"},
        {R"({"steps": [{"at": -1, "input": 0, "state": true}]})",
         "Line 1, steps[0]: \"at\" is no number of seconds (0 to a day)"},
        {R"({"steps": [{"at": "1", "input": 0, "state": true}]})",
         "Line 1, steps[0]: \"at\" is no number of seconds (0 to a day)"},
        {R"({"steps": [{"at": 1}]})", "Line 1, steps[0]: a step has either an \"event\" or an \"input\""},
        {R"({"steps": [{"at": 1, "input": 0, "state": true, "event": {"type": "x"}}]})",
         "Line 1, steps[0]: a step has either an \"event\" or an \"input\""},
        {R"({"steps": [{"at": 1, "input": 0}]})", "Line 1, steps[0]: \"state\" is missing"},
        {R"({"steps": [{"at": 1, "input": 0, "state": 1}]})", "Line 1, steps[0]: \"state\" is neither true nor false"},
        {R"({"steps": [{"at": 1, "input": 2, "state": true}]})",
         "Line 1, steps[0]: \"input\" is no whole number of 0..1"},
        {"{\"steps\": [{\"at\": 1, \"input\": 0, \"state\": true},\n{\"at\": 1, \"event\": {\"type\": 3}}]}",
         "Line 2, steps[1]: \"event\": \"type\" is no text"},
        {R"({"steps": [{"at": 1, "event": {"type": "x"}, "state": true}]})",
         "Line 1, steps[0]: there is no member \"state\""},
        {R"({"repeat": 1, "steps": [{"at": 1, "event": {"type": "x"}}]})", "\"repeat\" is not behind the last step"},
        {R"({"repeat": true, "steps": [{"at": 1, "event": {"type": "x"}}]})",
         "\"repeat\" is no number of seconds (0 to a day)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto result = parseEventScript(c.text, 2);
        ASSERT_TRUE(std::holds_alternative<std::string>(result));
        EXPECT_EQ(std::get<std::string>(result), c.why);
    }
}

TEST(EventScript, pointsAtWhatIsNoJson)
{
    for (const char* text : {"", "{\"steps\": [\n{]}", "{} {}"}) {
        const auto result = parseEventScript(text, 2);
        ASSERT_TRUE(std::holds_alternative<std::string>(result)) << text;
        EXPECT_TRUE(std::get<std::string>(result).starts_with("Line ")) << std::get<std::string>(result);
        EXPECT_EQ(std::get<std::string>(result).find('\n'), std::string::npos);
    }
    const auto broken = parseEventScript("{\"steps\": [\n{]}", 2);
    EXPECT_TRUE(std::get<std::string>(broken).starts_with("Line 2, Column 2: ")) << std::get<std::string>(broken);
    EXPECT_TRUE(std::holds_alternative<std::string>(parseEventScript(std::string(5000, '['), 2)));
}

TEST(EventScript, comesFromAFile)
{
    const test::TemporaryFile file(".json");
    std::ofstream(file.name()) << R"({"steps": [{"at": 1, "event": {"type": "x"}}]})";
    EXPECT_EQ(loadEventScript(file.name(), 2).steps.size(), 1u);
    std::ofstream(file.name()) << "{";
    try {
        loadEventScript(file.name(), 2);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_TRUE(std::string(error.what()).starts_with("The script '" + file.name() + "' is refused: Line 1, "))
            << error.what();
    }
    EXPECT_THROW(loadEventScript("/there/is/no/such.json", 2), std::runtime_error);
}

TEST(EventScript, ofTheExampleSuitsADeviceWithoutOptions)
{
    const auto file = std::filesystem::path(KELVO_TEST_DATA_DIR "/../../../docs/examples/events.json");
    EXPECT_FALSE(loadEventScript(file.lexically_normal().string(), Options().inputs).steps.empty());
}

TEST(ScriptPlayer, performsTheStepsOnceUnlessTold)
{
    boost::asio::io_context context;
    unsigned performed = 0;
    ScriptPlayer player(
        context, parsed(R"({"steps": [{"at": 0, "event": {"type": "x"}}, {"at": 0.01, "event": {"type": "y"}}]})"),
        [&](const EventScript::Step& step) {
            ++performed;
            EXPECT_EQ(std::get<Alarm>(std::get<EventCommand>(step.what).content).type, performed == 1 ? "x" : "y");
        });
    player.start();
    context.run();
    EXPECT_EQ(performed, 2u);

    context.restart();
    player.start();
    context.run();
    EXPECT_EQ(performed, 2u) << "it has not been stopped";

    performed = 0;
    player.stop();
    player.start();
    context.restart();
    context.run();
    EXPECT_EQ(performed, 2u);
}

TEST(ScriptPlayer, repeatsUntilItIsStopped)
{
    boost::asio::io_context context;
    unsigned performed = 0;
    ScriptPlayer* playing = nullptr;
    ScriptPlayer player(context, parsed(R"({"repeat": 0.002, "steps": [{"at": 0, "event": {"type": "x"}}]})"),
                        [&](const EventScript::Step&) {
                            if (++performed == 5)
                                playing->stop();
                        });
    playing = &player;
    player.start();
    context.run();
    EXPECT_EQ(performed, 5u);
}

}  // namespace
}  // namespace simulator

#include "HostFixture.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using testing::HasSubstr;
using testing::Not;

/// Runs `ptz` and looks at what reached the module, which writes it into the log.
class PtzCommand : public testing::Test, protected HostFixture {
protected:
    static std::vector<std::string> commandLine(const std::vector<std::string>& words, const std::string& device)
    {
        std::vector<std::string> all{"--json", "--log-level", "info", "--device", device, "--channels", "2", "ptz"};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    const ChildProcess& runPtz(const std::vector<std::string>& words, const std::string& device = "camera")
    {
        const ChildProcess& host = run(commandLine(words, device));
        errors = host.errors();
        return host;
    }

    /// What the module was told, in order, without the questions for the position.
    std::vector<std::string> told() const
    {
        constexpr std::string_view mark = "Sample::Telemetry: channel ";
        std::vector<std::string> all;
        for (std::size_t at = errors.find(mark); at != errors.npos; at = errors.find(mark, at + 1)) {
            const std::size_t begin = at + mark.size();
            all.push_back(errors.substr(begin, errors.find('\n', begin) - begin));
            if (all.back().ends_with(" position"))
                all.pop_back();
        }
        return all;
    }

    std::string errors;  ///< of the last run of `runPtz`
};

using Told = std::vector<std::string>;

TEST_F(PtzCommand, movesForAWhileAndStops)
{
    const struct {
        std::vector<std::string> words;
        Told told;
    } cases[] = {
        {{"move", "3", "5"}, {"0: move 3 5", "0: move 0 0"}},
        {{"move", "-3", "0"}, {"0: move -3 0", "0: move 0 0"}},
        {{"move", "0", "-7", "--channel", "1"}, {"1: move 0 -7", "1: move 0 0"}},
        {{"zoom", "1"}, {"0: zoom 1", "0: zoom 0"}},
        {{"zoom", "-1"}, {"0: zoom -1", "0: zoom 0"}},
        {{"focus", "2"}, {"0: focus 2", "0: focus 0"}},
        {{"iris", "-2"}, {"0: iris -2", "0: iris 0"}},
    };
    for (const auto& c : cases) {
        auto words = c.words;
        words.insert(words.end(), {"--seconds", "0.01"});
        runPtz(words);
        SCOPED_TRACE(errors);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(told(), c.told);
        EXPECT_EQ(getEvent("result")["code"], 0);
        EXPECT_EQ(getEvent("result")["operation"], c.words[0]);
    }
}

TEST_F(PtzCommand, tellsWhatItWasTold)
{
    runPtz({"move", "3", "-5", "--seconds", "0.01", "--channel", "1"});
    EXPECT_EQ(getEvent("result")["pan"], 3);
    EXPECT_EQ(getEvent("result")["tilt"], -5);
    EXPECT_EQ(getEvent("result")["channel"], 1);
    runPtz({"zoom", "-2", "--seconds", "0.01"});
    EXPECT_EQ(getEvent("result")["speed"], -2);
}

TEST_F(PtzCommand, stopsTheMovementWhenItIsInterrupted)
{
    ChildProcess& host = start(commandLine({"move", "3", "5", "--seconds", "0"}, "camera"));
    host.awaitErrors("move 3 5");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_THAT(host.errors(), HasSubstr("move 0 0"));
    EXPECT_EQ(getEvent("result")["code"], 0);
}

TEST_F(PtzCommand, stopsOnCommand)
{
    runPtz({"stop"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(told(), Told{"0: move 0 0"});
    EXPECT_EQ(getEvent("result")["code"], 0);
}

TEST_F(PtzCommand, saysFromTheLogWhatOperationsWithoutAResultDidNotDo)
{
    for (const auto& words : {std::vector<std::string>{"move", "1", "0"}, {"zoom", "1"}, {"stop"}}) {
        runPtz(words, "dark");
        SCOPED_TRACE(errors);
        EXPECT_EQ(status, 4);
        EXPECT_THAT(errors, HasSubstr("failed: no answer from the camera"));
        EXPECT_TRUE(getEvent("result").isNull());
        EXPECT_THAT(getEvent("failure")["message"].asString(), HasSubstr("no answer from the camera"));
        EXPECT_FALSE(getEvent("failure").isMember("code"));
    }
}

TEST_F(PtzCommand, tellsThePosition)
{
    runPtz({"position"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(getEvent("position")["pan"], 0.0);
    EXPECT_EQ(getEvent("position")["tilt"], 0.0);
    EXPECT_EQ(getEvent("position")["zoom"], 1.0);
    run({"--device", "camera", "ptz", "position"});
    EXPECT_EQ(child->output(), "pan 0.00, tilt 0.00, zoom 1.00\n");
}

TEST_F(PtzCommand, movesToAPositionAndWaitsUntilItIsThere)
{
    runPtz({"absolute", "--pan", "30.29", "--tilt", "-10", "--zoom", "2", "--speed", "7"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(told(), Told{"0: absolute 3029 4294966296 200 speeds 7 7 7 mask 7"});
    EXPECT_EQ(getEvent("result")["code"], 0);
    EXPECT_EQ(getEvent("result")["pan"], 30.29);
    EXPECT_EQ(getEvent("position")["pan"], 30.29);
    EXPECT_EQ(getEvent("position")["tilt"], -10.0);
    EXPECT_EQ(getEvent("position")["zoom"], 2.0);
    EXPECT_EQ(getEvent("position")["arrived"], true);
    EXPECT_THAT(errors, Not(HasSubstr("not")));
}

TEST_F(PtzCommand, passesOnOnlyThePositionsThatAreGiven)
{
    const struct {
        std::vector<std::string> words;
        const char* told;
    } cases[] = {
        {{"absolute", "--pan", "30"}, "0: absolute 3000 0 0 speeds 5 5 5 mask 4"},
        {{"absolute", "--tilt", "10.5"}, "0: absolute 0 1050 0 speeds 5 5 5 mask 2"},
        {{"absolute", "--zoom", "1.01"}, "0: absolute 0 0 101 speeds 5 5 5 mask 1"},
        {{"absolute", "--zoom", "3", "--pan", "0"}, "0: absolute 0 0 300 speeds 5 5 5 mask 5"},
    };
    for (const auto& c : cases) {
        runPtz(c.words);
        EXPECT_EQ(told(), Told{c.told});
        EXPECT_FALSE(getEvent("position").isNull());
    }
}

TEST_F(PtzCommand, doesNotWaitForThePositionUnlessItMay)
{
    runPtz({"absolute", "--pan", "30", "--wait", "0"});
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(getEvent("position").isNull());
    runPtz({"absolute", "--pan", "30", "--wait", "0.001"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(getEvent("position")["pan"], 0.0);
    EXPECT_EQ(getEvent("position")["arrived"], false);
    EXPECT_THAT(errors, HasSubstr("the camera is not there"));
}

TEST_F(PtzCommand, pointsIntoThePicture)
{
    runPtz({"area", "0.25", "0.5", "0.5", "0.25"});
    EXPECT_EQ(told(), Told{"0: area 0.25 0.5 0.5 0.25"});
    EXPECT_EQ(getEvent("result")["width"], 0.5);
    runPtz({"area", "-0.5", "-0.5", "2", "2"});
    EXPECT_EQ(told(), Told{"0: area -0.5 -0.5 2 2"});
    runPtz({"point", "0.75", "0.1"});
    EXPECT_EQ(told(), Told{"0: point at 0.75 0.1"});
    EXPECT_EQ(getEvent("result")["code"], 0);
}

TEST_F(PtzCommand, storesRecallsAndRemovesPresets)
{
    for (const std::string operation : {"set", "goto", "remove"}) {
        runPtz({"preset", operation, "7"});
        EXPECT_EQ(status, 0);
        EXPECT_EQ(told(), Told{"0: " + operation + " preset 7"});
        EXPECT_EQ(getEvent("result")["operation"], "preset " + operation);
        EXPECT_EQ(getEvent("result")["preset"], 7);
    }
}

TEST_F(PtzCommand, fillsATourStopByStop)
{
    runPtz({"tour", "fill", "--point", "0:3", "1", "--point", "7:0:9"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(told(), (Told{"0: fill tour 1", "0: point 0 3 5", "0: point 7 0 9", "0: tour filled"}));
    EXPECT_EQ(getEvent("result")["code"], 0);
    EXPECT_EQ(getEvent("result")["tour"], 1);
}

TEST_F(PtzCommand, leavesATourPlayingUnlessToldHowLong)
{
    runPtz({"tour", "start", "0"});
    EXPECT_EQ(told(), Told{"0: play tour 0"});
    runPtz({"tour", "start", "1", "--seconds", "0.01"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(told(), (Told{"0: play tour 1", "0: stop tour"}));
    runPtz({"tour", "stop", "1"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(told(), (Told{"0: play tour 1", "0: stop tour"})) << "which the module has to have started itself";
}

TEST_F(PtzCommand, stopsATourWhenItIsInterrupted)
{
    ChildProcess& host = start(commandLine({"tour", "start", "0", "--seconds", "0"}, "camera"));
    host.awaitErrors("play tour 0");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_THAT(host.errors(), HasSubstr("stop tour"));
    EXPECT_EQ(getEvent("result")["code"], 0);
}

TEST_F(PtzCommand, failsWithTheResultOfTheModule)
{
    const struct {
        std::vector<std::string> words;
        const char* device;
        int code;
    } cases[] = {
        {{"preset", "set", "8"}, "camera", 6},
        {{"preset", "goto", "8"}, "camera", 6},
        {{"preset", "set", "1"}, "dark", 258},
        {{"tour", "start", "2"}, "camera", 6},
        {{"tour", "start", "2", "--seconds", "5"}, "camera", 6},
        {{"tour", "stop", "2"}, "camera", 6},
        {{"tour", "fill", "2", "--point", "0:1"}, "camera", 6},
        {{"absolute", "--pan", "1"}, "dark", 258},
        {{"area", "0", "0", "1", "1"}, "dark", 258},
        {{"point", "0", "0"}, "dark", 258},
    };
    for (const auto& c : cases) {
        runPtz(c.words, c.device);
        SCOPED_TRACE(errors);
        EXPECT_EQ(status, 4);
        EXPECT_EQ(getEvent("result")["code"], c.code);
        EXPECT_EQ(getEvent("failure")["code"], c.code);
    }
    runPtz({"position"}, "dark");
    EXPECT_EQ(status, 4);
    EXPECT_EQ(getEvent("failure")["code"], 258);
}

TEST_F(PtzCommand, sendsNothingWhenASpeedIsBeyondTheModel)
{
    const struct {
        std::vector<std::string> words;
        const char* reason;
    } cases[] = {
        {{"move", "101", "0"}, "the speed 101 is beyond the model's limit: panSpeed is 100"},
        {{"move", "0", "-101"}, "the speed -101 is beyond the model's limit: tiltSpeed is 100"},
        {{"zoom", "-2147483648"}, "the speed -2147483648 is beyond the model's limit: zoomSpeed is 100"},
        {{"focus", "101"}, "focusSpeed is 100"},
        {{"iris", "-101"}, "focusSpeed is 100"},
    };
    for (const auto& c : cases) {
        const ChildProcess& host = runPtz(c.words);
        SCOPED_TRACE(errors);
        EXPECT_EQ(status, 2);
        EXPECT_THAT(errors, HasSubstr(c.reason));
        EXPECT_EQ(host.output(), "");
        EXPECT_EQ(told(), Told{}) << "not even a stop";
    }
}

TEST_F(PtzCommand, claimsNoMoreThanIsKnown)
{
    const struct {
        std::vector<std::string> words;
        const char* sentence;
    } cases[] = {
        {{"move", "1", "0", "--seconds", "0.01"}, "move: accepted, and the stop too\n"},
        {{"stop"}, "stop: accepted\n"},
        {{"preset", "set", "7"}, "preset 7: storing accepted\n"},
        {{"preset", "goto", "7"}, "preset 7: movement accepted\n"},
        {{"preset", "remove", "7"}, "preset 7: removal accepted\n"},
        {{"point", "0", "0"}, "movement accepted\n"},
        {{"tour", "start", "1"}, "tour 1: start accepted\n"},
        {{"tour", "stop", "1"}, "tour 1: stop accepted\n"},
        {{"tour", "fill", "1", "--point", "0:3"}, "tour 1 has 1 stop\n"},
        {{"tour", "fill", "1", "--point", "0:3", "--point", "1:3"}, "tour 1 has 2 stops\n"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words{"--device", "camera", "ptz"};
        words.insert(words.end(), c.words.begin(), c.words.end());
        EXPECT_EQ(run(words).output(), c.sentence);
        EXPECT_EQ(status, 0);
    }
}

TEST_F(PtzCommand, warnsOfModelParametersThatItDoesNotKnow)
{
    const auto file = directory / "model.json";
    std::ofstream(file) << R"({"panSped": 5})";
    runPtz({"stop", "--model", file.string()});
    EXPECT_EQ(status, 0);
    EXPECT_THAT(errors, HasSubstr("model.json: \"panSped\" is no parameter that this host knows"));
    std::ofstream(file) << R"({"panSpeed": "5"})";
    runPtz({"stop", "--model", file.string()});
    EXPECT_EQ(status, 2);
    EXPECT_THAT(errors, HasSubstr("model.json: \"panSpeed\": must be a whole number"));
}

TEST_F(PtzCommand, saysWhatTheModuleDoesNotOffer)
{
    const struct {
        std::vector<std::string> words;
        const char* device;
        const char* reason;
    } cases[] = {
        {{"stop"}, "mute", "no pan, tilt and zoom"},
        {{"position"}, "voiceless", "no absolute positions"},
        {{"absolute", "--pan", "1"}, "voiceless", "no absolute positions"},
        {{"area", "0", "0", "1", "1"}, "voiceless", "no movement by pointing"},
        {{"preset", "set", "1"}, "voiceless", "no presets and tours"},
        {{"tour", "fill", "0", "--point", "0:1"}, "voiceless", "no presets and tours"},
    };
    for (const auto& c : cases) {
        runPtz(c.words, c.device);
        EXPECT_EQ(status, 4);
        EXPECT_THAT(errors, HasSubstr(c.reason));
        EXPECT_EQ(getEvent("failure")["code"], 8);
    }
    runPtz({"stop", "--channel", "2"});
    EXPECT_EQ(status, 4);
    EXPECT_EQ(getEvent("failure")["code"], 7);
}

TEST_F(PtzCommand, refusesACommandLineThatItCannotUse)
{
    const struct {
        std::vector<std::string> words;
        const char* reason;
    } cases[] = {
        {{}, "name one of these behind ptz: move, zoom, focus, iris, stop, position, absolute, area, point, preset"},
        {{"dance"}, "dance"},
        {{"move"}, "PAN"},
        {{"move", "3"}, "TILT"},
        {{"move", "fast", "0"}, "PAN"},
        {{"move", "1.5", "0"}, "PAN"},
        {{"move", "3", "0", "stop"}, "stop"},
        {{"zoom"}, "SPEED"},
        {{"zoom", "1", "--seconds", "-1"}, "--seconds"},
        {{"zoom", "1", "--seconds", "nan"}, "--seconds"},
        {{"absolute"}, "at least one of --pan, --tilt and --zoom"},
        {{"absolute", "--pan", "nan"}, "--pan"},
        {{"absolute", "--pan", "361"}, "--pan"},
        {{"absolute", "--tilt", "1e300"}, "--tilt"},
        {{"absolute", "--zoom", "-1"}, "--zoom"},
        {{"absolute", "--zoom", "2", "--speed", "-1"}, "\"-1\" is no whole number from 0 to 9"},
        {{"absolute", "--zoom", "2", "--speed", "10"}, "\"10\" is no whole number from 0 to 9"},
        {{"area", "0", "0", "1"}, "H"},
        {{"area", "0", "0", "-1", "1"}, "W"},
        {{"area", "inf", "0", "1", "1"}, "X"},
        {{"point", "0.5"}, "Y"},
        {{"point", "0.5", "1.01"}, "Y"},
        {{"preset"}, "name one of these behind preset: set, goto, remove"},
        {{"preset", "set"}, "N"},
        {{"preset", "set", "-1"}, "N: \"-1\" is no whole number from 0 to 4294967295"},
        {{"preset", "goto", "4294967296"}, "is no whole number from 0 to 4294967295"},
        {{"tour", "start", "-1"}, "INDEX: \"-1\" is no whole number"},
        {{"zoom", "2147483648"}, "SPEED: \"2147483648\" is no whole number from -2147483648 to 2147483647"},
        {{"stop", "--channel", "-1"}, "--channel: \"-1\" is no whole number"},
        {{"tour"}, "name one of these behind tour: start, stop, fill"},
        {{"tour", "start"}, "INDEX"},
        {{"tour", "fill", "0"}, "--point"},
        {{"tour", "fill", "0", "--point", "1"}, "PRESET:SECONDS"},
        {{"tour", "fill", "0", "--point", "1:"}, "PRESET:SECONDS"},
        {{"tour", "fill", "0", "--point", "1:2:"}, "PRESET:SECONDS"},
        {{"tour", "fill", "0", "--point", "1:2:3:4"}, "PRESET:SECONDS"},
        {{"tour", "fill", "0", "--point", "-1:2"}, "PRESET:SECONDS"},
        {{"tour", "fill", "0", "--point", "1:2:10"}, "speed of 0 to 9"},
        {{"tour", "fill", "0", "--point", "1:99999999999"}, "PRESET:SECONDS"},
    };
    for (const auto& c : cases) {
        const ChildProcess& host = runPtz(c.words);
        SCOPED_TRACE(testing::PrintToString(c.words) + errors);
        EXPECT_EQ(status, 2);
        EXPECT_THAT(errors, HasSubstr(c.reason));
        EXPECT_EQ(host.output(), "");
        EXPECT_EQ(told(), Told{});
    }
}
}  // namespace
}  // namespace Host

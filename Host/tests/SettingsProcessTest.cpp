#include "HostFixture.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::UnorderedElementsAre;

/// Runs `settings set` and looks at what reached the module, which writes it into the log.
class SettingsCommand : public testing::Test, protected HostFixture {
protected:
    static std::vector<std::string> commandLine(const std::vector<std::string>& words, const std::string& device)
    {
        std::vector<std::string> all{"--json",     "--log-level", "info",     "--device", device,
                                     "--channels", "2",           "settings", "set"};
        all.insert(all.end(), words.begin(), words.end());
        return all;
    }

    const ChildProcess& set(const std::vector<std::string>& words, const std::string& device = "camera")
    {
        const ChildProcess& host = run(commandLine(words, device));
        errors = host.errors();
        return host;
    }

    /// What the module was told, in order.
    std::vector<std::string> told() const
    {
        constexpr std::string_view mark = "Sample::Settings: ";
        std::vector<std::string> all;
        for (std::size_t at = errors.find(mark); at != errors.npos; at = errors.find(mark, at + 1)) {
            const std::size_t begin = at + mark.size();
            all.push_back(errors.substr(begin, errors.find('\n', begin) - begin));
        }
        return all;
    }

    /// "resource code" of each event, in order.
    std::vector<std::string> results() const
    {
        std::vector<std::string> all;
        for (const Json::Value& event : getEvents())
            if (event["event"] == "result")
                all.push_back(event["resource"].asString() + ' ' + event["code"].asString());
        return all;
    }

    Json::Value result(const std::string& resource) const
    {
        const auto events = getEvents();
        const auto found =
            std::ranges::find_if(events, [&](const Json::Value& event) { return event["resource"] == resource; });
        return found == events.end() ? Json::Value() : *found;
    }

    std::string errors;  ///< of the last run of `set`
};

using Told = std::vector<std::string>;

TEST_F(SettingsCommand, givesEachValueItsTypeAndEachSourceItsOwn)
{
    set({"codec=H.265", "fps=15", "brightness=130", "volume=80", "noiseReduce=1"});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_THAT(told(), UnorderedElementsAre(
                            "channel 0 stream 0: codec = text H.265", "channel 0 stream 0: fps = integer 15",
                            "channel 0 stream 0: brightness = integer 130", "channel 0 sound: volume = integer 80",
                            "channel 0 sound: noiseReduce = integer 1"));
}

TEST_F(SettingsCommand, tellsProgramsOfEachResourceAndAtTheEndOfAll)
{
    set({"codec=H.265", "fps=15", "volume=80"});
    EXPECT_EQ(status, 0);
    const auto all = results();
    EXPECT_THAT(all, UnorderedElementsAre("stream 0", "exposure 0", "imageEnhance 0", "audioInput 0", "all 0"));
    EXPECT_EQ(all.back(), "all 0");
    EXPECT_EQ(result("stream")["keys"].size(), 2U);
    EXPECT_EQ(result("stream")["keys"][0], "codec");
    EXPECT_EQ(result("exposure")["keys"].size(), 0U);
}

TEST_F(SettingsCommand, tellsPeopleWhatBecameOfEachResource)
{
    const ChildProcess& host = run({"--device", "camera", "settings", "set", "contrast=1", "brightness=2"});
    EXPECT_EQ(status, 0) << host.errors();
    EXPECT_EQ(host.output(),
              "stream: left as it is\nexposure: left as it is\nimageEnhance: brightness, contrast applied\n");
    EXPECT_EQ(host.errors(), "");
}

TEST_F(SettingsCommand, reachesTheChannelAndStreamThatAreNamed)
{
    set({"codec=MJPEG", "--channel", "1", "--stream", "2", "volume=3"});
    EXPECT_EQ(status, 0) << errors;
    EXPECT_THAT(told(), ElementsAre("channel 1 stream 2: codec = text MJPEG", "channel 1 sound: volume = integer 3"));
}

TEST_F(SettingsCommand, sendsAnotherTypeWhenTold)
{
    set({"fps:text=15"});
    EXPECT_THAT(told(), ElementsAre("channel 0 stream 0: fps = text 15"));
    EXPECT_EQ(status, 4) << "this module wants an integer";
    EXPECT_EQ(result("stream")["code"], 3);
    EXPECT_EQ(result("all")["code"], 3);
    EXPECT_EQ(getEvent("failure")["code"], 3);
    EXPECT_THAT(errors,
                HasSubstr("not applied: fps: an argument is missing or has the wrong type (result 3); fps takes "
                          "pictures a second (integer)\n"));
}

TEST_F(SettingsCommand, aResourceThatNobodyAskedForIsNoFailure)
{
    set({"brightness=1"}, "barred");
    EXPECT_EQ(status, 0) << errors;
    EXPECT_EQ(result("exposure")["code"], 514);
    EXPECT_EQ(result("all")["code"], 0);
    EXPECT_THAT(errors, HasSubstr("remark: exposure cannot be read, but nothing was to be changed there: the device "
                                  "does not know the resource (result 514)"));
}

TEST_F(SettingsCommand, aResourceThatWasToBeChangedIsOne)
{
    set({"maxGain=9", "brightness=1"}, "barred");
    EXPECT_EQ(status, 4);
    EXPECT_EQ(result("exposure")["code"], 514);
    EXPECT_EQ(result("imageEnhance")["code"], 0);
    EXPECT_EQ(result("all")["code"], 514);
    EXPECT_EQ(getEvent("failure")["code"], 514);
    const ChildProcess& host = run({"--device", "barred", "settings", "set", "maxGain=9", "brightness=1"});
    EXPECT_THAT(host.output(), HasSubstr("exposure: maxGain not applied: the device does not know the resource"));
    EXPECT_THAT(host.output(), HasSubstr("imageEnhance: brightness applied\n"));
    EXPECT_THAT(host.errors(), HasSubstr("not applied: maxGain: the device does not know the resource (result 514)"));
}

TEST_F(SettingsCommand, namesWhatTheDeviceIsNotAskedFor)
{
    set({"codec=MJPEG", "minGain=3", "brightness=1"}, "recorder");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(results(), ElementsAre("imageEnhance 0", "all 8"));
    EXPECT_EQ(getEvent("failure")["message"], "not applied: codec, minGain: not supported (result 8)");
}

TEST_F(SettingsCommand, endsByWhatWasAskedForWhenTheDeviceOwesMore)
{
    set({"brightness=1", "--timeout", "2"}, "tardy");
    EXPECT_EQ(status, 0) << errors;
    EXPECT_THAT(results(), ElementsAre("stream 0", "imageEnhance 0", "all 0"));
    EXPECT_THAT(errors, HasSubstr("remark: no answer in time for captureMode, exposure, "));
    EXPECT_THAT(errors, HasSubstr(", but nothing was to be changed there"));
    EXPECT_THAT(errors, Not(HasSubstr("audioInput")));
}

TEST_F(SettingsCommand, aRefusalIsOneAlsoWhenTheDeviceOwesMore)
{
    set({"brightness:text=1", "--timeout", "2"}, "tardy");
    EXPECT_EQ(status, 4);
    EXPECT_EQ(result("all")["code"], 3);
    EXPECT_THAT(getEvent("failure")["message"].asString(), HasSubstr("not applied: brightness: "));
}

TEST_F(SettingsCommand, anAnswerThatIsOwedForSomethingAskedForIsAFailure)
{
    set({"brightness=1", "maxGain=2", "--timeout", "2"}, "tardy");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(results(), ElementsAre("stream 0", "imageEnhance 0"));
    EXPECT_THAT(errors, HasSubstr("the device did not answer in time; no answer for exposure; allow more"));
}

TEST_F(SettingsCommand, failsWhenTheModuleTakesNoSettings)
{
    set({"codec=MJPEG"}, "mute");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(results(), ElementsAre("all 8"));
    EXPECT_THAT(errors, HasSubstr("not applied: codec: not supported (result 8)"));
    EXPECT_EQ(getEvent("failure")["code"], 8);
    set({"volume=1"}, "mute");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(errors, HasSubstr("the sound of channel 0 has no settings: not supported (result 8)"));
    set({"codec=MJPEG", "--channel", "2"});
    EXPECT_EQ(status, 4);
    EXPECT_EQ(getEvent("failure")["code"], 7);
}

TEST_F(SettingsCommand, doesNotWaitForEver)
{
    set({"codec=MJPEG", "--timeout", "0.1"}, "dark");
    EXPECT_EQ(status, 4);
    EXPECT_THAT(errors, HasSubstr("the device did not answer in time; no answer for stream; allow more"));
    EXPECT_THAT(results(), ElementsAre());
}

TEST_F(SettingsCommand, stopsWhenItIsInterrupted)
{
    ChildProcess& host = start(commandLine({"codec=MJPEG"}, "dark"));
    host.awaitErrors("codec = text MJPEG");
    host.signal(SIGINT);
    EXPECT_EQ(host.awaitEnd(), 130);
    EXPECT_THAT(host.errors(), HasSubstr("interrupted; the device may have taken settings all the same"));
}

TEST_F(SettingsCommand, refusesACommandLineThatItCannotUse)
{
    const struct {
        std::vector<std::string> words;
        const char* reason;
    } cases[] = {
        {{}, "SETTINGS"},
        {{"brightness"}, "\"brightness\" is no KEY=VALUE"},
        {{"brigthness=1"}, "did you mean brightness?"},
        {{"brightness=bright"}, "brightness takes a whole number"},
        {{"brightness=1", "brightness=2"}, "brightness is given twice"},
        {{"volume=90", "encoding=G.711"}, "encoding is no setting of the device"},
        {{"micMode=1"}, "micMode needs micNumber"},
        {{"brightness=1", "--stream", "16"}, "--stream"},
        {{"brightness=1", "--channel", "-1"}, "--channel"},
        {{"brightness=1", "--loud"}, "--loud"},
    };
    for (const auto& c : cases) {
        const ChildProcess& host = set(c.words);
        SCOPED_TRACE(testing::PrintToString(c.words) + errors);
        EXPECT_EQ(status, 2);
        EXPECT_THAT(errors, HasSubstr(c.reason));
        EXPECT_EQ(host.output(), "");
        EXPECT_EQ(told(), Told{});
    }
    EXPECT_THAT(run({"--device", "camera", "settings"}).errors(),
                HasSubstr("name one of these behind settings: set, list"));
    EXPECT_EQ(status, 2);
}

TEST_F(SettingsCommand, listsWhatCanBeSetWithoutADevice)
{
    const ChildProcess& host = run({"settings", "list"});
    EXPECT_EQ(status, 0) << host.errors();
    EXPECT_THAT(host.output(),
                HasSubstr("stream:\n  codec                       How pictures are compressed [text: H.264, "
                          "H.265 or MJPEG]\n"));
    EXPECT_THAT(host.output(), HasSubstr("\n\naudioInput:\n"));
    run({"--json", "settings", "list"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(getEvents().size(), 53U);
    const Json::Value last = getEvent("setting");
    EXPECT_EQ(last["key"], "micMode");
    EXPECT_EQ(last["source"], "audio");
    EXPECT_EQ(last["resource"], "audioInput");
    EXPECT_EQ(last["type"], "integer");
}
}  // namespace
}  // namespace Host

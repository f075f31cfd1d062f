#include "SettingKeys.h"

#include "ExitStatus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

namespace Host
{
namespace
{
using testing::ElementsAre;
using testing::HasSubstr;

template <typename Value>
Value valueOf(const Tavro8::ParameterMap& parameters, const char* key)
{
    return boost::any_cast<Value>(parameters.at(key));
}

/// The sentence with which `assignments` are refused.
template <typename Read>
std::string refusal(const std::vector<std::string>& assignments, Read&& read)
{
    try {
        read(assignments);
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.getStatus(), ExitStatus::usage);
        return failure.what();
    }
    return "taken";
}

std::string refusal(const std::vector<std::string>& assignments)
{
    return refusal(assignments, readSettings);
}

TEST(SettingKeys, explainsEachKeyOnce)
{
    std::set<std::string> names;
    for (const SettingKey& key : settingKeys()) {
        SCOPED_TRACE(key.name);
        EXPECT_TRUE(names.insert(key.name).second);
        EXPECT_EQ(findSettingKey(key.name), &key);
        EXPECT_TRUE(key.type == std::string("text") || key.type == std::string("integer"));
        EXPECT_STRNE(key.values, "");
        EXPECT_STRNE(key.meaning, "");
    }
    EXPECT_EQ(names.size(), 53U);
}

TEST(SettingKeys, keepsTheKeysOfAResourceTogether)
{
    std::vector<std::string> resources;
    for (const SettingKey& key : settingKeys())
        if (resources.empty() || resources.back() != key.resource)
            resources.emplace_back(key.resource);
    EXPECT_THAT(resources, ElementsAre("stream", "captureMode", "exposure", "illumination", "whiteBalance", "defog",
                                       "ldc", "imageEnhance", "audioInput"));
}

TEST(SettingKeys, namesAreMatchedExactly)
{
    EXPECT_NE(findSettingKey("LDC"), nullptr);
    EXPECT_EQ(findSettingKey("ldc"), nullptr);
    EXPECT_EQ(findSettingKey(""), nullptr);
}

TEST(SettingKeys, valuesHaveTheTypeOfTheirKey)
{
    const WantedSettings wanted = readSettings(
        {"codec=H.265", "resolution=1920x1080", "fps=25", "exposureCompensation=-3", "volume=90", "noiseReduce=1"});
    EXPECT_EQ(valueOf<std::string>(wanted.video, "codec"), "H.265");
    EXPECT_EQ(valueOf<std::string>(wanted.video, "resolution"), "1920x1080");
    EXPECT_EQ(valueOf<int>(wanted.video, "fps"), 25);
    EXPECT_EQ(valueOf<int>(wanted.video, "exposureCompensation"), -3);
    EXPECT_EQ(wanted.video.size(), 4U);
    EXPECT_EQ(valueOf<int>(wanted.audio, "volume"), 90);
    EXPECT_EQ(valueOf<int>(wanted.audio, "noiseReduce"), 1);
    EXPECT_EQ(wanted.audio.size(), 2U);
}

TEST(SettingKeys, typeCanBeForced)
{
    const WantedSettings wanted =
        readSettings({"bitRate:text=4096", "slowShutterEnable:flag=true", "AntiFlicker:text=", "codec:integer=2",
                      "brightness:fraction=0.5", "captureMode:text=a=b"});
    EXPECT_EQ(valueOf<std::string>(wanted.video, "bitRate"), "4096");
    EXPECT_TRUE(valueOf<bool>(wanted.video, "slowShutterEnable"));
    EXPECT_EQ(valueOf<std::string>(wanted.video, "AntiFlicker"), "");
    EXPECT_EQ(valueOf<int>(wanted.video, "codec"), 2);
    EXPECT_EQ(valueOf<double>(wanted.video, "brightness"), 0.5);
    EXPECT_EQ(valueOf<std::string>(wanted.video, "captureMode"), "a=b");
}

TEST(SettingKeys, refusesWhatIsNoAssignment)
{
    const struct {
        std::vector<std::string> assignments;
        const char* sentence;
    } cases[] = {
        {{"brightness"}, "\"brightness\" is no KEY=VALUE"},
        {{"=3"}, "\"=3\" is no KEY=VALUE"},
        {{""}, "is no KEY=VALUE"},
        {{"brightness="}, "brightness has no value"},
        {{"codec="}, "codec has no value"},
        {{"brightness=high"}, "brightness takes a whole number of 32 bits, not \"high\""},
        {{"AntiFlicker=auto"}, "not \"auto\"; AntiFlicker:text=auto sends it as a text"},
        {{"brightness=2.5"}, "brightness takes a whole number"},
        {{"brightness=0x10"}, "brightness takes a whole number"},
        {{"brightness= 5"}, "brightness takes a whole number"},
        {{"bitRate=2147483648"}, "bitRate takes a whole number of 32 bits"},
        {{"codec:integer=H.264"}, "codec takes a whole number of 32 bits, not \"H.264\""},
        {{"slowShutterEnable:flag=on"}, "slowShutterEnable takes true or false, not \"on\""},
        {{"brightness:fraction=1,5"}, "brightness takes a decimal number"},
        {{"brightness:real=1"}, "\"real\" is no type; write brightness:text, :integer, :flag or :fraction"},
        {{"brightness=1", "contrast=2", "brightness=1"}, "brightness is given twice"},
        {{"volume=90", "encoding=G.711"},
         "encoding is no setting of the device: it chooses the sound that is received, with "
         "`kelvo-host live --audio --sound encoding=...`"},
        {{"algorithm=u-law"}, "algorithm is no setting of the device"},
        {{"samplerate:text=8000"}, "samplerate is no setting of the device"},
        {{"volume=90", "micMode=1"}, "micMode needs micNumber"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.assignments));
        EXPECT_THAT(refusal(c.assignments), HasSubstr(c.sentence));
    }
}

TEST(SettingKeys, chooseTheSoundThatIsReceived)
{
    const auto choice = readSoundChoice({"encoding=G.711", "algorithm=A-law", "samplerate=8000"});
    EXPECT_EQ(valueOf<std::string>(choice, "encoding"), "G.711");
    EXPECT_EQ(valueOf<std::string>(choice, "algorithm"), "A-law");
    EXPECT_EQ(valueOf<int>(choice, "samplerate"), 8000);
    EXPECT_TRUE(readSoundChoice({}).empty());
    const struct {
        std::vector<std::string> assignments;
        const char* sentence;
    } cases[] = {
        {{"encoding"}, "\"encoding\" is no KEY=VALUE"},
        {{"encoding=AAC"}, "encoding takes G.711 or u-law, not \"AAC\"; without it comes what the device offers"},
        {{"encoding="}, "encoding takes G.711 or u-law"},
        {{"encoding=G.711", "algorithm=mu"}, "algorithm takes u-law or A-law, not \"mu\""},
        {{"algorithm=A-law"}, "algorithm needs encoding=G.711"},
        {{"encoding=u-law", "algorithm=A-law"}, "algorithm needs encoding=G.711"},
        {{"samplerate=8k"}, "samplerate takes a whole number of samples a second, not \"8k\""},
        {{"samplerate=0"}, "samplerate takes a whole number of samples a second, not \"0\""},
        {{"encoding=G.711", "encoding=G.711"}, "encoding is given twice"},
        {{"volume=3"}, "there is no choice \"volume\" of sound"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.sentence);
        EXPECT_THAT(refusal(c.assignments, readSoundChoice), HasSubstr(c.sentence));
    }
}

TEST(SettingKeys, aMicrophoneMayBeChosenWithAndWithoutItsMode)
{
    EXPECT_EQ(readSettings({"micMode=3", "micNumber=2"}).audio.size(), 2U);
    EXPECT_EQ(readSettings({"micNumber=2"}).audio.size(), 1U);
}

TEST(SettingKeys, guessesWhatAnUnknownKeyMeans)
{
    const struct {
        const char* word;
        std::vector<std::string> similar;
    } cases[] = {
        {"brigthness", {"brightness"}},
        {"Brightness", {"brightness", "RefBrightness"}},
        {"ldc", {"LDC", "ldcLevel"}},
        {"frameRate", {}},
        {"bitrate", {"bitRate", "bitrateControl"}},
        {"gain", {"minGain", "maxGain", "redGain"}},
        {"x", {}},
        {"", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.word);
        EXPECT_EQ(similarSettingKeys(c.word), c.similar);
    }
    EXPECT_THAT(refusal({"brigthness=1"}), HasSubstr("there is no setting \"brigthness\"; did you mean brightness?"));
    EXPECT_THAT(refusal({"ldc=1"}), HasSubstr("did you mean LDC or ldcLevel?"));
    EXPECT_THAT(refusal({"dance=1"}), HasSubstr("there is no setting \"dance\"; `kelvo-host settings list` tells"));
}

TEST(SettingKeys, tellsWhichResourcesAreConcerned)
{
    const WantedSettings wanted = readSettings({"volume=1", "sharpness=2", "codec=MJPEG", "brightness=3"});
    EXPECT_THAT(wanted.resources(), ElementsAre("stream", "imageEnhance", "audioInput"));
    EXPECT_THAT(wanted.keysOf("imageEnhance"), ElementsAre("brightness", "sharpness"));
    EXPECT_THAT(wanted.keysOf("audioInput"), ElementsAre("volume"));
    EXPECT_TRUE(wanted.keysOf("defog").empty());
    EXPECT_TRUE(wanted.keysOf("all").empty());
    EXPECT_EQ(wanted.resourcesOfSources().size(), 9U);
    EXPECT_THAT(readSettings({"volume=1"}).resourcesOfSources(), ElementsAre("audioInput"));
    EXPECT_EQ(readSettings({"codec=MJPEG"}).resourcesOfSources().size(), 8U);
}
}  // namespace
}  // namespace Host

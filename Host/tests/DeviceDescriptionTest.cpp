#include "DeviceDescription.h"

#include "ExitStatus.h"
#include "TemporaryDirectory.h"

#include <Tavro8/ILogger.h>

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Host
{
namespace
{
using Tavro8::ParameterMap;
using Tavro8::TextMap;
using testing::HasSubstr;

class DeviceDescriptionFromFile : public testing::Test {
protected:
    std::filesystem::path modelFile(const std::string& text)
    {
        std::ofstream(directory / "model.json") << text;
        return directory / "model.json";
    }

    std::string refusal(const std::string& text)
    {
        try {
            DeviceDescription(2).readModel(modelFile(text));
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.getStatus(), ExitStatus::usage);
            return failure.what();
        }
        return "taken";
    }

    TemporaryDirectory directory;
};

template <typename Value>
Value valueOf(const ParameterMap& parameters, const std::string& name)
{
    return boost::any_cast<Value>(parameters.at(name));
}

TEST(DeviceDescription, allowsEverythingWithoutAModelFile)
{
    const DeviceDescription description(2);
    EXPECT_EQ(description.GetVideoChannelCount(), 2U);
    for (const std::uint32_t channel : {0U, 1U}) {
        const ParameterMap& parameters = description.GetChannelModelParameters(channel);
        EXPECT_EQ(valueOf<int>(parameters, "presetCount"), 255);
        EXPECT_GT(valueOf<int>(parameters, "rayCount"), 0);
        for (const char* limit : {"panSpeed", "tiltSpeed", "zoomSpeed", "focusSpeed", "irisSpeed"})
            EXPECT_GT(valueOf<int>(parameters, limit), 0) << limit;
        for (const char* flag : {"supportsAreaZoom", "supportsPointMove", "supportsDirectMove", "supportsDirectZoom",
                                 "supportsPresetTour"})
            EXPECT_TRUE(valueOf<bool>(parameters, flag)) << flag;
        EXPECT_TRUE(valueOf<TextMap>(parameters, "maxFpsForCodec").empty());
    }
}

TEST(DeviceDescription, knowsNothingOfAChannelThatIsNotConfigured)
{
    EXPECT_TRUE(DeviceDescription(1).GetChannelModelParameters(1).empty());
}

TEST(DeviceDescription, offersItsContract)
{
    DeviceDescription description(1);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IDeviceDescription>(&description), &description);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::ILogger>(&description), nullptr);
}

TEST(DeviceDescription, takesPropertiesAsTexts)
{
    DeviceDescription description(1);
    description.setProperty("localServerPort=32001");
    description.setProperty("note=a=b");
    description.setProperty("empty=");
    EXPECT_EQ(valueOf<std::string>(description.GetProperties(), "localServerPort"), "32001");
    EXPECT_EQ(valueOf<std::string>(description.GetProperties(), "note"), "a=b");
    EXPECT_EQ(valueOf<std::string>(description.GetProperties(), "empty"), "");
    EXPECT_THROW(description.setProperty("localServerPort"), Failure);
    EXPECT_THROW(description.setProperty("=32001"), Failure);
}

TEST_F(DeviceDescriptionFromFile, laysTheFileOverTheDefaults)
{
    DeviceDescription description(2);
    description.readModel(modelFile(
        R"({"presetCount": 8, "trackLog": true, "factor": 1.5, "brand": "x", "maxFpsForCodec": {"H.264": "25", "H.265": 20},
            "channels": [{}, {"presetCount": 4}]})"));
    const ParameterMap& first = description.GetChannelModelParameters(0);
    EXPECT_EQ(valueOf<int>(first, "presetCount"), 8);
    EXPECT_EQ(valueOf<double>(first, "factor"), 1.5);
    EXPECT_EQ(valueOf<std::string>(first, "brand"), "x");
    EXPECT_EQ(valueOf<TextMap>(first, "maxFpsForCodec"), (TextMap{{"H.264", "25"}, {"H.265", "20"}}));
    EXPECT_GT(valueOf<int>(first, "rayCount"), 0);
    EXPECT_EQ(valueOf<int>(description.GetChannelModelParameters(1), "presetCount"), 4);
    EXPECT_TRUE(valueOf<bool>(description.GetModelParameters(), "trackLog"));
    EXPECT_EQ(description.GetModelParameters().count("channels"), 0U);
}

TEST_F(DeviceDescriptionFromFile, warnsOncePerPlaceOfWhatItDoesNotKnowAndPassesItOn)
{
    DeviceDescription description(2);
    EXPECT_TRUE(description.getWarnings().empty());
    const auto file = modelFile(R"({"panSped": 5, "trackLog": true, "channelNumbering": 0, "zoomSpeed": 3,
                                    "channels": [{}, {"brand": "x"}]})");
    description.readModel(file);
    const std::string place = "model file " + file.string() + ": ";
    EXPECT_EQ(description.getWarnings(),
              (std::vector<std::string>{place + "\"panSped\" is no parameter that this host knows",
                                        place + "channel 1: \"brand\" is no parameter that this host knows"}));
    EXPECT_EQ(valueOf<int>(description.GetChannelModelParameters(0), "panSped"), 5);
    EXPECT_EQ(valueOf<std::string>(description.GetChannelModelParameters(1), "brand"), "x");
}

TEST_F(DeviceDescriptionFromFile, saysWhatIsWrongWithTheFile)
{
    EXPECT_THAT(refusal("{"), HasSubstr("is no JSON"));
    EXPECT_THAT(refusal(""), HasSubstr("is no JSON"));
    EXPECT_THAT(refusal(std::string(100000, '[')), HasSubstr("is no JSON"));
    EXPECT_THAT(refusal("[]"), HasSubstr("must be a JSON object"));
    EXPECT_THAT(refusal(R"({"presetCount": 99999999999})"), HasSubstr("presetCount"));
    EXPECT_THAT(refusal(R"({"presetCount": [1]})"), HasSubstr("presetCount"));
    EXPECT_THAT(refusal(R"({"maxFpsForCodec": {"H.264": {}}})"), HasSubstr("H.264"));
    EXPECT_THAT(refusal(R"({"channels": {}})"), HasSubstr("array"));
    EXPECT_THAT(refusal(R"({"panSpeed": "9"})"), HasSubstr("\"panSpeed\": must be a whole number"));
    EXPECT_THAT(refusal(R"({"presetCount": 1.5})"), HasSubstr("\"presetCount\": must be a whole number"));
    EXPECT_THAT(refusal(R"({"presetCount": true})"), HasSubstr("\"presetCount\": must be a whole number"));
    EXPECT_THAT(refusal(R"({"presetCount": -1})"), HasSubstr("\"presetCount\": must not be negative"));
    EXPECT_THAT(refusal(R"({"trackLog": 1})"), HasSubstr("\"trackLog\": must be true or false"));
    EXPECT_THAT(refusal(R"({"supportsAreaZoom": "yes"})"), HasSubstr("\"supportsAreaZoom\": must be true or false"));
    EXPECT_THAT(refusal(R"({"maxFpsForCodec": 25})"), HasSubstr("\"maxFpsForCodec\": must be an object"));
    EXPECT_THAT(refusal(R"({"channels": [{}, {}, {"rayCount": "4"}]})"), HasSubstr("channel 2: \"rayCount\": must be"));
    EXPECT_THAT(refusal(R"({"channels": [{}, {}, {"presetCount": null}]})"), HasSubstr("channel 2"));
    EXPECT_EQ(refusal(R"({"presetCount": 3})"), "taken");
}

TEST_F(DeviceDescriptionFromFile, namesAFileThatDoesNotExist)
{
    DeviceDescription description(1);
    try {
        description.readModel(directory / "absent.json");
        FAIL();
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.getStatus(), ExitStatus::usage);
        EXPECT_THAT(failure.what(), HasSubstr("absent.json: cannot be opened"));
    }
}
}  // namespace
}  // namespace Host

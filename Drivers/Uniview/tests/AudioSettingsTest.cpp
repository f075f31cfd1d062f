#include "AudioSettings.h"

#include "Lapi.h"

#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace
{
using namespace Uniview::settings;
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::GDRV::MediaCodec;

constexpr const char* audioInput =
    "{\"IsMute\":0,\"InputGain\":120,\"NoiseReduction\":{\"Enabled\":0,\"Level\":2.5},\"AudioInputNum\":2,"
    "\"AudioInputList\":[{\"ID\":1,\"Enabled\":1,\"Mode\":0,\"Extra\":[1,2.0]},{\"ID\":2,\"Enabled\":0,\"Mode\":1}],"
    "\"Big\":9007199254740993,\"Ratio\":25.4,\"Whole\":1.0,\"Text\":\"K\\u00e4fer\",\"Nothing\":null,\"Flag\":true}";

Json::Value parsed(const std::string& text)
{
    Json::Value document;
    std::string error;
    EXPECT_TRUE(Uniview::lapi::parseJson(text, document, error)) << error;
    return document;
}

/// What is written after `values` were put in; the result when nothing is to be written.
std::string edited(const AudioInputValues& values, const std::string& text = audioInput)
{
    Json::Value data = parsed(text);
    const Edit outcome = editAudioInput(data, values);
    return outcome ? Uniview::lapi::writeJson(data) : std::to_string(outcome.result);
}

/// How the values are refused; 0 when they are not.
template <typename Read>
std::int32_t refusal(Read&& read)
try {
    std::forward<Read>(read)();
    return 0;
} catch (const Refusal& e) {
    return e.getResult();
}

const std::string unchanged = "0";
const std::string noSuchMicrophone = std::to_string(toResult(ResultCode::notFound));
const std::string malformed = std::to_string(toResult(ResultCode::malformedReply));

TEST(AudioInput, onlyTheGivenMembersChange)
{
    const std::string before = Uniview::lapi::writeJson(parsed(audioInput));
    const struct {
        AudioInputValues values;
        std::string from;
        std::string to;
    } cases[] = {
        {{.volume = 77}, "\"InputGain\":120", "\"InputGain\":77"},
        {{.noiseReduce = 1}, "{\"Enabled\":0,\"Level\":2.5}", "{\"Enabled\":1,\"Level\":2.5}"},
        {{.micNumber = 2}, "{\"Enabled\":0,\"ID\":2,\"Mode\":1}", "{\"Enabled\":1,\"ID\":2,\"Mode\":1}"},
        {{.micNumber = 2, .micMode = 3}, "{\"Enabled\":0,\"ID\":2,\"Mode\":1}", "{\"Enabled\":1,\"ID\":2,\"Mode\":3}"},
        {{.micNumber = 1, .micMode = 4}, "\"ID\":1,\"Mode\":0", "\"ID\":1,\"Mode\":4"},
    };
    for (const auto& c : cases) {
        std::string expected = before;
        const auto at = expected.find(c.from);
        ASSERT_NE(at, std::string::npos) << c.from;
        expected.replace(at, c.from.size(), c.to);
        EXPECT_EQ(edited(c.values), expected);
    }
}

TEST(AudioInput, unknownMembersKeepValueAndKindOfNumber)
{
    const std::string text = edited({.volume = 1});
    for (const char* const kept :
         {"\"Big\":9007199254740993", "\"Ratio\":25.4", "\"Whole\":1.0", "\"Extra\":[1,2.0]", "\"Level\":2.5",
          "\"Text\":\"K\xC3\xA4"
          "fer\"",
          "\"Nothing\":null", "\"Flag\":true", "\"AudioInputNum\":2"})
        EXPECT_NE(text.find(kept), std::string::npos) << kept << " in " << text;
}

TEST(AudioInput, whatIsSoAlreadyIsWrittenAllTheSame)
{
    EXPECT_EQ(edited({.volume = 120, .noiseReduce = 0, .micNumber = 1, .micMode = 0}),
              Uniview::lapi::writeJson(parsed(audioInput)));
    EXPECT_EQ(edited({}), unchanged) << "nothing is given";
}

TEST(AudioInput, aModeAloneIsForTheMicrophoneThatWasWrittenBefore)
{
    const auto editedAfter = [](const ParameterMap& written) {
        Json::Value data = parsed(audioInput);
        const Edit outcome = editAudioInput(data, {.volume = 1, .micMode = 9}, written);
        return outcome ? data["AudioInputList"][1]["Mode"].asInt() : -outcome.result;
    };
    EXPECT_EQ(editedAfter({{"micNumber", 2}}), 9);
    EXPECT_EQ(editedAfter({{"micNumber", std::string("2")}}), 9);
    EXPECT_EQ(editedAfter({}), -toResult(ResultCode::invalidArgument));
    EXPECT_EQ(editedAfter({{"micNumber", 2.5}}), -toResult(ResultCode::invalidArgument));
    EXPECT_EQ(editedAfter({{"micNumber", 3}}), -toResult(ResultCode::notFound));
}

TEST(AudioInput, missingMembersAreMade)
{
    EXPECT_EQ(edited({.volume = 5, .noiseReduce = 1}, "{}"), "{\"InputGain\":5,\"NoiseReduction\":{\"Enabled\":1}}");
}

TEST(AudioInput, flagsStayFlags)
{
    EXPECT_EQ(edited({.noiseReduce = 1, .micNumber = 1},
                     "{\"NoiseReduction\":{\"Enabled\":false},\"AudioInputList\":[{\"ID\":1,\"Enabled\":true}]}"),
              "{\"AudioInputList\":[{\"Enabled\":true,\"ID\":1}],\"NoiseReduction\":{\"Enabled\":true}}");
}

TEST(AudioInput, aMicrophoneThatDoesNotExistChangesNothing)
{
    EXPECT_EQ(edited({.volume = 5, .micNumber = 3}), noSuchMicrophone);
    EXPECT_EQ(edited({.micNumber = 1}, "{}"), noSuchMicrophone);
    EXPECT_EQ(edited({.micNumber = 1}, "{\"AudioInputList\":[7,{\"ID\":\"1\"},{}]}"), noSuchMicrophone);
    EXPECT_EQ(edited({.micNumber = 1}, "{\"AudioInputList\":{\"ID\":1}}"), noSuchMicrophone);
}

TEST(AudioInput, dataOfAnotherShapeAreMalformed)
{
    EXPECT_EQ(edited({.volume = 5}, "[1]"), malformed);
    EXPECT_EQ(edited({.noiseReduce = 1}, "{\"NoiseReduction\":1}"), malformed);
}

TEST(AudioInput, valuesMayBeIntegersOrTheirTexts)
{
    const AudioInputValues values = readAudioInput({{"volume", 7}, {"noiseReduce", std::string("1")}, {"other", 2.5}});
    EXPECT_EQ(values.volume, 7);
    EXPECT_EQ(values.noiseReduce, 1);
    EXPECT_FALSE(values.micNumber);
    EXPECT_TRUE(values.any());
    EXPECT_FALSE(readAudioInput({{"encoding", std::string("G.711")}}).any());
    EXPECT_FALSE(readAudioInput({{"volume", boost::any()}}).any()) << "an empty value is none";
    EXPECT_EQ(refusal([] { readAudioInput({{"volume", 2.5}}); }), toResult(ResultCode::invalidArgument));
    EXPECT_EQ(refusal([] {
                  readAudioInput({{"micMode", std::string("loud")}});
              }),
              toResult(ResultCode::invalidArgument));
    EXPECT_EQ(refusal([] {
                  readAudioInput({{"micNumber", std::string("99999999999")}});
              }),
              toResult(ResultCode::outOfRange));
}

TEST(AudioSink, encodingAndAlgorithmNameTheLaw)
{
    const struct {
        ParameterMap given;
        MediaCodec codec;
        std::uint32_t rate;
        MediaCodec other = MediaCodec::unknown;
    } cases[] = {
        {{}, MediaCodec::unknown, 0},
        {{{"encoding", std::string("G.711")}}, MediaCodec::g711U, 0, MediaCodec::g711A},
        {{{"encoding", std::string("u-law")}}, MediaCodec::g711U, 0},
        {{{"encoding", std::string("G.711")}, {"algorithm", std::string("u-law")}}, MediaCodec::g711U, 0},
        {{{"encoding", std::string("G.711")}, {"algorithm", std::string("A-law")}}, MediaCodec::g711A, 0},
        {{{"algorithm", std::string("u-law")}}, MediaCodec::unknown, 0},
        {{{"encoding", std::string("AAC")}, {"algorithm", std::string("u-law")}}, MediaCodec::unknown, 0},
        {{{"samplerate", 8000}}, MediaCodec::unknown, 8000},
        {{{"samplerate", -1}, {"encoding", 3}}, MediaCodec::unknown, 0},
    };
    for (const auto& c : cases) {
        const auto sink = readAudioSink(c.given);
        EXPECT_EQ(sink.expectedCodec, c.codec);
        EXPECT_EQ(sink.sampleRate, c.rate);
        EXPECT_EQ(sink.alternateCodec, c.other);
    }
}

TEST(AudioSink, valuesOfAnotherTypeAreToldApart)
{
    EXPECT_EQ(refusal([] { checkAudioSink({{"encoding", std::string("x")}, {"samplerate", 1}, {"volume", 2.5}}); }), 0);
    for (const ParameterMap& wrong : {ParameterMap{{"encoding", 1}}, ParameterMap{{"algorithm", 1}},
                                      ParameterMap{{"samplerate", std::string("8000")}}})
        EXPECT_EQ(refusal([&] { checkAudioSink(wrong); }), toResult(ResultCode::invalidArgument));
}
}  // namespace

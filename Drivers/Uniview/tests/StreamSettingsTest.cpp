#include "StreamSettings.h"

#include "GroupingLocale.h"
#include "SettingsText.h"

#include <clocale>
#include <gtest/gtest.h>
#include <string>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using Tavro8::ParameterMap;
using Tavro8::TextMap;

using Text = std::string;

/// The newer dialect, as a camera sends it.
constexpr const char* encoding =
    R"({"BitRate":4096,"BitRateType":1,"EncodeFormat":1,"FrameRate":25,"GOPType":0,"IFrameInterval":50,)"
    R"("ImageQuality":5,"Resolution":{"Height":1080,"Width":1920},"SVCMode":0,"SmartEncodeMode":0,"SmoothLevel":5})";
/// The older one.
constexpr const char* olderEncoding =
    R"({"BitRate":4096,"EncMode":1,"EncodeFmt":6,"FrameRate":25,"IInterval":50,"ImageQuality":5,)"
    R"("Resolution":{"Height":1080,"Width":1920},"SmoothLevel":5,"VideoSvcCfg":{"Mode":0,"Type":3}})";

Text stream(int id, const Text& encodeInfo = encoding)
{
    return R"({"Enabled":0,"ID":)" + std::to_string(id) + R"(,"VideoEncodeInfo":)" + encodeInfo + "}";
}
Text streams(const Text& entries)
{
    return R"({"Num":3,"VideoStreamInfos":[)" + entries + "]}";
}
Text camera(const Text& encodeInfo = encoding)
{
    return streams(stream(0, encodeInfo) + ',' + stream(1, encodeInfo) + ',' + stream(2, encodeInfo));
}

Text edit(const ParameterMap& given, const Text& data = camera(), std::uint32_t number = 0, const TextMap& caps = {})
{
    return edited(data, [&](Json::Value& value) { return settings::editStream(value, given, number, caps); });
}

/// The stream's encoding after the edit, or what `edit` says otherwise.
Text encodingAfter(const ParameterMap& given, const Text& before = encoding, const TextMap& caps = {})
{
    const Text after = edit(given, camera(before), 0, caps);
    if (after.front() != '{')
        return after;
    return lapi::writeJson(jsonOf(after)["VideoStreamInfos"][0]["VideoEncodeInfo"]);
}

/// One member of it.
Text memberAfter(const char* member, const ParameterMap& given, const Text& before, const TextMap& caps = {})
{
    const Text after = encodingAfter(given, before, caps);
    return after.front() == '{' ? lapi::writeJson(jsonOf(after)[member]) : after;
}

TEST(StreamSettings, codecIsWrittenInTheDialectOfTheReply)
{
    const struct {
        const char* name;
        const char* encodeFmt;
        const char* encodeFormat;
    } cases[] = {{"H.264", "6", "1"}, {"MJPEG", "3", "0"}, {"H.265", "13", "2"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(memberAfter("EncodeFmt", {{"codec", Text(c.name)}}, R"({"EncodeFmt":0})"), c.encodeFmt);
        EXPECT_EQ(memberAfter("EncodeFormat", {{"codec", Text(c.name)}}, R"({"EncodeFormat":7})"), c.encodeFormat);
        EXPECT_EQ(encodingAfter({{"codec", Text(c.name)}}, "{}"), R"({"EncodeFormat":)" + Text(c.encodeFormat) + "}");
    }
}

TEST(StreamSettings, writesTheSourcesOwnStreamAlone)
{
    EXPECT_EQ(edit({{"bitRate", 512}}, camera(R"({"BitRate":1})"), 1),
              R"({"Num":1,"VideoStreamInfos":[{"Enabled":1,"ID":1,"VideoEncodeInfo":{"BitRate":512}}]})");
    EXPECT_EQ(edit({{"bitRate", 512}}, streams(stream(2, "{}") + ',' + stream(0, "{}") + ',' + stream(1, "{}")), 0),
              R"({"Num":1,"VideoStreamInfos":[{"Enabled":1,"ID":0,"VideoEncodeInfo":{"BitRate":512}}]})")
        << "the number counts, not the position";
}

TEST(StreamSettings, enabledIsSetOnlyWhereItIs)
{
    const Text without = R"({"VideoStreamInfos":[{"ID":0,"VideoEncodeInfo":{}}]})";
    EXPECT_EQ(edit({{"quality", 3}}, without),
              R"({"Num":1,"VideoStreamInfos":[{"ID":0,"VideoEncodeInfo":{"ImageQuality":3}}]})");
}

TEST(StreamSettings, everyValueGoesToItsMember)
{
    const ParameterMap all{{"codec", Text("H.265")}, {"resolution", Text("1280x720")}, {"fps", 12},
                           {"bitRate", 2048},        {"bitrateControl", Text("CBR")},  {"quality", 9},
                           {"smoothing", 1},         {"smartEncodeMode", 2},           {"svcMode", 1},
                           {"keyFrameInterval", 24}};
    EXPECT_EQ(encodingAfter(all),
              R"({"BitRate":2048,"BitRateType":0,"EncodeFormat":2,"FrameRate":12,"GOPType":0,"IFrameInterval":24,)"
              R"("ImageQuality":9,"Resolution":{"Height":720,"Width":1280},"SVCMode":1,"SmartEncodeMode":2,)"
              R"("SmoothLevel":1})");
    EXPECT_EQ(encodingAfter(all, olderEncoding),
              R"({"BitRate":2048,"EncMode":0,"EncodeFmt":13,"FrameRate":12,"IInterval":24,"ImageQuality":9,)"
              R"("Resolution":{"Height":720,"Width":1280},"SmartEncodeMode":2,"SmoothLevel":1,)"
              R"("VideoSvcCfg":{"Mode":1,"Type":3}})");
}

TEST(StreamSettings, numbersMayBeTexts)
{
    const ParameterMap texts{{"fps", Text("12")},
                             {"bitRate", Text(" 2048 ")},
                             {"quality", Text("9")},
                             {"smoothing", Text("1")},
                             {"smartEncodeMode", Text("2")},
                             {"svcMode", Text("+1")},
                             {"keyFrameInterval", Text("24")}};
    EXPECT_EQ(encodingAfter(texts),
              R"({"BitRate":2048,"BitRateType":1,"EncodeFormat":1,"FrameRate":12,"GOPType":0,"IFrameInterval":24,)"
              R"("ImageQuality":9,"Resolution":{"Height":1080,"Width":1920},"SVCMode":1,"SmartEncodeMode":2,)"
              R"("SmoothLevel":1})");
}

TEST(StreamSettings, membersThatOnlyOneDialectHasAreMade)
{
    EXPECT_EQ(encodingAfter({{"svcMode", 1}, {"keyFrameInterval", 25}, {"bitrateControl", Text("VBR")}}, "{}"),
              R"({"BitRateType":1,"IFrameInterval":25,"VideoSvcCfg":{"Mode":1}})");
}

TEST(StreamSettings, everyBitrateControlButConstantIsVariable)
{
    for (const char* const other : {"VBR", "cbr", "", "CBR "})
        EXPECT_EQ(memberAfter("EncMode", {{"bitrateControl", Text(other)}}, R"({"EncMode":0})"), "1") << other;
}

TEST(StreamSettings, withoutAValueNothingIsWritten)
{
    EXPECT_EQ(edit({}), "-");
    EXPECT_EQ(edit({{"brightness", 50}, {"blockConfiguration", true}, {"Codec", Text("H.264")}}), "-");
    EXPECT_EQ(edit({{"fps", boost::any()}}), "-") << "a parameter without a value is not there";
}

TEST(StreamSettings, frameRateIsCappedByTheCodec)
{
    const TextMap caps{{"H.264", "15"}, {"H.265", "any"}};
    const struct {
        const char* codec;  ///< null: what the camera has, H.264
        int wanted;
        const char* written;
    } cases[] = {
        {"H.264", 25, "15"}, {"H.264", 15, "15"}, {"H.264", 5, "5"},
        {"H.265", 60, "60"}, {"MJPEG", 25, "20"},  // not among the caps: as the camera reported it
        {nullptr, 25, "15"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.codec == nullptr ? "present" : c.codec) + ' ' + std::to_string(c.wanted));
        ParameterMap given{{"fps", c.wanted}, {"quality", 1}};
        if (c.codec != nullptr)
            given["codec"] = Text(c.codec);
        EXPECT_EQ(memberAfter("FrameRate", given, R"({"EncodeFormat":1,"FrameRate":20})", caps), c.written);
    }
}

TEST(StreamSettings, missingCodecIsTheCamerasPresentOneInEitherDialect)
{
    const TextMap caps{{"H.264", "10"}, {"H.265", "20"}, {"MJPEG", "5"}};
    const struct {
        const char* present;
        const char* written;
    } cases[] = {
        {R"({"EncodeFormat":0})", "5"}, {R"({"EncodeFormat":1})", "10"}, {R"({"EncodeFormat":2})", "20"},
        {R"({"EncodeFmt":3})", "5"},    {R"({"EncodeFmt":6})", "10"},    {R"({"EncodeFmt":13})", "20"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(memberAfter("FrameRate", {{"fps", 25}}, c.present, caps), c.written) << c.present;
    for (const char* const unknown :
         {R"({"EncodeFormat":9})", R"({"EncodeFormat":"1"})", R"({"EncodeFormat":null})", "{}"})
        EXPECT_EQ(encodingAfter({{"fps", 25}, {"bitRate", 1}}, unknown, caps),
                  encodingAfter({{"bitRate", 1}}, unknown, caps))
            << unknown;
}

TEST(StreamSettings, frameRateAloneThatIsNotWrittenIsNotSupported)
{
    const TextMap caps{{"H.265", "10"}};
    EXPECT_EQ(encodingAfter({{"fps", 25}}, R"({"EncodeFormat":1,"FrameRate":20})", caps),
              "8 fps is left as the device has it: maxFpsForCodec does not know H.264");
    EXPECT_EQ(encodingAfter({{"fps", 25}, {"brightness", 50}}, R"({"EncodeFmt":99})", caps),
              "8 fps is left as the device has it: maxFpsForCodec does not know its codec");
    EXPECT_EQ(encodingAfter({{"fps", 25}, {"quality", 1}}, R"({"EncodeFormat":1})", caps),
              R"({"EncodeFormat":1,"ImageQuality":1})")
        << "the result is that of the rest";
    EXPECT_EQ(encodingAfter({{"quality", 1}}, R"({"EncodeFormat":1})", caps), R"({"EncodeFormat":1,"ImageQuality":1})");
    EXPECT_EQ(encodingAfter({{"fps", 25}}, R"({"EncodeFormat":2})", caps), R"({"EncodeFormat":2,"FrameRate":10})")
        << "capped, it is written";
}

TEST(StreamSettings, withoutCapsEveryFrameRateIsWritten)
{
    EXPECT_EQ(memberAfter("FrameRate", {{"fps", 120}}, R"({"EncodeFormat":9})"), "120");
}

TEST(StreamSettings, capThatIsNoNumberRefusesTheFrameRate)
{
    EXPECT_EQ(encodingAfter({{"fps", 25}}, encoding, {{"H.264", "many"}}),
              "3 invalid stoi argument, parameter:maxFpsForCodec");
    EXPECT_EQ(encodingAfter({{"fps", 25}}, encoding, {{"H.264", "0"}}),
              "6 the value is not positive, parameter:maxFpsForCodec");
    EXPECT_EQ(memberAfter("ImageQuality", {{"quality", 2}}, encoding, {{"H.264", "many"}}), "2") << "not asked for";
}

TEST(StreamSettings, wrongValuesAreRefusedWithTheWordsOfTheConversion)
{
    const Text cast = "3 boost::bad_any_cast: failed conversion using boost::any_cast, parameter:";
    const struct {
        const char* name;
        boost::any value;
        Text refusal;
    } cases[] = {
        {"fps", Text("many"), "3 invalid stoi argument, parameter:fps"},
        {"fps", Text(), "3 invalid stoi argument, parameter:fps"},
        {"bitRate", Text("2147483648"), "6 stoi argument out of range, parameter:bitRate"},
        {"bitRate", Text("-2147483649"), "6 stoi argument out of range, parameter:bitRate"},
        {"quality", 1.5, cast + "quality"},
        {"smoothing", true, cast + "smoothing"},
        {"smartEncodeMode", 1U, cast + "smartEncodeMode"},
        {"svcMode", "1", cast + "svcMode"},
        {"keyFrameInterval", TextMap{}, cast + "keyFrameInterval"},
        {"codec", 1, cast + "codec"},
        {"codec", Text("H.266"), "3 there is no such codec, parameter:codec"},
        {"codec", Text("h.264"), "3 there is no such codec, parameter:codec"},
        {"bitrateControl", 0, cast + "bitrateControl"},
        {"resolution", 1080, cast + "resolution"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ParameterMap given{{c.name, c.value}};
        EXPECT_EQ(edit(given), c.refusal);
        given.insert({{"bitRate", 1}, {"resolution", Text("1x1")}, {"svcMode", 1}});
        EXPECT_EQ(edit(given), c.refusal) << "one wrong value ends the resource";
    }
    EXPECT_EQ(memberAfter("BitRate", {{"bitRate", Text("2147483647")}}, encoding), "2147483647");
    EXPECT_EQ(memberAfter("BitRate", {{"bitRate", Text("-2147483648")}}, encoding), "-2147483648");
}

TEST(StreamSettings, resolutionHasAWidthAndAHeight)
{
    EXPECT_EQ(memberAfter("Resolution", {{"resolution", Text("704x576")}}, encoding), R"({"Height":576,"Width":704})");
    EXPECT_EQ(memberAfter("Resolution", {{"resolution", Text("704x576")}}, R"({"Resolution":{"Width":1,"Scan":"p"}})"),
              R"({"Height":576,"Scan":"p","Width":704})");
    const struct {
        const char* text;
        const char* refusal;
    } cases[] = {
        {"", "3 Can't parse resolution value"},
        {"1920", "3 Can't parse resolution value"},
        {"1920X1080", "3 Can't parse resolution value"},
        {"1920x1080x", "3 Can't parse resolution value"},
        {"1920x", "3 invalid stoi argument, parameter:resolution"},
        {"x1080", "3 invalid stoi argument, parameter:resolution"},
        {"x", "3 invalid stoi argument, parameter:resolution"},
        {"-1920x1080", "6 the value is not positive, parameter:resolution"},
        {"1920x0", "6 the value is not positive, parameter:resolution"},
        {"2147483648x1080", "6 stoi argument out of range, parameter:resolution"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(edit({{"resolution", Text(c.text)}}), c.refusal) << c.text;
}

TEST(StreamSettings, replyWithoutTheStreamIsEmpty)
{
    const Text empty = "768 Streaming settings is empty";
    for (const char* const data : {
             "null",
             "{}",
             "[]",
             "7",
             R"("text")",
             R"({"VideoStreamInfos":null})",
             R"({"VideoStreamInfos":{}})",
             R"({"VideoStreamInfos":[]})",
             R"({"VideoStreamInfos":"x"})",
             R"({"VideoStreamInfos":[{"ID":"0"}]})",
             R"({"VideoStreamInfos":[7,null,[]]})",
             R"({"VideoStreamInfos":[{"ID":-1}]})",
             R"({"VideoStreamInfos":[{"ID":4294967296}]})",
         })
        EXPECT_EQ(edit({{"fps", 25}}, data), empty) << data;
    EXPECT_EQ(edit({{"fps", 25}}, streams(stream(1)), 1), empty) << "nothing is at the position of the stream";
    EXPECT_EQ(edit({{"fps", 25}}, streams(stream(1) + ',' + stream(2)), 2), empty) << "the same beside another";
    EXPECT_EQ(edit({}, "null"), empty) << "said even when nothing was to be written";
}

TEST(StreamSettings, streamThatTheCameraLacksIsNotFound)
{
    const Text missing = "7 Streaming settings is empty";
    EXPECT_EQ(edit({{"fps", 25}}, camera(), 3), missing);
    EXPECT_EQ(edit({{"fps", 25}}, camera(), 4294967295U), missing);
    EXPECT_EQ(edit({{"fps", 25}}, streams(stream(1)), 0), missing) << "another is at its position";
    EXPECT_EQ(edit({{"fps", 25}}, streams(stream(0) + ",7"), 1), missing);
    EXPECT_EQ(edit({}, camera(), 5), missing) << "said even when nothing was to be written";
}

TEST(StreamSettings, encodingOfAnotherShapeIsRefused)
{
    const auto withEncoding = [](const char* text) {
        return R"({"VideoStreamInfos":[{"ID":0,"VideoEncodeInfo":)" + Text(text) + "}]}";
    };
    const Text refusal = R"(769 "VideoEncodeInfo" is not an object)";
    EXPECT_EQ(edit({{"fps", 25}}, R"({"VideoStreamInfos":[{"ID":0}]})"), refusal);
    for (const char* const text : {"null", R"("H.264")", "[]", "1"})
        EXPECT_EQ(edit({{"fps", 25}}, withEncoding(text)), refusal) << text;
    EXPECT_EQ(edit({{"resolution", Text("1x1")}}, withEncoding(R"({"Resolution":"1920x1080"})")),
              R"(769 "Resolution" is not an object)");
    EXPECT_EQ(edit({{"svcMode", 1}}, withEncoding(R"({"VideoSvcCfg":1})")), R"(769 "VideoSvcCfg" is not an object)");
    EXPECT_EQ(edit({{"fps", 25}}, withEncoding(R"({"FrameRate":"25"})")),
              R"({"Num":1,"VideoStreamInfos":[{"ID":0,"VideoEncodeInfo":{"FrameRate":25}}]})")
        << "a member that is replaced may have been anything";
}

TEST(StreamSettings, whatIsNotKnownIsWrittenBackAsItCame)
{
    const Text unknown =
        R"("A":1,"B":1.0,"C":25.4,"D":9223372036854775807,"E":18446744073709551615,"F":-9223372036854775808,"G":true,)"
        R"("H":null,"I":[1,2.5,"x",{}],"J":"Gärten \"1\" \\ \u0001","K":0.000123456789012345,"L":1e+300,"M":-0.0,"N":"",)"
        R"("O":1000000,"P":1234567.5)";
    const Text data =
        R"({"Num":1,"VideoStreamInfos":[{"ID":0,"VideoEncodeInfo":{"BitRate":1}}],"X":{)" + unknown + "}}";
    const Text written =
        R"({"Num":1,"VideoStreamInfos":[{"ID":0,"VideoEncodeInfo":{"BitRate":2}}],"X":{)" + unknown + "}}";
    EXPECT_EQ(edit({{"bitRate", 2}}, data), written);
    {
        const kelvo::test::GroupingLocale host;
        EXPECT_EQ(edit({{"bitRate", 2}}, data), written) << "under a global locale of the host";
        EXPECT_EQ(memberAfter("BitRate", {{"bitRate", Text("32000")}}, encoding), "32000");
    }
    if (const char* const set = std::setlocale(LC_NUMERIC, "de_DE.UTF-8")) {
        EXPECT_EQ(edit({{"bitRate", 2}}, data), written) << "under " << set;
        std::setlocale(LC_NUMERIC, "C");
    }
}

TEST(StreamSettings, frameRateThatIsNotFollowedIsNoted)
{
    const TextMap caps{{"H.264", "15"}, {"H.265", "any"}};
    const struct {
        ParameterMap given;
        const char* encoding;
        const char* note;
    } cases[] = {
        {{{"fps", 25}}, R"({"EncodeFormat":1})", "fps 25 is more than H.264 allows, maxFpsForCodec:15"},
        {{{"fps", 15}}, R"({"EncodeFormat":1})", ""},
        {{{"fps", 25}}, R"({"EncodeFormat":2})", ""},
        {{{"fps", 25}, {"quality", 1}},
         R"({"EncodeFormat":0})",
         "fps is left as the device has it: maxFpsForCodec does not know MJPEG"},
        {{{"fps", 25}, {"quality", 1}},
         R"({"EncodeFormat":77})",
         "fps is left as the device has it: maxFpsForCodec does not know its codec"},
        {{{"fps", 25}, {"bitRate", Text("much")}}, R"({"EncodeFormat":1})", ""},
        {{{"bitRate", 5}}, R"({"EncodeFormat":0})", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.encoding);
        Json::Value data = jsonOf(camera(c.encoding));
        EXPECT_EQ(settings::editStream(data, c.given, 0, caps).note, c.note);
    }
}

TEST(StreamSettings, streamThatIsListedTwiceIsWrittenBackTwice)
{
    EXPECT_EQ(edit({{"bitRate", 5}}, streams(stream(0, "{}") + ',' + stream(1, "{}") + ',' + stream(0, "{}"))),
              R"({"Num":1,"VideoStreamInfos":[{"Enabled":1,"ID":0,"VideoEncodeInfo":{"BitRate":5}},)"
              R"({"Enabled":0,"ID":0,"VideoEncodeInfo":{}}]})");
}

TEST(StreamSettings, tellsWhatCannotBeWrittenWithoutTheDevice)
{
    const struct {
        ParameterMap given;
        bool expected;
    } cases[] = {
        {{}, true},
        {{{"codec", Text("H.265")}, {"resolution", Text("640x360")}, {"fps", 25}}, true},
        {{{"brightness", Text("no value of the stream")}}, true},
        {{{"codec", Text("H265")}}, false},
        {{{"resolution", Text("640")}}, false},
        {{{"codec", Text("H.265")}, {"bitRate", Text("much")}}, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(settings::canBeWritten(c.given, {}), c.expected);
}

TEST(StreamSettings, knowsWhichValuesAreItsOwn)
{
    for (const char* const name : {"codec", "resolution", "fps", "bitRate", "bitrateControl", "quality", "smoothing",
                                   "smartEncodeMode", "svcMode", "keyFrameInterval"})
        EXPECT_TRUE(settings::concernsStream({{name, 1}})) << name;
    for (const char* const name : {"captureMode", "brightness", "Codec", "transport", "blockConfiguration", ""})
        EXPECT_FALSE(settings::concernsStream({{name, 1}})) << name;
    EXPECT_FALSE(settings::concernsStream({}));
}
}  // namespace

#include "SettingsResources.h"

#include "LapiEnvelope.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

namespace simulator
{
namespace
{

constexpr const char* streamsPath = "/LAPI/V1.0/Channel/0/Media/Video/Streams/DetailInfos";
constexpr const char* microphonePath = "/LAPI/V1.0/Media/Audio/Input";

Options optionsFor(Kind kind, Dialect dialect = Dialect::newFirmware)
{
    Options options;
    options.kind = kind;
    options.channels = kind == Kind::camera ? 1 : 2;
    options.dialect = dialect;
    return options;
}

/// The resources without a socket and without media.
class SettingsResourcesTest : public testing::Test {
protected:
    explicit SettingsResourcesTest(const Options& given = optionsFor(Kind::camera))
        : options(given), device(options), settings(options)
    {
        addSettingsResources(router, device, settings,
                             {[this](unsigned, const StreamEncoding& encoding) -> std::optional<std::string> {
                                  if (encoding.codec == refusedCodec)
                                      return "there is no encoder";
                                  return std::nullopt;
                              },
                              [this](unsigned channel, unsigned stream, const StreamEncoding& encoding) {
                                  encoded.push_back({channel, stream, encoding});
                              },
                              [this](unsigned channel, const PictureLook& look) { shown[channel] = look; },
                              [this](unsigned channel, const Microphone& sound) { heard[channel] = sound; }});
    }

    /// An unknown path has status 599, as the service makes it.
    Reply ask(const std::string& method, const std::string& path, const std::string& body = {})
    {
        auto match = router.find(method, path);
        if (match.handler == nullptr)
            return {.status = 599};
        Call call;
        call.method = method;
        call.path = path;
        call.captures = match.captures;
        call.body = body;
        Reply reply = (*match.handler)(call);
        if (reply.afterwards)
            reply.afterwards();
        return reply;
    }

    Json::Value get(const std::string& path) { return ask("GET", path).data; }
    int put(const std::string& path, const Json::Value& body) { return ask("PUT", path, compactPrint(body)).code; }
    int put(const std::string& path, const char* body) { return ask("PUT", path, body).code; }

    /// The reply of the stream resource as a client of `stream` writes it back.
    Json::Value oneStream(unsigned stream)
    {
        Json::Value data = get(streamsPath);
        Json::Value one(Json::arrayValue);
        one.append(data["VideoStreamInfos"][stream]);
        data["VideoStreamInfos"] = one;
        data["Num"] = 1;
        return data;
    }

    struct Encoded {
        unsigned channel;
        unsigned stream;
        StreamEncoding encoding;
    };

    const Options options;
    DeviceState device;
    DeviceSettings settings;
    Router router;
    Codec refusedCodec = Codec::mjpeg;
    std::vector<Encoded> encoded;
    std::map<unsigned, PictureLook> shown;
    std::map<unsigned, Microphone> heard;
};

struct SettingsOfOldFirmware : SettingsResourcesTest {
    SettingsOfOldFirmware() : SettingsResourcesTest(optionsFor(Kind::camera, Dialect::oldFirmware)) {}
};
struct SettingsOfSeveralChannels : SettingsResourcesTest {
    SettingsOfSeveralChannels() : SettingsResourcesTest(optionsFor(Kind::multichannel)) {}
};
struct SettingsOfRecorder : SettingsResourcesTest {
    SettingsOfRecorder() : SettingsResourcesTest(optionsFor(Kind::recorder)) {}
};

TEST_F(SettingsResourcesTest, listsThreeStreamsInTheWordsOfNewFirmware)
{
    const Json::Value expected = *parseJson(R"({
        "Num": 3, "EncoderProfile": "sim-main",
        "VideoStreamInfos": [
            {"ID": 0, "Enabled": 1, "Tag": 9007199254740993, "VideoEncodeInfo": {
                "EncodeFormat": 1, "Resolution": {"Width": 1280, "Height": 720}, "BitRate": 2000, "BitRateType": 0,
                "FrameRate": 25, "GOPType": 0, "IFrameInterval": 25, "ImageQuality": 5, "SmoothLevel": 1,
                "SVCMode": 0, "SmartEncodeMode": 0, "QPFactor": 25.4, "RegionOfInterest": null}},
            {"ID": 1, "Enabled": 1, "Tag": 9007199254740994, "VideoEncodeInfo": {
                "EncodeFormat": 1, "Resolution": {"Width": 640, "Height": 360}, "BitRate": 500, "BitRateType": 0,
                "FrameRate": 25, "GOPType": 0, "IFrameInterval": 25, "ImageQuality": 5, "SmoothLevel": 1,
                "SVCMode": 0, "SmartEncodeMode": 0, "QPFactor": 25.4, "RegionOfInterest": null}},
            {"ID": 2, "Enabled": 0, "Tag": 9007199254740995, "VideoEncodeInfo": {
                "EncodeFormat": 1, "Resolution": {"Width": 352, "Height": 288}, "BitRate": 128, "BitRateType": 0,
                "FrameRate": 25, "GOPType": 0, "IFrameInterval": 25, "ImageQuality": 5, "SmoothLevel": 1,
                "SVCMode": 0, "SmartEncodeMode": 0, "QPFactor": 25.4, "RegionOfInterest": null}}]})");
    // As text, in which 1 and 1u are the same.
    EXPECT_EQ(compactPrint(get(streamsPath)), compactPrint(expected));
}

TEST_F(SettingsOfOldFirmware, listsStreamsInTheWordsOfOldFirmware)
{
    const Json::Value main = get(streamsPath)["VideoStreamInfos"][0]["VideoEncodeInfo"];
    EXPECT_EQ(compactPrint(main),
              R"({"BitRate":2000,"EncMode":0,"EncodeFmt":6,"FrameRate":25,"GOPType":0,"IInterval":25,"ImageQuality":5,)"
              R"("QPFactor":25.399999999999999,"RegionOfInterest":null,"Resolution":{"Height":720,"Width":1280},)"
              R"("SmartEncodeMode":0,"SmoothLevel":1,"VideoSvcCfg":{"Mode":0}})");
    Json::Value body = oneStream(0);
    body["VideoStreamInfos"][0]["VideoEncodeInfo"]["EncodeFmt"] = 13;
    EXPECT_EQ(put(streamsPath, body), 0);
    ASSERT_EQ(encoded.size(), 1u);
    EXPECT_EQ(encoded[0].encoding.codec, Codec::h265);
    body["VideoStreamInfos"][0]["VideoEncodeInfo"]["EncodeFmt"] = 5;
    EXPECT_EQ(put(streamsPath, body), 2) << "no codec has that number";
}

TEST_F(SettingsResourcesTest, encodesOneStreamAnewAndLeavesTheOthers)
{
    Json::Value body = oneStream(1);
    Json::Value& encode = body["VideoStreamInfos"][0]["VideoEncodeInfo"];
    encode["EncodeFormat"] = 2;
    encode["Resolution"]["Width"] = 320;
    encode["Resolution"]["Height"] = 240;
    encode["BitRate"] = 300;
    encode["FrameRate"] = 10;
    encode["IFrameInterval"] = 40;
    encode["BitRateType"] = 1;
    encode["SVCMode"] = 1;
    EXPECT_EQ(put(streamsPath, body), 0);
    ASSERT_EQ(encoded.size(), 1u);
    EXPECT_EQ(encoded[0].channel, 0u);
    EXPECT_EQ(encoded[0].stream, 1u);
    EXPECT_EQ(encoded[0].encoding, (StreamEncoding{Codec::h265, {320, 240}, 10, 300, 40}));
    const Json::Value streams = get(streamsPath);
    EXPECT_EQ(streams["Num"], 3u);
    EXPECT_EQ(streams["VideoStreamInfos"][1]["VideoEncodeInfo"]["BitRateType"], 1);
    EXPECT_EQ(streams["VideoStreamInfos"][1]["VideoEncodeInfo"]["SVCMode"], 1);
    EXPECT_EQ(streams["VideoStreamInfos"][0]["VideoEncodeInfo"]["EncodeFormat"], 1);
    EXPECT_EQ(compactPrint(settings.video(0).state()["lostMembers"]), "[]");
}

TEST_F(SettingsResourcesTest, leavesRunningStreamsAloneWhenNothingOfTheirsChanges)
{
    Json::Value body = oneStream(0);
    EXPECT_EQ(put(streamsPath, body), 0);
    body["VideoStreamInfos"][0]["VideoEncodeInfo"]["ImageQuality"] = 9;
    EXPECT_EQ(put(streamsPath, body), 0);
    EXPECT_TRUE(encoded.empty());
}

TEST_F(SettingsResourcesTest, refusesStreamsThatCannotBe)
{
    const struct {
        const char* member;
        Json::Value value;
    } cases[] = {
        {"EncodeFormat", 3},       {"EncodeFormat", "1"}, {"EncodeFormat", 0}, {"BitRate", 31},
        {"BitRate", 2000.5},       {"FrameRate", 0},      {"FrameRate", "25"}, {"IFrameInterval", 0},
        {"BitRateType", 2},        {"ImageQuality", 10},  {"SmoothLevel", 0},  {"SmartEncodeMode", -1},
        {"Resolution", "640x360"}, {"SVCMode", 4},
    };
    const Json::Value before = get(streamsPath);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.member + (" " + compactPrint(c.value)));
        Json::Value body = oneStream(0);
        body["VideoStreamInfos"][0]["VideoEncodeInfo"][c.member] = c.value;
        EXPECT_EQ(put(streamsPath, body), 2);
        EXPECT_EQ(get(streamsPath), before);
    }
    for (const int width : {0, 62, 641, 8194}) {
        SCOPED_TRACE(width);
        Json::Value body = oneStream(0);
        body["VideoStreamInfos"][0]["VideoEncodeInfo"]["Resolution"]["Width"] = width;
        EXPECT_EQ(put(streamsPath, body), 2);
    }
    Json::Value body = oneStream(0);
    body["Num"] = 3;
    EXPECT_EQ(put(streamsPath, body), 2) << "there is one only";
    for (const char* text :
         {"no json", "", "{}", "[]", R"({"Num": 1, "VideoStreamInfos": []})",
          R"({"Num": 1, "VideoStreamInfos": [{"ID": 3}]})", R"({"VideoStreamInfos": [{"ID": 0}]})"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(put(streamsPath, text), 2);
    }
    EXPECT_EQ(get(streamsPath), before);
    EXPECT_TRUE(encoded.empty());
}

/// The documents as a client gets them first.
struct ImageDocument {
    const char* resource;
    const char* data;
};

constexpr ImageDocument imageDocuments[] = {
    {"Media/VideoInMode", R"({"Clock":27000000.5,"FrameRate":30,"Modes":["1920x1080@30","1280x720@60"],)"
                          R"("Resolution":{"Height":1080,"Width":1920},"Standard":"PAL"})"},
    {"Image/Advanced/Exposure",
     R"({"AntiFlicker":1,"CompensationLevel":0,"DayNight":{"Mode":0,"Schedule":null,"Sensitivity":5,"Time":3},)"
     R"("GainInfo":{"Gain":12,"IrisNumber":1.8,"MaxGain":50,"MinGain":1},)"
     R"("Metering":{"Area":{"Bottom":10000,"Left":0,"Right":10000,"Top":0},"HoldTime":60,"Mode":0,"RefBrightness":128},)"
     R"("Mode":0,"SensorID":9007199254740993,"ShutterInfo":{"ExactShutter":33.332999999999998,)"
     R"("IsEnableSlowShutter":0,"MaxShutter":100000,"MinShutter":1,"Shutter":100,"SlowestShutter":12},)"
     R"("WideDynamic":{"CloseSensitivity":5,"Level":5,"Mode":0,"OpenSensitivity":5}})"},
    {"Image/LampCtrl", R"({"Current":0.34999999999999998,"Enabled":1,"FarLevel":500,"LampType":"infrared","Mode":0,)"
                       R"("NearLevel":500,"Window":null})"},
    {"Image/WhiteBalance/Video",
     R"({"BlueOffset":0,"Illuminant":"D55","Kelvin":5600.25,"Locked":false,"Mode":0,"RedOffset":0})"},
    {"Image/Defog/Video", R"({"Density":0.125,"Level":5,"Method":"optical","Mode":0,"Seed":4294967297})"},
    {"Image/LDC", R"({"Centre":[0.5,0.5],"Enable":0,"Grade":50,"Lens":"2.8mm","Map":null})"},
    {"Image/Enhance",
     R"({"2DNoiseReduce":128,"3DNoiseReduce":128,"Brightness":128,"Contrast":128,"Curve":null,)"
     R"("Gamma":0.45000000000000001,"ImageRotation":0,"Saturation":128,"SceneID":9007199254740993,"Sharpness":128,)"
     R"("Style":"standard"})"},
};

TEST_F(SettingsResourcesTest, serveEachImageDocument)
{
    for (const auto& [resource, data] : imageDocuments) {
        SCOPED_TRACE(resource);
        EXPECT_EQ(compactPrint(get("/LAPI/V1.0/Channels/0/" + std::string(resource))), data);
        EXPECT_EQ(ask("GET", "/LAPI/V1.0/Channels/1/" + std::string(resource)).status, 599u);
        EXPECT_EQ(ask("GET", "/LAPI/V1.0/Channel/0/" + std::string(resource)).status, 599u);
    }
}

TEST_F(SettingsResourcesTest, takeAndRefuseEachImageSetting)
{
    const struct {
        const char* resource;
        std::vector<const char*> place;
        Json::Value good;
        Json::Value bad;
    } cases[] = {
        {"Media/VideoInMode", {"Resolution", "Width"}, 1280, "1280"},
        {"Media/VideoInMode", {"Resolution", "Height"}, 720, 0},
        {"Media/VideoInMode", {"FrameRate"}, 60, 121},
        {"Image/Advanced/Exposure", {"Mode"}, 1, -1},
        {"Image/Advanced/Exposure", {"CompensationLevel"}, -100, -101},
        {"Image/Advanced/Exposure", {"ShutterInfo", "Shutter"}, 250, 1.5},
        {"Image/Advanced/Exposure", {"ShutterInfo", "MinShutter"}, 2, -1},
        {"Image/Advanced/Exposure", {"ShutterInfo", "MaxShutter"}, 3, 100001},
        {"Image/Advanced/Exposure", {"ShutterInfo", "IsEnableSlowShutter"}, 1, 2},
        {"Image/Advanced/Exposure", {"ShutterInfo", "SlowestShutter"}, 25, "25"},
        {"Image/Advanced/Exposure", {"GainInfo", "MinGain"}, 5, 101},
        {"Image/Advanced/Exposure", {"GainInfo", "MaxGain"}, 6, Json::Value()},
        {"Image/Advanced/Exposure", {"DayNight", "Mode"}, 2, 4},
        {"Image/Advanced/Exposure", {"DayNight", "Sensitivity"}, 9, 10},
        {"Image/Advanced/Exposure", {"DayNight", "Time"}, 120, 2},
        {"Image/Advanced/Exposure", {"WideDynamic", "Mode"}, 2, 3},
        {"Image/Advanced/Exposure", {"WideDynamic", "Level"}, 1, 0},
        {"Image/Advanced/Exposure", {"WideDynamic", "OpenSensitivity"}, 2, 0},
        {"Image/Advanced/Exposure", {"WideDynamic", "CloseSensitivity"}, 3, 10},
        {"Image/Advanced/Exposure", {"AntiFlicker"}, 3, 4},
        {"Image/Advanced/Exposure", {"Metering", "Mode"}, 3, 4},
        {"Image/Advanced/Exposure", {"Metering", "RefBrightness"}, 255, 256},
        {"Image/Advanced/Exposure", {"Metering", "HoldTime"}, 3600, 3601},
        {"Image/LampCtrl", {"Enabled"}, false, "off"},
        {"Image/LampCtrl", {"Mode"}, 7, 8},
        {"Image/LampCtrl", {"NearLevel"}, 0, 1001},
        {"Image/LampCtrl", {"FarLevel"}, 1000, -1},
        {"Image/WhiteBalance/Video", {"Mode"}, 2, 10},
        {"Image/WhiteBalance/Video", {"RedOffset"}, -63, -64},
        {"Image/WhiteBalance/Video", {"BlueOffset"}, 63, 64},
        {"Image/Defog/Video", {"Mode"}, 3, 4},
        {"Image/Defog/Video", {"Level"}, 9, 0},
        {"Image/LDC", {"Enable"}, 1, 2},
        {"Image/LDC", {"Grade"}, 100, 101},
        {"Image/Enhance", {"Brightness"}, 255, 256},
        {"Image/Enhance", {"Contrast"}, 0, -1},
        {"Image/Enhance", {"Saturation"}, 1, "1"},
        {"Image/Enhance", {"Sharpness"}, 2, 2.5},
        {"Image/Enhance", {"ImageRotation"}, 3, 4},
        {"Image/Enhance", {"2DNoiseReduce"}, 0, true},
        {"Image/Enhance", {"3DNoiseReduce"}, 255, 1e9},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.resource) + ' ' + c.place.back());
        const std::string path = "/LAPI/V1.0/Channels/0/" + std::string(c.resource);
        Json::Value data = get(path);
        Json::Value* member = &data;
        for (const char* name : c.place)
            member = &(*member)[name];
        *member = c.good;
        EXPECT_EQ(put(path, data), 0);
        EXPECT_EQ(get(path), data);
        const Json::Value kept = data;
        *member = c.bad;
        EXPECT_EQ(put(path, data), 2);
        EXPECT_EQ(get(path), kept);
    }
    for (const Json::Value& resource : settings.image(0).state()) {
        EXPECT_EQ(compactPrint(resource["lostMembers"]), "[]");
        EXPECT_GT(resource["writes"].asUInt(), 0u);
    }
}

TEST_F(SettingsResourcesTest, tellWhatAClientHasLost)
{
    for (const auto& [resource, data] : imageDocuments) {
        SCOPED_TRACE(resource);
        const std::string path = "/LAPI/V1.0/Channels/0/" + std::string(resource);
        EXPECT_EQ(put(path, "{}"), 0) << "the device puts up with it";
        EXPECT_EQ(compactPrint(get(path)), data);
        const Json::Value state = settings.state()["image"][0][resource];
        EXPECT_EQ(state["lostMembers"].size(), parseJson(data)->size());
    }
}

TEST_F(SettingsResourcesTest, showEachChangeOfTheLook)
{
    constexpr const char* path = "/LAPI/V1.0/Channels/0/Image/Enhance";
    Json::Value data = get(path);
    data["Sharpness"] = 1;
    put(path, data);
    EXPECT_TRUE(shown.empty()) << "that is not to be seen";
    data["Brightness"] = 192;
    data["Contrast"] = 64;
    data["Saturation"] = 0;
    put(path, data);
    EXPECT_EQ(shown[0], (PictureLook{0.5, 0.5, 0, false, false}));
    data["ImageRotation"] = 1;
    put(path, data);
    EXPECT_TRUE(shown[0].flipped && !shown[0].mirrored);
    data["ImageRotation"] = 2;
    put(path, data);
    EXPECT_TRUE(!shown[0].flipped && shown[0].mirrored);
    data["ImageRotation"] = 3;
    put(path, data);
    EXPECT_TRUE(shown[0].flipped && shown[0].mirrored);
}

TEST_F(SettingsResourcesTest, haveOneMicrophoneForACamera)
{
    EXPECT_EQ(compactPrint(get(microphonePath)),
              R"({"AudioInputList":[{"Enabled":1,"ID":1,"Mode":0,"Plug":"line"},)"
              R"({"Enabled":0,"ID":2,"Mode":1,"Plug":null}],"AudioInputNum":2,"EncoderTag":9007199254740993,)"
              R"("InputGain":180,"IsMute":0,"NoiseReduction":{"Enabled":0,"Threshold":-42.5}})");
    EXPECT_EQ(put(microphonePath, R"({"IsMute": 1})"), 0);
    EXPECT_EQ(get(microphonePath)["IsMute"], 1);
    EXPECT_TRUE(heard[0].muted);
    EXPECT_EQ(compactPrint(settings.state()["audio"][0]["lostMembers"]), "[]") << "the switch alone is well-known";

    Json::Value data = get(microphonePath);
    data["InputGain"] = 90;
    data["NoiseReduction"]["Enabled"] = 1;
    data["AudioInputList"][1]["Enabled"] = 1;
    data["AudioInputList"][1]["Mode"] = 3;
    EXPECT_EQ(put(microphonePath, data), 0);
    EXPECT_EQ(get(microphonePath), data);
    EXPECT_EQ(heard[0], (Microphone{true, 0.5}));

    for (const char* body :
         {"no json", "[]", R"({"IsMute": 2})", R"({"IsMute": "0"})", R"({"IsMute": false})", R"({"InputGain": 256})",
          R"({"NoiseReduction": 1})", R"({"AudioInputList": [{"ID": 9, "Enabled": 1}]})"}) {
        SCOPED_TRACE(body);
        EXPECT_EQ(put(microphonePath, body), 2);
        EXPECT_EQ(get(microphonePath), data);
    }
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/Channels/1/Media/Audio/Input").status, 599u);
}

TEST_F(SettingsOfSeveralChannels, countFromOne)
{
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/Channels/0/Image/Enhance").status, 599u);
    Json::Value data = get("/LAPI/V1.0/Channels/2/Image/Enhance");
    data["Brightness"] = 0;
    EXPECT_EQ(put("/LAPI/V1.0/Channels/2/Image/Enhance", data), 0);
    EXPECT_EQ(get("/LAPI/V1.0/Channels/1/Image/Enhance")["Brightness"], 128);
    EXPECT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[1].brightness, -1);
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/Channel/2/Media/Video/Streams/DetailInfos").status, 200u);
    EXPECT_EQ(ask("GET", microphonePath).status, 200u);
}

TEST_F(SettingsOfRecorder, reachOnlyThePictureAndTheMicrophoneOfEachCamera)
{
    for (const auto& [resource, data] : imageDocuments) {
        SCOPED_TRACE(resource);
        const bool reachable = resource == ImageSettings::enhance;
        for (const char* method : {"GET", "PUT"})
            EXPECT_EQ(ask(method, "/LAPI/V1.0/Channels/2/" + std::string(resource), data).status,
                      reachable ? 200u : 599u);
    }
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/Channel/1/Media/Video/Streams/DetailInfos").status, 599u);

    EXPECT_EQ(put("/LAPI/V1.0/Channels/2/Media/Audio/Input", R"({"IsMute": 1})"), 0);
    EXPECT_EQ(get("/LAPI/V1.0/Channels/2/Media/Audio/Input")["IsMute"], 1);
    EXPECT_EQ(get("/LAPI/V1.0/Channels/1/Media/Audio/Input")["IsMute"], 0);
    EXPECT_TRUE(heard[1].muted);
    EXPECT_EQ(ask("GET", "/LAPI/V1.0/Channels/3/Media/Audio/Input").status, 599u);
    EXPECT_EQ(ask("GET", microphonePath).status, 599u);
}

TEST(DeviceSettings, startWithTheMicrophoneAsToldAndTheStreamsAsConfigured)
{
    Options options;
    options.microphoneMuted = true;
    options.codec = Codec::mjpeg;
    options.size = {1920, 1080};
    options.framesPerSecond = 12;
    options.bitrateKbit = 100;
    DeviceSettings settings(options);
    EXPECT_EQ(settings.audio(0).data()["IsMute"], 1);
    EXPECT_EQ(settings.video(0).encoding(0), (StreamEncoding{Codec::mjpeg, {1920, 1080}, 12, 100, 12}));
    EXPECT_EQ(settings.video(0).encoding(1), (StreamEncoding{Codec::mjpeg, {640, 360}, 12, 32, 12}));
    settings.video(0).change(0, Codec::h265, {320, 240});
    EXPECT_EQ(settings.video(0).encoding(0), (StreamEncoding{Codec::h265, {320, 240}, 12, 100, 12}));
}

}  // namespace
}  // namespace simulator

#include "DeviceFixture.h"
#include "Lapi.h"
#include "SettingsGroup.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace
{
using namespace Uniview;
using namespace Uniview::test;
using kelvo::test::ChannelHandler;
using kelvo::test::ScriptedHttpPeer;
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;

using Lines = std::vector<std::string>;
using Results = std::map<std::string, std::int32_t>;

constexpr const char* streamPath = "/LAPI/V1.0/Channel/0/Media/Video/Streams/DetailInfos";
constexpr const char* exposurePath = "/LAPI/V1.0/Channels/0/Image/Advanced/Exposure";
constexpr const char* enhancePath = "/LAPI/V1.0/Channels/0/Image/Enhance";
constexpr const char* noHttp = "RTSP/1.0 200 OK\r\n\r\n";
constexpr const char* done = R"({"Response":{"ResponseCode":0,"ResponseString":"Succeed"}})";

struct Case {
    const char* resource;
    const char* path;     ///< of a camera's channel
    ParameterMap given;   ///< a value of this resource
    const char* written;  ///< the body that follows from it
    const char* getHandler;
    const char* putHandler;
    const char* readFailure;
    const char* writeFailure;
    const char* empty;
};
const Case cases[] = {
    {"stream",
     streamPath,
     {{"bitRate", 512}},
     R"({"Num":1,"VideoStreamInfos":[{"Enabled":1,"ID":0,"VideoEncodeInfo":{"BitRate":512}}]})",
     "Uniview::VideoSource::handleGetStreamSettings",
     "Uniview::VideoSource::handlePutStreamSettings",
     "Bad response while tried to get streaming settings",
     "Can't apply streaming settings",
     "Streaming settings is empty"},
    {"captureMode",
     "/LAPI/V1.0/Channels/0/Media/VideoInMode",
     {{"captureMode", std::string("1920x1080x25")}},
     R"({"FrameRate":25,"Resolution":{"Height":1080,"Width":1920}})",
     "Uniview::VideoSource::handleGetCaptureModeSettings",
     "Uniview::VideoSource::handlePutCaptureModeSettings",
     "Bad response while tried to get capture mode settings",
     "Can't apply capture mode settings",
     "Capture mode settings is empty"},
    {"exposure",
     exposurePath,
     {{"exposureMode", 2}},
     R"({"Mode":2})",
     "Uniview::VideoSource::handleGetExposureSettings",
     "Uniview::VideoSource::handlePutExposureSettings",
     "Bad response while tried to get exposure settings",
     "Can't apply exposure settings",
     "Exposure settings is empty"},
    {"illumination",
     "/LAPI/V1.0/Channels/0/Image/LampCtrl",
     {{"smartIlluminationMode", 1}},
     R"({"Mode":1})",
     "Uniview::VideoSource::handleGetIlluminationSettings",
     "Uniview::VideoSource::handlePutIlluminationSettings",
     "Bad response while tried to get illumination settings",
     "Can't apply illumination settings",
     "Illumination settings is empty"},
    {"whiteBalance",
     "/LAPI/V1.0/Channels/0/Image/WhiteBalance/Video",
     {{"redGain", 3}},
     R"({"RedOffset":3})",
     "Uniview::VideoSource::handleGetWhiteBalanceSettings",
     "Uniview::VideoSource::handlePutWhiteBalanceSettings",
     "Bad response while tried to get white balance settings",
     "Can't apply white balance settings",
     "White balance settings is empty"},
    {"defog",
     "/LAPI/V1.0/Channels/0/Image/Defog/Video",
     {{"defogLevel", 4}},
     R"({"Level":4})",
     "Uniview::VideoSource::handleGetDefogSettings",
     "Uniview::VideoSource::handlePutDefogSettings",
     "Bad response while tried to get defog settings",
     "Can't apply defog settings",
     "Defog settings is empty"},
    {"ldc",
     "/LAPI/V1.0/Channels/0/Image/LDC",
     {{"LDC", 1}},
     R"({"Enable":1})",
     "Uniview::VideoSource::handleGetLdcSettings",
     "Uniview::VideoSource::handlePutLdcSettings",
     "Bad response while tried to get ldc settings",
     "Can't apply ldc settings",
     "Ldc settings is empty"},
    {"imageEnhance",
     enhancePath,
     {{"brightness", 50}},
     R"({"Brightness":50})",
     "Uniview::VideoSource::handleGetImageEnhanceSettings",
     "Uniview::VideoSource::handlePutImageEnhanceSettings",
     "Bad response while tried to get image enhance settings",
     "Can't apply image enhance settings",
     "Image enhance settings is empty"},
};

/// The name of the function that edits the resource.
std::string editorOf(const Case& c)
{
    return std::string("Uniview::VideoSource::") + c.resource + "Settings";
}

std::string reply(const std::string& data)
{
    return R"({"Response":{"ResponseCode":0,"ResponseString":"Succeed","Data":)" + data + "}}";
}
std::string apiError()
{
    return R"({"Response":{"ResponseCode":1,"ResponseString":"Not Supported","StatusString":"no way"}})";
}

/// A video source of a device that is a scripted peer.
class VideoSettings : public DeviceFixture {
protected:
    ~VideoSettings() override
    {
        if (source != nullptr)
            source->Destroy();
    }

    /// Connects to a device of that type with a source of one stream, whose resources hold nothing but what is needed.
    void connect(std::uint32_t channels = 1, int type = 0, std::uint32_t channel = 0, std::uint32_t stream = 0,
                 const ParameterMap& model = {})
    {
        const auto description = std::make_shared<DeviceTraits>();
        description->videoChannelCount = channels;
        description->channelModelParameters.assign(channels, model);
        DeviceFixture::make(description);
        peer.answer(infoPath, 200, deviceInfo(type));
        answerResources(peer);
        DeviceFixture::connect();
        ASSERT_EQ(device->CreateVideoSource(channel, stream, &host, &host, {}, nullptr, &source), 0);
        sentBefore = peer.requests().size();
    }
    static void answerResources(ScriptedHttpPeer& of)
    {
        for (const Case& c : cases) {
            of.answer(c.path, 200, done);
            of.answer(std::string("GET ") + c.path, 200, reply("{}"));
        }
        answerStreams(of, streamPath, "{}");
    }
    void answerStreams(const std::string& path, const std::string& encoding = "{}")
    {
        answerStreams(peer, path, encoding);
    }
    static void answerStreams(ScriptedHttpPeer& of, const std::string& path, const std::string& encoding)
    {
        const auto entry = [&](int id) {
            return R"({"Enabled":0,"ID":)" + std::to_string(id) + R"(,"VideoEncodeInfo":)" + encoding + "}";
        };
        of.answer("GET " + path, 200,
                  reply(R"({"Num":3,"VideoStreamInfos":[)" + entry(0) + ',' + entry(1) + ',' + entry(2) + "]}"));
    }

    /// Applies and waits for the end.
    Results apply(const ParameterMap& given)
    {
        const std::size_t before = host.settingsResults().size();
        const std::size_t ends = timesTold("all");
        EXPECT_EQ(source->ApplySettings(given), 0);
        EXPECT_TRUE(host.waitSettings("all", ends + 1));
        const auto told = host.settingsResults();
        EXPECT_EQ(told.back().first, "all") << "comes last";
        const Results results(told.begin() + static_cast<std::ptrdiff_t>(before), told.end());
        EXPECT_EQ(results.size(), told.size() - before) << "each resource is told once";
        return results;
    }
    std::size_t timesTold(const std::string& resource) const
    {
        const auto told = host.settingsResults();
        return static_cast<std::size_t>(
            std::ranges::count_if(told, [&](const auto& result) { return result.first == resource; }));
    }
    /// Waits until every resource but the picture's look has been told.
    void waitForTheOthers()
    {
        for (const Case& c : cases)
            EXPECT_TRUE(std::string(c.path) == enhancePath || host.waitSettings(c.resource));
        EXPECT_TRUE(peer.waitForRequest(std::string("GET ") + enhancePath));
    }
    void beSilentAbout(std::span<const Case> resources)
    {
        for (const Case& c : resources)
            peer.staySilent(std::string("GET ") + c.path);
    }
    void waitUntilAsked(std::span<const Case> resources)
    {
        for (const Case& c : resources)
            EXPECT_TRUE(peer.waitForRequest(std::string("GET ") + c.path));
    }
    /// Lets the reads that wait for an answer fail in transport, and waits for the end.
    void answerWithoutHttp(std::span<const Case> resources)
    {
        waitUntilAsked(resources);
        peer.breakSilenceRaw(noHttp);
        ASSERT_TRUE(host.waitSettings("all"));
        service->barrier();
        const auto told = host.settingsResults();
        Results expected = allGood();
        for (const Case& c : resources)
            expected[c.resource] = toResult(ResultCode::malformedResponse);
        EXPECT_EQ(Results(told.begin(), told.end()), expected);
    }
    static Results allGood()
    {
        Results results{{"all", 0}};
        for (const Case& c : cases)
            results[c.resource] = 0;
        return results;
    }
    /// The same with one resource that failed.
    static Results allBut(const std::string& resource, std::int32_t result, std::int32_t all)
    {
        Results results = allGood();
        results[resource] = result;
        results["all"] = all;
        return results;
    }
    static Results allBut(const std::string& resource, std::int32_t result) { return allBut(resource, result, result); }

    /// "METHOD /path body" of each request of the source, in alphabetical order, for several go out at once.
    Lines sent() const
    {
        const Lines requests = peer.requests();
        const Lines bodies = peer.bodies();
        Lines lines;
        for (std::size_t i = sentBefore; i < requests.size(); ++i)
            lines.push_back(bodies[i].empty() ? requests[i] : requests[i] + ' ' + bodies[i]);
        std::ranges::sort(lines);
        return lines;
    }
    Lines written() const
    {
        Lines lines = sent();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("PUT "); });
        return lines;
    }

    /// The line is in the log, as an error of the handler.
    void expectLine(const std::string& message, const std::string& function)
    {
        const auto line = logger.find(message);
        EXPECT_TRUE(line.message.ends_with("vs 0.0: " + message)) << message << '\n' << logger.text();
        EXPECT_EQ(line.function, function) << message;
        EXPECT_EQ(line.file, "Drivers/Uniview/src/VideoSource");
        EXPECT_EQ(line.severity, Tavro8::LogSeverity::error);
    }

    ChannelHandler host;
    Tavro8::GDRV::IVideoSource* source = nullptr;
    std::size_t sentBefore = 0;
};

TEST_F(VideoSettings, everyResourceIsReadAndNoneWrittenWithoutAValue)
{
    connect();
    EXPECT_EQ(apply({}), allGood());
    Lines expected;
    for (const Case& c : cases)
        expected.push_back(std::string("GET ") + c.path);
    std::ranges::sort(expected);
    EXPECT_EQ(sent(), expected);
    EXPECT_EQ(logger.errorCount(), 0U) << logger.text();
}

TEST_F(VideoSettings, whatHasChangedIsWrittenBackToItsPath)
{
    connect();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.resource);
        sentBefore = peer.requests().size();
        EXPECT_EQ(apply(c.given), allGood());
        EXPECT_EQ(written(), (Lines{std::string("PUT ") + c.path + ' ' + c.written}));
    }
}

TEST_F(VideoSettings, valuesOfSeveralResourcesGoTogether)
{
    connect();
    ParameterMap given;
    Lines expected;
    for (const Case& c : cases) {
        given.insert(c.given.begin(), c.given.end());
        expected.push_back(std::string("PUT ") + c.path + ' ' + c.written);
    }
    std::ranges::sort(expected);
    EXPECT_EQ(apply(given), allGood());
    EXPECT_EQ(written(), expected);
}

TEST_F(VideoSettings, whatTheHostDidNotGiveIsWrittenAsItWas)
{
    connect();
    peer.answer(std::string("GET ") + cases[4].path, 200, reply(R"({"Mode":2,"RedOffset":1,"BlueOffset":-7})"));
    EXPECT_EQ(apply({{"redGain", 12}}), allGood());
    EXPECT_EQ(written(),
              (Lines{std::string("PUT ") + cases[4].path + R"( {"BlueOffset":-7,"Mode":2,"RedOffset":12})"}));
}

TEST_F(VideoSettings, aSourceWritesItsOwnStream)
{
    connect(1, 0, 0, 1);
    answerStreams(streamPath, R"({"EncodeFmt":6})");
    EXPECT_EQ(apply({{"codec", std::string("H.265")}}), allGood());
    EXPECT_EQ(written(),
              (Lines{std::string("PUT ") + streamPath +
                     R"( {"Num":1,"VideoStreamInfos":[{"Enabled":1,"ID":1,"VideoEncodeInfo":{"EncodeFmt":13}}]})"}));
}

TEST_F(VideoSettings, streamThatTheCameraLacksIsNotFound)
{
    connect(1, 0, 0, 5);
    EXPECT_EQ(apply({{"fps", 7}}), allBut("stream", toResult(ResultCode::notFound)));
    EXPECT_EQ(written(), Lines{});
    EXPECT_TRUE(logger.contains("vs 0.5: Streaming settings is empty")) << logger.text();
}

TEST_F(VideoSettings, recorderIsAskedForThePictureAlone)
{
    connect(4, 1, 2);
    const std::string path = "/LAPI/V1.0/Channels/3/Image/Enhance";
    peer.answer("GET " + path, 200, reply(R"({"Brightness":1,"Contrast":2})"));
    peer.answer("PUT " + path, 200, done);
    EXPECT_EQ(apply({{"brightness", 9}}), (Results{{"imageEnhance", 0}, {"all", 0}}));
    EXPECT_EQ(sent(), (Lines{"GET " + path, "PUT " + path + R"( {"Brightness":9,"Contrast":2})"}));
    EXPECT_EQ(apply({{"codec", std::string("H.264")}}),
              (Results{{"imageEnhance", 0}, {"all", toResult(ResultCode::notSupported)}}))
        << "what is not asked for cannot be set";
    EXPECT_EQ(apply({{"transport", std::string("tcp")}}), (Results{{"imageEnhance", 0}, {"all", 0}}));
}

TEST_F(VideoSettings, channelsOfACameraWithSeveralCountFromOne)
{
    connect(2, 0, 1);
    const std::string path = "/LAPI/V1.0/Channel/2/Media/Video/Streams/DetailInfos";
    answerStreams(path);
    const Results results = apply({{"bitRate", 1}});
    EXPECT_EQ(results.at("stream"), toResult(ResultCode::resourceNotFound)) << "the PUT is not answered";
    EXPECT_EQ(results.at("all"), toResult(ResultCode::resourceNotFound));
    EXPECT_EQ(sent().front(), "GET " + path);
    EXPECT_TRUE(std::ranges::count(sent(), "GET /LAPI/V1.0/Channels/2/Image/LDC") == 1);
}

TEST_F(VideoSettings, failedReadLeavesTheOtherResourcesAlone)
{
    connect();
    ParameterMap given;
    for (const Case& c : cases)
        given.insert(c.given.begin(), c.given.end());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.resource);
        const std::string get = std::string("GET ") + c.path;
        sentBefore = peer.requests().size();
        peer.answerOnce(get, 500, "");
        EXPECT_EQ(apply(given), allBut(c.resource, toResult(ResultCode::deviceError)));
        EXPECT_EQ(written().size(), 7U);
        EXPECT_FALSE(std::ranges::any_of(
            written(), [&](const auto& line) { return line.starts_with(std::string("PUT ") + c.path); }));
        expectLine(std::string(" HTTP response has error code:500, reason:Scripted, request:") + c.path, c.getHandler);
        expectLine(c.readFailure, c.getHandler);
    }
}

TEST_F(VideoSettings, failedWriteLeavesTheOtherResourcesAlone)
{
    connect();
    ParameterMap given;
    for (const Case& c : cases)
        given.insert(c.given.begin(), c.given.end());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.resource);
        sentBefore = peer.requests().size();
        peer.answerOnce(std::string("PUT ") + c.path, 403, "");
        EXPECT_EQ(apply(given), allBut(c.resource, toResult(ResultCode::accessDenied)));
        EXPECT_EQ(written().size(), 8U);
        expectLine(std::string(" HTTP response has error code:403, reason:Scripted, request:") + c.path, c.putHandler);
        expectLine(c.writeFailure, c.putHandler);
    }
}

TEST_F(VideoSettings, resourcesWithoutAnAnswerCostTheOthersNothing)
{
    connect();
    ParameterMap given;
    for (const Case& c : cases)
        given.insert(c.given.begin(), c.given.end());
    const std::span<const Case> silent(cases + 1, 3);  // as many as are read at once
    beSilentAbout(silent);
    ASSERT_EQ(source->ApplySettings(given), 0);
    EXPECT_TRUE(host.waitSettings("stream")) << "what was read is written before others are read";
    waitUntilAsked(silent);
    service->barrier();
    EXPECT_EQ(sent().size(), 5U) << "of the others none spends its time in a queue";
    peer.breakSilence(500, "");
    ASSERT_TRUE(host.waitSettings("all"));
    Results expected = allBut("all", toResult(ResultCode::deviceError));
    for (const Case& c : silent)
        expected[c.resource] = toResult(ResultCode::deviceError);
    const auto told = host.settingsResults();
    EXPECT_EQ(Results(told.begin(), told.end()), expected);
    Lines writes;
    for (const std::size_t other : {0U, 4U, 5U, 6U, 7U})
        writes.push_back(std::string("PUT ") + cases[other].path + ' ' + cases[other].written);
    std::ranges::sort(writes);
    EXPECT_EQ(written(), writes);
}

TEST_F(VideoSettings, missingDataAreSaidToBeEmpty)
{
    connect();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.resource);
        sentBefore = peer.requests().size();
        peer.answerOnce(std::string("GET ") + c.path, 200, done);
        EXPECT_EQ(apply(c.given), allBut(c.resource, toResult(ResultCode::emptyReply)));
        EXPECT_EQ(written(), Lines{});
        expectLine(c.empty, editorOf(c));
        EXPECT_FALSE(logger.contains(c.readFailure)) << "the request has not failed";
    }
}

TEST_F(VideoSettings, everyReplyIsJudged)
{
    connect();
    const Case& c = cases[2];
    const std::string path = c.path;
    const struct {
        const char* name;
        std::string bytes;
        std::int32_t result;
        std::string line;
    } replies[] = {
        {"empty", "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n", toResult(ResultCode::emptyReply),
         " HTTP responce is empty, request:" + path},
        {"no JSON", "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 6\r\n\r\n<html>",
         toResult(ResultCode::malformedReply),
         " HTTP response cannot be read, request:" + path + ", reason:* Line 1, Column 1"},
        {"refused", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + apiError(), toResult(ResultCode::apiError),
         " Internal API error :Not Supported, status :no way"},
        {"unknown path", "HTTP/1.1 599 Unknown\r\nConnection: close\r\n\r\n" + apiError(),
         toResult(ResultCode::resourceNotFound), " HTTP response has error code:599, reason:Unknown, request:" + path},
        {"no HTTP", noHttp, toResult(ResultCode::malformedResponse),
         " HTTP request is finished with error:261, message:the answer does not follow the protocol, request:" + path},
        {"broken off", "HTTP/1.1 404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n100\r\n{\"Resp",
         toResult(ResultCode::connectionLost),
         " HTTP request is finished with error:257, message:the connection to the device was lost, request:" + path},
    };
    for (const char* const method : {"GET ", "PUT "}) {
        const bool reading = method[0] == 'G';
        for (const auto& r : replies) {
            SCOPED_TRACE(std::string(method) + r.name);
            const std::size_t failures = logger.count(reading ? c.readFailure : c.writeFailure);
            peer.answerRaw(method + path, r.bytes);
            EXPECT_EQ(apply(c.given), allBut(c.resource, r.result));
            EXPECT_EQ(logger.count(reading ? c.readFailure : c.writeFailure), failures + 1);
            EXPECT_TRUE(logger.contains("vs 0.0: " + r.line)) << logger.text();
        }
        peer.answer(method + path, 200, reply("{}"));
    }
    EXPECT_EQ(handler.lostTotal(), 0) << "a resource that breaks off does not lose the device";
}

TEST_F(VideoSettings, failuresBehindAnAnswerDoNotLoseTheDevice)
{
    connect();
    const std::span<const Case> broken(cases + 6, 2);
    beSilentAbout(broken);
    ASSERT_EQ(source->ApplySettings({}), 0);
    for (const Case& c : std::span(cases).first(6))
        EXPECT_TRUE(host.waitSettings(c.resource));
    answerWithoutHttp(broken);
    EXPECT_EQ(handler.lostTotal(), 0) << logger.text();
}

TEST_F(VideoSettings, failuresBeforeTheFirstAnswerDoNotLoseTheDevice)
{
    connect();
    const std::span<const Case> broken(cases, 3);  // as many as are read at once
    beSilentAbout(broken);
    ASSERT_EQ(source->ApplySettings({}), 0);
    answerWithoutHttp(broken);
    EXPECT_EQ(handler.lostTotal(), 0) << logger.text();
}

TEST_F(VideoSettings, deviceThatAnswersNoneOfTheResourcesIsLost)
{
    connect();
    for (const Case& c : cases)
        peer.answerRaw(std::string("GET ") + c.path, noHttp);
    EXPECT_EQ(apply({}).at("stream"), toResult(ResultCode::malformedResponse));
    EXPECT_TRUE(handler.waitLost());
}

TEST_F(VideoSettings, failuresOfAnEarlierConnectionDoNotLoseThePresentOne)
{
    connect();
    const std::span<const Case> broken(cases);
    for (const Case& c : broken.subspan(3))
        peer.answerRaw(std::string("GET ") + c.path, noHttp);
    beSilentAbout(broken.first(3));
    ASSERT_EQ(source->ApplySettings({}), 0);
    waitUntilAsked(broken.first(3));
    device->Close();
    ASSERT_TRUE(handler.waitClosed());
    open();
    ASSERT_TRUE(handler.waitConnected(2));
    peer.breakSilenceRaw(noHttp);
    ASSERT_TRUE(host.waitSettings("all"));
    service->barrier();
    EXPECT_EQ(handler.lostTotal(), 0) << logger.text();
}

TEST_F(VideoSettings, replyThatIsTooLongIsTheFailureOfItsResource)
{
    connect();
    peer.answer(std::string("GET ") + enhancePath, 200, reply('[' + std::string(lapi::maxDocumentBytes, ' ') + ']'));
    EXPECT_EQ(apply({{"brightness", 50}, {"redGain", 3}}),
              allBut("imageEnhance", toResult(ResultCode::responseTooLarge)));
    EXPECT_EQ(written(), (Lines{std::string("PUT ") + cases[4].path + R"( {"RedOffset":3})"}));
    EXPECT_TRUE(logger.contains(std::string(" HTTP response cannot be read, request:") + enhancePath + ", reason:"))
        << logger.text();
}

TEST_F(VideoSettings, redirectWithAnEnvelopeIsAccepted)
{
    connect();
    peer.answer(std::string("GET ") + enhancePath, 302, reply("{}"));
    peer.answer(std::string("PUT ") + enhancePath, 302, done);
    EXPECT_EQ(apply({{"brightness", 50}}), allGood());
}

TEST_F(VideoSettings, cameraThatLacksWhatNobodyAskedForHasNotFailed)
{
    connect();
    peer.answer(std::string("GET ") + exposurePath, 404, "");
    const Results results = apply({{"brightness", 50}, {"unknown", 1}});
    EXPECT_EQ(results, allBut("exposure", toResult(ResultCode::resourceNotFound), 0));
}

TEST_F(VideoSettings, wrongValuesEndTheirResourceAlone)
{
    connect();
    const Results results = apply({{"brightness", std::string("bright")},
                                   {"redGain", 3},
                                   {"fps", std::string("many")},
                                   {"captureMode", std::string("1920x1080")}});
    Results expected = allGood();
    expected["imageEnhance"] = expected["stream"] = expected["captureMode"] = toResult(ResultCode::invalidArgument);
    expected["all"] = toResult(ResultCode::invalidArgument);
    EXPECT_EQ(results, expected);
    EXPECT_EQ(written(), (Lines{std::string("PUT ") + cases[4].path + R"( {"RedOffset":3})"}));
    expectLine("boost::bad_any_cast: failed conversion using boost::any_cast, parameter:brightness",
               editorOf(cases[7]));
    expectLine("invalid stoi argument, parameter:fps", "Uniview::VideoSource::streamSettings");
    expectLine("Can't parse capture mode values", "Uniview::VideoSource::captureModeSettings");
}

TEST_F(VideoSettings, firstFailureInTheOrderOfTheResourcesIsThatOfAll)
{
    connect();
    peer.answer(std::string("PUT ") + enhancePath, 403, "");
    peer.answer(std::string("GET ") + exposurePath, 404, "");
    EXPECT_EQ(apply({{"brightness", 1}, {"exposureMode", 1}}).at("all"), toResult(ResultCode::resourceNotFound));
}

TEST_F(VideoSettings, frameRateIsCappedByTheChannelsModel)
{
    connect(1, 0, 0, 0, {{"maxFpsForCodec", Tavro8::TextMap{{"H.264", "15"}, {"H.265", "any"}}}});
    answerStreams(streamPath, R"({"EncodeFormat":1,"FrameRate":20})");
    const auto body = [](int codec, int fps) {
        return std::string("PUT ") + streamPath +
               R"( {"Num":1,"VideoStreamInfos":[{"Enabled":1,"ID":0,"VideoEncodeInfo":{"EncodeFormat":)" +
               std::to_string(codec) + R"(,"FrameRate":)" + std::to_string(fps) + "}}]}";
    };
    EXPECT_EQ(apply({{"fps", 25}}), allGood());
    EXPECT_EQ(apply({{"fps", std::string("25")}, {"codec", std::string("H.265")}}), allGood());
    EXPECT_EQ(apply({{"fps", 25}, {"codec", std::string("MJPEG")}}), allGood());
    EXPECT_EQ(written(), (Lines{body(0, 20), body(1, 15), body(2, 25)}));
    for (const char* const note : {"fps 25 is more than H.264 allows, maxFpsForCodec:15",
                                   "fps is left as the device has it: maxFpsForCodec does not know MJPEG"}) {
        EXPECT_EQ(logger.count(note), 1U) << note;
        EXPECT_EQ(logger.find(note).severity, Tavro8::LogSeverity::warning);
        EXPECT_EQ(logger.find(note).function, "Uniview::VideoSource::streamSettings");
    }
}

TEST_F(VideoSettings, frameRateThatIsLeftAloneIsNotToldAsApplied)
{
    connect(1, 0, 0, 0, {{"maxFpsForCodec", Tavro8::TextMap{{"H.265", "10"}}}});
    answerStreams(streamPath, R"({"EncodeFormat":1,"FrameRate":20})");
    EXPECT_EQ(apply({{"fps", 25}}), allBut("stream", toResult(ResultCode::notSupported)));
    EXPECT_EQ(written(), Lines{});
    expectLine("fps is left as the device has it: maxFpsForCodec does not know H.264",
               "Uniview::VideoSource::streamSettings");
}

TEST_F(VideoSettings, modelOfAWrongTypeMakesNoSource)
{
    const auto description = std::make_shared<DeviceTraits>();
    description->videoChannelCount = 1;
    description->channelModelParameters.push_back({{"maxFpsForCodec", 15}});
    make(description);
    EXPECT_EQ(device->CreateVideoSource(0, 0, &host, &host, {}, nullptr, &source), toResult(ResultCode::unexpected));
    EXPECT_EQ(source, nullptr);
    EXPECT_TRUE(logger.contains("the model parameter \"maxFpsForCodec\" has the wrong type"));
}

TEST_F(VideoSettings, areRefusedWhileTheDeviceHasNotBeenConnected)
{
    make();
    ASSERT_EQ(device->CreateVideoSource(0, 0, &host, &host, {}, nullptr, &source), 0);
    EXPECT_EQ(source->ApplySettings({{"brightness", 1}}), toResult(ResultCode::invalidState));
    EXPECT_TRUE(peer.requests().empty());
    EXPECT_TRUE(logger.contains("Settings can be applied once the device has connected"));
    DeviceFixture::connect();
    EXPECT_EQ(source->ApplySettings({}), 0);
    EXPECT_TRUE(host.waitSettings("all"));
    EXPECT_EQ(host.settingsResults().size(), 9U) << "only the request that was taken is told";
}

TEST_F(VideoSettings, secondRequestWaitsForTheFirst)
{
    connect();
    peer.staySilent(std::string("GET ") + enhancePath);
    ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
    ASSERT_EQ(source->ApplySettings({{"contrast", 2}}), 0);
    waitForTheOthers();
    EXPECT_EQ(sent().size(), 8U) << "the second has not begun";
    // What the device holds once the first is written is what the second reads.
    peer.answer(std::string("GET ") + enhancePath, 200, reply(R"({"Brightness":1,"Contrast":0})"));
    peer.breakSilence(200, reply(R"({"Brightness":0,"Contrast":0})"));
    ASSERT_TRUE(host.waitSettings("all", 2));
    EXPECT_EQ(written(), (Lines{std::string("PUT ") + enhancePath + R"( {"Brightness":1,"Contrast":0})",
                                std::string("PUT ") + enhancePath + R"( {"Brightness":1,"Contrast":2})"}));
    EXPECT_EQ(host.settingsResults().size(), 18U);
}

TEST_F(VideoSettings, sourcesOfAChannelWaitForEachOther)
{
    connect();
    ChannelHandler otherHost;
    Tavro8::GDRV::IVideoSource* other = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 1, &otherHost, &otherHost, {}, nullptr, &other), 0);
    peer.staySilent(std::string("GET ") + enhancePath);
    ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
    ASSERT_EQ(other->ApplySettings({{"contrast", 2}}), 0);
    waitForTheOthers();
    service->barrier();
    EXPECT_EQ(sent().size(), 8U) << "the other has not begun";
    peer.answer(std::string("GET ") + enhancePath, 200, reply(R"({"Brightness":1,"Contrast":0})"));
    peer.breakSilence(200, reply(R"({"Brightness":0,"Contrast":0})"));
    ASSERT_TRUE(otherHost.waitSettings("all"));
    EXPECT_EQ(written(), (Lines{std::string("PUT ") + enhancePath + R"( {"Brightness":1,"Contrast":0})",
                                std::string("PUT ") + enhancePath + R"( {"Brightness":1,"Contrast":2})"}));
    EXPECT_EQ(otherHost.settingsResults().size(), 9U) << "each source is told of its own";
    EXPECT_EQ(host.settingsResults().size(), 9U);
    other->Destroy();
}

TEST_F(VideoSettings, destroyedSourceLetsTheNextOneGoOn)
{
    connect();
    ChannelHandler otherHost;
    Tavro8::GDRV::IVideoSource* other = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 0, &otherHost, &otherHost, {}, nullptr, &other), 0);
    peer.staySilent(std::string("GET ") + enhancePath);
    ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
    ASSERT_EQ(source->ApplySettings({{"saturation", 1}}), 0);
    ASSERT_EQ(other->ApplySettings({{"contrast", 2}}), 0);
    waitForTheOthers();
    peer.answer(std::string("GET ") + enhancePath, 200, reply("{}"));
    std::exchange(source, nullptr)->Destroy();
    const auto told = host.settingsResults();
    ASSERT_TRUE(otherHost.waitSettings("all"));
    EXPECT_EQ(written(), (Lines{std::string("PUT ") + enhancePath + R"( {"Contrast":2})"}));
    EXPECT_EQ(host.settingsResults(), told);
    other->Destroy();
}

TEST_F(VideoSettings, otherChannelsDoNotWait)
{
    connect(2);
    ChannelHandler otherHost;
    Tavro8::GDRV::IVideoSource* other = nullptr;
    ASSERT_EQ(device->CreateVideoSource(1, 0, &otherHost, &otherHost, {}, nullptr, &other), 0);
    const std::string silent = "GET /LAPI/V1.0/Channels/1/Image/Enhance";
    peer.staySilent(silent);
    ASSERT_EQ(source->ApplySettings({}), 0);
    ASSERT_TRUE(peer.waitForRequest(silent));
    ASSERT_EQ(other->ApplySettings({}), 0);
    EXPECT_TRUE(otherHost.waitSettings("all"));
    EXPECT_EQ(timesTold("all"), 0U);
    other->Destroy();
}

TEST_F(VideoSettings, tooManyRequestsAreRefused)
{
    connect();
    peer.staySilent(std::string("GET ") + enhancePath);
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(source->ApplySettings({}), 0);
    EXPECT_EQ(source->ApplySettings({}), toResult(ResultCode::deviceBusy));
    ASSERT_TRUE(peer.waitForRequest(std::string("GET ") + enhancePath));
    peer.answer(std::string("GET ") + enhancePath, 200, reply("{}"));
    peer.breakSilence(200, reply("{}"));
    EXPECT_TRUE(host.waitSettings("all", 32));
    EXPECT_EQ(apply({}), allGood()) << "and taken again afterwards";
}

TEST_F(VideoSettings, mayBeAppliedAgainInsideTheLastResult)
{
    connect();
    bool again = false;
    host.onSettings = [&](Tavro8::IContract*, const std::string& resource) {
        if (resource == "all" && !std::exchange(again, true)) {
            EXPECT_EQ(source->ApplySettings({{"brightness", 2}}), 0);
        }
    };
    ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
    ASSERT_TRUE(host.waitSettings("all", 2));
    service->barrier();  // the second call has returned
    EXPECT_EQ(written().size(), 2U);
}

TEST_F(VideoSettings, nothingIsToldAfterDestroy)
{
    connect();
    peer.staySilent(std::string("GET ") + enhancePath);
    ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
    ASSERT_EQ(source->ApplySettings({{"contrast", 1}}), 0);
    ASSERT_TRUE(peer.waitForRequest(std::string("GET ") + enhancePath));
    std::exchange(source, nullptr)->Destroy();
    const auto told = host.settingsResults();
    peer.answer(std::string("GET ") + enhancePath, 200, reply("{}"));
    peer.breakSilence(200, reply("{}"));
    service->barrier();
    EXPECT_EQ(host.settingsResults(), told);
    EXPECT_EQ(written(), Lines{});
    EXPECT_LE(sent().size(), 8U) << "those that waited were given up";
}

TEST_F(VideoSettings, sourceMayBeDestroyedInsideAResult)
{
    for (const char* const when : {"exposure", "all"}) {
        SCOPED_TRACE(when);
        if (device == nullptr)
            connect();
        if (source == nullptr) {
            ASSERT_EQ(device->CreateVideoSource(0, 0, &host, &host, {}, nullptr, &source), 0);
        }
        std::size_t after = 0;
        bool destroyed = false;
        host.onSettings = [&](Tavro8::IContract*, const std::string& resource) {
            after += destroyed ? 1 : 0;
            if (resource == when && !std::exchange(destroyed, true))
                std::exchange(source, nullptr)->Destroy();
        };
        const std::size_t before = timesTold(when);
        ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
        ASSERT_TRUE(host.waitSettings(when, before + 1));
        service->barrier();
        EXPECT_EQ(after, 0U);
    }
}

TEST_F(VideoSettings, deviceMayGoInTheMiddle)
{
    connect();
    peer.staySilent(std::string("GET ") + enhancePath);
    ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
    ASSERT_TRUE(peer.waitForRequest(std::string("GET ") + enhancePath));
    std::exchange(source, nullptr)->Destroy();
    device->Destroy();
    device.reset();
    service->barrier();
    peer.breakSilence(200, reply("{}"));
    EXPECT_EQ(written(), Lines{});
}

/// The device is closed, in one of two ways, while the picture's look is read and a second request waits.
class ClosedVideoSettings : public VideoSettings {
protected:
    void begin()
    {
        connect();
        peer.staySilent(std::string("GET ") + enhancePath);
        ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
        ASSERT_EQ(source->ApplySettings({{"contrast", 1}}), 0);
        waitForTheOthers();
    }
    void expectBothEnded()
    {
        ASSERT_TRUE(host.waitSettings("all", 2)) << "the answer is not waited for";
        const auto told = host.settingsResults();
        ASSERT_EQ(told.size(), 10U) << "the one that waited reads nothing any more";
        const std::int32_t closed = toResult(ResultCode::invalidState);
        const std::pair<std::string, std::int32_t> look{"imageEnhance", closed};
        const std::pair<std::string, std::int32_t> all{"all", closed};
        EXPECT_EQ(told[7], look);
        EXPECT_EQ(told[8], all);
        EXPECT_EQ(told[9], all);
        EXPECT_EQ(logger.count("The device was closed before its settings were written"), 1U) << logger.text();
        // What still comes of the answer changes nothing.
        peer.breakSilence(200, reply("{}"));
        service->barrier();
        EXPECT_EQ(host.settingsResults(), told);
        EXPECT_EQ(written(), Lines{});
    }
};

TEST_F(ClosedVideoSettings, endAtOnceAndWriteNothing)
{
    begin();
    device->Close();
    expectBothEnded();
    EXPECT_EQ(source->ApplySettings({}), toResult(ResultCode::invalidState));
}

TEST_F(ClosedVideoSettings, doNotKeepThoseOfTheNextAddressWaiting)
{
    begin();
    ScriptedHttpPeer next;
    next.answer(portPath, 200, R"({"Response":{"Data":{"HTTPPort":80,"RTSPPort":8554}}})");
    next.answer(infoPath, 200, deviceInfo(0));
    answerResources(next);
    ASSERT_EQ(device->Open(("http://admin:secret@" + next.address()).c_str()), 0);
    expectBothEnded();
    ASSERT_TRUE(handler.waitConnected(2));
    EXPECT_EQ(apply({{"saturation", 4}}), allGood());
    Lines writes;
    const Lines requests = next.requests();
    for (std::size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].starts_with("PUT "))
            writes.push_back(requests[i] + ' ' + next.bodies()[i]);
    }
    EXPECT_EQ(writes, (Lines{std::string("PUT ") + enhancePath + R"( {"Saturation":4})"}));
    EXPECT_EQ(written(), Lines{}) << "at the first address";
}

TEST_F(ClosedVideoSettings, writeThatIsUnderWayIsTakenBack)
{
    connect();
    peer.staySilent(std::string("PUT ") + enhancePath);
    ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
    ASSERT_TRUE(peer.waitForRequest(std::string("PUT ") + enhancePath));
    device->Close();
    ASSERT_TRUE(host.waitSettings("all"));
    const auto told = host.settingsResults();
    const std::pair<std::string, std::int32_t> all{"all", toResult(ResultCode::invalidState)};
    EXPECT_EQ(told.back(), all) << "it may have been done all the same";
}

TEST_F(VideoSettings, workWithoutAHandler)
{
    connect();
    Tavro8::GDRV::IVideoSource* silent = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 0, nullptr, nullptr, {}, nullptr, &silent), 0);
    EXPECT_EQ(silent->ApplySettings({{"brightness", 3}}), 0);
    EXPECT_TRUE(peer.waitForRequest(std::string("PUT ") + enhancePath));
    silent->Destroy();
}

/// A source that receives from a peer which never answers, so that each of its requests is a connection of the stream.
class ReceivingVideoSettings : public VideoSettings {
protected:
    void start(const std::string& path, int type = 0)
    {
        connect(1, type);
        rtsp.staySilent("rtsp://" + rtsp.address() + path);
        peer.answer(portPath, 200, R"({"Response":{"Data":{"RTSPPort":)" + std::to_string(rtsp.port()) + "}}}");
        device->Close();
        ASSERT_TRUE(handler.waitClosed());
        open();
        ASSERT_TRUE(handler.waitConnected(2));
        source->Start();
        ASSERT_TRUE(rtsp.waitForRequests(1)) << logger.text();
    }
    void startCamera() { start("/media/video1"); }

    /// Applies what must not interrupt the stream.
    Results applyQuietly(const ParameterMap& given)
    {
        const std::size_t before = rtsp.requests().size();
        const Results results = apply(given);
        service->barrier();
        EXPECT_EQ(rtsp.requests().size(), before) << "the stream has been restarted";
        return results;
    }
    /// Applies what needs a fresh connection of the stream.
    Results applyWithRestart(const ParameterMap& given)
    {
        const std::size_t before = rtsp.requests().size();
        const Results results = apply(given);
        EXPECT_TRUE(rtsp.waitForRequests(before + 1)) << "the stream has not been restarted";
        EXPECT_EQ(rtsp.requests().size(), before + 1);
        return results;
    }

    ScriptedHttpPeer rtsp;
};

TEST_F(ReceivingVideoSettings, onlyWhatTheStreamDependsOnRestartsIt)
{
    startCamera();
    EXPECT_EQ(applyQuietly({{"brightness", 5}, {"bitRate", 5}}), allGood());
    EXPECT_EQ(applyWithRestart({{"codec", std::string("H.264")}}), allGood());
    EXPECT_EQ(applyQuietly({{"codec", std::string("H.264")}}), allGood()) << "an unchanged value needs none";
    EXPECT_EQ(applyWithRestart({{"resolution", std::string("640x360")}}), allGood());
}

TEST_F(ReceivingVideoSettings, valuesThatAreRefusedLeaveTheStreamAlone)
{
    startCamera();
    const Results refused = allBut("stream", toResult(ResultCode::invalidArgument));
    EXPECT_EQ(applyQuietly({{"codec", std::string("H264")}}), refused);
    EXPECT_EQ(applyQuietly({{"resolution", std::string("640")}}), refused);
    EXPECT_EQ(applyQuietly({{"codec", std::string("H.264")}, {"fps", std::string("many")}}), refused)
        << "nothing of the resource is written";
    EXPECT_EQ(applyWithRestart({{"codec", std::string("H.264")}}), allGood());
    EXPECT_EQ(applyQuietly({{"codec", std::string("H264")}}), refused);
    EXPECT_EQ(applyQuietly({{"codec", std::string("H.264")}}), allGood()) << "what was refused is not what it has";
    EXPECT_EQ(applyWithRestart({{"codec", std::string("H264")}, {"transport", std::string("udp")}}), refused)
        << "the transport is not the device's";
}

TEST_F(ReceivingVideoSettings, recorderThatIsNotAskedForTheStreamKeepsIt)
{
    start("/unicast/c1/s0/live", 1);
    const std::string path = "/LAPI/V1.0/Channels/1/Image/Enhance";
    peer.answer("GET " + path, 200, reply("{}"));
    EXPECT_EQ(applyQuietly({{"codec", std::string("H.264")}, {"resolution", std::string("640x360")}}).at("all"),
              toResult(ResultCode::notSupported));
    EXPECT_EQ(applyQuietly({{"transport", std::string("tcp")}}).at("all"), 0) << "as it is";
    EXPECT_EQ(applyWithRestart({{"transport", std::string("udp")}}).at("all"), 0);
}

TEST_F(ReceivingVideoSettings, valueThatWasNotWrittenRestartsTheStreamAgain)
{
    startCamera();
    const ParameterMap given{{"codec", std::string("H.265")}};
    peer.answerOnce(std::string("PUT ") + streamPath, 500, "");
    EXPECT_EQ(applyWithRestart(given), allBut("stream", toResult(ResultCode::deviceError)));
    EXPECT_EQ(applyWithRestart(given), allGood());
    EXPECT_EQ(applyQuietly(given), allGood());
}
}  // namespace

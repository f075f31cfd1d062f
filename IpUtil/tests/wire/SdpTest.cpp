#include "wire/Sdp.h"

#include "WireTestSupport.h"

namespace Tavro8::wire
{
namespace
{
using testing::dataText;
using testing::fromHex;
using testing::sameBytes;

SessionDescription described(const std::string& text)
{
    SdpResult result = parseSdp(text);
    EXPECT_TRUE(result) << result.rule;
    return result ? std::move(*result.description) : SessionDescription{};
}

/// One video section with the given lines.
SdpMedia videoWith(const std::string& lines)
{
    const SessionDescription sdp = described("v=0\nm=video 0 RTP/AVP 96\n" + lines);
    EXPECT_EQ(sdp.media.size(), 1U);
    return sdp.media.empty() ? SdpMedia{} : sdp.media[0];
}

constexpr const char* allFiles[] = {
    "camera_without_addresses_and_times.sdp",
    "control_on_another_host_and_port.sdp",
    "metadata_as_third_track.sdp",
    "h265_without_vps.sdp",
    "bare_line_feeds_trailing_blanks_no_last_line_end.sdp",
    "back_channel_with_a_dozen_formats.sdp",
};
}  // namespace

TEST(Sdp, needsNeitherAddressesNorTimesNorStaticRtpmaps)
{
    const SessionDescription sdp = described(dataText("camera_without_addresses_and_times.sdp"));
    EXPECT_EQ(sdp.sessionName, "Media Presentation");
    EXPECT_EQ(sdp.control, "*");
    EXPECT_EQ(sdp.range, "npt=0-");
    ASSERT_EQ(sdp.media.size(), 2U);

    const SdpMedia& video = sdp.media[0];
    EXPECT_EQ(video.kind, SdpMediaKind::video);
    EXPECT_EQ(video.protocol, "RTP/AVP");
    EXPECT_EQ(video.control, "trackID=1");
    ASSERT_EQ(video.formats.size(), 1U);
    EXPECT_EQ(video.formats[0].encoding, "H264");
    EXPECT_EQ(video.formats[0].clockRate, 90000U);
    const H264Format h264 = h264Format(video.formats[0]);
    EXPECT_EQ(h264.packetizationMode, 1U);
    EXPECT_EQ(h264.profileLevelId, 0x420029U);
    ASSERT_EQ(h264.parameterSets.size(), 2U);
    EXPECT_TRUE(sameBytes(fromHex("674d002a963540f0044fcb3701010102"), h264.parameterSets[0]));
    EXPECT_TRUE(sameBytes(fromHex("68ee31b2"), h264.parameterSets[1]));

    const SdpMedia& audio = sdp.media[1];
    EXPECT_EQ(audio.kind, SdpMediaKind::audio);
    ASSERT_EQ(audio.formats.size(), 1U);
    EXPECT_EQ(audio.formats[0].payloadType, 0);
    EXPECT_EQ(audio.formats[0].encoding, "PCMU");
    EXPECT_EQ(audio.formats[0].clockRate, 8000U);
    EXPECT_EQ(audio.formats[0].channels, 1U);
    EXPECT_EQ(audio.formats[0].parameter("rtcp"), "0");
}

TEST(Sdp, readsAThirdTrackOfMetadataAndAac)
{
    const SessionDescription sdp = described(dataText("metadata_as_third_track.sdp"));
    ASSERT_EQ(sdp.media.size(), 3U);
    EXPECT_EQ(sdp.media[0].width, 1920U);
    EXPECT_EQ(sdp.media[0].height, 1080U);
    EXPECT_EQ(sdp.media[0].framerate, 12.5);
    EXPECT_EQ(sdp.directionOf(sdp.media[0]), SdpDirection::recvonly);

    ASSERT_NE(sdp.media[1].format(97), nullptr);
    const SdpFormat& aac = *sdp.media[1].format(97);
    EXPECT_EQ(aac.encoding, "MPEG4-GENERIC");
    EXPECT_EQ(aac.clockRate, 16000U);
    EXPECT_EQ(aac.parameter("SIZELENGTH"), "13");
    EXPECT_TRUE(sameBytes(fromHex("1408"), aacConfig(aac)));

    EXPECT_EQ(sdp.media[2].kind, SdpMediaKind::application);
    ASSERT_EQ(sdp.media[2].formats.size(), 1U);
    EXPECT_EQ(sdp.media[2].formats[0].encoding, "VND.ONVIF.METADATA");
    EXPECT_EQ(sdp.media[2].format(96), nullptr);
}

TEST(Sdp, readsH265WithoutVps)
{
    const SessionDescription sdp = described(dataText("h265_without_vps.sdp"));
    ASSERT_EQ(sdp.media.size(), 1U);
    const H265Format h265 = h265Format(sdp.media[0].formats.at(0));
    EXPECT_TRUE(h265.vps.empty());
    ASSERT_EQ(h265.sps.size(), 1U);
    EXPECT_EQ(h265.sps[0].front(), 0x42);
    ASSERT_EQ(h265.pps.size(), 1U);
    EXPECT_TRUE(sameBytes(fromHex("4401c0f2f03c90"), h265.pps[0]));
    EXPECT_FALSE(h265.donFields);
}

TEST(Sdp, readsBareLineFeedsTrailingBlanksAndABrokenOffLastLine)
{
    const SessionDescription sdp = described(dataText("bare_line_feeds_trailing_blanks_no_last_line_end.sdp"));
    EXPECT_EQ(sdp.sessionName, "Live");
    EXPECT_EQ(sdp.control, "*");
    ASSERT_EQ(sdp.media.size(), 1U);
    EXPECT_EQ(sdp.media[0].control, "track1");
    ASSERT_EQ(sdp.media[0].formats.size(), 1U);
    EXPECT_EQ(sdp.media[0].formats[0].clockRate, 90000U);
    const H264Format h264 = h264Format(sdp.media[0].formats[0]);
    EXPECT_EQ(h264.packetizationMode, 1U);
    EXPECT_EQ(h264.profileLevelId, 0x640028U);
}

TEST(Sdp, readsABackChannelWithADozenFormats)
{
    const SessionDescription sdp = described(dataText("back_channel_with_a_dozen_formats.sdp"));
    ASSERT_EQ(sdp.media.size(), 3U);
    const SdpMedia& back = sdp.media[2];
    EXPECT_EQ(sdp.directionOf(back), SdpDirection::sendonly);
    EXPECT_EQ(back.formats.size(), 12U);
    EXPECT_EQ(back.formats[0].channels, 2U);
    EXPECT_EQ(back.formats[1].channels, 1U);
    EXPECT_EQ(back.format(9)->encoding, "G722");
    EXPECT_EQ(back.format(2)->encoding, "");  // no longer assigned, and without an rtpmap
    EXPECT_EQ(back.format(8)->encoding, "PCMA");
    EXPECT_EQ(back.format(0)->clockRate, 8000U);
}

TEST(Sdp, lineEndsMakeNoDifference)
{
    for (const char* file : allFiles) {
        SCOPED_TRACE(file);
        const std::string text = dataText(file);
        std::string lineFeeds;
        std::string carriageReturns;
        for (const char c : text) {
            if (c != '\r')
                lineFeeds += c;
            if (c != '\n')
                carriageReturns += c;
            else if (text.find('\r') == std::string::npos)
                carriageReturns += '\r';
        }
        const SessionDescription expected = described(text);
        for (const std::string& other : {lineFeeds, carriageReturns}) {
            const SessionDescription sdp = described(other);
            ASSERT_EQ(sdp.media.size(), expected.media.size());
            for (std::size_t i = 0; i < sdp.media.size(); ++i) {
                EXPECT_EQ(sdp.media[i].control, expected.media[i].control);
                EXPECT_EQ(sdp.media[i].formats.size(), expected.media[i].formats.size());
            }
        }
    }
}

TEST(Sdp, everyTruncationGivesTheSectionsThatHadBegun)
{
    for (const char* file : allFiles) {
        SCOPED_TRACE(file);
        const std::string text = dataText(file);
        const SessionDescription whole = described(text);
        for (std::size_t length = 0; length < text.size(); ++length) {
            const SdpResult part = parseSdp(std::string_view(text).substr(0, length));
            EXPECT_EQ(static_cast<bool>(part), length >= 2) << length;  // from "v=" on
            if (!part)
                continue;
            ASSERT_LE(part.description->media.size(), whole.media.size());
            for (std::size_t i = 0; i + 1 < part.description->media.size(); ++i)
                EXPECT_EQ(part.description->media[i].control, whole.media[i].control);
        }
    }
}

TEST(Sdp, sessionDirectionHoldsWhereASectionSaysNothing)
{
    const SessionDescription sdp = described("v=0\na=recvonly\nm=audio 0 RTP/AVP 0\nm=audio 0 RTP/AVP 8\na=SendOnly\n");
    EXPECT_EQ(sdp.directionOf(sdp.media.at(0)), SdpDirection::recvonly);
    EXPECT_EQ(sdp.directionOf(sdp.media.at(1)), SdpDirection::sendonly);
    const SessionDescription plain = described("v=0\nm=audio 0 RTP/AVP 0\na=inactive\nm=audio 0 RTP/AVP 0\n");
    EXPECT_EQ(plain.directionOf(plain.media.at(0)), SdpDirection::inactive);
    EXPECT_EQ(plain.directionOf(plain.media.at(1)), SdpDirection::sendrecv);
}

TEST(Sdp, readsTheSizeOfThePicture)
{
    const struct {
        const char* line;
        std::uint32_t width;
        std::uint32_t height;
    } cases[] = {
        {"a=x-dimensions:2592,1944", 2592, 1944},
        {"a=X-Dimensions: 2592 , 1944 ", 2592, 1944},
        {"a=framesize:96 2592-1944", 2592, 1944},
        {"a=framesize:96\t640-480", 640, 480},
        {"a=framesize:96", 0, 0},
        {"a=framesize:640-480", 0, 0},
        {"a=x-dimensions:-1,5", 0, 5},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const SdpMedia video = videoWith(std::string(c.line) + '\n');
        EXPECT_EQ(video.width, c.width);
        EXPECT_EQ(video.height, c.height);
    }
}

TEST(Sdp, readsTheConfigurationOfAac)
{
    const struct {
        const char* fmtp;
        const char* config;
    } cases[] = {
        {"mode=AAC-hbr;config=1408", "1408"},
        {"Config=\"1190\"; Mode=AAC-hbr", "1190"},
        {"CONFIG = 131056E598", "131056e598"},
        {"config=140", ""},
        {"config=xyz", ""},
        {"mode=AAC-hbr", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fmtp);
        const SessionDescription sdp = described(
            "v=0\nm=audio 0 RTP/AVP 97\na=rtpmap:97 mpeg4-generic/16000\na=fmtp:97 " + std::string(c.fmtp) + '\n');
        EXPECT_TRUE(sameBytes(fromHex(c.config), aacConfig(sdp.media.at(0).formats.at(0))));
    }
}

TEST(Sdp, linesThatMakeNoSenseArePassedOver)
{
    const SdpMedia video = videoWith("a=rtpmap:x H264/90000\na=rtpmap:\na=rtpmap:96\na=rtpmap:300 H264/90000\n"
                                     "a=fmtp:\na=fmtp:96\na=fmtp:96 ;;=;=x; ;\na=framerate:fast\na=framerate:-1\n"
                                     "a=x-dimensions:wide\na\n=\nnonsense\na=\n\n");
    ASSERT_EQ(video.formats.size(), 1U);
    EXPECT_EQ(video.formats[0].encoding, "");
    EXPECT_TRUE(video.formats[0].parameters.empty());
    EXPECT_FALSE(video.framerate);
    EXPECT_EQ(video.width, 0U);
}

TEST(Sdp, aPayloadTypeThatIsDescribedButNotListedIsAdded)
{
    const SdpMedia video = videoWith("a=rtpmap:97 H265/90000\n");
    ASSERT_EQ(video.formats.size(), 2U);
    EXPECT_EQ(video.formats[1].payloadType, 97);
    EXPECT_EQ(video.formats[1].encoding, "H265");
}

TEST(Sdp, anRtpmapMayLeaveOutWhatAStaticPayloadTypeImplies)
{
    const SessionDescription sdp = described("v=0\nm=audio 0 RTP/AVP 0 8\na=rtpmap:0 pcmu\na=rtpmap:8 L16\n");
    EXPECT_EQ(sdp.media.at(0).format(0)->clockRate, 8000U);
    EXPECT_EQ(sdp.media.at(0).format(8)->encoding, "L16");
    EXPECT_EQ(sdp.media.at(0).format(8)->clockRate, 0U) << "the rate of another encoding says nothing";
}

TEST(Sdp, refusesWhatIsNoDescription)
{
    for (const std::string& text :
         {std::string(), std::string(" \r\n"), std::string("<html>\n<body>404</body>\n</html>"),
          std::string(maxSdpBytes + 1, 'v')}) {
        const SdpResult result = parseSdp(text);
        EXPECT_FALSE(result);
        EXPECT_NE(result.rule, nullptr);
    }
}

TEST(Sdp, everythingThatGrowsHasALimit)
{
    std::string sections = "v=0\n";
    for (std::size_t i = 0; i < maxSdpMedia; ++i)
        sections += "m=video 0 RTP/AVP 96\n";
    EXPECT_EQ(described(sections).media.size(), maxSdpMedia);
    EXPECT_FALSE(parseSdp(sections + "m=video 0 RTP/AVP 96\n"));

    std::string formats = "m=video 0 RTP/AVP";
    for (int type = 0; type < 128; ++type)
        formats += ' ' + std::to_string(type);
    EXPECT_EQ(described(formats).media.at(0).formats.size(), maxSdpFormats);

    std::string parameters = "a=fmtp:96 ";
    for (int i = 0; i < 1000; ++i)
        parameters += "k" + std::to_string(i) + "=v;";
    EXPECT_EQ(videoWith(parameters).formats.at(0).parameters.size(), maxSdpParameters);

    std::string sets = "a=fmtp:96 sprop-parameter-sets=";
    for (int i = 0; i < 1000; ++i)
        sets += "aO4xsg==,";
    EXPECT_LE(h264Format(videoWith(sets).formats.at(0)).parameterSets.size(), 32U);
}

TEST(Sdp, parameterSetsThatCannotBeReadAreLeftOut)
{
    const auto sets = [](const std::string& value) {
        return h264Format(videoWith("a=fmtp:96 SPROP-Parameter-Sets=" + value).formats.at(0)).parameterSets;
    };
    EXPECT_TRUE(sets("").empty());
    EXPECT_TRUE(sets("!!!,,====").empty());
    ASSERT_EQ(sets("!!!, aO4xsg== ,").size(), 1U);
    // With the start code of the byte stream still in front, and a zero byte behind.
    const auto cleaned = sets(encodeBase64(fromHex("0000000168ee31b200")));
    ASSERT_EQ(cleaned.size(), 1U);
    EXPECT_TRUE(sameBytes(fromHex("68ee31b2"), cleaned[0]));
    EXPECT_TRUE(sets(encodeBase64(fromHex("00000001"))).empty());
    EXPECT_TRUE(sets(encodeBase64(fromHex("0000"))).empty());
}

TEST(Sdp, survivesRandomLines)
{
    std::mt19937 generator(4566);
    const std::string_view pieces[] = {"m=",         "a=",
                                       "video",      " 0 ",
                                       "RTP/AVP",    " 96",
                                       "a=rtpmap:",  "a=fmtp:",
                                       "96 ",        "H264/9",
                                       ";",          "=",
                                       "/",          ":",
                                       "\n",         "\r\n",
                                       ",",          "sprop-parameter-sets=",
                                       "a=control:", "a=x-dimensions:",
                                       "\n"};
    for (int round = 0; round < 3000; ++round) {
        std::string text;
        for (int i = 0; i < 60; ++i)
            text += pieces[generator() % std::size(pieces)];
        const SdpResult result = parseSdp(text);
        EXPECT_EQ(static_cast<bool>(result), result.rule == nullptr);
        for (const SdpMedia& media : result ? result.description->media : std::vector<SdpMedia>{}) {
            for (const SdpFormat& format : media.formats)
                h264Format(format);
        }
    }
}

TEST(ResolveControl, followsTheDevicesUrlsButStaysOnTheConnection)
{
    const struct {
        const char* name;
        const char* request;
        const char* base;
        const char* location;
        const char* control;
        const char* expected;
    } cases[] = {
        {"no Content-Base", "rtsp://h:554/media/video1", "", "", "trackID=1", "rtsp://h:554/media/video1/trackID=1"},
        {"request with a slash", "rtsp://h/live/", "", "", "trackID=1", "rtsp://h/live/trackID=1"},
        {"base with a slash", "rtsp://h/live", "rtsp://h/other/", "", "trackID=1", "rtsp://h/other/trackID=1"},
        {"base without a slash", "rtsp://h/live", "rtsp://h/other", "", "trackID=1", "rtsp://h/other/trackID=1"},
        {"base before location", "rtsp://h/a", "rtsp://h/b/", "rtsp://h/c/", "t", "rtsp://h/b/t"},
        {"location alone", "rtsp://h/a", "", " rtsp://h/c/ ", "t", "rtsp://h/c/t"},
        {"base on another host", "rtsp://h:8554/a", "rtsp://10.0.0.7:554/b/", "", "t", "rtsp://h:8554/b/t"},
        {"base that is a path", "rtsp://h:8554/a", "/b/", "", "t", "rtsp://h:8554/b/t"},
        {"base that is nonsense", "rtsp://h/a", "null", "", "t", "rtsp://h/a/t"},
        {"aggregate", "rtsp://h/a", "rtsp://h/b/", "", "*", "rtsp://h/b/"},
        {"no control", "rtsp://h/a", "", "", "", "rtsp://h/a"},
        {"absolute", "rtsp://h/a", "", "", "rtsp://h/a/track1", "rtsp://h/a/track1"},
        {"absolute without the port", "rtsp://h:8554/a", "", "", "rtsp://h/a/track1", "rtsp://h:8554/a/track1"},
        {"absolute with another host", "rtsp://h/a", "", "", "RTSP://10.0.0.7:554/a/track1?x=1",
         "rtsp://h/a/track1?x=1"},
        {"absolute without a path", "rtsp://h/a", "", "", "rtsp://10.0.0.7", "rtsp://h"},
        {"absolute path", "rtsp://h:8554/a/b", "", "", "/track1", "rtsp://h:8554/track1"},
        {"query in the base", "rtsp://h/s?channel=1&subtype=0", "", "", "trackID=0",
         "rtsp://h/s?channel=1&subtype=0/trackID=0"},
        {"query as control", "rtsp://h/s", "", "", "?track=0", "rtsp://h/s?track=0"},
        {"IPv6", "rtsp://[2001:db8::1]:554/a", "rtsp://[fe80::1]/b/", "", "t", "rtsp://[2001:db8::1]:554/b/t"},
        {"blank inside", "rtsp://h/a", "", "", "track 1", "rtsp://h/a/track%201"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(resolveControl(c.request, c.base, c.location, c.control), c.expected) << c.name;
}

TEST(ResolveControl, addressesTheTracksOfTheOtherHostFile)
{
    const SessionDescription sdp = described(dataText("control_on_another_host_and_port.sdp"));
    const std::string request = "rtsp://192.0.2.1:554/media/video1";
    EXPECT_EQ(resolveControl(request, "", "", sdp.control), "rtsp://192.0.2.1:554/media/video1?profile=main");
    EXPECT_EQ(resolveControl(request, "", "", sdp.media.at(0).control),
              "rtsp://192.0.2.1:554/media/video1/video?profile=main");
    EXPECT_EQ(resolveControl(request, "", "", sdp.media.at(1).control), "rtsp://192.0.2.1:554/media/video1/audio");
    EXPECT_EQ(sdp.media[0].formats.at(0).encoding, "H264");
}
}  // namespace Tavro8::wire

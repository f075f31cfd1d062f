#include "wire/RtspMessage.h"

#include "WireTestSupport.h"

#include <limits>

namespace Tavro8::wire
{
TEST(HeaderList, findsNamesInAnyCaseAndKeepsRepeatedLines)
{
    HeaderList headers;
    headers.add("WWW-Authenticate", "Digest a");
    headers.add("CSeq", "1");
    headers.add("www-authenticate", "Basic b");
    EXPECT_EQ(headers.get("Www-Authenticate"), "Digest a");
    EXPECT_EQ(headers.all("WWW-AUTHENTICATE"), (std::vector<std::string_view>{"Digest a", "Basic b"}));
    EXPECT_FALSE(headers.contains("Session"));
    EXPECT_EQ(headers.get("Session"), "");

    headers.set("WWW-authenticate", headers.get("CSeq"));
    EXPECT_EQ(headers.all("WWW-Authenticate"), std::vector<std::string_view>{"1"});
    headers.remove("cseq");
    EXPECT_EQ(headers.size(), 1U);
}

TEST(RtspMessage, writesRequestsAndResponses)
{
    RtspRequest request{"SETUP", "rtsp://host/a%20b?x=%41", {}, {}};
    request.headers.add("CSeq", "3");
    EXPECT_EQ(write(request), "SETUP rtsp://host/a%20b?x=%41 RTSP/1.0\r\nCSeq: 3\r\n\r\n");
    request.body = "ab";
    EXPECT_EQ(write(request), "SETUP rtsp://host/a%20b?x=%41 RTSP/1.0\r\nCSeq: 3\r\nContent-Length: 2\r\n\r\nab");

    RtspResponse response{501, "Not Implemented", {}, {}};
    EXPECT_EQ(write(response), "RTSP/1.0 501 Not Implemented\r\n\r\n");
}

TEST(RtspMessage, noValueCanSmuggleAHeader)
{
    RtspRequest request{"PLAY\r\n", "rtsp://host/\r\nX: y", {}, {}};
    request.headers.add("User-Agent", "a\r\nRequire: b\n\tc");
    EXPECT_EQ(write(request), "PLAY rtsp://host/X: y RTSP/1.0\r\nUser-Agent: aRequire: b\tc\r\n\r\n");
}

TEST(RtspMessage, readsTheSequenceNumber)
{
    HeaderList headers;
    EXPECT_FALSE(cseqOf(headers));
    headers.set("cseq", " 4294967295 ");
    EXPECT_EQ(cseqOf(headers), 4294967295U);
    headers.set("CSeq", "-1");
    EXPECT_FALSE(cseqOf(headers));
}

TEST(SessionHeader, readsIdentifierAndTimeout)
{
    const struct {
        const char* text;
        const char* id;
        int timeout;
        bool stated;
    } cases[] = {
        {"88;timeout=20", "88", 20, true},           {"88", "88", 60, false},
        {" a-b_c ; Timeout = 5 ", "a-b_c", 5, true}, {"88;timeout=0", "88", 60, false},
        {"88;timeout=x", "88", 60, false},           {"88;timeout=\"90\"", "88", 90, true},
        {"88;;x=1;timeout=7;", "88", 7, true},       {"88;timeout=99999999999", "88", 60, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const auto session = parseSession(c.text);
        ASSERT_TRUE(session);
        EXPECT_EQ(session->id, c.id);
        EXPECT_EQ(session->timeout, std::chrono::seconds(c.timeout));
        EXPECT_EQ(session->timeoutStated, c.stated);
    }
    EXPECT_FALSE(parseSession(""));
    EXPECT_FALSE(parseSession(";timeout=20"));
}

TEST(TransportHeader, readsInterleavedTransport)
{
    const auto transport = parseTransport("RTP/AVP/TCP;unicast;interleaved=4-5;ssrc=0A1b2C3d;mode=\"PLAY\"");
    ASSERT_TRUE(transport);
    EXPECT_TRUE(transport->tcp);
    EXPECT_FALSE(transport->multicast);
    EXPECT_EQ(transport->profile, "RTP/AVP");
    EXPECT_EQ(transport->interleaved, (ChannelPair{4, 5}));
    EXPECT_EQ(transport->ssrc, 0x0a1b2c3dU);
    EXPECT_EQ(transport->mode, "PLAY");
    EXPECT_EQ(write(*transport), "RTP/AVP/TCP;unicast;interleaved=4-5;ssrc=0A1B2C3D;mode=\"PLAY\"");
}

TEST(TransportHeader, readsUdpTransport)
{
    const auto transport =
        parseTransport("rtp/avp;unicast;destination=192.0.2.2;source=192.0.2.1;client_port=5000-5001;server_port=6970; "
                       "ttl=4, RTP/AVP/TCP");
    ASSERT_TRUE(transport);
    EXPECT_FALSE(transport->tcp);
    EXPECT_EQ(transport->source, "192.0.2.1");
    EXPECT_EQ(transport->destination, "192.0.2.2");
    EXPECT_EQ(transport->clientPort, (PortPair{5000, 5001}));
    EXPECT_EQ(transport->serverPort, (PortPair{6970, 6971}));
    EXPECT_EQ(transport->ttl, 4U);
    EXPECT_EQ(write(*transport), "rtp/avp;unicast;destination=192.0.2.2;source=192.0.2.1;client_port=5000-5001;"
                                 "server_port=6970-6971;ttl=4");
}

TEST(TransportHeader, readsProfileWithBlanksBeforeTheLowerTransport)
{
    const auto transport = parseTransport(" RTP/AVP / TCP ;interleaved=0-1");
    ASSERT_TRUE(transport);
    EXPECT_TRUE(transport->tcp);
    EXPECT_EQ(transport->profile, "RTP/AVP");
}

TEST(TransportHeader, leavesOutWhatItCannotRead)
{
    const auto transport =
        parseTransport("RTP/SAVP/UDP;multicast;interleaved=256-257;client_port=x;ssrc=123456789;port=7000-7001;append");
    ASSERT_TRUE(transport);
    EXPECT_EQ(transport->profile, "RTP/SAVP");
    EXPECT_FALSE(transport->tcp);
    EXPECT_TRUE(transport->multicast);
    EXPECT_FALSE(transport->interleaved);
    EXPECT_FALSE(transport->clientPort);
    EXPECT_FALSE(transport->ssrc);
    EXPECT_EQ(transport->port, (PortPair{7000, 7001}));
    EXPECT_FALSE(parseTransport(""));
    EXPECT_FALSE(parseTransport("RAW/RAW/UDP;unicast"));
}

TEST(TransportHeader, aLoneLastChannelWrapsInsteadOfOverflowing)
{
    EXPECT_EQ(parseTransport("RTP/AVP/TCP;interleaved=255")->interleaved, (ChannelPair{255, 0}));
}

TEST(RtpInfo, readsTracksWithCommasAndSemicolonsInTheirUrls)
{
    const auto entries = parseRtpInfo("url=rtsp://h/a,b?x=1;y=2/trackID=1;seq=45102;rtptime=12345678,"
                                      " URL=rtsp://h/b?url=c ; rtptime=4294967295;seq=1 , url=trackID=3");
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[0].url, "rtsp://h/a,b?x=1;y=2/trackID=1");
    EXPECT_EQ(entries[0].sequenceNumber, 45102);
    EXPECT_EQ(entries[0].rtpTimestamp, 12345678U);
    EXPECT_EQ(entries[1].url, "rtsp://h/b?url=c");
    EXPECT_EQ(entries[1].sequenceNumber, 1);
    EXPECT_EQ(entries[1].rtpTimestamp, 4294967295U);
    EXPECT_EQ(entries[2].url, "trackID=3");
    EXPECT_FALSE(entries[2].sequenceNumber);
    EXPECT_FALSE(entries[2].rtpTimestamp);
}

TEST(RtpInfo, toleratesNonsense)
{
    EXPECT_TRUE(parseRtpInfo("").empty());
    EXPECT_TRUE(parseRtpInfo("seq=1;rtptime=2").empty());
    const auto entries = parseRtpInfo("url=;seq=70000;rtptime=-1");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_FALSE(entries[0].sequenceNumber);
    EXPECT_FALSE(entries[0].rtpTimestamp);
}

TEST(ClockRange, readsAbsoluteTimes)
{
    const struct {
        const char* text;
        ClockRange range;
    } cases[] = {
        {"clock=20170426T021045Z-20170426T021945Z", {1493172645000, 1493173185000}},
        {"clock=20170426T021045Z-", {1493172645000, std::nullopt}},
        {"clock=20170426T021045Z", {1493172645000, std::nullopt}},
        {" Clock = 20170426t021045.25z - 20170426T021045.1239Z ;time=19970123T143720Z", {1493172645250, 1493172645123}},
        {"clock=19691231T235959Z-x", {-1000, std::nullopt}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(parseClockRange(c.text), c.range);
    }
}

TEST(ClockRange, refusesWhatIsNone)
{
    for (const char* const text :
         {"", "npt=0.000-", "npt=now-", "clock", "clock=", "clock=-20170426T021945Z", "clock=2017-04-26T02:10:45Z",
          "clock=20170230T021045Z-", "clock=20171326T021045Z-", "clock=20170426T241045Z-", "clock=20170426T021045-",
          "clock=20170426T0210Z-", "clock=20170426021045Z-", "clocks=20170426T021045Z-", "clock=2017 426T021045Z-"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(parseClockRange(text));
    }
}

TEST(ClockRange, isWrittenInWholeSeconds)
{
    EXPECT_EQ(write(ClockRange{1493172645000, 1493173185000}), "clock=20170426T021045Z-20170426T021945Z");
    EXPECT_EQ(write(ClockRange{1493172645999, 1493173184001}), "clock=20170426T021045Z-20170426T021945Z");
    EXPECT_EQ(write(ClockRange{0, std::nullopt}), "clock=19700101T000000Z-");
    EXPECT_EQ(write(ClockRange{-5, std::numeric_limits<std::int64_t>::max()}),
              "clock=19700101T000000Z-99991231T235959Z");
    EXPECT_EQ(parseClockRange(write(ClockRange{1582934400000, 1582934401000})),
              (ClockRange{1582934400000, 1582934401000}));
}

TEST(Scale, isAPositiveNumber)
{
    EXPECT_EQ(parseScale("2"), 2.0);
    EXPECT_EQ(parseScale(" 8.0 "), 8.0);
    EXPECT_EQ(parseScale("0.5"), 0.5);
    for (const char* const text : {"", "0", "-1", "x", "2x", "1e9", "nan", "inf"})
        EXPECT_FALSE(parseScale(text)) << text;
}

TEST(MethodList, readsEveryLineOfPublicElseAllow)
{
    HeaderList headers;
    headers.add("Allow", "PLAY");
    EXPECT_TRUE(MethodList(headers).contains("play"));
    headers.add("Public", "OPTIONS, describe,");
    headers.add("Public", "GET_PARAMETER");
    const MethodList methods(headers);
    EXPECT_TRUE(methods.contains("DESCRIBE"));
    EXPECT_TRUE(methods.contains("GET_PARAMETER"));
    EXPECT_FALSE(methods.contains("PLAY"));
    EXPECT_FALSE(methods.contains(""));
    EXPECT_TRUE(MethodList().empty());
}
}  // namespace Tavro8::wire

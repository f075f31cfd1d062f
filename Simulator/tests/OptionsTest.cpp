#include "Options.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

Options accepted(const std::vector<std::string>& arguments, const std::string& environmentPassword = {})
{
    auto result = parseOptions(arguments, environmentPassword);
    if (const auto* usage = std::get_if<Usage>(&result)) {
        ADD_FAILURE() << usage->text;
        return {};
    }
    return std::get<Options>(result);
}

TEST(Options, haveDefaultsForOneCamera)
{
    const Options options = accepted({});
    EXPECT_EQ(options.kind, Kind::camera);
    EXPECT_EQ(options.channels, 1u);
    EXPECT_EQ(options.bindAddress, "127.0.0.1");
    EXPECT_EQ(options.user, "admin");
    EXPECT_EQ(options.password, "admin-123");
    EXPECT_EQ(options.authentication, Authentication::digest);
    EXPECT_FALSE(options.httpsPort);
    EXPECT_EQ(options.size, (Size{1280, 720}));
    EXPECT_EQ(options.subSize, (Size{640, 360}));
    EXPECT_TRUE(options.audio);
    EXPECT_FALSE(options.microphoneMuted);
    EXPECT_EQ(options.backChannel, BackChannel::g711u);
    EXPECT_TRUE(options.talkBack.empty());
    EXPECT_EQ(options.formatChange, FormatChange::closes);
    EXPECT_EQ(options.dialect, Dialect::newFirmware);
    EXPECT_EQ(options.inputs, 4u);
    EXPECT_EQ(options.relays, 2u);
    EXPECT_TRUE(options.scriptFile.empty());
    EXPECT_TRUE(options.faults.empty());
}

TEST(Options, giveRecordersAnArchiveUnlessTold)
{
    EXPECT_TRUE(accepted({"--kind", "recorder"}).archive);
    EXPECT_FALSE(accepted({"--kind", "recorder", "--no-archive"}).archive);
    EXPECT_FALSE(accepted({}).archive);
    EXPECT_TRUE(accepted({"--archive"}).archive);
    EXPECT_TRUE(accepted({"--records", "5"}).archive);
    EXPECT_FALSE(accepted({"--kind", "recorder"}).records);
    const Options options = accepted({"--records", "0", "--records-until", "1790000000", "--records-order", "newest"});
    EXPECT_EQ(options.records, 0u);
    EXPECT_EQ(options.recordsUntil, 1'790'000'000u);
    EXPECT_EQ(options.recordOrder, RecordOrder::newestFirst);
}

TEST(Options, giveOtherKindsFourChannelsUnlessTold)
{
    EXPECT_EQ(accepted({"--kind", "multichannel"}).channels, 4u);
    EXPECT_EQ(accepted({"--kind", "recorder"}).channels, 4u);
    EXPECT_EQ(accepted({"--kind", "recorder", "--channels", "16"}).channels, 16u);
    EXPECT_EQ(accepted({"--kind", "multichannel", "--channels", "1"}).channels, 1u);
}

TEST(Options, areReadInFull)
{
    const Options options = accepted({"--kind",
                                      "multichannel",
                                      "--http-port",
                                      "0",
                                      "--rtsp-port",
                                      "8555",
                                      "--https-port",
                                      "0",
                                      "--user",
                                      "u",
                                      "--password",
                                      "p",
                                      "--auth",
                                      "both",
                                      "--ports-form",
                                      "plural",
                                      "--codec",
                                      "h265",
                                      "--size",
                                      "640x480",
                                      "--sub-size",
                                      "320x240",
                                      "--fps",
                                      "10",
                                      "--bitrate",
                                      "500",
                                      "--no-audio",
                                      "--audio-codec",
                                      "aac",
                                      "--nonce-lifetime",
                                      "0.5",
                                      "--session-timeout",
                                      "20",
                                      "--idle-timeout",
                                      "2",
                                      "--max-connections",
                                      "3",
                                      "--inputs",
                                      "8",
                                      "--relays",
                                      "0",
                                      "--fault",
                                      "hang",
                                      "--fault",
                                      "status:500@Port",
                                      "--exit-with-stdin",
                                      "--bind",
                                      "::1",
                                      "--microphone",
                                      "muted",
                                      "--back-channel",
                                      "g711a",
                                      "--talk-back",
                                      "calls.wav",
                                      "--format-change",
                                      "continue",
                                      "--dialect",
                                      "old"});
    EXPECT_EQ(options.httpPort, 0);
    EXPECT_EQ(options.rtspPort, 8555);
    ASSERT_TRUE(options.httpsPort);
    EXPECT_EQ(*options.httpsPort, 0);
    EXPECT_EQ(options.user, "u");
    EXPECT_EQ(options.password, "p");
    EXPECT_EQ(options.authentication, Authentication::both);
    EXPECT_TRUE(options.pluralPorts);
    EXPECT_EQ(options.codec, Codec::h265);
    EXPECT_EQ(options.size, (Size{640, 480}));
    EXPECT_EQ(options.subSize, (Size{320, 240}));
    EXPECT_EQ(options.framesPerSecond, 10u);
    EXPECT_EQ(options.bitrateKbit, 500u);
    EXPECT_FALSE(options.audio);
    EXPECT_EQ(options.audioCodec, AudioCodec::aac);
    EXPECT_EQ(options.nonceLifetime.count(), 500);
    EXPECT_EQ(options.sessionTimeout, 20u);
    EXPECT_EQ(options.idleTimeout.count(), 2000);
    EXPECT_EQ(options.maxConnections, 3u);
    EXPECT_EQ(options.inputs, 8u);
    EXPECT_EQ(options.relays, 0u);
    ASSERT_EQ(options.faults.size(), 2u);
    EXPECT_EQ(options.faults[1].kind, FaultKind::status);
    EXPECT_TRUE(options.exitWithStdin);
    EXPECT_EQ(options.bindAddress, "::1");
    EXPECT_TRUE(options.microphoneMuted);
    EXPECT_EQ(options.backChannel, BackChannel::g711a);
    EXPECT_EQ(options.talkBack, "calls.wav");
    EXPECT_EQ(options.formatChange, FormatChange::continues);
    EXPECT_EQ(options.dialect, Dialect::oldFirmware);
}

TEST(Options, takeThePasswordFromTheEnvironmentUnlessGiven)
{
    EXPECT_EQ(accepted({}, "from-environment").password, "from-environment");
    EXPECT_EQ(accepted({"--password", "given"}, "from-environment").password, "given");
}

TEST(Options, thatAreWrongEndWithStatusTwoAndAReason)
{
    const struct {
        std::vector<std::string> arguments;
        const char* part;
    } cases[] = {
        {{"--unknown"}, "--unknown"},
        {{"stray"}, "stray"},
        {{"--kind", "toaster"}, "'toaster' is none of camera|multichannel|recorder"},
        {{"--kind"}, "--kind"},
        {{"--channels", "0", "--kind", "recorder"}, "--channels"},
        {{"--channels", "65", "--kind", "recorder"}, "--channels"},
        {{"--channels", "2"}, "a camera has one channel"},
        {{"--http-port", "65536"}, "--http-port"},
        {{"--http-port", "-1"}, "--http-port"},
        {{"--rtsp-port", "x"}, "--rtsp-port"},
        {{"--size", "1280"}, "'1280' is no picture size"},
        {{"--size", "1280x"}, "no picture size"},
        {{"--size", "1281x720"}, "no picture size"},
        {{"--size", "1280x720x3"}, "no picture size"},
        {{"--size", "99999x720"}, "no picture size"},
        {{"--fps", "0"}, "--fps"},
        {{"--codec", "av1"}, "'av1' is none of h264|h265|mjpeg"},
        {{"--fault", "explode"}, "There is no fault 'explode'"},
        {{"--media", "/there/is/no/such.mp4"}, "/there/is/no/such.mp4"},
        {{"--script", "/there/is/no/such.json"}, "/there/is/no/such.json"},
        {{"--inputs", "65"}, "--inputs"},
        {{"--relays", "-1"}, "--relays"},
        {{"--microphone", "off"}, "'off' is none of muted|on"},
        {{"--back-channel", "opus"}, "'opus' is none of g711a|g711u|hidden|many|none"},
        {{"--talk-back", "calls.mp3"}, "neither a folder nor does it end in .wav"},
        {{"--talk-back", "/there/is/no/such/folder/calls.wav"}, "there is no folder '/there/is/no/such/folder'"},
        {{"--format-change", "x"}, "'x' is none of close|continue"},
        {{"--dialect", "x"}, "'x' is none of new|old"},
        {{"--user", ""}, "--user"},
        {{"--user", "a:b"}, "no colon"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.arguments));
        const auto result = parseOptions(c.arguments, {});
        const auto* usage = std::get_if<Usage>(&result);
        ASSERT_NE(usage, nullptr);
        EXPECT_EQ(usage->exitStatus, 2);
        EXPECT_NE(usage->text.find(c.part), std::string::npos) << usage->text;
    }
}

TEST(Options, haveAHelpThatNamesFaultsAndAdministration)
{
    const auto result = parseOptions({"--help"}, {});
    const auto* usage = std::get_if<Usage>(&result);
    ASSERT_NE(usage, nullptr);
    EXPECT_EQ(usage->exitStatus, 0);
    for (const char* part : {"--kind", "--fault", "brokenjson", "/simulator/counters", "/simulator/events",
                             "wronglength", "A script:", "KELVO_SIMULATOR_PASSWORD"})
        EXPECT_NE(usage->text.find(part), std::string::npos) << part;
}

TEST(Options, nameTheirKinds)
{
    EXPECT_STREQ(kindName(Kind::camera), "camera");
    EXPECT_STREQ(kindName(Kind::multichannel), "multichannel");
    EXPECT_STREQ(kindName(Kind::recorder), "recorder");
}

}  // namespace
}  // namespace simulator

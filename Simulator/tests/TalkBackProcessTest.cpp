#include "Eventually.h"
#include "Programs.h"
#include "RtspPeer.h"
#include "SimulatorProcess.h"
#include "Sound.h"
#include "TemporaryFile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

constexpr const char* require = "Require: www.onvif.org/ver20/backchannel\r\n";
constexpr std::size_t packetBytes = 160;
constexpr std::uint8_t muLaw = 0;
constexpr std::uint8_t aLaw = 8;

/// A device without credentials and with a small picture.
std::vector<std::string> small(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--auth", "none", "--size", "320x240", "--sub-size", "160x120"});
    return more;
}

std::uint16_t rtspPort(const SimulatorProcess& simulator)
{
    return static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt());
}

Json::Value talkBack(const SimulatorProcess& simulator, unsigned channel = 0)
{
    return simulator.admin("GET", "state")["talkBack"][channel];
}

/// The part of a description that tells of the track to the device; empty when there is none.
std::string trackOf(const std::string& description)
{
    const auto direction = description.find("a=sendonly");
    return direction == std::string::npos ? "" : description.substr(description.rfind("\nm=", direction) + 1);
}

bool isFine(const std::string& answer)
{
    return answer.starts_with("RTSP/1.0 200");
}

/// Someone who speaks to a device.
class Speaker {
public:
    explicit Speaker(const SimulatorProcess& simulator, const std::string& path = "/media/video1")
        : url(simulator.rtspUrl(path, "")), peer(rtspPort(simulator))
    {
        const std::string track = trackOf(peer.request("DESCRIBE", url, require));
        const auto control = track.find("a=control:");
        EXPECT_NE(control, std::string::npos) << track;
        const std::string name = track.substr(control + 10, track.find('\r', control) - control - 10);
        EXPECT_TRUE(isFine(peer.request("SETUP", url + '/' + name,
                                        std::string(require) + "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n")));
        EXPECT_TRUE(isFine(peer.request("PLAY", url, require)));
    }

    /// 20 ms of sound: bytes that count on.
    void speak(std::uint8_t payloadType, unsigned packets)
    {
        for (unsigned i = 0; i < packets; ++i) {
            const auto byte = [](unsigned value, unsigned shift) { return static_cast<std::uint8_t>(value >> shift); };
            const unsigned time = number * static_cast<unsigned>(packetBytes);
            std::vector<std::uint8_t> packet{0x80,
                                             payloadType,
                                             byte(number, 8),
                                             byte(number, 0),
                                             byte(time, 24),
                                             byte(time, 16),
                                             byte(time, 8),
                                             byte(time, 0),
                                             0,
                                             0,
                                             0,
                                             7};
            for (std::size_t sample = 0; sample < packetBytes; ++sample)
                packet.push_back(static_cast<std::uint8_t>(spoken.size() + sample));
            spoken.append(packet.begin() + 12, packet.end());
            peer.send({0, packet});
            ++number;
        }
    }
    void skip(unsigned packets) { number += packets; }

    std::string keepAlive() { return peer.request("SET_PARAMETER", url, require); }
    std::string hangUp() { return peer.request("TEARDOWN", url, require); }
    bool isConnected() { return peer.nextFrame().has_value(); }

    std::string spoken;

private:
    std::string url;
    RtspPeer peer;
    unsigned number = 1000;
};

TEST(BackChannel, isOfferedToThoseWhoRequireIt)
{
    const SimulatorProcess simulator(small());
    RtspPeer peer(rtspPort(simulator));
    const std::string url = simulator.rtspUrl("/media/video1", "");
    const std::string plain = peer.request("DESCRIBE", url);
    EXPECT_TRUE(isFine(plain));
    for (const char* attribute : {"sendonly", "recvonly", "onvif"})
        EXPECT_EQ(plain.find(attribute), std::string::npos) << "others see nothing of it";
    const std::string answer = RtspPeer(rtspPort(simulator)).request("DESCRIBE", url, require);
    EXPECT_NE(answer.find("m=video"), std::string::npos) << "the live stream is described, too";
    EXPECT_EQ(trackOf(answer).substr(0, 21), "m=audio 0 RTP/AVP 0\r\n") << answer;

    const std::string refused = peer.request("DESCRIBE", url, "Require: implicit-play\r\n");
    EXPECT_TRUE(refused.starts_with("RTSP/1.0 551")) << refused;
    EXPECT_NE(refused.find("Unsupported: implicit-play"), std::string::npos) << refused;
}

TEST(BackChannel, comesInTheFormsOfRealDevices)
{
    const struct {
        const char* option;
        const char* status;
        const char* track;
    } cases[] = {
        {"g711u", "200", "m=audio 0 RTP/AVP 0\r\n"},
        {"g711a", "200", "m=audio 0 RTP/AVP 8\r\n"},
        {"many", "200", "m=audio 0 RTP/AVP 97 98 99 100 101 102 103 104 9 18 8 0\r\n"},
        {"hidden", "200", ""},
        {"none", "551", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.option);
        const SimulatorProcess simulator(small({"--back-channel", c.option}));
        const std::string answer =
            RtspPeer(rtspPort(simulator)).request("DESCRIBE", simulator.rtspUrl("/media/video1", ""), require);
        EXPECT_EQ(answer.substr(9, 3), c.status);
        const std::string track = trackOf(answer);
        EXPECT_EQ(track.substr(0, track.find('\n') + 1), c.track) << answer;
    }
}

TEST(BackChannel, writesWhatIsSpoken)
{
    const struct {
        const char* option;
        std::uint8_t payloadType;
        const char* format;
    } cases[] = {{"g711u", muLaw, "mulaw"}, {"g711a", aLaw, "alaw"}, {"many", aLaw, "alaw"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.option);
        const TemporaryFile file(".wav");
        const SimulatorProcess simulator(small({"--back-channel", c.option, "--talk-back", file.name()}));
        Speaker speaker(simulator);
        speaker.speak(c.payloadType, 25);
        EXPECT_TRUE(isFine(speaker.keepAlive()));
        speaker.speak(c.payloadType, 25);
        EXPECT_TRUE(isFine(speaker.hangUp()));

        const Json::Value state = talkBack(simulator);
        EXPECT_EQ(state["calls"], 1);
        EXPECT_EQ(state["active"], false);
        EXPECT_EQ(state["packets"], 50) << "those on their way when the call ended count as well";
        EXPECT_EQ(state["bytes"], static_cast<int>(50 * packetBytes));
        EXPECT_EQ(state["lost"], 0);
        EXPECT_EQ(state["strange"], 0);
        EXPECT_EQ(state["law"], c.payloadType == muLaw ? "g711u" : "g711a");
        EXPECT_EQ(state["file"], file.name());

        const TemporaryFile raw(".raw");
        std::ofstream(raw.name(), std::ios::binary) << speaker.spoken;
        EXPECT_EQ(soundOf({"-i", file.name()}), soundOf({"-f", c.format, "-ar", "8000", "-i", raw.name()}));
    }
}

TEST(BackChannel, keepsWhatWasSpokenWhenTheConnectionBreaksOff)
{
    const TemporaryFile file(".wav");
    const SimulatorProcess simulator(small({"--talk-back", file.name()}));
    {
        Speaker speaker(simulator);
        speaker.speak(muLaw, 10);
        speaker.skip(3);
        speaker.speak(muLaw, 10);
        EXPECT_TRUE(eventually([&] { return talkBack(simulator)["packets"] == 20; }));
        EXPECT_EQ(talkBack(simulator)["active"], true);
        EXPECT_EQ(soundOf({"-i", file.name()}).size(), 20 * packetBytes) << "already during the call";
    }
    EXPECT_TRUE(eventually([&] { return talkBack(simulator)["active"] == false; }));
    EXPECT_EQ(talkBack(simulator)["lost"], 3);
    EXPECT_EQ(soundOf({"-i", file.name()}).size(), 20 * packetBytes);
}

TEST(BackChannel, goesWithTheSoundOfAMediaFile)
{
    const TemporaryFile media(".mp4");
    ASSERT_EQ(
        runProgram(
            {"ffmpeg",   "-v",      "error", "-y",        "-f",   "lavfi", "-i",        "testsrc=size=192x108:rate=30",
             "-f",       "lavfi",   "-i",    "sine=1000", "-t",   "0.5",   "-c:v",      "libx264",
             "-pix_fmt", "yuv420p", "-bf",   "0",         "-c:a", "aac",   media.name()})
            .status,
        0);
    const SimulatorProcess simulator(small({"--media", media.name()}));
    Speaker speaker(simulator);
    speaker.speak(muLaw, 5);
    EXPECT_TRUE(isFine(speaker.hangUp()));
    EXPECT_EQ(talkBack(simulator)["packets"], 5);
}

TEST(BackChannel, isBrokenOffAsTold)
{
    const SimulatorProcess simulator(small({"--fault", "talk-drop:5@media/video1"}));
    Speaker speaker(simulator);
    speaker.speak(muLaw, 5);
    while (speaker.isConnected()) {
    }
    EXPECT_TRUE(eventually([&] { return talkBack(simulator)["active"] == false; }));
    EXPECT_EQ(talkBack(simulator)["packets"], 5);
    Speaker again(simulator);
    again.speak(muLaw, 4);
    EXPECT_TRUE(isFine(again.keepAlive())) << "four are not too many";
    EXPECT_EQ(talkBack(simulator)["calls"], 2);
}

TEST(BackChannel, leavesThoseWhoWatchAlone)
{
    const SimulatorProcess simulator(small());
    const std::string url = simulator.rtspUrl("/media/video1", "");
    RtspPeer watcher(rtspPort(simulator));
    watcher.play(url, 2);
    ASSERT_TRUE(watcher.nextFrame());
    const auto sourceOfVideo = [&watcher] {
        for (;;) {
            const auto frame = watcher.nextFrame();
            if (!frame || frame->channel == 0)
                return frame ? std::string(frame->bytes.begin() + 8, frame->bytes.begin() + 12) : "ended";
        }
    };
    const std::string source = sourceOfVideo();
    {
        Speaker speaker(simulator);
        speaker.speak(muLaw, 10);
        EXPECT_EQ(sourceOfVideo(), source);
        RtspPeer second(rtspPort(simulator));
        second.play(url, 1);
        EXPECT_TRUE(second.nextFrame());
        EXPECT_TRUE(isFine(speaker.hangUp()));
    }
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(sourceOfVideo(), source);
}

TEST(BackChannel, losesNothingHoweverQuicklyCallsComeAndGo)
{
    const SimulatorProcess simulator(small({"--kind", "recorder", "--channels", "2"}));
    constexpr int calls = 12;
    const auto callAgainAndAgain = [&simulator](unsigned channel) {
        for (int call = 1; call <= calls; ++call) {
            SCOPED_TRACE(call);
            Speaker speaker(simulator, "/media/video" + std::to_string(channel + 1));
            speaker.speak(muLaw, 2);
            if (call % 3 == 0)
                continue;  // without a word
            EXPECT_TRUE(isFine(speaker.hangUp()));
            EXPECT_EQ(talkBack(simulator, channel)["packets"], 2);
        }
    };
    std::thread other(callAgainAndAgain, 1);
    callAgainAndAgain(0);
    other.join();
    EXPECT_TRUE(eventually([&] { return talkBack(simulator, 0)["active"] == false; }));
    EXPECT_EQ(talkBack(simulator, 0)["calls"], calls);
    EXPECT_EQ(talkBack(simulator, 1)["calls"], calls);
}

TEST(BackChannel, hasAPathForEachChannelOfARecorder)
{
    const SimulatorProcess simulator(small({"--kind", "recorder"}));
    Speaker speaker(simulator, "/media/video3");
    speaker.speak(muLaw, 3);
    EXPECT_TRUE(isFine(speaker.hangUp()));
    EXPECT_EQ(talkBack(simulator, 2)["packets"], 3);
    EXPECT_EQ(talkBack(simulator, 0)["calls"], 0);

    RtspPeer peer(rtspPort(simulator));
    EXPECT_TRUE(peer.request("DESCRIBE", simulator.rtspUrl("/media/video3", "")).starts_with("RTSP/1.0 404"));
    EXPECT_TRUE(peer.request("DESCRIBE", simulator.rtspUrl("/media/video5", ""), require).starts_with("RTSP/1.0 404"));
    EXPECT_TRUE(
        peer.request("DESCRIBE", simulator.rtspUrl("/unicast/c1/s0/live", ""), require).starts_with("RTSP/1.0 551"));
    EXPECT_EQ(simulator.ready()["urls"].size(), 8u) << "these are no live streams";
}

}  // namespace
}  // namespace simulator::test

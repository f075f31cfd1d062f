#include "JsonText.h"
#include "Programs.h"
#include "RtspPeer.h"
#include "SimulatorProcess.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

/// Sixteen records, the first of which begins here. The fifth ends at 260, the sixth lasts from 300 to 360, the
/// seventh is empty, the eighth begins at 420.
constexpr std::uint32_t first = 1'789'999'040;

std::vector<std::string> recorder(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--kind", "recorder", "--records", "16", "--records-until", "1790000000"});
    return more;
}
std::vector<std::string> openRecorder(std::vector<std::string> more = {})
{
    more.insert(more.end(), {"--auth", "none"});
    return recorder(std::move(more));
}

std::string replayPath(std::uint32_t from, std::uint32_t to, unsigned channel = 1)
{
    return "/c" + std::to_string(channel) + "/b" + std::to_string(first + from) + "/e" + std::to_string(first + to) +
           "/replay";
}

std::string clockOf(unsigned hour, unsigned minute, unsigned second)
{
    char text[64];
    std::snprintf(text, sizeof text, "20260921T%02u%02u%02uZ", hour, minute, second);
    return text;
}

/// Seconds after the first record, as the clock form has them.
std::string clockAt(std::uint32_t offset)
{
    const std::uint32_t second = (first + offset) % 86'400;
    return clockOf(second / 3600, second / 60 % 60, second % 60);
}

std::uint32_t be32(const std::vector<std::uint8_t>& bytes, std::size_t at)
{
    return std::uint32_t{bytes.at(at)} << 24 | std::uint32_t{bytes.at(at + 1)} << 16 |
           std::uint32_t{bytes.at(at + 2)} << 8 | bytes.at(at + 3);
}

/// A client of a replay, which knows when each packet was recorded.
class Player {
public:
    Player(const SimulatorProcess& simulator, const std::string& path, unsigned tracks = 1)
        : url(simulator.rtspUrl(path, "")), peer(static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt()))
    {
        description = peer.request("DESCRIBE", url + "/");
        for (unsigned i = 0; i < tracks; ++i)
            setUp = peer.request("SETUP", url + "/stream=" + std::to_string(i), "Transport: RTP/AVP/TCP;unicast\r\n");
    }

    std::string play(const std::string& headers) { return ask("PLAY", headers); }
    std::string ask(const std::string& method, const std::string& headers = {})
    {
        return peer.request(method, url + "/", headers);
    }

    struct Item {
        enum { packet, report, bye } kind = packet;
        unsigned channel = 0;
        std::uint32_t source = 0;
        std::uint32_t rtpTime = 0;
        std::int64_t timeMs = 0;  ///< recorded, since `first`
        bool marker = false;
        bool keyFrame = false;  ///< of H.264
        std::uint16_t sequence = 0;
    };

    /// Throws when the connection has ended.
    Item next()
    {
        const auto frame = peer.nextFrame();
        if (!frame)
            throw std::runtime_error("the recorder has closed the connection");
        const auto& bytes = frame->bytes;
        Item item;
        item.channel = frame->channel;
        if (frame->channel % 2 == 1) {
            constexpr std::size_t farewellBytes = 56;
            item.kind = bytes.size() == farewellBytes ? Item::bye : Item::report;
            item.source = be32(bytes, 4);
            item.rtpTime = be32(bytes, 16);
            const std::uint64_t fraction = (std::uint64_t{be32(bytes, 12)} * 1000) >> 32;
            item.timeMs =
                (std::int64_t{be32(bytes, 8)} - 2'208'988'800 - first) * 1000 + static_cast<std::int64_t>(fraction);
            reports[item.channel - 1] = item;
            return item;
        }
        item.source = be32(bytes, 8);
        item.rtpTime = be32(bytes, 4);
        item.sequence = static_cast<std::uint16_t>(be32(bytes, 0));
        item.marker = (bytes[1] & 0x80) != 0;
        constexpr unsigned fragment = 28, otherSlice = 1;  // types of H.264
        const unsigned type = bytes.at(12) & 31u;
        item.keyFrame = (type == fragment ? bytes.at(13) & 31u : type) != otherSlice;
        const auto report = reports.find(item.channel);
        if (report == reports.end())
            throw std::runtime_error("a packet came before any report");
        const int hertz = item.channel == 0 ? 90 : 8;
        item.timeMs = report->second.timeMs + static_cast<std::int32_t>(item.rtpTime - report->second.rtpTime) / hertz;
        return item;
    }

    /// Everything until each track has said goodbye.
    std::vector<Item> rest(unsigned tracks = 1)
    {
        std::vector<Item> items;
        while (tracks != 0) {
            items.push_back(next());
            tracks -= items.back().kind == Item::bye;
        }
        return items;
    }

    Item nextPacket()
    {
        for (;;)
            if (const Item item = next(); item.kind == Item::packet)
                return item;
    }

    const std::string url;
    RtspPeer peer;
    std::string description;
    std::string setUp;
    std::map<unsigned, Item> reports;  ///< the newest, by channel of RTP
};

std::string statusOf(const std::string& answer)
{
    return answer.substr(9, 3);
}

std::string headerOf(const std::string& answer, const std::string& name)
{
    const auto found = answer.find("\r\n" + name + ": ");
    if (found == std::string::npos)
        return {};
    const auto begin = found + name.size() + 4;
    return answer.substr(begin, answer.find('\r', begin) - begin);
}

TEST(Replay, isSeenByFfprobeAndDecodedByFfmpeg)
{
    const SimulatorProcess simulator(recorder());
    const std::string url = simulator.rtspUrl(replayPath(250, 252, 2) + "/");
    const ProgramResult probed = runProgram({"ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-show_entries",
                                             "stream=codec_name,width,height,sample_rate", "-of", "json", url});
    EXPECT_EQ(probed.status, 0) << probed.errors;
    const Json::Value streams = parseJson(probed.output)["streams"];
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[0]["codec_name"], "h264");
    EXPECT_EQ(streams[0]["width"], 640);
    EXPECT_EQ(streams[0]["height"], 360);
    EXPECT_EQ(streams[1]["codec_name"], "pcm_mulaw");

    // It ends by itself.
    const ProgramResult decoded =
        runProgram({"ffmpeg", "-v", "warning", "-rtsp_transport", "tcp", "-allowed_media_types", "video", "-i", url,
                    "-fps_mode", "passthrough", "-f", "framemd5", "-"});
    EXPECT_EQ(decoded.status, 0);
    EXPECT_EQ(decoded.errors, "");
    std::set<std::string> pictures;
    unsigned count = 0;
    for (std::size_t at = 0, end = 0; at < decoded.output.size(); at = end + 1) {
        end = std::min(decoded.output.find('\n', at), decoded.output.size());
        const std::string line = decoded.output.substr(at, end - at);
        if (line.empty() || line.front() == '#')
            continue;
        ++count;
        pictures.insert(line.substr(line.rfind(' ')));
    }
    EXPECT_EQ(count, 20u) << "ten a second";
    EXPECT_EQ(pictures.size(), 20u);
}

TEST(Replay, asksForTheCredentialsOfTheDevice)
{
    const SimulatorProcess simulator(recorder());
    const ProgramResult refused = runProgram({"ffprobe", "-v", "error", "-rtsp_transport", "tcp",
                                              simulator.rtspUrl(replayPath(250, 252) + "/", "admin:wrong@")});
    EXPECT_NE(refused.status, 0);
    EXPECT_NE(refused.errors.find("401"), std::string::npos) << refused.errors;
}

TEST(Replay, saysWhenEachPacketWasRecordedAndLeapsOverAGap)
{
    const SimulatorProcess simulator(openRecorder());
    Player player(simulator, replayPath(257, 303));
    EXPECT_NE(player.description.find("a=range:clock=" + clockAt(257) + "-" + clockAt(303) + "\r\n"), std::string::npos)
        << player.description;
    EXPECT_EQ(headerOf(player.setUp, "Transport"), "RTP/AVP/TCP;unicast;interleaved=0-1");
    const std::string answer = player.play("Scale: 4\r\n");
    EXPECT_EQ(headerOf(answer, "Range"), "clock=" + clockAt(257) + "-" + clockAt(303));
    EXPECT_EQ(headerOf(answer, "Scale"), "4");

    const auto items = player.rest();
    ASSERT_EQ(items.front().kind, Player::Item::report) << "in front of the first packet";
    EXPECT_EQ(items.front().timeMs, 257'000);
    EXPECT_EQ(headerOf(answer, "RTP-Info"), "url=" + player.url + "/stream=0;seq=" + std::to_string(items[1].sequence) +
                                                ";rtptime=" + std::to_string(items[1].rtpTime));
    std::vector<std::int64_t> times;
    std::vector<std::uint32_t> rtpTimes;
    std::uint16_t sequence = items[1].sequence;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (items[i].kind == Player::Item::packet) {
            EXPECT_EQ(items[i].sequence, sequence++);
        }
        if (items[i].kind != Player::Item::packet || !items[i].marker)
            continue;
        times.push_back(items[i].timeMs);
        rtpTimes.push_back(items[i].rtpTime);
    }
    ASSERT_EQ(times.size(), 60u);
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_EQ(times[i], static_cast<std::int64_t>(i < 30 ? 257'000 + 100 * i : 300'000 + 100 * (i - 30))) << i;
        EXPECT_EQ(rtpTimes[i], rtpTimes[0] + 9000 * i) << "RTP time knows no gap";
    }
    EXPECT_EQ(items.back().timeMs, 303'000);
    for (std::size_t i = 1; i < items.size(); ++i)
        if (items[i].kind == Player::Item::packet && items[i].timeMs == 300'000) {
            EXPECT_EQ(items[i - 1].kind, Player::Item::report) << "in front of the first packet behind the gap";
            EXPECT_TRUE(items[i].keyFrame);
            break;
        }
}

TEST(Replay, sendsSoundThatFitsThePictures)
{
    const SimulatorProcess simulator(openRecorder());
    Player player(simulator, replayPath(300, 301), 2);
    player.play({});
    std::map<unsigned, std::vector<std::int64_t>> times;
    for (const auto& item : player.rest(2))
        if (item.kind == Player::Item::packet && (item.channel == 2 || item.marker))
            times[item.channel].push_back(item.timeMs);
    ASSERT_EQ(times[0].size(), 10u);
    ASSERT_EQ(times[2].size(), 25u) << "packets of 40 ms";
    EXPECT_EQ(times[0].front(), 300'000);
    EXPECT_EQ(times[2].front(), 300'000);
    EXPECT_EQ(times[2].back(), 300'960);
}

TEST(Replay, playsTheSecondsThatAreListed)
{
    const SimulatorProcess simulator(openRecorder());
    const std::string query = "?Begin=" + std::to_string(first + 165) + "&End=" + std::to_string(first + 305);
    const ProgramResult listed = simulator.lapi("/LAPI/V1.0/Channels/1/Media/Video/Streams/1/Records" + query);
    std::set<std::int64_t> expected;
    const Json::Value answer = parseJson(listed.output.substr(0, listed.output.rfind('\n')));
    for (const Json::Value& record : answer["Response"]["Data"]["RecordInfos"])
        for (std::uint32_t second = record["Begin"].asUInt(); second < record["End"].asUInt(); ++second)
            if (second >= first + 245 && second < first + 305)
                expected.insert(second - first);
    ASSERT_EQ(expected.size(), 20u);

    Player player(simulator, replayPath(245, 305));
    EXPECT_EQ(headerOf(player.play("Scale: 8\r\nFrames: intra\r\n"), "Frames"), "intra");
    std::set<std::int64_t> played;
    for (const auto& item : player.rest()) {
        if (item.kind != Player::Item::packet)
            continue;
        EXPECT_TRUE(item.keyFrame);
        if (item.marker) {
            EXPECT_TRUE(played.insert(item.timeMs / 1000).second) << "one a second";
        }
    }
    EXPECT_EQ(played, expected);
}

TEST(Replay, mayNotKnowKeyFramesOnly)
{
    const SimulatorProcess simulator(openRecorder({"--no-replay-key-frames"}));
    Player player(simulator, replayPath(300, 302));
    const std::string answer = player.play("Scale: 8\r\nFrames: intra\r\n");
    EXPECT_EQ(statusOf(answer), "200");
    EXPECT_EQ(answer.find("Frames"), std::string::npos);
    unsigned frames = 0;
    for (const auto& item : player.rest())
        frames += item.kind == Player::Item::packet && item.marker;
    EXPECT_EQ(frames, 20u);
}

TEST(Replay, seeksWhileItRuns)
{
    const SimulatorProcess simulator(openRecorder());
    Player player(simulator, replayPath(0, 900));
    player.play({});
    const auto before = player.nextPacket();
    EXPECT_EQ(before.timeMs, 0);
    const std::string answer = player.play("Range: clock=" + clockAt(270) + "-" + clockAt(302) + "\r\nScale: 2\r\n");
    EXPECT_EQ(headerOf(answer, "Range"), "clock=" + clockAt(300) + "-" + clockAt(302)) << "from the end of the gap";
    EXPECT_EQ(headerOf(answer, "Scale"), "2");
    const std::uint16_t announced = static_cast<std::uint16_t>(std::stoul(answer.substr(answer.find("seq=") + 4)));
    std::vector<Player::Item> after;
    bool isAfter = false;
    for (const auto& item : player.rest()) {
        isAfter = isAfter || item.timeMs >= 300'000;
        if (isAfter && item.kind == Player::Item::packet)
            after.push_back(item);
    }
    ASSERT_FALSE(after.empty());
    EXPECT_EQ(after.front().sequence, announced);
    EXPECT_TRUE(after.front().keyFrame);
    EXPECT_EQ(after.front().timeMs, 300'000);
    EXPECT_EQ(after.back().timeMs, 301'900);
    EXPECT_EQ(after.back().source, before.source);
}

TEST(Replay, restsWhilePausedAndGoesOnWhereItWas)
{
    const SimulatorProcess simulator(openRecorder());
    Player player(simulator, replayPath(300, 303));
    player.play({});
    const auto begun = player.nextPacket();
    std::int64_t last = begun.timeMs;
    std::uint16_t sequence = begun.sequence;
    EXPECT_EQ(statusOf(player.ask("PAUSE")), "200");
    for (std::size_t i = player.peer.pendingFrames().size(); i > 0; --i)
        if (const auto item = player.next(); item.kind == Player::Item::packet) {
            last = item.timeMs;
            sequence = item.sequence;
        }
    EXPECT_EQ(simulator.admin("GET", "state")["archive"]["replays"][0]["state"], "paused");
    EXPECT_EQ(statusOf(player.ask("GET_PARAMETER")), "200");
    EXPECT_TRUE(player.peer.pendingFrames().empty()) << "nothing comes any more";

    const std::string answer = player.play("Scale: 8\r\n");
    EXPECT_EQ(statusOf(answer), "200");
    const auto next = player.nextPacket();
    EXPECT_EQ(next.sequence, static_cast<std::uint16_t>(sequence + 1));
    EXPECT_GE(next.timeMs, last);
    EXPECT_LE(next.timeMs, last + 100);
    EXPECT_EQ(player.rest().back().timeMs, 303'000);
}

TEST(Replay, staysThereAfterItsEnd)
{
    const SimulatorProcess simulator(openRecorder());
    Player player(simulator, replayPath(300, 301));
    player.play("Scale: 8\r\n");
    const auto farewell = player.rest().back();
    EXPECT_EQ(statusOf(player.ask("OPTIONS")), "200");
    const Json::Value replay = simulator.admin("GET", "state")["archive"]["replays"][0];
    EXPECT_EQ(replay["state"], "ended");
    EXPECT_EQ(replay["ends"], 1);
    EXPECT_EQ(replay["frames"], 10);
    EXPECT_EQ(replay["scale"], 8);
    EXPECT_EQ(replay["begin"].asUInt(), first + 300);

    EXPECT_EQ(statusOf(player.play("Scale: 8\r\nRange: clock=" + clockAt(300) + "-\r\n")), "200");
    EXPECT_NE(player.nextPacket().source, farewell.source) << "who has said goodbye does not come back";
    EXPECT_EQ(player.rest().back().timeMs, 301'000);
    EXPECT_EQ(statusOf(player.ask("TEARDOWN")), "200");
    EXPECT_EQ(statusOf(player.ask("PLAY")), "454");
    EXPECT_EQ(simulator.admin("GET", "counters")["archive"]["replay"]["requests"]["PLAY"], 3);
}

TEST(Replay, refusesWhatIsNotThere)
{
    const SimulatorProcess simulator(openRecorder());
    RtspPeer peer(static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt()));
    const auto describe = [&](const std::string& path) {
        return statusOf(peer.request("DESCRIBE", simulator.rtspUrl(path + "/", "")));
    };
    EXPECT_EQ(describe(replayPath(0, 60)), "200");
    EXPECT_EQ(describe(replayPath(261, 300)), "404") << "a gap";
    EXPECT_EQ(describe(replayPath(5000, 6000)), "404");
    EXPECT_EQ(describe(replayPath(10, 10)), "404");
    EXPECT_EQ(describe(replayPath(60, 0)), "400");
    EXPECT_EQ(describe(replayPath(0, 60, 0)), "404");
    EXPECT_EQ(describe(replayPath(0, 60, 5)), "404");
    EXPECT_EQ(describe("/c1/bx/e2/replay"), "404");

    const std::string url = simulator.rtspUrl(replayPath(0, 60), "");
    EXPECT_EQ(statusOf(peer.request("PLAY", url)), "454");
    const auto setUp = [&](const std::string& track, const std::string& transport) {
        return statusOf(peer.request("SETUP", url + track, "Transport: " + transport + "\r\n"));
    };
    EXPECT_EQ(setUp("/stream=0", "RTP/AVP;unicast;client_port=5000-5001"), "461");
    EXPECT_EQ(setUp("/stream=2", "RTP/AVP/TCP;unicast"), "404");
    EXPECT_EQ(setUp("/stream=0", "RTP/AVP/TCP;unicast;interleaved=4-5"), "200");
    const auto play = [&](const std::string& range) {
        return statusOf(peer.request("PLAY", url, "Range: " + range + "\r\n"));
    };
    EXPECT_EQ(play("clock=" + clockAt(70) + "-"), "457");
    EXPECT_EQ(play("clock=" + clockAt(20) + "-" + clockAt(10)), "457");
    EXPECT_EQ(play("nonsense"), "457");
    EXPECT_EQ(statusOf(peer.request("RECORD", url)), "501");
    EXPECT_EQ(statusOf(peer.request("SETUP", url + "/stream=0", "Require: onvif-replay\r\n")), "551");
}

TEST(Replay, sharesItsSessionWithNoOther)
{
    const SimulatorProcess simulator(openRecorder());
    RtspPeer peer(static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt()));
    const auto setUp = [&](const std::string& path, const std::string& headers = {}) {
        return statusOf(
            peer.request("SETUP", simulator.rtspUrl(path, ""), "Transport: RTP/AVP/TCP;unicast\r\n" + headers));
    };
    const std::string picture = replayPath(0, 60) + "/stream=0";
    const std::string sound = replayPath(0, 60) + "/stream=1";
    EXPECT_EQ(setUp(picture, "Session: 0123456789abcdef\r\n"), "454") << "there is none yet";
    EXPECT_EQ(setUp(picture), "200");
    EXPECT_EQ(setUp(sound, "Session: 0123456789abcdef\r\n"), "454");
    EXPECT_EQ(setUp(sound, "Session:\r\n"), "455") << "one more session";
    EXPECT_EQ(setUp(replayPath(0, 60, 2) + "/stream=1"), "459") << "another channel";
    EXPECT_EQ(setUp(replayPath(0, 61) + "/stream=1"), "459") << "another interval";
    EXPECT_EQ(setUp(sound), "200");
    EXPECT_EQ(statusOf(peer.request("PLAY", simulator.rtspUrl(replayPath(0, 60), ""))), "200");
    EXPECT_EQ(setUp(sound), "455") << "it plays";
}

TEST(Replay, isNotThereWithoutAnArchive)
{
    const SimulatorProcess simulator({"--auth", "none"});
    RtspPeer peer(static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt()));
    EXPECT_EQ(statusOf(peer.request("DESCRIBE", simulator.rtspUrl(replayPath(0, 60) + "/", ""))), "404");
}

TEST(Replay, hasTheFaultsOfLiveMedia)
{
    const SimulatorProcess simulator(openRecorder({"--fault", "rtsp-status:503@DESCRIBE /c1/"}));
    RtspPeer peer(static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt()));
    EXPECT_EQ(statusOf(peer.request("DESCRIBE", simulator.rtspUrl(replayPath(0, 60) + "/", ""))), "503");
    simulator.admin("POST", "rtsp/drop");
    EXPECT_FALSE(peer.nextFrame()) << "closed";
}

TEST(Replay, servesManyAtOnceBesideLiveMedia)
{
    const SimulatorProcess simulator(openRecorder({"--size", "320x240"}));
    std::vector<std::unique_ptr<Player>> players;
    for (unsigned i = 0; i < 4; ++i) {
        players.push_back(std::make_unique<Player>(simulator, replayPath(300 + i, 302 + i, i + 1)));
        players.back()->play("Scale: 2\r\n");
    }
    RtspPeer live(static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt()));
    live.play(simulator.rtspUrl("/unicast/c1/s1/live", ""), 1);
    EXPECT_TRUE(live.nextFrame());
    for (unsigned i = 0; i < 4; ++i) {
        const auto items = players[i]->rest();
        EXPECT_EQ(items.front().timeMs, 300'000 + 1000 * i);
        EXPECT_EQ(items.back().timeMs, 302'000 + 1000 * i);
    }
}

TEST(Replay, endsASessionWhoseClientIsSilent)
{
    const SimulatorProcess simulator(openRecorder({"--session-timeout", "1"}));
    Player player(simulator, replayPath(300, 360));
    player.play({});
    EXPECT_THROW(for (;;) player.next(), std::exception);
}

}  // namespace
}  // namespace simulator::test

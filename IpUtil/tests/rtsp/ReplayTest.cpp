#include <utility>

#include "Player.h"
#include "Recorder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;

constexpr RecordedPlay::Interval hour{recordedMs, recordedMs + 3'600'000};
/// Any frame of it is near its end.
constexpr RecordedPlay::Interval moment{recordedMs, recordedMs + 3000};

/// Prepares a replay and keeps what it is told.
struct Replayer : Player {
    explicit Replayer(Loop& loop) : Player(loop) {}

    void open(const ScriptedPeer& peer)
    {
        client->setClosedHandler([this](const error_code& ec) { closed = ec; });
        client->setEndHandler([this] {
            ++ends;
            if (onEnd)
                onEnd();
        });
        client->initialize(addressOf(peer), "/c1/b1493172645/e1493176245/replay/", [this](const error_code& ec) {
            session = ec;
            if (!ec)
                client->prepareRecorded(
                    headers,
                    [this](const error_code& error, const SessionDescription& description) {
                        sdp = error;
                        addTracks(description);
                    },
                    [this](const error_code& error) { ready = error; });
        });
    }
    void begin(RecordedPlay wanted = {hour, 1, false})
    {
        played.reset();
        client->playRecorded(wanted, [this](const error_code& ec, const RecordedPlayAnswer& said) {
            played = ec;
            answer = said;
        });
    }
    void pause()
    {
        paused.reset();
        client->pauseRecorded([this](const error_code& ec) { paused = ec; });
    }
    bool isReady() const { return ready && !*ready; }
    bool isPlayed() const { return played && !*played; }
    std::vector<std::int64_t> times() const
    {
        std::vector<std::int64_t> all;
        for (const TakenFrame& frame : frames)
            all.push_back(frame.info.timestampMs - recordedMs);
        return all;
    }

    std::optional<error_code> ready, played, paused;
    RecordedPlayAnswer answer;
    int ends = 0;
    std::function<void()> onEnd;
};

struct ReplayTest : ::testing::Test {
    /// A peer, and a client that is ready to play.
    void open(Camera recorder)
    {
        peer.emplace(recorder.script());
        replayer->open(*peer);
        ASSERT_TRUE(loop.runUntil([&] { return replayer->ready.has_value(); }));
    }
    void beginAndWait(RecordedPlay wanted = {hour, 1, false})
    {
        replayer->begin(wanted);
        ASSERT_TRUE(loop.runUntil([&] { return replayer->played.has_value(); }));
    }
    bool waitFrames(std::size_t count)
    {
        return loop.runUntil([&] { return replayer->frames.size() >= count; });
    }
    std::vector<ScriptedPeer::Request> plays() const
    {
        auto all = peer->requests();
        std::erase_if(all, [](const auto& request) { return request.method != "PLAY"; });
        return all;
    }

    Loop loop;
    // What the peer's script uses goes after the peer, which may be at work until then.
    int round = 0;
    std::optional<RecordingSender> sender;
    std::optional<ScriptedPeer> peer;
    std::optional<Replayer> replayer{std::in_place, loop};  // made anew by tests that change waiting times
};

TEST_F(ReplayTest, waitsForPlayAndPlaysARangeWithItsOwnTimes)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200,
                         "Session: 88\r\nRange: clock=20170426T021045Z-20170426T031045Z\r\n"
                         "RTP-Info: url=track1;seq=100;rtptime=90000\r\n");
        RecordingSender(connection).keyFrame().picture().report(recordedMs + 5000).picture();
    }));
    EXPECT_TRUE(replayer->isReady());
    EXPECT_EQ(peer->count("PLAY"), 0U);
    beginAndWait();
    EXPECT_TRUE(replayer->isPlayed());
    ASSERT_TRUE(waitFrames(3));
    EXPECT_EQ(headerOf(plays().at(0), "range"), "clock=20170426T021045Z-20170426T031045Z");
    EXPECT_EQ(headerOf(plays().at(0), "scale"), "");
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 5000}));
    EXPECT_TRUE(replayer->frames[0].info.keyFrame);
}

TEST_F(ReplayTest, theRangeOfTheAnswerSaysWhereItBegins)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200, "Range: clock=20170426T021050Z-\r\n");
        RecordingSender(connection).keyFrame().picture();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{5000, 5040}));
}

TEST_F(ReplayTest, anAnswerThatSaysNothingBeginsWhereItWasAsked)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender(connection).keyFrame();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(1));
    EXPECT_EQ(replayer->times(), std::vector<std::int64_t>{0});
    EXPECT_EQ(replayer->answer.scale, 1.0);
    EXPECT_FALSE(replayer->answer.keyFramesOnly);
}

TEST_F(ReplayTest, mediaInFrontOfTheAnswerAreTaken)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        RecordingSender sender(connection);
        sender.report(recordedMs + 700).keyFrame();
        connection.reply(request, 200, "Range: clock=20170426T021045Z-\r\n");
        sender.picture();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{700, 740}));
}

TEST_F(ReplayTest, aGapIsALeapOfTheReportsInFrontOfItsFirstFrame)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender(connection).report(recordedMs).keyFrame().picture().report(recordedMs + 600'000).keyFrame();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(3));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 600'000}));
    EXPECT_EQ(replayer->frames[2].info.durationMs, 40U);
}

TEST_F(ReplayTest, theFarewellOfTheTrackIsTheEndAndTheSessionStays)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        const std::int64_t begin = recordedMs + 1000 * round++;
        RecordingSender(connection, 90000U * static_cast<unsigned>(round), 100).report(begin).keyFrame().bye();
    }));
    beginAndWait({moment, 1, false});
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 1; }));
    EXPECT_EQ(replayer->frames.size(), 1U);
    EXPECT_FALSE(replayer->closed);
    beginAndWait({RecordedPlay::Interval{recordedMs + 1000, moment.endMs}, 1, false});
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 2; }));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 1000}));
    EXPECT_EQ(headerOf(plays().at(1), "range"), "clock=20170426T021046Z-20170426T021048Z");
}

TEST_F(ReplayTest, theLastFrameIsHandedOutAtTheEndWhereFramesAreNotMarked)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        std::uint16_t sequence = 100;
        for (const Bytes& nal : {spsNal(), ppsNal(), idrNal()})
            connection.sendFrame(0, rtp(96, sequence++, 90000, false, nal));
        connection.sendFrame(0, rtp(96, sequence, 93600, false, pictureNal()));
        connection.sendFrame(1, byePacket(0x11223344));
    }));
    beginAndWait({moment, 1, false});
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 1; }));
    EXPECT_EQ(replayer->frames.size(), 2U);
}

TEST_F(ReplayTest, aSeekDropsWhatIsOfTheOldPlaceAndBeginsWithAKeyFrame)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        RecordingSender sender(connection, 90000, static_cast<std::uint16_t>(round * 5000));
        if (round++ == 1)
            sender.picture().keyFrame();  // on their way when the device heard of the new place
        connection.reply(request, 200, "Range: clock=" + headerOf(request, "range").substr(6) + "\r\n");
        if (round == 1)
            sender.keyFrame().picture();
        else
            sender.picture().keyFrame().picture();
    }));
    beginAndWait({RecordedPlay::Interval{recordedMs + 60'000, hour.endMs}, 1, false});
    ASSERT_TRUE(waitFrames(2));
    beginAndWait();
    ASSERT_TRUE(waitFrames(4));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{60'000, 60'040, 40, 80}));
    EXPECT_TRUE(replayer->frames[2].info.keyFrame);
    EXPECT_TRUE(replayer->frames[2].info.lostPacketsBefore);
}

TEST_F(ReplayTest, anotherSpeedGoesOnWithoutLoss)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (!sender)
            sender.emplace(connection);
        if (round++ == 1)
            sender->picture();
        const std::string scale = headerOf(request, "scale");
        connection.reply(request, 200, scale.empty() ? "" : "Scale: " + scale + "\r\n");
        round == 1 ? sender->keyFrame() : sender->picture();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(1));
    beginAndWait({std::nullopt, 4, false});
    EXPECT_EQ(replayer->answer.scale, 4.0);
    ASSERT_TRUE(waitFrames(3));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 80}));
    EXPECT_EQ(headerOf(plays().at(1), "range"), "");
    EXPECT_EQ(headerOf(plays().at(1), "scale"), "4");
    beginAndWait({std::nullopt, 1, false});
    EXPECT_EQ(headerOf(plays().at(2), "scale"), "1") << "said, because another one was asked for before";
}

TEST_F(ReplayTest, keyFramesOnlyIsAskedForAndConfirmed)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200, "Frames: " + headerOf(request, "frames") + "\r\nScale: 8\r\n");
    }));
    beginAndWait({hour, 8, true});
    EXPECT_TRUE(replayer->answer.keyFramesOnly);
    EXPECT_EQ(headerOf(plays().at(0), "frames"), "intra");
}

TEST_F(ReplayTest, whatHasNothingToDoWithTheSpeedIsNotAskedAgainWithoutIt)
{
    static constexpr struct {
        unsigned status;
        ResultCode expected;
    } cases[] = {{403, ResultCode::accessDenied},
                 {453, ResultCode::deviceBusy},
                 {503, ResultCode::deviceBusy},
                 {461, ResultCode::streamRefused},
                 {302, ResultCode::unexpectedStatus}};
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, cases[static_cast<std::size_t>(round++) % std::size(cases)].status);
    }));
    std::size_t asked = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        beginAndWait({hour, 8, true});
        EXPECT_EQ(*replayer->played, make_error_code(c.expected));
        EXPECT_EQ(plays().size(), ++asked);
    }
}

TEST_F(ReplayTest, aPlayWithoutSpeedIsAskedOnce)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 551);
    }));
    beginAndWait();
    EXPECT_EQ(*replayer->played, make_error_code(ResultCode::streamRefused));
    EXPECT_EQ(plays().size(), 1U);
}

TEST_F(ReplayTest, theOrdinarySpeedThatIsRefusedByNameIsAskedForWithout)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        const std::string scale = headerOf(request, "scale");
        connection.reply(request, scale == "1" ? 457 : 200, scale.empty() ? "" : "Scale: " + scale + "\r\n");
    }));
    beginAndWait({hour, 8, false});
    beginAndWait({std::nullopt, 1, false});
    EXPECT_TRUE(replayer->isPlayed());
    EXPECT_EQ(replayer->answer.scale, 1.0);
    ASSERT_EQ(plays().size(), 3U);
    EXPECT_EQ(headerOf(plays()[2], "scale"), "");
}

TEST_F(ReplayTest, mediaInFrontOfARefusalAreNotOfThePlaceAskedForAgain)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (++round == 1)
            RecordingSender(connection, 777, 5000).report(recordedMs + 700).keyFrame();
        connection.reply(request, round == 1 ? 551 : 200);
        if (round == 2)
            RecordingSender(connection).keyFrame().picture();
    }));
    beginAndWait({hour, 8, false});
    ASSERT_TRUE(waitFrames(3));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{700, 0, 40}));
}

TEST_F(ReplayTest, pausedSilenceIsNoStallAndNothingIsLost)
{
    Camera recorder = recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        if (sender)
            sender->picture();
        else
            sender.emplace(connection).keyFrame();
    });
    const auto onPlay = recorder.intercept;
    recorder.intercept = [&, onPlay](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method == "PAUSE")
            sender->picture();  // sent before the request was read
        return onPlay(connection, request);
    };
    loop.timing().keepAliveInterval = milliseconds(50);
    replayer.emplace(loop);
    replayer->client->setStallTimeout(milliseconds(500));
    open(recorder);
    ASSERT_TRUE(loop.runUntil([&] { return peer->count("GET_PARAMETER") >= 12; })) << "nothing is due before PLAY";
    beginAndWait();
    replayer->pause();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->paused.has_value(); }));
    EXPECT_FALSE(*replayer->paused);
    const std::size_t before = peer->count("GET_PARAMETER");
    ASSERT_TRUE(loop.runUntil([&] { return peer->count("GET_PARAMETER") >= before + 12; }));
    EXPECT_FALSE(replayer->closed);
    beginAndWait({std::nullopt, 1, false});
    ASSERT_TRUE(waitFrames(3));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 80}));
    EXPECT_EQ(replayer->client->counters(replayer->videoTrack).lostPackets, 0U);
}

TEST_F(ReplayTest, silenceWhileMediaAreDueIsAStall)
{
    replayer->client->setStallTimeout(milliseconds(30));
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender(connection).keyFrame();
    }));
    beginAndWait();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->closed.has_value(); }));
    EXPECT_EQ(*replayer->closed, make_error_code(ResultCode::timedOut));
}

TEST_F(ReplayTest, aRefusalChangesNothing)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (!sender)
            sender.emplace(connection);
        connection.reply(request, round++ == 1 ? 457 : 200);
        round == 1 ? sender->keyFrame() : sender->picture();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(1));
    beginAndWait({RecordedPlay::Interval{recordedMs + 60'000, hour.endMs}, 1, false});
    EXPECT_EQ(*replayer->played, make_error_code(ResultCode::streamRefused));
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40}));
    EXPECT_FALSE(replayer->closed);
}

TEST_F(ReplayTest, aSessionThatTheDeviceHasForgottenEnds)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 454);
    }));
    replayer->begin();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->closed.has_value(); }));
    EXPECT_EQ(*replayer->closed, make_error_code(ResultCode::resourceNotFound));
}

TEST_F(ReplayTest, aPlayWithoutAnAnswerEndsTheConnection)
{
    loop.timing().requestTimeout = milliseconds(1000);
    replayer.emplace(loop);
    open(recorderWith([&](ScriptedPeer::Connection&, const ScriptedPeer::Request&) {}));
    replayer->begin();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->closed.has_value(); }));
    EXPECT_EQ(*replayer->closed, make_error_code(ResultCode::timedOut));
}

TEST_F(ReplayTest, aRecordingThatTheDeviceHasNotFailsBeforeReady)
{
    for (const unsigned status : {404U, 599U, 454U}) {
        SCOPED_TRACE(status);
        Camera recorder = recorderWith({});
        recorder.statuses["DESCRIBE"] = status;
        ScriptedPeer unknowing(recorder.script());
        Replayer other(loop);
        other.open(unknowing);
        ASSERT_TRUE(loop.runUntil([&] { return other.sdp.has_value(); }));
        EXPECT_EQ(*other.sdp, make_error_code(status == 599 ? ResultCode::deviceError : ResultCode::resourceNotFound));
    }
}

TEST_F(ReplayTest, onePlayOrPauseAtATimeAndOnlyWhenReady)
{
    replayer->begin();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->played.has_value(); }));
    EXPECT_EQ(*replayer->played, make_error_code(ResultCode::invalidState));
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
    }));
    replayer->begin();
    replayer->pause();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->paused && replayer->played; }));
    EXPECT_EQ(*replayer->paused, make_error_code(ResultCode::invalidState));
    EXPECT_FALSE(*replayer->played);
}

TEST_F(ReplayTest, teardownInsideTheEndIsTheLastOfIt)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender(connection).keyFrame().bye();
    }));
    bool done = false;
    replayer->onEnd = [&] { replayer->client->teardown([&](const error_code&) { done = true; }); };
    replayer->begin({moment, 1, false});
    ASSERT_TRUE(loop.runUntil([&] { return done; }));
    EXPECT_EQ(peer->count("TEARDOWN"), 1U);
    EXPECT_FALSE(replayer->closed);
}

TEST_F(ReplayTest, bothTracksEndBeforeTheEndIsTold)
{
    open(recorderWith(
        [](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            connection.reply(request, 200);
            RecordingSender sender(connection);
            sender.keyFrame().bye();
            connection.sendFrame(2, rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
            connection.sendFrame(3, byePacket(0x99));
        },
        videoAndAudioSdp));
    beginAndWait({moment, 1, false});
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 1; }));
    EXPECT_EQ(replayer->audio.size(), 1U);
    EXPECT_EQ(replayer->video.size(), 1U);
}

TEST_F(ReplayTest, theSoundsReportsDoNotSetThePicturesTimeOnSharedChannels)
{
    for (const bool early : {false, true}) {
        SCOPED_TRACE(early);
        Camera recorder = recorderWith(
            [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
                connection.reply(request, 200);
                RecordingSender pictures(connection, 1'000'000'000);
                const auto soundsReport = [&] {
                    connection.sendFrame(1, senderReport(0x99, ntpOf(recordedMs + 9000), 5000));
                };
                pictures.report(recordedMs);
                if (early)
                    soundsReport();
                pictures.keyFrame().picture();
                soundsReport();
                pictures.picture().report(recordedMs + 160).picture();
                connection.sendFrame(0, rtp(0, 7, 5000, false, Bytes(160, 0x55), 0x99));
            },
            videoAndAudioSdp);
        recorder.transport = [](std::size_t, const std::string&) { return "RTP/AVP/TCP;unicast;interleaved=0-1"; };
        replayer.emplace(loop);
        open(recorder);
        beginAndWait();
        ASSERT_TRUE(waitFrames(5));
        EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 80, 160, 9000}));
    }
}

TEST_F(ReplayTest, aRecordingOfAnotherSourceFollowsTheLastFrameUntilItsReport)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender sender(connection);
        sender.report(recordedMs).keyFrame().picture();
        sender.become(0x55, 1'000'000'000, 9).keyFrame().report(recordedMs + 600'000).picture().picture();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(5));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 80, 600'000, 600'040}));
}

TEST_F(ReplayTest, aReportOfThePresentDayIsIgnored)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender(connection)
            .report(1'790'000'000'000)
            .keyFrame()
            .picture()
            .report(1'790'000'000'080)
            .picture()
            .report(recordedMs + 5000)
            .picture();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(4));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 80, 5000}));
}

TEST_F(ReplayTest, framesThatComeWhileNoneAreDueAreDropped)
{
    Camera recorder = recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        if (!sender)
            sender.emplace(connection).keyFrame();
        else
            sender->picture().keyFrame();
    });
    const auto onPlay = recorder.intercept;
    recorder.intercept = [&, onPlay](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method == "SETUP") {
            connection.reply(request, 200, "Session: 88\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
            RecordingSender(connection, 7, 20'000).keyFrame();
            return true;
        }
        if (request.method == "PAUSE") {
            connection.reply(request, 200);
            sender->picture();
            return true;
        }
        return onPlay(connection, request);
    };
    const auto seen = [&] { return replayer->client->counters(replayer->videoTrack).frames; };
    open(recorder);
    // Until PLAY is sent: from then on a frame may be the first that was asked for.
    ASSERT_TRUE(loop.runUntil([&] { return seen() == 1; }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(1));
    replayer->pause();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->paused && seen() == 3; }));
    beginAndWait({std::nullopt, 1, false});
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 120})) << "the frame in front refers to a dropped one";
    EXPECT_TRUE(replayer->frames[1].info.keyFrame);
}

TEST_F(ReplayTest, aFarewellInTheMiddleIsTheEndOnlyWhenNothingFollows)
{
    loop.timing().silenceAfterBye = milliseconds(1000);
    replayer.emplace(loop);
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender sender(connection);
        sender.report(recordedMs).keyFrame().picture().bye();
        sender.report(recordedMs + 600'000).keyFrame().picture().bye();
    }));
    std::size_t atEnd = 0;
    replayer->onEnd = [&] { atEnd = replayer->frames.size(); };
    beginAndWait();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 1; }));
    EXPECT_EQ(atEnd, 4U);
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 600'000, 600'040}));
    EXPECT_FALSE(replayer->closed);
}

TEST_F(ReplayTest, aFarewellInTheMiddleIsNoEndWhenPlayedFast)
{
    loop.timing().silenceAfterBye = milliseconds(1000);
    replayer.emplace(loop);
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200, "Scale: 8\r\n");
        RecordingSender sender(connection);
        sender.report(recordedMs).keyFrame().picture().bye();
        sender.report(recordedMs + 20'000).keyFrame().picture().bye();
    }));
    std::size_t atEnd = 0;
    replayer->onEnd = [&] { atEnd = replayer->frames.size(); };
    beginAndWait({RecordedPlay::Interval{recordedMs, recordedMs + 30'000}, 8, false});
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 1; }));
    EXPECT_EQ(atEnd, 4U);
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40, 20'000, 20'040}));
}

TEST_F(ReplayTest, aFarewellAsFarFromTheEndAsKeyFramesAreApartIsTheEnd)
{
    loop.timing().silenceAfterBye = std::chrono::hours(1);
    replayer.emplace(loop);
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200, "Scale: 8\r\nFrames: intra\r\n");
        RecordingSender(connection).keyFrame(4000 * 90).keyFrame().bye();
    }));
    beginAndWait({RecordedPlay::Interval{recordedMs, recordedMs + 12'000}, 8, true});
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 1; }));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 4000}));
}

TEST_F(ReplayTest, theFarewellOfAnotherSourceIsNotTheEnd)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender(connection).keyFrame().bye(0x77).picture().bye();
    }));
    std::size_t atEnd = 0;
    replayer->onEnd = [&] { atEnd = replayer->frames.size(); };
    beginAndWait({moment, 1, false});
    ASSERT_TRUE(loop.runUntil([&] { return replayer->ends == 1; }));
    EXPECT_EQ(atEnd, 2U);
}

TEST_F(ReplayTest, aRefusalOfAnotherPlaceWhilePausedChangesNothing)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (!sender)
            sender.emplace(connection);
        connection.reply(request, ++round == 2 ? 457 : 200);
        if (round != 2)
            round == 1 ? sender->keyFrame() : sender->picture();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(1));
    replayer->pause();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->paused.has_value(); }));
    beginAndWait({RecordedPlay::Interval{recordedMs + 60'000, hour.endMs}, 1, false});
    EXPECT_EQ(*replayer->played, make_error_code(ResultCode::streamRefused));
    beginAndWait({std::nullopt, 1, false});
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 40}));
    EXPECT_FALSE(replayer->frames[1].info.lostPacketsBefore);
}

TEST_F(ReplayTest, whatIsOfTheOldPlaceBehindTheAnswerIsDropped)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (!sender) {
            connection.reply(request, 200);
            sender.emplace(connection, 90'000, std::uint16_t{100}).report(recordedMs + 60'000).keyFrame().picture();
            return;
        }
        // Its numbers go on: three packets of a key frame, one of another picture, then those of the new place.
        connection.reply(request, 200,
                         "Range: clock=20170426T021045Z-\r\nRTP-Info: url=track1;seq=108;rtptime=500000000\r\n");
        sender->report(recordedMs + 60'080).keyFrame().picture();
        sender->become(0x11223344, 500'000'000, 108).keyFrame().picture();
    }));
    beginAndWait({RecordedPlay::Interval{recordedMs + 60'000, hour.endMs}, 1, false});
    ASSERT_TRUE(waitFrames(2));
    beginAndWait();
    ASSERT_TRUE(waitFrames(4));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{60'000, 60'040, 0, 40}));
}

TEST_F(ReplayTest, anAnswerToAResumptionSaysWhereItGoesOn)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        const bool first = round++ == 0;
        connection.reply(request, 200,
                         first ? "" : "Range: clock=20170426T021047Z-\r\nRTP-Info: url=track1;seq=12;rtptime=777\r\n");
        RecordingSender(connection, first ? 2'000'000'000 : 777, first ? std::uint16_t{9} : std::uint16_t{12})
            .keyFrame();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(1));
    replayer->pause();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->paused.has_value(); }));
    beginAndWait({std::nullopt, 1, false});
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{0, 2000}));
}

TEST_F(ReplayTest, mediaInFrontOfTheAnswerAreOfTheWholeSecondThatWasAskedFor)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        RecordingSender(connection).keyFrame();
        connection.reply(request, 200);
    }));
    beginAndWait({RecordedPlay::Interval{recordedMs + 700, hour.endMs}, 1, false});
    ASSERT_TRUE(waitFrames(1));
    EXPECT_EQ(replayer->times(), std::vector<std::int64_t>{0});
}

TEST_F(ReplayTest, framesInFrontOfTheFirstKeyFrameCountForTheTime)
{
    open(recorderWith([](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        connection.reply(request, 200);
        RecordingSender(connection).picture().picture().keyFrame();
    }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(1));
    EXPECT_EQ(replayer->times(), std::vector<std::int64_t>{80});
}

/// A recorder that answers its second PLAY only when some keep-alives have come behind it, and so some time has passed.
Camera recorderThatSeeksSlowly(const OnPlay& onFirst, const OnPlay& onSecond, const OnPlay& onSecondAnswer)
{
    Camera recorder;
    recorder.sdp = videoSdp;
    struct Progress {
        int plays = 0;
        int keepAlives = 0;
        ScriptedPeer::Request held;
    };
    recorder.intercept = [=, progress = std::make_shared<Progress>()](ScriptedPeer::Connection& connection,
                                                                      const ScriptedPeer::Request& request) {
        if (request.method == "GET_PARAMETER" && progress->plays == 2 && ++progress->keepAlives == 20)
            onSecondAnswer(connection, progress->held);
        if (request.method != "PLAY")
            return false;
        progress->held = request;
        ++progress->plays == 1 ? onFirst(connection, request) : onSecond(connection, request);
        return true;
    };
    return recorder;
}

TEST_F(ReplayTest, aFarewellOfTheOldPlaceIsNotTheEndWhileAnotherIsAwaited)
{
    loop.timing().silenceAfterBye = milliseconds(20);
    loop.timing().keepAliveInterval = milliseconds(10);
    replayer.emplace(loop);
    open(recorderThatSeeksSlowly(
        [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            connection.reply(request, 200);
            sender.emplace(connection).report(recordedMs + 60'000).keyFrame();
        },
        [&](ScriptedPeer::Connection&, const ScriptedPeer::Request&) { sender->bye(); },
        [&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            connection.reply(request, 200, "Range: clock=20170426T021045Z-\r\n");
            sender->keyFrame();
        }));
    beginAndWait({RecordedPlay::Interval{recordedMs + 60'000, hour.endMs}, 1, false});
    ASSERT_TRUE(waitFrames(1));
    beginAndWait();
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{60'000, 0}));
    EXPECT_EQ(replayer->ends, 0);
}

TEST_F(ReplayTest, aRecorderThatTakesItsTimeToSeekHasNotStalled)
{
    loop.timing().keepAliveInterval = milliseconds(10);
    replayer.emplace(loop);
    replayer->client->setStallTimeout(milliseconds(50));
    std::optional<error_code> sought;
    open(recorderThatSeeksSlowly([&](ScriptedPeer::Connection& connection,
                                     const ScriptedPeer::Request& request) { connection.reply(request, 200); },
                                 [](ScriptedPeer::Connection&, const ScriptedPeer::Request&) {},
                                 [](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
                                     connection.reply(request, 200);
                                 }));
    replayer->client->playRecorded({hour, 1, false}, [&](const error_code&, const RecordedPlayAnswer&) {
        replayer->client->playRecorded({hour, 1, false},
                                       [&](const error_code& ec, const RecordedPlayAnswer&) { sought = ec; });
    });
    ASSERT_TRUE(loop.runUntil([&] { return sought || replayer->closed; }));
    ASSERT_TRUE(sought.has_value());
    EXPECT_FALSE(*sought);
}

TEST_F(ReplayTest, aReportOfTheOldPlaceInFrontOfTheAnswerSaysNothingOfTheNew)
{
    open(recorderWith([&](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (round++ == 0) {
            connection.reply(request, 200);
            sender.emplace(connection).report(recordedMs + 60'000).keyFrame();
            return;
        }
        sender->report(recordedMs + 60'040).bye();  // some say so while they are paused, too
        connection.reply(request, 200);
        sender->keyFrame();
    }));
    beginAndWait({RecordedPlay::Interval{recordedMs + 60'000, hour.endMs}, 1, false});
    ASSERT_TRUE(waitFrames(1));
    replayer->pause();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->paused.has_value(); }));
    beginAndWait();
    ASSERT_TRUE(waitFrames(2));
    EXPECT_EQ(replayer->times(), (std::vector<std::int64_t>{60'000, 0}));
}

/// A recorder that has played everything when it answers PAUSE, and then answers PLAY by `status`.
Camera recorderThatEndsWhilePausing(std::optional<RecordingSender>& sender, unsigned status)
{
    Camera recorder =
        recorderWith([&, status](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            if (sender) {
                connection.reply(request, status);
                return;
            }
            connection.reply(request, 200);
            sender.emplace(connection).keyFrame();
        });
    const auto onPlay = recorder.intercept;
    recorder.intercept = [&, onPlay](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method == "PAUSE")
            sender->bye();
        return onPlay(connection, request);
    };
    return recorder;
}

TEST_F(ReplayTest, anEndWhileAPauseIsAnsweredIsTold)
{
    open(recorderThatEndsWhilePausing(sender, 200));
    beginAndWait({moment, 1, false});
    ASSERT_TRUE(waitFrames(1));
    replayer->pause();
    ASSERT_TRUE(loop.runUntil([&] { return replayer->paused.has_value(); }));
    EXPECT_FALSE(*replayer->paused);
    EXPECT_EQ(replayer->ends, 1);
}

TEST_F(ReplayTest, anEndWhileAPauseIsAnsweredIsToldBehindARefusalToGoOn)
{
    for (const unsigned status : {200U, 455U, 457U}) {
        SCOPED_TRACE(status);
        replayer.emplace(loop);
        peer.reset();
        sender.reset();
        open(recorderThatEndsWhilePausing(sender, status));
        beginAndWait({moment, 1, false});
        ASSERT_TRUE(waitFrames(1));
        replayer->client->pauseRecorded([&](const error_code&) { replayer->begin({std::nullopt, 1, false}); });
        ASSERT_TRUE(loop.runUntil([&] { return plays().size() == 2 && replayer->played; }));
        EXPECT_EQ(replayer->isPlayed(), status == 200);
        EXPECT_EQ(replayer->ends, 1);
    }
}
}  // namespace
}  // namespace Tavro8::Utility

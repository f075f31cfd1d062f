#include <utility>

#include "StreamFixture.h"

#include <IpUtil/RTSPStream.h>
#include <algorithm>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <thread>

namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;
using testing::HasSubstr;

TEST(RTSPStream, sharesOneConnectionBetweenItsReceivers)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    const auto audio = fixture.add(MediaKind::audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5 && audio->frames > 1; }));
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
    EXPECT_EQ(fixture.peer.count("SETUP"), 2U);
    EXPECT_EQ(video->starts, 1);
    EXPECT_EQ(video->states, std::vector<error_code>{error_code()});
    EXPECT_EQ(audio->states, std::vector<error_code>{error_code()});
    EXPECT_TRUE(video->firstWasKeyFrame);
    EXPECT_EQ(fixture.stream->counters(*video).frames, video->frames);
    EXPECT_EQ(fixture.stream->counters(*audio).frames, audio->frames);
}

TEST(RTSPStream, setsUpOnlyWhatSomebodyWants)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
    EXPECT_EQ(fixture.peer.count("SETUP"), 1U);
}

TEST(RTSPStream, connectsAgainWithBothWhenAnotherKindIsAdded)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
    const auto audio = fixture.add(MediaKind::audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return audio->frames > 1 && video->framesSinceState > 5; }));
    EXPECT_EQ(fixture.peer.connectionCount(), 2U);
    EXPECT_EQ(fixture.peer.count("TEARDOWN"), 1U) << "the first session is ended";
    EXPECT_EQ(fixture.peer.count("SETUP"), 3U);
    EXPECT_EQ(video->starts, 2);
    EXPECT_EQ(audio->starts, 1);
    EXPECT_TRUE(video->timesInOrder);
    EXPECT_EQ(fixture.losses, 0);
}

TEST(RTSPStream, letsAReceiverJoinAtAKeyFrameWithItsParameterSets)
{
    Fixture fixture(sendingCamera());
    const auto first = fixture.add(MediaKind::video);
    const auto second = std::make_shared<Receiver>(MediaKind::video);
    first->eachFrame = [&] {
        if (first->frames == 7)  // in the middle of a group of pictures
            fixture.stream->regReceiver(second);
    };
    ASSERT_TRUE(fixture.loop.runUntil([&] { return second->frames > 5; }));
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
    EXPECT_EQ(second->states, std::vector<error_code>{error_code()});
    EXPECT_TRUE(second->firstWasKeyFrame);
    EXPECT_EQ(second->firstParameterSets, annexB({spsNal(), ppsNal()}));
    EXPECT_EQ(first->firstParameterSets, second->firstParameterSets);
    EXPECT_GT(fixture.stream->counters(*first).frames, fixture.stream->counters(*second).frames);
}

TEST(RTSPStream, letsAReceiverJoinSoundWithItsConfiguration)
{
    Camera camera;
    camera.sdp =
        "v=0\r\ns=-\r\nm=audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/16000/1\r\n"
        "a=fmtp:97 streamtype=5; Mode=AAC-hbr; SizeLength=13; IndexLength=3; IndexDeltaLength=3; config=1408\r\n"
        "a=control:a\r\n";
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        const Bytes unit{0x00, 0x10, 0x00, 0x20, 1, 2, 3, 4};
        for (std::uint16_t number = 0; !connection.hasMore(); ++number) {
            if (!connection.sendFrame(0, rtp(97, number, number * 1024U, true, unit, 0x99)))
                return;
            std::this_thread::yield();
        }
    };
    Fixture fixture(camera);
    const auto first = fixture.add(MediaKind::audio);
    const auto second = std::make_shared<Receiver>(MediaKind::audio);
    first->eachFrame = [&] {
        if (first->frames == 7)
            fixture.stream->regReceiver(second);
    };
    ASSERT_TRUE(fixture.loop.runUntil([&] { return second->frames > 5; }));
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
    EXPECT_EQ(first->firstParameterSets, (Bytes{0x14, 0x08}));
    EXPECT_EQ(second->firstParameterSets, first->firstParameterSets);
}

TEST(RTSPStream, closesWhenTheLastReceiverHasGone)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    const auto audio = fixture.add(MediaKind::audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
    ASSERT_TRUE(fixture.remove(video));
    const std::size_t framesThen = video->frames;
    const std::size_t audioThen = audio->frames;
    ASSERT_TRUE(fixture.loop.runUntil([&] { return audio->frames > audioThen + 2; })) << "the other goes on";
    EXPECT_EQ(video->frames, framesThen) << "nothing reaches a receiver after its completion";
    ASSERT_TRUE(fixture.remove(audio));
    EXPECT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.count("TEARDOWN") == 1; }));
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
}

TEST(RTSPStream, mayLoseItsReceiverAtAnyStepOfTheConnection)
{
    for (const char* step : {"OPTIONS", "DESCRIBE", "SETUP", "PLAY"}) {
        SCOPED_TRACE(step);
        Camera camera = sendingCamera();
        camera.intercept = [step](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
            return request.method == step;
        };
        Fixture fixture(camera);
        const auto video = fixture.add(MediaKind::video);
        ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.count(step) == 1; }));
        ASSERT_TRUE(fixture.remove(video));
        EXPECT_TRUE(video->states.empty());
        // Gone and come back: the new start is not lost.
        const auto again = fixture.add(MediaKind::video);
        ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.count(step) == 2; }));
    }
}

TEST(RTSPStream, completesTheRemovalOfAStranger)
{
    Fixture fixture(sendingCamera());
    EXPECT_TRUE(fixture.remove(std::make_shared<Receiver>(MediaKind::video)));
    EXPECT_EQ(fixture.peer.connectionCount(), 0U);
}

TEST(RTSPStream, registersAReceiverOnce)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    fixture.stream->regReceiver(video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
    EXPECT_EQ(fixture.stream->counters(*video).frames, video->frames);
    ASSERT_TRUE(fixture.remove(video));
    EXPECT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.count("TEARDOWN") == 1; }));
}

TEST(RTSPStream, restartsItsConnection)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
    fixture.stream->restart();
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 2 && video->framesSinceState > 5; }));
    EXPECT_EQ(fixture.peer.connectionCount(), 2U);
    EXPECT_EQ(fixture.peer.count("TEARDOWN"), 1U);
    EXPECT_EQ(fixture.peer.requests().back().uri.find("/media/video2") != std::string::npos, true)
        << "the path is formed anew";
    EXPECT_EQ(video->states, std::vector<error_code>(2)) << "a restart is no failure";
    EXPECT_EQ(fixture.stream->counters(*video).frames, video->frames) << "counted on over connections";
    EXPECT_TRUE(video->timesInOrder);
    EXPECT_EQ(fixture.losses, 0);
}

TEST(RTSPStream, returnsAtOnceAfterALoss)
{
    const struct {
        const char* name;
        std::function<void(ScriptedPeer::Connection&)> end;
        ResultCode expected;
    } cases[] = {
        {"closed", [](ScriptedPeer::Connection& connection) { connection.close(); }, ResultCode::connectionLost},
        {"silent", [](ScriptedPeer::Connection&) {}, ResultCode::timedOut},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Camera camera = sendingCamera();
        camera.afterPlay = [&c, send = camera.afterPlay](ScriptedPeer::Connection& connection) {
            if (connection.number > 0)
                return send(connection);
            VideoSender().run(connection, 5);
            c.end(connection);
        };
        Fixture fixture(camera);
        fixture.loop.timing().firstRetry = std::chrono::hours(1);  // only the attempt at once can be meant
        const auto video = std::make_shared<Receiver>(MediaKind::video);
        video->stallTimeout = milliseconds(100);
        fixture.makeStream();
        fixture.stream->regReceiver(video);
        ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 3 && video->framesSinceState > 5; }));
        EXPECT_EQ(video->states[1], errorOf(c.expected));
        EXPECT_FALSE(video->states[2]);
        EXPECT_EQ(fixture.losses, 0);
        EXPECT_EQ(fixture.stream->counters(*video).frames, video->frames);
        EXPECT_TRUE(video->timesInOrder);
    }
}

TEST(RTSPStream, pacesADeviceThatClosesAgainAndAgain)
{
    Camera camera = sendingCamera();
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender().run(connection, 1);
        connection.close();
    };
    Fixture fixture(camera);
    fixture.loop.timing().steadyLife = std::chrono::seconds(60);
    fixture.loop.timing().firstRetry = fixture.loop.timing().longestRetry = milliseconds(100);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.connectionCount() == 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(3 * 75));
}

TEST(RTSPStream, tellsTheDeviceOfALossThatTheFirstAttemptDidNotMend)
{
    std::atomic<bool> refusing{false};
    Camera camera = sendingCamera();
    camera.afterPlay = [&refusing, send = camera.afterPlay](ScriptedPeer::Connection& connection) {
        if (connection.number > 0)
            return send(connection);
        VideoSender().run(connection, 5);
        refusing = true;
        connection.close();
    };
    camera.intercept = [&refusing](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (!refusing)
            return false;
        connection.reply(request, 503);
        return true;
    };
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.losses == 1; }));
    ASSERT_GE(video->states.size(), 3U);
    EXPECT_EQ(video->states[1], errorOf(ResultCode::connectionLost));
    EXPECT_EQ(video->states[2], errorOf(ResultCode::deviceBusy));
    const std::size_t connections = fixture.peer.connectionCount();
    ASSERT_TRUE(fixture.loop.runUntil([&] { return fixture.peer.connectionCount() >= connections + 2; }));
    EXPECT_EQ(fixture.losses, 1) << "told once for each loss";
    refusing = false;
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->framesSinceState > 5; })) << "goes on trying";
}

TEST(RTSPStream, doesNotCallAStreamLostThatNeverPlayed)
{
    Camera camera = sendingCamera();
    camera.statuses["DESCRIBE"] = 404;
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 3; }));
    EXPECT_EQ(video->states, std::vector<error_code>(3, errorOf(ResultCode::resourceNotFound)));
    EXPECT_EQ(fixture.losses, 0);
    EXPECT_EQ(video->starts, 3);
}

TEST(RTSPStream, waitsForTheDevice)
{
    Fixture fixture(sendingCamera());
    const auto info = std::exchange(fixture.info, nullptr);
    const auto video = fixture.add(MediaKind::video);
    fixture.loop.io->restart();
    fixture.loop.io->run();  // nothing to do: it waits without a timer
    EXPECT_EQ(video->starts, 0);
    fixture.info = info;
    fixture.stream->deviceConnected();
    EXPECT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
}

TEST(RTSPStream, triesAtOnceWhenTheDeviceHasComeBack)
{
    std::atomic<bool> refusing{true};
    Camera camera = sendingCamera();
    camera.intercept = [&refusing](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (!refusing)
            return false;
        connection.reply(request, 503);
        return true;
    };
    Fixture fixture(camera);
    fixture.loop.timing().firstRetry = fixture.loop.timing().longestRetry = std::chrono::hours(1);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 1; }));
    refusing = false;
    fixture.stream->deviceConnected();
    EXPECT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
}

TEST(RTSPStream, playsOnWhatThereIsWhenAKindIsMissing)
{
    Fixture fixture(sendingCamera(videoSdp));
    const auto video = fixture.add(MediaKind::video);
    const auto audio = fixture.add(MediaKind::audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
    EXPECT_EQ(audio->states, std::vector<error_code>{errorOf(ResultCode::noSuchStream)});
    // One that comes later hears the same, without a new connection.
    const auto late = fixture.add(MediaKind::audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return !late->states.empty(); }));
    EXPECT_EQ(late->states, std::vector<error_code>{errorOf(ResultCode::noSuchStream)});
    EXPECT_EQ(fixture.peer.connectionCount(), 1U);
    EXPECT_THAT(fixture.log.text(), HasSubstr("the device offers no audio"));
}

TEST(RTSPStream, ignoresBackChannelsAndFormatsThatAreNotExpected)
{
    const std::string sdp = std::string(videoSdp) + "m=audio 0 RTP/AVP 0\r\na=control:back\r\na=sendonly\r\n"
                                                    "m=audio 0 RTP/AVP 0\r\na=control:u\r\n"
                                                    "m=audio 0 RTP/AVP 8\r\na=control:a\r\n";
    Fixture fixture(sendingCamera(sdp.c_str()));
    const auto audio = std::make_shared<Receiver>(MediaKind::audio);
    audio->audio.expectedCodec = GDRV::MediaCodec::g711A;
    fixture.stream->regReceiver(audio);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return !audio->states.empty(); }));
    const auto requests = fixture.peer.requests();
    const auto setup = std::ranges::find(requests, "SETUP", &ScriptedPeer::Request::method);
    ASSERT_NE(setup, requests.end());
    EXPECT_TRUE(setup->uri.ends_with("/a")) << setup->uri;
}

TEST(RTSPStream, saysSoAndTriesAgainWhenNothingCanBeReceived)
{
    Camera camera;
    camera.sdp = "v=0\r\ns=-\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 VP8/90000\r\n";
    Fixture fixture(camera);
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 2; }));
    EXPECT_EQ(video->states, std::vector<error_code>(2, errorOf(ResultCode::noSuchStream)));
    EXPECT_EQ(fixture.peer.count("SETUP"), 0U);
    EXPECT_THAT(fixture.log.text(), HasSubstr("nothing that the device offers can be received (video VP8)"));
}

TEST(RTSPStream, describesAgainWhenThePayloadTypeHasChanged)
{
    Camera camera;
    camera.sdp = videoSdp;
    camera.intercept = [](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        if (request.method != "DESCRIBE" || connection.number == 0)
            return false;
        std::string sdp = videoSdp;
        for (std::size_t at = sdp.find("96"); at != std::string::npos; at = sdp.find("96"))
            sdp.replace(at, 2, "97");
        connection.reply(request, 200, {}, sdp);
        return true;
    };
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        if (connection.number == 0)
            VideoSender().run(connection, 5);
        VideoSender changed(0, 97);
        while (changed.sendKeyFrame(connection))
            std::this_thread::yield();
    };
    Fixture fixture(camera);
    fixture.loop.timing().foreignLimit = milliseconds(50);
    fixture.loop.timing().firstRetry = std::chrono::hours(1);
    fixture.makeStream();
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->states.size() == 3 && video->framesSinceState > 5; }));
    EXPECT_EQ(fixture.peer.connectionCount(), 2U);
}

TEST(RTSPStream, mayBeReleasedAndLeftInsideItsCallbacks)
{
    Fixture fixture(sendingCamera());
    auto video = fixture.add(MediaKind::video);
    bool removed = false;
    video->eachFrame = [&] {
        if (fixture.stream == nullptr)
            return;
        fixture.stream->unregReceiver(video, [&] { removed = true; });
        fixture.stream.reset();
    };
    ASSERT_TRUE(fixture.loop.runUntil([&] { return removed; }));
    const std::weak_ptr<Receiver> gone = video;
    video->eachFrame = nullptr;
    video.reset();
    EXPECT_TRUE(gone.expired());
    fixture.loop.io->restart();
    fixture.loop.io->run();  // runs out of work: nothing is left behind
    EXPECT_EQ(fixture.peer.count("TEARDOWN"), 1U);
}

TEST(RTSPStream, closesWhenItIsReleasedWithReceivers)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    ASSERT_TRUE(fixture.loop.runUntil([&] { return video->frames > 5; }));
    fixture.stream.reset();
    fixture.loop.io->restart();
    fixture.loop.io->run();
    EXPECT_EQ(fixture.peer.count("TEARDOWN"), 1U);
    EXPECT_EQ(video.use_count(), 1);
}

TEST(RTSPStream, mayBeRestartedInsideItsCallbacks)
{
    Fixture fixture(sendingCamera());
    const auto video = fixture.add(MediaKind::video);
    int restarts = 0;
    video->eachFrame = [&] {
        if (video->frames % 7 == 0 && restarts < 3) {
            ++restarts;
            fixture.stream->restart();
        }
    };
    ASSERT_TRUE(fixture.loop.runUntil([&] { return restarts == 3 && video->framesSinceState > 10; }));
    EXPECT_GE(fixture.peer.connectionCount(), 2U);
}

TEST(RTSPStream, mayOutliveItsContext)
{
    /// Holds its stream, as sources do.
    struct Holder {
        std::shared_ptr<RTSPStream> stream;
    };
    for (const char* stopAt : {"OPTIONS", "DESCRIBE", "PLAY", "never"}) {
        SCOPED_TRACE(stopAt);
        Camera camera = sendingCamera();
        camera.intercept = [stopAt](ScriptedPeer::Connection&, const ScriptedPeer::Request& request) {
            return request.method == stopAt;
        };
        Fixture fixture(camera);
        auto video = fixture.add(MediaKind::video);
        video->eachFrame = [holder = Holder{fixture.stream}] { static_cast<void>(holder); };
        ASSERT_TRUE(fixture.loop.runUntil(
            [&] { return std::string(stopAt) == "never" ? video->frames > 3 : fixture.peer.count(stopAt) == 1; }));
        fixture.stream->restart();
        fixture.loop.io.reset();
        EXPECT_EQ(video.use_count(), 1) << "the ring of receiver and stream is broken";
    }
}

TEST(RTSPStream, survivesAStormFromManyThreads)
{
    Fixture fixture(sendingCamera());
    std::atomic<bool> stop{false};
    std::thread io([&] {
        auto guard = boost::asio::make_work_guard(*fixture.loop.io);
        fixture.loop.io->run();
    });
    std::atomic<int> completions{0};
    constexpr int rounds = 60;
    std::vector<std::thread> hosts;
    for (int host = 0; host < 3; ++host) {
        hosts.emplace_back([&, host] {
            for (int round = 0; round < rounds; ++round) {
                const auto receiver = std::make_shared<Receiver>(host == 1 ? MediaKind::audio : MediaKind::video);
                fixture.stream->regReceiver(receiver);
                if (round % 5 == 0)
                    fixture.stream->restart();
                if (round % 7 == 0)
                    fixture.stream->deviceConnected();
                fixture.stream->unregReceiver(receiver, [&] { ++completions; });
                std::this_thread::yield();
            }
        });
    }
    for (std::thread& host : hosts)
        host.join();
    // What came before has been carried out when this one plays.
    std::promise<void> played;
    const auto last = std::make_shared<Receiver>(MediaKind::video);
    last->eachFrame = [&, told = false]() mutable {
        if (!std::exchange(told, true))
            played.set_value();
    };
    fixture.stream->regReceiver(last);
    EXPECT_EQ(played.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(completions, 3 * rounds);
    std::promise<void> left;
    fixture.stream->unregReceiver(last, [&] { left.set_value(); });
    left.get_future().wait();
    fixture.loop.io->stop();
    io.join();
}

TEST(RTSPSource, givesTheSameStreamWhileSomebodyHoldsIt)
{
    Loop loop;
    RTSPSource source(*loop.io, nullptr, {});
    auto first = source.getStream(0, 1);
    EXPECT_EQ(source.getStream(0, 1), first);
    EXPECT_NE(source.getStream(1, 1), first);
    EXPECT_NE(source.getStream(0, 0), first);
    EXPECT_EQ(&first->service(), loop.io.get());
    const std::weak_ptr<RTSPStream> weak = first;
    first.reset();
    EXPECT_TRUE(weak.expired()) << "the registry holds it weakly";
    EXPECT_NE(source.getStream(0, 1), nullptr);
}

TEST(RTSPSource, formsThePathOfChannelAndStreamAndTellsAllOfTheDevice)
{
    ScriptedPeer peer(sendingCamera().script());
    Loop loop;
    std::shared_ptr<asio::ConnectionInfo> info;
    RTSPSource::Hooks hooks;
    hooks.connectionInfo = [&] { return std::shared_ptr<const asio::ConnectionInfo>(info); };
    hooks.path = [](std::uint32_t channel, std::uint32_t stream) {
        return "/unicast/c" + std::to_string(channel + 1) + "/s" + std::to_string(stream) + "/live";
    };
    RTSPSource source(*loop.io, nullptr, hooks);
    const auto one = source.getStream(2, 1);
    const auto two = source.getStream(4, 0);
    const auto receiver = std::make_shared<Receiver>(MediaKind::video);
    const auto other = std::make_shared<Receiver>(MediaKind::video);
    one->regReceiver(receiver);
    two->regReceiver(other);
    loop.io->restart();
    loop.io->run();
    info = addressOf(peer);
    source.deviceConnected();
    ASSERT_TRUE(loop.runUntil([&] { return receiver->frames > 0 && other->frames > 0; }));
    const auto requests = peer.requests();
    for (const char* path : {"/unicast/c3/s1/live", "/unicast/c5/s0/live"}) {
        EXPECT_TRUE(std::ranges::any_of(requests, [&](const auto& request) { return request.uri.ends_with(path); }))
            << path;
    }
}

TEST(RTSPSource, mayBeAskedFromAnyThread)
{
    Loop loop;
    RTSPSource source(*loop.io, nullptr, {});
    std::vector<std::thread> hosts;
    for (std::uint32_t host = 0; host < 4; ++host) {
        hosts.emplace_back([&source, host] {
            for (std::uint32_t i = 0; i < 200; ++i) {
                EXPECT_NE(source.getStream(host % 2, i % 3), nullptr);
                source.deviceConnected();
            }
        });
    }
    for (std::thread& host : hosts)
        host.join();
}
}  // namespace
}  // namespace Tavro8::Utility

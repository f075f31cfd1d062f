#include <utility>

#include "AllocationCounter.h"
#include "Player.h"

#include <algorithm>
#include <future>
#include <gtest/gtest.h>

namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using kelvo::test::heapUseOfThisThread;

struct CountingPlayer {
    CountingPlayer(Loop& loop, const ScriptedPeer& peer) : client(RTSPClient::create(*loop.io, nullptr))
    {
        client->initialize(addressOf(peer), "/media/video1", [this](const error_code&) {
            client->performDefaultSteps(
                {},
                [this](const error_code&, const SessionDescription& description) {
                    client->addTrack({description.tracks.front(), [this](const GDRV::MediaFrame&) { ++frames; }});
                },
                [this](const error_code&) { playing = true; });
        });
    }
    ~CountingPlayer() { client->teardown(); }

    std::shared_ptr<RTSPClient> client;
    std::size_t frames = 0;
    bool playing = false;
};

TEST(RTSPReceiving, allocatesNothingForAPacketOrAFrame)
{
    Camera camera;
    camera.sdp = videoSdp;
    camera.afterPlay = [](ScriptedPeer::Connection& connection) { VideoSender().run(connection, 1U << 30); };
    ScriptedPeer peer(camera.script());
    Loop loop;
    CountingPlayer player(loop, peer);
    ASSERT_TRUE(loop.runUntil([&] { return player.frames > 1000; }));
    const std::size_t before = heapUseOfThisThread().allocations;
    const std::size_t framesBefore = player.frames;
    ASSERT_TRUE(loop.runUntil([&] { return player.frames > framesBefore + 5000; }));
    EXPECT_LT(heapUseOfThisThread().allocations - before, 10U) << "a buffer may grow once or twice";
}

TEST(RTSPReceiving, holdsLittleForAnIdleConnection)
{
    // Each has played, has received half of a large packet before, and waits now.
    constexpr std::size_t count = 20;
    constexpr std::ptrdiff_t mostBytes = 12 * 1024;
    Camera camera;
    camera.sdp = videoSdp;
    std::promise<void> second;
    camera.afterPlay = [go = second.get_future().share()](ScriptedPeer::Connection& connection) {
        const Bytes packet = interleaved(5, Bytes(60000, 0x80));
        const auto half = static_cast<std::ptrdiff_t>(packet.size() / 2);
        VideoSender video;
        connection.write(Bytes(packet.begin(), packet.begin() + half));
        go.wait();
        connection.write(Bytes(packet.begin() + half, packet.end()));
        video.sendKeyFrame(connection);
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    const std::ptrdiff_t before = heapUseOfThisThread().heldBytes;
    std::vector<std::unique_ptr<CountingPlayer>> players;
    for (std::size_t i = 0; i < count; ++i)
        players.push_back(std::make_unique<CountingPlayer>(loop, peer));
    const auto all = [&](auto&& holds) { return std::ranges::all_of(players, holds); };
    ASSERT_TRUE(loop.runUntil([&] { return all([](const auto& player) { return player->playing; }); }));
    second.set_value();
    ASSERT_TRUE(loop.runUntil([&] { return all([](const auto& player) { return player->frames == 1; }); }));
    const std::ptrdiff_t shared = 256 * 1024 + 64 * 1024;  // receive buffer and frame pool of the context
    const auto bytesEach = [&] {
        return (heapUseOfThisThread().heldBytes - before - shared) / static_cast<std::ptrdiff_t>(count);
    };
    EXPECT_TRUE(loop.runUntil([&] { return bytesEach() < mostBytes; })) << bytesEach() << " bytes each";
    RecordProperty("bytesEach", std::to_string(bytesEach()));
}
}  // namespace
}  // namespace Tavro8::Utility

#include <utility>

#include "AllocationCounter.h"
#include "Player.h"
#include "UdpEnd.h"

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
    CountingPlayer(Loop& loop, const ScriptedPeer& peer, RtspTransport transport = RtspTransport::tcp)
        : client(RTSPClient::create(*loop.io, nullptr))
    {
        client->setTransport(transport);
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

TEST(RTSPReceiving, allocatesNothingForADatagramInOrderOrNot)
{
    Camera camera;
    camera.sdp = videoSdp;
    UdpEnd device;
    camera.transport = [&](std::size_t, const std::string& asked) { return device.accept(asked); };
    ScriptedPeer peer(camera.script());
    Loop loop;
    CountingPlayer player(loop, peer, RtspTransport::udp);
    ASSERT_TRUE(loop.runUntil([&] { return player.playing; }));

    // A key frame of three packets and two pictures, sent again and again under later numbers; the pictures swap
    // places.
    VideoSender sender;
    std::vector<Bytes> packets = sender.keyFrameRtp();
    packets.push_back(sender.pictureRtp());
    packets.push_back(sender.pictureRtp());
    const auto sendRound = [&](std::uint32_t round) {
        for (std::size_t i = 0; i < packets.size(); ++i) {
            const std::uint32_t sequence =
                round * static_cast<std::uint32_t>(packets.size()) + static_cast<std::uint32_t>(i);
            const std::uint32_t timestamp = (round * 3 + static_cast<std::uint32_t>(i < 3 ? 0 : i - 2)) * 3600;
            for (std::size_t k = 0; k < 2; ++k)
                packets[i][2 + k] = static_cast<std::uint8_t>(sequence >> (8 - 8 * k));
            for (std::size_t k = 0; k < 4; ++k)
                packets[i][4 + k] = static_cast<std::uint8_t>(timestamp >> (24 - 8 * k));
        }
        for (const std::size_t i : {0U, 1U, 2U, 4U, 3U})
            device.sendRtp(packets[i]);
    };
    std::size_t before = 0;
    constexpr std::uint32_t warmRounds = 100;
    for (std::uint32_t round = 0; round < 2000; ++round) {
        if (round == warmRounds)
            before = heapUseOfThisThread().allocations;
        sendRound(round);
        ASSERT_TRUE(loop.runUntil([&] { return player.frames == 3 * (round + 1); }));
    }
    EXPECT_LT(heapUseOfThisThread().allocations - before, 10U);
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

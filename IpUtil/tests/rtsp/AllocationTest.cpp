#include <utility>

#include "Player.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <gtest/gtest.h>
#include <malloc.h>
#include <new>

// What this thread takes from the heap is counted; the peer's threads are not of interest.
namespace
{
thread_local std::size_t allocations = 0;
thread_local std::ptrdiff_t heldBytes = 0;

void* allocate(std::size_t bytes, std::size_t alignment) noexcept
{
    void* const memory = std::aligned_alloc(alignment, (bytes + alignment) / alignment * alignment);
    ++allocations;
    heldBytes += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
    return memory;
}

void release(void* memory) noexcept
{
    heldBytes -= static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
    std::free(memory);
}

void* allocateOrThrow(std::size_t bytes, std::size_t alignment)
{
    if (void* const memory = allocate(bytes, alignment))
        return memory;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t bytes)
{
    return allocateOrThrow(bytes, alignof(std::max_align_t));
}
void* operator new[](std::size_t bytes)
{
    return allocateOrThrow(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment)
{
    return allocateOrThrow(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment)
{
    return allocateOrThrow(bytes, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept
{
    return allocate(bytes, alignof(std::max_align_t));
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept
{
    return allocate(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocate(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocate(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept
{
    release(memory);
}
void operator delete[](void* memory) noexcept
{
    release(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    release(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept
{
    release(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept
{
    release(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    release(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept
{
    release(memory);
}

namespace Tavro8::Utility
{
namespace
{
using namespace testkit;

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
    const std::size_t before = allocations;
    const std::size_t framesBefore = player.frames;
    ASSERT_TRUE(loop.runUntil([&] { return player.frames > framesBefore + 5000; }));
    EXPECT_LT(allocations - before, 10U) << "a buffer may grow once or twice";
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
    const std::ptrdiff_t before = heldBytes;
    std::vector<std::unique_ptr<CountingPlayer>> players;
    for (std::size_t i = 0; i < count; ++i)
        players.push_back(std::make_unique<CountingPlayer>(loop, peer));
    const auto all = [&](auto&& holds) { return std::ranges::all_of(players, holds); };
    ASSERT_TRUE(loop.runUntil([&] { return all([](const auto& player) { return player->playing; }); }));
    second.set_value();
    ASSERT_TRUE(loop.runUntil([&] { return all([](const auto& player) { return player->frames == 1; }); }));
    const std::ptrdiff_t shared = 256 * 1024 + 64 * 1024;  // receive buffer and frame pool of the context
    EXPECT_TRUE(loop.runUntil([&] {
        return heldBytes - before < shared + static_cast<std::ptrdiff_t>(count) * mostBytes;
    })) << (heldBytes - before - shared) / static_cast<std::ptrdiff_t>(count)
        << " bytes each";
    RecordProperty("bytesEach", std::to_string((heldBytes - before - shared) / static_cast<std::ptrdiff_t>(count)));
}
}  // namespace
}  // namespace Tavro8::Utility

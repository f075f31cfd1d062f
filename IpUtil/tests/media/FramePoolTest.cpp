#include "media/FramePool.h"

#include "media/FrameBuilder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace Tavro8::media
{
TEST(FramePool, givesAtLeastWhatIsAskedAndAtMostAQuarterMore)
{
    FramePool pool;
    for (std::size_t bytes = 1; bytes < 40'000'000; bytes = bytes * 9 / 8 + 1) {
        FrameBuffer& buffer = pool.acquire(bytes);
        EXPECT_GE(buffer.getCapacity(), bytes);
        EXPECT_LE(buffer.getCapacity(), bytes < 512 ? 512 : bytes + bytes / 4 + 1) << bytes;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer.data()) % 64, 0U);
        std::memset(buffer.data(), 0xff, bytes);
        buffer.Release();
    }
    EXPECT_EQ(pool.usage().buffersOut, 0U);
}

TEST(FramePool, usesABufferAgain)
{
    FramePool pool;
    FrameBuffer* const first = &pool.acquire(20000);
    first->Release();
    EXPECT_EQ(pool.usage().buffersCached, 1U);
    FrameBuffer& second = pool.acquire(19000);
    EXPECT_EQ(&second, first);
    EXPECT_EQ(pool.usage().allocations, 1U);
    EXPECT_EQ(pool.usage().buffersCached, 0U);
    second.Release();
}

TEST(FramePool, takesASlightlyLargerBufferButNoneMuchLarger)
{
    FramePool pool;
    pool.acquire(28000).Release();
    pool.acquire(20000).Release();
    EXPECT_EQ(pool.usage().allocations, 1U);
    pool.acquire(5000).Release();
    EXPECT_EQ(pool.usage().allocations, 2U);
}

TEST(FramePool, countsWhatIsOut)
{
    FramePool pool;
    FrameBuffer& one = pool.acquire(1000);
    FrameBuffer& two = pool.acquire(2000);
    EXPECT_EQ(pool.usage().buffersOut, 2U);
    EXPECT_EQ(pool.usage().bytesOut, one.getCapacity() + two.getCapacity());
    one.AddRef();
    one.Release();
    EXPECT_EQ(pool.usage().buffersOut, 2U) << "one reference is left";
    one.Release();
    two.Release();
    EXPECT_EQ(pool.usage().buffersOut, 0U);
    EXPECT_EQ(pool.usage().bytesOut, 0U);
}

TEST(FramePool, keepsNoMoreThanItsLimit)
{
    FramePool pool(FramePool::Settings{.maxCachedBytes = 100'000});
    std::vector<FrameBuffer*> buffers;
    for (int i = 0; i < 50; ++i)
        buffers.push_back(&pool.acquire(10'000));
    for (FrameBuffer* buffer : buffers) {
        buffer->Release();
        EXPECT_LE(pool.usage().bytesCached, 100'000U);
    }
    EXPECT_GT(pool.usage().bytesCached, 80'000U);
}

TEST(FramePool, makesRoomForSizesInUseByDroppingIdleOnes)
{
    FramePool pool(FramePool::Settings{.maxCachedBytes = 100'000, .trimInterval = 0});
    pool.acquire(90'000).Release();
    pool.trim();  // from now on the large one counts as idle
    pool.acquire(20'000).Release();
    EXPECT_EQ(pool.usage().buffersCached, 1U);
    const auto before = pool.usage().allocations;
    pool.acquire(20'000).Release();
    EXPECT_EQ(pool.usage().allocations, before);
}

TEST(FramePool, trimsWhatWasNotNeededSinceTheLastTrim)
{
    FramePool pool(FramePool::Settings{.trimInterval = 0});
    FrameBuffer& one = pool.acquire(1000);
    FrameBuffer& two = pool.acquire(1000);
    one.Release();
    two.Release();
    pool.trim();
    EXPECT_EQ(pool.usage().buffersCached, 2U) << "both were needed";
    pool.acquire(1000).Release();
    pool.trim();
    EXPECT_EQ(pool.usage().buffersCached, 1U);
    pool.trim();
    EXPECT_EQ(pool.usage().buffersCached, 0U);
    EXPECT_EQ(pool.usage().bytesCached, 0U);
}

TEST(FramePool, trimsByItself)
{
    FramePool pool(FramePool::Settings{.trimInterval = 16});
    pool.acquire(1'000'000).Release();
    for (int i = 0; i < 64; ++i)
        pool.acquire(1000).Release();
    EXPECT_EQ(pool.usage().buffersCached, 1U);
    EXPECT_LT(pool.usage().bytesCached, 2000U);
}

TEST(FramePool, doesNotKeepGiants)
{
    FramePool pool(FramePool::Settings{.maxCachedBytes = 100'000'000});
    pool.acquire(17 * 1024 * 1024).Release();
    EXPECT_EQ(pool.usage().buffersCached, 0U);
}

TEST(FramePool, letsFramesOutliveIt)
{
    auto pool = std::make_unique<FramePool>();
    pool->acquire(500).Release();
    FrameBuffer& one = pool->acquire(1000);
    FrameBuffer& two = pool->acquire(2000);
    std::memset(one.data(), 7, 1000);
    pool.reset();
    EXPECT_EQ(one.data()[999], 7);
    one.Release();
    two.Release();  // the sanitiser's leak check sees whether everything went
}

TEST(FramePool, refusesWhatCannotBe)
{
    FramePool pool;
    EXPECT_THROW(pool.acquire(SIZE_MAX), std::bad_alloc);
    EXPECT_THROW(pool.acquire(SIZE_MAX / 2), std::bad_alloc);
    EXPECT_EQ(pool.usage().buffersOut, 0U);
    pool.acquire(100).Release();
}

TEST(FramePool, takesReleasesFromAnyThread)
{
    auto pool = std::make_unique<FramePool>();
    constexpr int rounds = 2000;
    std::vector<GDRV::FrameReference> kept[2];
    for (int i = 0; i < rounds; ++i) {
        FrameBuffer& buffer = pool->acquire(static_cast<std::size_t>(i % 100) * 100 + 1);
        GDRV::MediaFrame frame;
        frame.data = {buffer.data(), 1};
        frame.buffer = &buffer;
        kept[0].emplace_back(frame);
        kept[1].emplace_back(frame);
        buffer.Release();
    }
    std::vector<std::thread> threads;
    for (auto& references : kept) {
        threads.emplace_back([&references] {
            for (auto& reference : references) {
                const GDRV::FrameReference copy = reference;
                reference = {};
            }
        });
    }
    for (int i = 0; i < rounds; ++i)
        pool->acquire(3000).Release();
    pool.reset();  // while frames are still out, or have just gone
    for (std::thread& thread : threads)
        thread.join();
}

TEST(FrameBuilder, growsAndKeepsItsBytes)
{
    FramePool pool;
    FrameBuilder builder(pool, 100'000);
    std::vector<std::uint8_t> expected;
    for (int i = 0; i < 1000; ++i) {
        const std::vector<std::uint8_t> piece(static_cast<std::size_t>(i % 97), static_cast<std::uint8_t>(i));
        ASSERT_TRUE(builder.append(piece));
        expected.insert(expected.end(), piece.begin(), piece.end());
    }
    EXPECT_TRUE(std::ranges::equal(builder.bytes(), expected));
    EXPECT_EQ(pool.usage().buffersOut, 1U);
}

TEST(FrameBuilder, insertsInFrontAndBehind)
{
    FramePool pool;
    FrameBuilder builder(pool, 10);
    const std::uint8_t middle[] = {5, 6};
    const std::uint8_t front[] = {1, 2, 3, 4};
    const std::uint8_t back[] = {7, 8};
    ASSERT_TRUE(builder.append(middle));
    ASSERT_TRUE(builder.insert(0, front));
    ASSERT_TRUE(builder.insert(6, back));
    const std::uint8_t all[] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_TRUE(std::ranges::equal(builder.bytes(), all));
    EXPECT_FALSE(builder.insert(0, front)) << "beyond the limit";
    EXPECT_TRUE(std::ranges::equal(builder.bytes(), all));
}

TEST(FrameBuilder, refusesMoreThanItsLimitAndGivesBuffersBack)
{
    FramePool pool;
    {
        FrameBuilder builder(pool, 1000);
        const std::vector<std::uint8_t> piece(600);
        EXPECT_TRUE(builder.append(piece));
        EXPECT_FALSE(builder.append(piece));
        EXPECT_EQ(builder.size(), 600U);
        builder.clear();
        EXPECT_EQ(pool.usage().buffersOut, 0U);
        EXPECT_EQ(builder.take(), nullptr);
        builder.reserve(500);
        EXPECT_EQ(builder.take(), nullptr) << "reserved but empty";
        EXPECT_EQ(pool.usage().buffersOut, 0U);
        EXPECT_TRUE(builder.append(piece));
    }
    EXPECT_EQ(pool.usage().buffersOut, 0U);
}
}  // namespace Tavro8::media

#include "media/ReorderBuffer.h"

#include "MediaTestKit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>

namespace Tavro8::media
{
using namespace testkit;
using namespace std::chrono_literals;
using Verdict = ReorderBuffer::Verdict;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace
{
ArrivalTime at(std::chrono::nanoseconds sinceStart)
{
    return {std::chrono::steady_clock::time_point(1000s) + sinceStart, {}};
}

/// Feeds packets whose bytes tell their sequence number, and notes what comes out in which order.
class ReorderBufferTest : public ::testing::Test {
protected:
    explicit ReorderBufferTest(const ReorderBuffer::Settings& settings = {}) : buffer(settings) {}

    static Bytes packetOf(std::uint16_t sequence, std::size_t size)
    {
        Bytes bytes(size, static_cast<std::uint8_t>(sequence * 7));
        bytes[0] = static_cast<std::uint8_t>(sequence >> 8);
        bytes[1] = static_cast<std::uint8_t>(sequence);
        return bytes;
    }

    void take(std::span<const std::uint8_t> bytes)
    {
        const auto sequence = static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
        EXPECT_EQ(Bytes(bytes.begin(), bytes.end()), packetOf(sequence, bytes.size())) << "bytes of another packet";
        out.push_back(sequence);
    }

    Verdict push(std::uint16_t sequence, std::chrono::nanoseconds time = 0ns, std::size_t size = 100)
    {
        const Bytes bytes = packetOf(sequence, size);
        const Verdict verdict = buffer.push(sequence, bytes, at(time));
        if (verdict == Verdict::pass)
            take(bytes);
        tick(time);
        return verdict;
    }

    void tick(std::chrono::nanoseconds time)
    {
        while (const auto packet = buffer.pull(at(time).monotonic)) {
            lastArrival = packet->arrival.monotonic;
            take(packet->bytes);
        }
        EXPECT_TRUE(buffer.checkInvariants());
    }

    ReorderBuffer buffer;
    std::vector<std::uint16_t> out;
    std::chrono::steady_clock::time_point lastArrival;
};

class SmallReorderBufferTest : public ReorderBufferTest {
protected:
    SmallReorderBufferTest() : ReorderBufferTest({4, 1000, 100ms}) {}
};
}  // namespace

TEST_F(ReorderBufferTest, letsPacketsInOrderPass)
{
    for (const std::uint16_t sequence : std::initializer_list<std::uint16_t>{65534, 65535, 0, 1})
        EXPECT_EQ(push(sequence), Verdict::pass);
    EXPECT_THAT(out, ElementsAre(65534, 65535, 0, 1));
    EXPECT_EQ(buffer.getCounters().kept, 0U);
}

TEST_F(ReorderBufferTest, bringsAnyOrderIntoSequenceOverTheWrap)
{
    std::vector<std::uint16_t> order = {65533, 65534, 65535, 0, 1, 2};
    const std::vector<std::uint16_t> sorted = order;
    do {
        if (order.front() != sorted.front())
            continue;  // what comes before the first packet is nobody's
        SCOPED_TRACE(::testing::PrintToString(order));
        buffer.reset();
        out.clear();
        for (const std::uint16_t sequence : order)
            push(sequence);
        EXPECT_EQ(out, sorted);
    } while (std::ranges::next_permutation(order, [](auto a, auto b) {
                 return static_cast<std::int16_t>(a) < static_cast<std::int16_t>(b);
             }).found);
}

TEST_F(ReorderBufferTest, keepsEachPacketsOwnTimeOfArrival)
{
    push(1);
    push(3, 5ms);
    push(2, 9ms);
    EXPECT_THAT(out, ElementsAre(1, 2, 3));
    EXPECT_EQ(lastArrival, at(5ms).monotonic);
}

TEST_F(ReorderBufferTest, dropsCopiesOfWhatWaits)
{
    push(1);
    EXPECT_EQ(push(3), Verdict::kept);
    EXPECT_EQ(push(3), Verdict::duplicate);
    push(2);
    EXPECT_THAT(out, ElementsAre(1, 2, 3));
    EXPECT_EQ(buffer.getCounters().duplicate, 1U);
}

TEST_F(ReorderBufferTest, letsLatePacketsPassToWhoCountsThem)
{
    push(5);
    EXPECT_EQ(push(5), Verdict::pass);
    EXPECT_EQ(push(3), Verdict::pass);
    EXPECT_EQ(push(static_cast<std::uint16_t>(6 - 32768)), Verdict::pass) << "as far behind as can be";
    EXPECT_EQ(push(6), Verdict::pass) << "the packet awaited is still the same";
}

TEST_F(ReorderBufferTest, givesAGapUpAtTheNextPacketAfterTheDelay)
{
    push(1);
    push(3, 10ms);
    push(4, 109ms);
    EXPECT_THAT(out, ElementsAre(1));
    push(5, 110ms);
    EXPECT_THAT(out, ElementsAre(1, 3, 4, 5));
    EXPECT_EQ(buffer.getCounters().abandoned, 1U);
    EXPECT_EQ(push(2, 111ms), Verdict::pass) << "too late";
    EXPECT_EQ(push(6, 111ms), Verdict::pass);
}

TEST_F(ReorderBufferTest, givesAGapUpAtATick)
{
    push(1);
    push(3);
    tick(99ms);
    EXPECT_THAT(out, ElementsAre(1));
    tick(100ms);
    EXPECT_THAT(out, ElementsAre(1, 3));
    EXPECT_EQ(buffer.size(), 0U);
}

TEST_F(ReorderBufferTest, givesUpOnlyTheGapBeforeTheOldest)
{
    push(1);
    push(3, 0ms);
    push(5, 60ms);
    push(6, 70ms);
    tick(100ms);
    EXPECT_THAT(out, ElementsAre(1, 3)) << "the packets behind the second gap have not waited long enough";
    push(4, 110ms);
    EXPECT_THAT(out, ElementsAre(1, 3, 4, 5, 6));
    EXPECT_EQ(buffer.getCounters().abandoned, 1U);
}

TEST_F(SmallReorderBufferTest, givesAGapUpWhenTooManyWait)
{
    push(1);
    for (std::uint16_t sequence = 3; sequence < 7; ++sequence)
        EXPECT_EQ(push(sequence), Verdict::kept);
    EXPECT_THAT(out, ElementsAre(1));
    push(8);
    EXPECT_THAT(out, ElementsAre(1, 3, 4, 5, 6)) << "the second gap may still be filled";
    push(7);
    EXPECT_THAT(out, ElementsAre(1, 3, 4, 5, 6, 7, 8));
}

TEST_F(SmallReorderBufferTest, givesAGapUpWhenTooManyBytesWait)
{
    push(1);
    push(3, 0ms, 600);
    EXPECT_THAT(out, ElementsAre(1));
    push(4, 0ms, 600);
    EXPECT_THAT(out, ElementsAre(1, 3, 4));
}

TEST_F(SmallReorderBufferTest, takesTheLargestDatagramsInItsTurn)
{
    push(1);
    push(3, 0ms, 900);
    push(4, 0ms, 65535);
    EXPECT_THAT(out, ElementsAre(1, 3, 4));
    push(6, 0ms, 65535);
    EXPECT_THAT(out, ElementsAre(1, 3, 4, 6)) << "more than may wait";
}

TEST_F(SmallReorderBufferTest, reusesTheMemoryOfPacketsThatLeftBeforeOlderOnes)
{
    // 1000 goes on waiting while others come and go before it, which leaves holes in front of its neighbours.
    push(1);
    push(1000, 0ms, 300);
    for (std::uint16_t sequence = 3; sequence < 900; sequence = static_cast<std::uint16_t>(sequence + 2)) {
        push(sequence, 0ms, 400);
        push(static_cast<std::uint16_t>(sequence - 1), 0ms, 400);
        EXPECT_EQ(buffer.size(), 1U);
    }
    tick(100ms);
    EXPECT_EQ(out.size(), 900U);
    EXPECT_EQ(out.back(), 1000);
    EXPECT_TRUE(std::ranges::is_sorted(out));
}

TEST_F(ReorderBufferTest, forgetsEverythingAtAReset)
{
    push(1);
    push(3);
    buffer.reset();
    EXPECT_TRUE(buffer.checkInvariants());
    EXPECT_EQ(push(30000), Verdict::pass);
    tick(1s);
    EXPECT_THAT(out, ElementsAre(1, 30000));
}

TEST_F(ReorderBufferTest, drainsInOrderWhateverIsMissing)
{
    push(1);
    push(6);
    push(3);
    while (const auto packet = buffer.drain())
        take(packet->bytes);
    EXPECT_THAT(out, ElementsAre(1, 3, 6));
}

TEST_F(ReorderBufferTest, copesWithNumbersAtTheEdgeOfWhatCanBeCompared)
{
    push(0);
    EXPECT_EQ(push(32768), Verdict::kept) << "the farthest that is still ahead of 1";
    EXPECT_EQ(push(32769), Verdict::pass) << "behind";
    tick(100ms);
    EXPECT_THAT(out, ElementsAre(0, 32769, 32768));
    EXPECT_EQ(push(32769), Verdict::pass);
}

TEST_F(SmallReorderBufferTest, survivesWhatTheNetworkAndItsEnemiesMakeUp)
{
    std::minstd_rand random(4711);
    std::uint16_t sequence = 0;
    std::chrono::milliseconds time{0};
    std::size_t handedOut = 0;
    for (int i = 0; i < 50'000; ++i) {
        const auto kind = random() % 100;
        const auto wanted = kind < 60   ? sequence++
                            : kind < 98 ? static_cast<std::uint16_t>(sequence + random() % 8)
                                        : static_cast<std::uint16_t>(random());
        const Bytes bytes = packetOf(wanted, 2 + random() % (kind == 0 ? 65534 : 400));
        time += std::chrono::milliseconds(random() % 3);
        const Verdict verdict = buffer.push(wanted, bytes, at(time));
        handedOut += verdict == Verdict::pass ? 1U : 0U;
        ASSERT_TRUE(buffer.checkInvariants());
        while (const auto packet = buffer.pull(at(time).monotonic)) {
            take(packet->bytes);
            ++handedOut;
        }
        ASSERT_TRUE(buffer.checkInvariants());
        ASSERT_LE(buffer.size(), 4U);
    }
    handedOut += buffer.size();
    EXPECT_EQ(handedOut + buffer.getCounters().duplicate, 50'000U) << "nothing is lost and nothing invented";
}

TEST_F(SmallReorderBufferTest, stepsAsideForACallerThatNeverPulls)
{
    const auto push = [this](std::uint16_t sequence) { return buffer.push(sequence, packetOf(sequence, 20), at(0ms)); };
    EXPECT_EQ(push(1), Verdict::pass);
    for (std::uint16_t sequence = 3; sequence < 8; ++sequence)
        EXPECT_EQ(push(sequence), Verdict::kept);
    EXPECT_EQ(push(8), Verdict::pass);
    EXPECT_TRUE(buffer.checkInvariants());
    EXPECT_EQ(buffer.size(), 0U);
}
}  // namespace Tavro8::media

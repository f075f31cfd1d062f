#include "AllocationCounter.h"
#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <memory>

namespace Tavro8::media
{
using namespace testkit;
using kelvo::test::allocationCount;

namespace
{
struct Counter final : FrameSink {
    void onFrame(const GDRV::MediaFrame& frame) override
    {
        ++frames;
        // As a host that queues one frame.
        last = GDRV::FrameReference(frame);
    }
    std::size_t frames = 0;
    GDRV::FrameReference last;
};

/// A second of packets: a key frame of 100 KB, then 24 frames of 10 to 20 KB.
std::vector<Bytes> secondOf(bool h265Stream)
{
    std::vector<Bytes> packets;
    std::uint16_t sequence = 0;
    for (std::uint32_t i = 0; i < 25; ++i) {
        const bool key = i == 0;
        Bytes nal = h265Stream ? (key ? h265::keySlice : h265::slice) : (key ? h264::keySlice : h264::slice);
        nal.resize(key ? 100'000 : 10'000 + i * 7919 % 10'000, 0x5a);
        std::vector<Bytes> payloads;
        if (key)
            payloads.push_back(h265Stream ? aggregateH265({h265::vps, h265::sps, h265::pps})
                                          : stapA({h264::sps, h264::pps}));
        const auto fragments = h265Stream ? fragmentH265(nal, 1400) : fragmentH264(nal, 1400);
        payloads.insert(payloads.end(), fragments.begin(), fragments.end());
        for (std::size_t k = 0; k < payloads.size(); ++k)
            packets.push_back(Packet{
                .payload = payloads[k], .timestamp = i, .marker = k + 1 == payloads.size(), .sequence = sequence++}
                                  .bytes());
    }
    return packets;
}

/// Sends the second again with later sequence numbers and timestamps.
void renumber(std::vector<Bytes>& packets, std::uint32_t round)
{
    for (std::size_t i = 0; i < packets.size(); ++i) {
        Bytes& packet = packets[i];
        const std::size_t sequence = round * packets.size() + i;
        packet[2] = static_cast<std::uint8_t>(sequence >> 8);
        packet[3] = static_cast<std::uint8_t>(sequence);
        const std::uint32_t timestamp = round * 90000 + packet[7] % 25U * 3600;
        packet[4] = static_cast<std::uint8_t>(timestamp >> 24);
        packet[5] = static_cast<std::uint8_t>(timestamp >> 16);
        packet[6] = static_cast<std::uint8_t>(timestamp >> 8);
    }
}
}  // namespace

TEST(Allocation, isCountedHere)
{
    const std::size_t before = allocationCount();
    const auto one = std::make_unique<int>(1);
    FramePool pool;
    FrameBuffer& buffer = pool.acquire(1000);
    EXPECT_EQ(allocationCount() - before, 3U);
    buffer.Release();
}

TEST(Allocation, doesNotHappenForPacketsAndFramesOnceWarm)
{
    for (const bool h265Stream : {false, true}) {
        SCOPED_TRACE(h265Stream);
        Counter counter;
        const auto pool = std::make_shared<FramePool>();
        const auto receiver = TrackReceiver::make(h265Stream ? h265Format() : h264Format(), pool, counter);
        std::vector<Bytes> packets = secondOf(h265Stream);
        std::size_t before = 0;
        for (std::uint32_t round = 0; round < 40; ++round) {
            renumber(packets, round);
            if (round == 4)
                before = allocationCount();
            for (const Bytes& packet : packets)
                receiver->onRtp(packet, {});
        }
        EXPECT_EQ(allocationCount() - before, 0U);
        EXPECT_EQ(counter.frames, 40U * 25);
        EXPECT_EQ(receiver->statistics().lostPackets, 0U);
    }
}

TEST(Allocation, doesNotHappenForDatagramsOutOfOrderOnceWarm)
{
    Counter counter;
    const auto receiver = TrackReceiver::make(h264Format(), std::make_shared<FramePool>(), counter);
    receiver->expectDatagrams({});
    std::vector<Bytes> packets = secondOf(false);
    std::size_t before = 0;
    for (std::uint32_t round = 0; round < 40; ++round) {
        renumber(packets, round);
        if (round == 4)
            before = allocationCount();
        for (std::size_t i = 0; i < packets.size(); ++i) {
            const bool swapped = i % 8 >= 4 && i - i % 8 + 8 <= packets.size();
            receiver->onRtp(packets[swapped ? i - i % 8 + 11 - i % 8 : i], {});  // 0 1 2 3 7 6 5 4
        }
    }
    EXPECT_EQ(allocationCount() - before, 0U);
    EXPECT_EQ(counter.frames, 40U * 25);
    EXPECT_EQ(receiver->statistics().lostPackets, 0U);
}

TEST(Allocation, doesNotHappenForSoundOnceWarm)
{
    Counter counter;
    TrackFormat format;
    format.codec = GDRV::MediaCodec::g711U;
    format.payloadTypes = {0};
    const auto receiver = TrackReceiver::make(format, std::make_shared<FramePool>(), counter);
    Bytes packet = Packet{.payload = Bytes(160, 0xff), .payloadType = 0}.bytes();
    std::size_t before = 0;
    for (unsigned i = 0; i < 1000; ++i) {
        packet[2] = static_cast<std::uint8_t>(i >> 8);
        packet[3] = static_cast<std::uint8_t>(i);
        if (i == 10)
            before = allocationCount();
        receiver->onRtp(packet, {});
    }
    EXPECT_EQ(allocationCount() - before, 0U);
    EXPECT_EQ(counter.frames, 1000U);
}

TEST(Allocation, doesNotHappenForRecordedStreamsOnceWarm)
{
    const struct {
        const char* packets;
        TrackFormat format;
    } cases[] = {
        {"jpeg_420.rtp", jpegFormat()},
        {"jpeg_restart_markers.rtp", jpegFormat()},
        {"aac_16k_mono_several_a_packet.rtp", aacFormat(hex("1408"), 16000)},
        {"aac_48k_stereo_fragments.rtp", aacFormat(hex("1190"), 48000)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.packets);
        Counter counter;
        TrackFormat format = c.format;
        format.payloadTypes = {26, 96, 97};
        const auto receiver = TrackReceiver::make(format, std::make_shared<FramePool>(), counter);
        std::vector<Bytes> packets = readPackets(c.packets);
        std::uint16_t sequence = 0;
        std::size_t before = 0;
        std::size_t framesOfOneRound = 0;
        for (unsigned round = 0; round < 60; ++round) {
            if (round == 30)
                before = allocationCount();
            for (Bytes& packet : packets) {
                packet[2] = static_cast<std::uint8_t>(sequence >> 8);
                packet[3] = static_cast<std::uint8_t>(sequence++);
                packet[5] = static_cast<std::uint8_t>(packet[5] + 1);  // a later time
                receiver->onRtp(packet, {});
            }
            if (round == 0)
                framesOfOneRound = counter.frames;
        }
        EXPECT_EQ(allocationCount() - before, 0U);
        EXPECT_GE(framesOfOneRound, 3U);
        EXPECT_EQ(counter.frames, 60 * framesOfOneRound);
    }
}

TEST(Allocation, doesNotHappenForStreamsThatShareAPool)
{
    const auto pool = std::make_shared<FramePool>();
    std::vector<Counter> counters(4);
    std::vector<std::unique_ptr<TrackReceiver>> receivers;
    for (Counter& counter : counters)
        receivers.push_back(TrackReceiver::make(h264Format(), pool, counter));
    std::vector<Bytes> packets = secondOf(false);
    std::size_t before = 0;
    for (std::uint32_t round = 0; round < 12; ++round) {
        renumber(packets, round);
        if (round == 4)
            before = allocationCount();
        for (const Bytes& packet : packets) {
            for (const auto& receiver : receivers)
                receiver->onRtp(packet, {});
        }
    }
    EXPECT_EQ(allocationCount() - before, 0U);
    EXPECT_LE(pool->usage().bytesOut + pool->usage().bytesCached, 4U * 512 * 1024);
}
}  // namespace Tavro8::media

#include "ReplayTrack.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using namespace std::chrono_literals;

std::uint32_t be32(const std::string& bytes, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = at; i < at + 4; ++i)
        value = value << 8 | static_cast<std::uint8_t>(bytes.at(i));
    return value;
}

ReplayPacket packetAt(std::chrono::nanoseconds position)
{
    ReplayPacket packet;
    packet.bytes = {0x80, 0xe0, 9, 9, 9, 9, 9, 9, 9, 9, 9, 9, 'a', 'b', 'c'};
    packet.position = position;
    return packet;
}

/// The packet as a track sends it.
std::string sent(ReplayTrack& track, std::chrono::nanoseconds position)
{
    std::string out;
    track.appendPacket(packetAt(position), out);
    return out;
}

TEST(ReplayTrack, numbersPackets)
{
    ReplayTrack track(90'000, 2);
    track.begin();
    const std::uint16_t sequence = track.nextSequence();
    const std::uint32_t origin = track.rtpTime(0s);
    const std::string first = sent(track, 0s);
    EXPECT_EQ(first.substr(0, 6), std::string("$\x02\x00\x0f\x80\xe0", 6));
    EXPECT_EQ(be32(first, 6) >> 16, sequence);
    EXPECT_EQ(be32(first, 8), origin);
    EXPECT_EQ(first.substr(16), "abc");
    const std::string second = sent(track, 100ms);
    EXPECT_EQ(be32(second, 6) >> 16, static_cast<std::uint16_t>(sequence + 1));
    EXPECT_EQ(be32(second, 8), origin + 9000);
    EXPECT_EQ(be32(second, 12), be32(first, 12));

    track.begin();
    EXPECT_EQ(track.rtpTime(0s), origin + 18'000) << "a tenth of a second behind the last packet";
    EXPECT_EQ(track.rtpTime(3'600s), origin + 18'000 + 3'600u * 90'000u);
    track.becomeAnother();
    EXPECT_NE(be32(sent(track, 0s), 12), be32(first, 12));
}

TEST(ReplayTrack, reportsTheRecordedTime)
{
    ReplayTrack track(8'000, 2);
    track.begin();
    const std::string packet = sent(track, 40ms);
    std::string report;
    track.appendReport(40ms, 1'493'172'645'250ms, report);
    ASSERT_EQ(report.size(), 52u);
    EXPECT_EQ(report.substr(0, 8), std::string("$\x03\x00\x30\x80\xc8\x00\x06", 8));
    EXPECT_EQ(be32(report, 8), be32(packet, 12));
    EXPECT_EQ(be32(report, 12), 1'493'172'645u + 2'208'988'800u);
    EXPECT_EQ(be32(report, 16), 0x4000'0000u) << "a quarter of a second";
    EXPECT_EQ(be32(report, 20), be32(packet, 8));
    EXPECT_EQ(be32(report, 24), 1u) << "packets";
    EXPECT_EQ(be32(report, 28), 3u) << "bytes of payload";
    EXPECT_EQ(be32(report, 32), 0x81ca'0004u) << "a source description follows";
    EXPECT_EQ(report.substr(40), std::string("\x01\x08recorder\x00\x00", 12));

    std::string farewell;
    track.appendFarewell(40ms, 1'493'172'645'250ms, farewell);
    ASSERT_EQ(farewell.size(), 60u);
    EXPECT_EQ(farewell.substr(4, 48), report.substr(4));
    EXPECT_EQ(be32(farewell, 52), 0x81cb'0001u);
    EXPECT_EQ(be32(farewell, 56), be32(packet, 12));
}

}  // namespace
}  // namespace simulator

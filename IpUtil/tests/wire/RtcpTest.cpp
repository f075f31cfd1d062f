#include "wire/Rtcp.h"

#include "WireTestSupport.h"

namespace Tavro8::wire
{
namespace
{
using testing::dataBytes;
using testing::fromHex;
using testing::sameBytes;
}  // namespace

TEST(Rtcp, findsEveryPacketOfACompound)
{
    const RtcpCompound compound = parseRtcp(dataBytes("two_sender_reports_name_and_bye.rtcp"));
    EXPECT_TRUE(compound.complete);
    ASSERT_EQ(compound.senderReports.size(), 2U);
    const RtcpSenderReport& report = compound.senderReports[1];
    EXPECT_EQ(report.ssrc, 0x11223344U);
    EXPECT_EQ(report.ntpTime, 0xdd7b1c2a80000000U);
    EXPECT_EQ(report.rtpTimestamp, 90000U);
    EXPECT_EQ(report.packetCount, 100U);
    EXPECT_EQ(report.octetCount, 123456U);
    EXPECT_TRUE(report.blocks.empty());
    ASSERT_EQ(compound.names.size(), 1U);
    EXPECT_EQ(compound.names[0].cname, "cam-1");
    ASSERT_EQ(compound.byes.size(), 1U);
    EXPECT_EQ(compound.byes[0].reason, "reset");
    EXPECT_EQ(compound.byes[0].ssrcs, std::vector<std::uint32_t>{0x11223344});
}

TEST(Rtcp, passesOverApplicationPacketsAndTakesPaddingOff)
{
    const RtcpCompound compound = parseRtcp(dataBytes("application_packet_and_padding.rtcp"));
    EXPECT_TRUE(compound.complete);
    ASSERT_EQ(compound.byes.size(), 1U);
    EXPECT_EQ(compound.byes[0].ssrcs.size(), 1U);
    EXPECT_EQ(compound.byes[0].reason, "");
}

TEST(Rtcp, keepsWhatWasWholeBeforeTheInputBrokeOff)
{
    const Bytes all = dataBytes("two_sender_reports_name_and_bye.rtcp");
    const std::size_t ends[] = {28, 56, 72, 88};  // of the two reports, the name, the BYE
    ASSERT_EQ(all.size(), ends[3]);
    for (std::size_t length = 0; length <= all.size(); ++length) {
        SCOPED_TRACE(length);
        const RtcpCompound compound = parseRtcp(ByteView(all).first(length));
        EXPECT_EQ(compound.senderReports.size(), (length >= ends[0] ? 1U : 0U) + (length >= ends[1] ? 1U : 0U));
        EXPECT_EQ(compound.names.size(), length >= ends[2] ? 1U : 0U);
        EXPECT_EQ(compound.byes.size(), length >= ends[3] ? 1U : 0U);
        const bool atEnd = std::find(std::begin(ends), std::end(ends), length) != std::end(ends);
        EXPECT_EQ(compound.complete, atEnd);
        EXPECT_EQ(compound.rule == nullptr, atEnd);
    }
}

TEST(Rtcp, readsOnBehindAPacketThatAnnouncesMoreThanItHolds)
{
    // A sender report with one block announced and none there, then a receiver report.
    const RtcpCompound compound = parseRtcp(fromHex("81c80006112233440000000100000000000000020000000300000004"
                                                    "80c9000155667788"));
    EXPECT_FALSE(compound.complete);
    EXPECT_EQ(compound.senderReports.size(), 1U);
    ASSERT_EQ(compound.receiverReports.size(), 1U);
    EXPECT_EQ(compound.receiverReports[0].ssrc, 0x55667788U);
}

TEST(Rtcp, refusesOtherVersionsAndImpossiblePadding)
{
    for (const char* bad :
         {"40c9000111223344", "a0c90001112233ff", "a0c9000111223300", "a0c90000", "80c9ffff11223344"}) {
        const RtcpCompound compound = parseRtcp(fromHex(bad));
        EXPECT_FALSE(compound.complete) << bad;
        EXPECT_NE(compound.rule, nullptr) << bad;
        EXPECT_TRUE(compound.receiverReports.empty()) << bad;
    }
}

TEST(Rtcp, writesReportNameAndByeToTheByte)
{
    Bytes packet;
    const RtcpReportBlock block{0x11223344, 0x40, -2, 0x0001fffe, 77, 0x1c2a8000, 65536};
    appendReceiverReport(packet, 0xaabbccdd, std::span(&block, 1));
    appendSourceName(packet, 0xaabbccdd, "kelvo");
    appendBye(packet, 0xaabbccdd);
    EXPECT_TRUE(sameBytes(fromHex("81c90007aabbccdd1122334440fffffe0001fffe0000004d1c2a800000010000"
                                  "81ca0003aabbccdd01056b656c766f00"
                                  "81cb0001aabbccdd"),
                          packet));
}

TEST(Rtcp, readsBackWhatItWrites)
{
    for (std::size_t nameBytes = 0; nameBytes < 300; ++nameBytes) {
        SCOPED_TRACE(nameBytes);
        const std::string name(nameBytes, 'n');
        std::vector<RtcpReportBlock> blocks(nameBytes % 35);
        for (std::size_t i = 0; i < blocks.size(); ++i)
            blocks[i] = {static_cast<std::uint32_t>(i), 255, -0x900000, 1, 2, 3, 4};
        Bytes packet;
        appendReceiverReport(packet, 1, blocks);
        appendSourceName(packet, 1, name);
        appendBye(packet, 1, name);
        EXPECT_EQ(packet.size() % 4, 0U);

        const RtcpCompound compound = parseRtcp(packet);
        EXPECT_TRUE(compound.complete) << compound.rule;
        ASSERT_EQ(compound.receiverReports.size(), 1U);
        const auto& read = compound.receiverReports[0].blocks;
        ASSERT_EQ(read.size(), std::min<std::size_t>(blocks.size(), 31));
        if (!read.empty()) {
            EXPECT_EQ(read.back().cumulativeLost, -0x800000);  // the lowest number of 24 bits
        }
        ASSERT_EQ(compound.names.size(), 1U);
        EXPECT_EQ(compound.names[0].cname, name.substr(0, 255));
        ASSERT_EQ(compound.byes.size(), 1U);
        EXPECT_EQ(compound.byes[0].reason, name.substr(0, 255));
    }
}

TEST(Rtcp, survivesRandomBytes)
{
    std::mt19937 generator(3550);
    for (int round = 0; round < 20000; ++round) {
        Bytes bytes = testing::randomBytes(generator, generator() % 120);
        if (bytes.size() >= 4) {  // likely headers, so that the inner parsers are reached
            bytes[0] = static_cast<std::uint8_t>(0x80 | (bytes[0] & 0x3f));
            bytes[1] = static_cast<std::uint8_t>(200 + bytes[1] % 5);
            bytes[2] = 0;
            bytes[3] = static_cast<std::uint8_t>(bytes[3] % 30);
        }
        const RtcpCompound compound = parseRtcp(bytes);
        EXPECT_EQ(compound.complete, compound.rule == nullptr);
    }
}

TEST(Ntp, convertsToUnixMillisecondsAndBack)
{
    EXPECT_EQ(ntpToUnixMs(0x83aa7e8000000000), 0);              // 1970
    EXPECT_EQ(ntpToUnixMs(0xdd7b1c2a80000000), 1506844074500);  // 2017
    EXPECT_EQ(ntpToUnixMs(0x0000000000000000), 2085978496000);  // the next era begins in 2036
    EXPECT_EQ(ntpToUnixMs(0xffffffff00000000) + 1000, ntpToUnixMs(0));
    EXPECT_EQ(ntpMiddle(0xdd7b1c2a80001234), 0x1c2a8000U);
    for (const long long ms :
         {-1LL, 0LL, 1LL, 999LL, 1000LL, 1506958250501LL, 1763719000123LL, 2085978495999LL, 2085978496001LL})
        EXPECT_EQ(ntpToUnixMs(unixMsToNtp(ms)), ms);
}

TEST(Rtcp, isToldFromRtpByItsType)
{
    const struct {
        Bytes packet;
        bool rtcp;
    } cases[] = {
        {{0x80, 191, 0, 0}, false}, {{0x80, 192, 0, 0}, true},
        {{0x80, 200, 0, 0}, true},  {{0x81, 203, 0, 0}, true},
        {{0x80, 223, 0, 0}, true},  {{0x80, 224, 0, 0}, false},
        {{0x80, 72, 0, 0}, false},  {{0x40, 200, 0, 0}, false},
        {{0x80, 200, 0}, false},    {{}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.packet.size() > 1 ? int{c.packet[1]} : -1);
        EXPECT_EQ(looksLikeRtcp(c.packet), c.rtcp);
    }
}
}  // namespace Tavro8::wire

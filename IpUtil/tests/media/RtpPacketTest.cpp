#include "media/RtpPacket.h"

#include "MediaTestKit.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace Tavro8::media
{
using testkit::Bytes;
using testkit::hex;

TEST(RtpPacket, readsTheFixedHeader)
{
    RtpPacket packet;
    const Bytes bytes = hex("80 e0 12 34 89 ab cd ef 01 02 03 04 aa bb cc");
    ASSERT_EQ(parseRtpPacket(bytes, packet), RtpFault::none);
    EXPECT_TRUE(packet.marker);
    EXPECT_EQ(packet.payloadType, 96);
    EXPECT_EQ(packet.sequenceNumber, 0x1234);
    EXPECT_EQ(packet.timestamp, 0x89abcdefU);
    EXPECT_EQ(packet.ssrc, 0x01020304U);
    EXPECT_TRUE(packet.contributors.empty());
    EXPECT_TRUE(packet.extension.empty());
    EXPECT_EQ(testkit::toHex(packet.payload), "aa bb cc ");
}

TEST(RtpPacket, stepsOverContributorsExtensionAndPadding)
{
    RtpPacket packet;
    const Bytes bytes = hex("b2 00 00 01 00 00 00 02 00 00 00 03"
                            "c0 c0 c0 c0 c1 c1 c1 c1"
                            "be de 00 02 11 22 33 44 55 66 77 88"
                            "aa bb 00 00 03");
    ASSERT_EQ(parseRtpPacket(bytes, packet), RtpFault::none);
    EXPECT_EQ(testkit::toHex(packet.contributors), "c0 c0 c0 c0 c1 c1 c1 c1 ");
    EXPECT_EQ(packet.extensionProfile, 0xbede);
    EXPECT_EQ(testkit::toHex(packet.extension), "11 22 33 44 55 66 77 88 ");
    EXPECT_EQ(testkit::toHex(packet.payload), "aa bb ");
}

TEST(RtpPacket, acceptsEmptyPayloadEmptyExtensionAndPaddingAlone)
{
    const char* const cases[] = {
        "80 00 00 01 00 00 00 02 00 00 00 03",
        "90 00 00 01 00 00 00 02 00 00 00 03 be de 00 00",
        "a0 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04",
    };
    for (const char* text : cases) {
        SCOPED_TRACE(text);
        RtpPacket packet;
        ASSERT_EQ(parseRtpPacket(hex(text), packet), RtpFault::none);
        EXPECT_TRUE(packet.payload.empty());
    }
}

TEST(RtpPacket, saysWhatIsWrong)
{
    const struct {
        const char* text;
        RtpFault fault;
    } cases[] = {
        {"", RtpFault::tooShort},
        {"80 00 00 01 00 00 00 02 00 00 00", RtpFault::tooShort},
        {"00 00 00 01 00 00 00 02 00 00 00 03", RtpFault::badVersion},
        {"40 00 00 01 00 00 00 02 00 00 00 03", RtpFault::badVersion},
        {"c0 00 00 01 00 00 00 02 00 00 00 03", RtpFault::badVersion},
        {"81 00 00 01 00 00 00 02 00 00 00 03 00 00 00", RtpFault::contributorsCutOff},
        {"8f 00 00 01 00 00 00 02 00 00 00 03 00 00 00 00", RtpFault::contributorsCutOff},
        {"90 00 00 01 00 00 00 02 00 00 00 03", RtpFault::extensionCutOff},
        {"90 00 00 01 00 00 00 02 00 00 00 03 be de 00", RtpFault::extensionCutOff},
        {"90 00 00 01 00 00 00 02 00 00 00 03 be de 00 01 00 00 00", RtpFault::extensionCutOff},
        {"90 00 00 01 00 00 00 02 00 00 00 03 be de ff ff 00 00 00 00", RtpFault::extensionCutOff},
        {"a0 00 00 01 00 00 00 02 00 00 00 03", RtpFault::badPadding},
        {"a0 00 00 01 00 00 00 02 00 00 00 03 aa 00", RtpFault::badPadding},
        {"a0 00 00 01 00 00 00 02 00 00 00 03 aa 03", RtpFault::badPadding},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        RtpPacket packet;
        EXPECT_EQ(parseRtpPacket(hex(c.text), packet), c.fault);
    }
}

TEST(RtpPacket, describesEachFaultDifferently)
{
    std::set<std::string> texts;
    for (const RtpFault fault : {RtpFault::none, RtpFault::tooShort, RtpFault::badVersion, RtpFault::contributorsCutOff,
                                 RtpFault::extensionCutOff, RtpFault::badPadding})
        EXPECT_TRUE(texts.insert(describe(fault)).second);
}
}  // namespace Tavro8::media

#include "RtspPort.h"

#include <gtest/gtest.h>
#include <string>

namespace
{
using Uniview::findRtspPortDigits;

TEST(RtspPort, isFoundInTheRawTextInAnyLetterCase)
{
    EXPECT_EQ(findRtspPortDigits(R"({"RTSPPort":8554})"), "8554");
    EXPECT_EQ(findRtspPortDigits(R"({"rtspport":554,"HttpPort":80})"), "554");
    EXPECT_EQ(findRtspPortDigits(R"({"RtspPort":10554})"), "10554");
}

TEST(RtspPort, toleratesTheBlanksAndTabsOfPrettyPrintedReplies)
{
    EXPECT_EQ(findRtspPortDigits("\"RTSPPort\":\t554,"), "554");
    EXPECT_EQ(findRtspPortDigits("\"RTSPPort\": \t 554,"), "554");
}

TEST(RtspPort, isFoundAtTheEndAndAfterOtherKeys)
{
    EXPECT_EQ(findRtspPortDigits(R"({"Response":{"Data":{"HTTPPort":80,"HTTPSPort":443,"RTSPPort":7070)"), "7070");
    EXPECT_EQ(findRtspPortDigits(R"({"MyRTSPPort":1,"RTSPPort":2})"), "1");
}

TEST(RtspPort, isAbsentWithoutKeyOrDigits)
{
    for (const std::string text : {"", "{}", R"({"RTSPPort":"554"})", R"({"RTSPPort" :554})", R"("RTSPPort":)",
                                   R"({"RTSPPort":-1})", "rtspport:554", "\"RTSPPort\":\n554"}) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(findRtspPortDigits(text));
    }
}

TEST(RtspPort, digitsOfAnyLengthAreHandedOn)
{
    EXPECT_EQ(findRtspPortDigits("\"rtspport\":99999999999999999999"), "99999999999999999999");
}
}  // namespace

#include "StreamReport.h"

#include "Output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

namespace Host
{
namespace
{
using Named = decltype(Tavro8::GDRV::StreamStatistics::named);

ReceivedMedia receivedWith(Named named)
{
    ReceivedMedia media;
    media.statistics.named = std::move(named);
    return media;
}

TEST(StreamReport, addsUpNamedCountersByTheirName)
{
    const ReceivedMedia sum =
        addUp({receivedWith({{"connects", "9"}}), receivedWith({{"reconnects", "2"}, {"connects", "3"}})});
    EXPECT_EQ(sum.statistics.named, (Named{{"connects", "12"}, {"reconnects", "2"}}));
}

TEST(StreamReport, keepsANamedTextThatAllStreamsAgreeOn)
{
    EXPECT_EQ(
        addUp({receivedWith({{"way", "udp"}}), receivedWith({{"way", "udp"}}), receivedWith({})}).statistics.named,
        (Named{{"way", "udp"}}));
    EXPECT_EQ(addUp({receivedWith({{"way", "udp"}}), receivedWith({{"way", "tcp"}}), receivedWith({{"way", "udp"}})})
                  .statistics.named,
              (Named{{"way", "mixed"}}));
    EXPECT_EQ(addUp({receivedWith({{"way", "-1"}}), receivedWith({{"way", "1"}})}).statistics.named,
              (Named{{"way", "mixed"}}));
}

TEST(StreamReport, saysWhichWayTheMediaCame)
{
    const struct {
        const char* transport;
        const char* phrase;
    } cases[] = {{"tcp", " over TCP, "}, {"udp", " over UDP, "}, {"mixed", " over TCP and UDP, "}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.transport);
        StreamSummary summary;
        summary.video = receivedWith({{"transport", c.transport}});
        std::ostringstream readable;
        Output people(readable, false, nullptr);
        reportSummary(people, summary);
        EXPECT_THAT(readable.str(), testing::HasSubstr(c.phrase));
        std::ostringstream json;
        Output programs(json, true, nullptr);
        reportSummary(programs, summary);
        EXPECT_THAT(json.str(), testing::HasSubstr(std::string("\"transport\":\"") + c.transport + '"'));
    }
}
}  // namespace
}  // namespace Host

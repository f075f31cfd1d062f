#include "StreamReport.h"

#include <gtest/gtest.h>

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
}  // namespace
}  // namespace Host

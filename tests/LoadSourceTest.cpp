#include "EndToEnd.h"
#include "JsonText.h"

// The programs of the bench with few streams: what they count is exact, whatever the machine does meanwhile.
namespace
{
using namespace kelvo::test;

constexpr unsigned streams = 3;
constexpr unsigned frames = 60;

struct Outcome {
    Json::Value sent;
    Json::Value received;
};

/// Sends `frames` frames on each stream and receives them through the module.
Outcome transfer(const std::string& pace, unsigned streamCount, unsigned frameCount, const std::string& transport)
{
    const auto deadline = ChildProcess::Clock::now() + std::chrono::seconds(30);
    // The input stays open: the source ends with it.
    ChildProcess source({programUnderTest("load_source"), "--pace", pace, "--frames", std::to_string(frameCount)});
    const auto ports = source.readLine(deadline);
    if (!ports)
        throw std::runtime_error("the load source does not start: " + source.errors());
    const auto receiver =
        runProgram({programUnderTest("module_receiver"), "--module", programUnderTest("Kelvo.Uniview.ipd"), "--http",
                    parseJson(*ports)["http"].asString(), "--streams", std::to_string(streamCount), "--frames",
                    std::to_string(frameCount), "--transport", transport},
                   std::chrono::seconds(30));
    EXPECT_EQ(receiver.status, 0) << receiver.errors;
    source.closeInput();
    const auto totals = source.readLine(deadline);
    EXPECT_TRUE(totals) << source.errors();
    source.wait(deadline);
    return {parseJson(totals.value_or("{}")), parseJson(receiver.output)};
}

void expectAllOf(const Outcome& outcome, unsigned expectedFrames)
{
    EXPECT_EQ(outcome.received["frames"].asUInt64(), expectedFrames);
    EXPECT_EQ(outcome.received["bad"].asUInt64(), 0U);
    EXPECT_EQ(outcome.received["missing"].asUInt64(), 0U);
    EXPECT_EQ(outcome.sent["frames"], outcome.received["frames"]);
    EXPECT_EQ(outcome.sent["keyFrames"], outcome.received["keyFrames"]);
    EXPECT_EQ(outcome.sent["elementBytes"], outcome.received["frameBytes"]);
    EXPECT_EQ(outcome.sent["wireBytes"], outcome.received["wireBytes"]);
    EXPECT_EQ(outcome.sent["wirePackets"], outcome.received["wirePackets"]);
}

TEST(LoadSource, everyByteOfItsBurstsReachesTheFrameHandler)
{
    expectAllOf(transfer("burst", streams, frames, "tcp"), streams * frames);
}

TEST(LoadSource, everyByteReachesTheFrameHandlerWhenPacketsAreSpread)
{
    expectAllOf(transfer("spread", streams, frames, "tcp"), streams * frames);
}

TEST(LoadSource, everyByteReachesTheFrameHandlerAtFullSpeed)
{
    expectAllOf(transfer("full", 1, 1000, "tcp"), 1000);
}

TEST(LoadSource, everyByteReachesTheFrameHandlerOverUdp)
{
    const Outcome outcome = transfer("spread", streams, frames, "udp");
    expectAllOf(outcome, streams * frames);
    EXPECT_EQ(outcome.sent["datagrams"], outcome.sent["wirePackets"]);
}
}  // namespace

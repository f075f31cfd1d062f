#include "RecordingLogger.h"

#include <IpUtil/Logger.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{
using Tavro8::LogSeverity;
using Tavro8::LoggerDetail::CollapsingLogger;

TEST(CollapsingLogger, letsTheFirstFailureThroughAndThenEveryFiftieth)
{
    kelvo::test::RecordingLogger target;
    CollapsingLogger logger(&target);
    for (int times = 0; times < 101; ++times)
        logger.Log(LogSeverity::error, "f", "file", 1, " it broke");
    const auto lines = target.lines();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].message, " it broke");
    EXPECT_EQ(lines[1].message, "[collapsed 50] it broke");
    EXPECT_EQ(lines[2].message, "[collapsed 50] it broke");
}

TEST(CollapsingLogger, foldsNeitherInformationNorDifferentFailures)
{
    kelvo::test::RecordingLogger target;
    CollapsingLogger logger(&target);
    logger.Log(LogSeverity::info, "f", "file", 1, "step");
    logger.Log(LogSeverity::info, "f", "file", 1, "step");
    logger.Log(LogSeverity::warning, "f", "file", 1, "one");
    logger.Log(LogSeverity::warning, "f", "file", 1, "other");
    EXPECT_EQ(target.lines().size(), 4U);
}

TEST(CollapsingLogger, foldsChangingNumbersByThePlaceThatWritesThem)
{
    kelvo::test::RecordingLogger target;
    CollapsingLogger logger(&target);
    const auto flood = [&](int first, int last) {
        for (int number = first; number < last; ++number)
            logger.Log(LogSeverity::warning, "f", "file", 7, ("number " + std::to_string(number)).c_str());
    };
    constexpr int distinct = CollapsingLogger::maxTexts;
    flood(0, distinct);
    EXPECT_EQ(target.lines().size(), CollapsingLogger::maxTexts) << "so many are told, each by itself";
    flood(distinct, distinct + 1001);
    EXPECT_EQ(target.lines().size(), CollapsingLogger::maxTexts + 21);
    EXPECT_EQ(target.lines().back().message, "[collapsed 50]number " + std::to_string(distinct + 1000));

    flood(0, 1);
    EXPECT_EQ(target.lines().size(), CollapsingLogger::maxTexts + 21) << "what was known still counts by itself";
    logger.Log(LogSeverity::error, "f", "file", 8, "something else");
    EXPECT_EQ(target.lines().back().message, "something else") << "of another place";
    logger.forget();
    flood(5000, 5001);
    EXPECT_EQ(target.lines().back().message, "number 5000");
}

TEST(CollapsingLogger, logsAFailureAgainOnceItWasForgotten)
{
    kelvo::test::RecordingLogger target;
    CollapsingLogger logger(&target);
    logger.Log(LogSeverity::error, "f", "file", 1, "down");
    logger.Log(LogSeverity::error, "f", "file", 1, "down");
    logger.forget();
    logger.Log(LogSeverity::error, "f", "file", 1, "down");
    EXPECT_EQ(target.lines().size(), 2U);
}

TEST(CollapsingLogger, keepsWhatItWasGivenAndWorksWithoutATarget)
{
    auto owner = std::make_shared<int>(1);
    const std::weak_ptr<int> weak = owner;
    {
        CollapsingLogger logger(nullptr, std::move(owner));
        EXPECT_FALSE(weak.expired());
        logger.Log(LogSeverity::error, "f", "file", 1, "nobody listens");
        EXPECT_EQ(logger.GetLevel(), LogSeverity::error);
    }
    EXPECT_TRUE(weak.expired());
}
}  // namespace

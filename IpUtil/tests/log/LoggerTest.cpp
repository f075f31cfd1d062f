#include "RecordingLogger.h"
#include <IpUtil/Logger.h>
#include <IpUtil/LoggerHelper.h>
#include <gtest/gtest.h>
#include <locale>
#include <thread>

using namespace Tavro8;
using kelvo::test::RecordingLogger;
using LoggerDetail::LogCollapserMaker;
using Decorator = LoggerDetail::LoggerDecorator<LoggerDetail::TraitsConnectionInfo>;

namespace
{
struct GroupingDigits : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

std::shared_ptr<const asio::ConnectionInfo> endpoint(const std::string& host, std::uint16_t port)
{
    auto info = std::make_shared<asio::ConnectionInfo>();
    info->host = host;
    info->port = port;
    info->user = "admin";
    info->password = "secret";
    return info;
}
}  // namespace

TEST(LoggerOwner, destroysTheLoggerThatItOwns)
{
    RecordingLogger logger;
    {
        const LoggerOwner owner(&logger, LoggerOwner::Ownership::owned);
        EXPECT_EQ(owner.get(), &logger);
    }
    EXPECT_EQ(logger.destroyed, 1);
}

TEST(LoggerOwner, leavesABorrowedLoggerAlone)
{
    RecordingLogger logger;
    {
        const LoggerOwner owner(&logger, LoggerOwner::Ownership::borrowed);
    }
    EXPECT_EQ(logger.destroyed, 0);
}

TEST(LoggerOwner, handsOwnershipOnWhenMoved)
{
    RecordingLogger first;
    RecordingLogger second;
    {
        LoggerOwner owner(&first, LoggerOwner::Ownership::owned);
        LoggerOwner target(&second, LoggerOwner::Ownership::owned);
        target = std::move(owner);
        EXPECT_EQ(second.destroyed, 1);
        EXPECT_EQ(target.get(), &first);
        const LoggerOwner last(std::move(target));
        EXPECT_EQ(first.destroyed, 0);
    }
    EXPECT_EQ(first.destroyed, 1);
    EXPECT_EQ(second.destroyed, 1);
}

TEST(NamedLogger, putsTheNameInFrontAndPassesEverythingElseOn)
{
    RecordingLogger logger;
    logger.level = LogSeverity::warning;
    {
        const LoggerOwner named = LoggerDetail::makeNamedLogger(&logger, "tc 0");
        EXPECT_EQ(named.get()->GetLevel(), LogSeverity::warning);
        named.get()->Log(LogSeverity::error, "f", "s", 7, " HTTP request");
    }
    ASSERT_EQ(logger.lines().size(), 1U);
    const auto line = logger.lines()[0];
    EXPECT_EQ(line.message, "tc 0:  HTTP request");
    EXPECT_EQ(line.severity, LogSeverity::error);
    EXPECT_EQ(line.function, "f");
    EXPECT_EQ(line.file, "s");
    EXPECT_EQ(line.line, 7);
    EXPECT_EQ(logger.destroyed, 0) << "which is somebody else's";
}

TEST(NamedLogger, doesNotNeedAnotherLogger)
{
    const LoggerOwner named = LoggerDetail::makeNamedLogger(nullptr, "tc 0");
    EXPECT_EQ(named.get()->GetLevel(), LogSeverity::error);
    named.get()->Log(LogSeverity::error, "f", "s", 7, "lost");
    EXPECT_EQ(queryContract<ILogger>(named.get()), named.get());
}

TEST(LoggerDecorator, putsTheEndpointInFrontAndNeverCredentials)
{
    RecordingLogger logger;
    Decorator decorator(&logger);
    decorator.setValue(endpoint("192.0.2.10", 80));
    decorator.Log(LogSeverity::info, "f", "s", 7, " HTTP request");
    ASSERT_EQ(logger.lines().size(), 1U);
    EXPECT_EQ(logger.lines()[0].message, "[192.0.2.10:80]  HTTP request");
    EXPECT_EQ(logger.lines()[0].function, "f");
    EXPECT_EQ(logger.lines()[0].line, 7);
}

TEST(LoggerDecorator, passesTheMessageAloneBeforeAnEndpointIsKnown)
{
    RecordingLogger logger;
    Decorator decorator(&logger);
    decorator.Log(LogSeverity::info, "f", "s", 1, "first");
    decorator.setValue(endpoint("192.0.2.10", 80));
    decorator.setValue(nullptr);
    decorator.Log(LogSeverity::info, "f", "s", 1, "second");
    EXPECT_EQ(logger.lines()[0].message, "first");
    EXPECT_EQ(logger.lines()[1].message, "second");
}

TEST(LoggerDecorator, hasTheLevelOfTheWrappedLogger)
{
    RecordingLogger logger;
    logger.level = LogSeverity::warning;
    EXPECT_EQ(Decorator(&logger).GetLevel(), LogSeverity::warning);
    Decorator nothing(nullptr);
    EXPECT_EQ(nothing.GetLevel(), LogSeverity::error);
    nothing.Log(LogSeverity::error, "f", "s", 1, "goes nowhere");
}

TEST(LoggerDecorator, mayChangeWhileOthersLog)
{
    RecordingLogger logger;
    Decorator decorator(&logger);
    std::thread changer([&] {
        for (std::uint16_t port = 1; port < 200; ++port)
            decorator.setValue(endpoint("h", port));
    });
    for (int i = 0; i < 200; ++i)
        decorator.Log(LogSeverity::info, "f", "s", 1, "text");
    changer.join();
    decorator.Log(LogSeverity::info, "f", "s", 1, "text");
    EXPECT_EQ(logger.lines().back().message, "[h:199] text");
}

TEST(LogCollapser, letsTheFirstPassAndThenEveryCountth)
{
    LogCollapserMaker collapser;
    std::vector<std::uint32_t> results;
    for (int i = 0; i < 8; ++i)
        results.push_back(collapser.collapse("refused", 3));
    EXPECT_EQ(results, (std::vector<std::uint32_t>{1, 0, 0, 3, 0, 0, 3, 0}));
}

TEST(LogCollapser, countsEachMessageByItself)
{
    LogCollapserMaker collapser;
    EXPECT_EQ(collapser.collapse("a", 50), 1U);
    EXPECT_EQ(collapser.collapse("b", 50), 1U);
    EXPECT_EQ(collapser.collapse("a", 50), 0U);
}

TEST(LogCollapser, letsEverythingPassWithACountOfOneOrZero)
{
    LogCollapserMaker collapser;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(collapser.collapse("a", 1), 1U);
        EXPECT_EQ(collapser.collapse("b", 0), 1U);
    }
}

TEST(LogCollapser, forgetsTheMessageThatWasQuietLongest)
{
    LogCollapserMaker collapser;
    collapser.collapse("old", 50);
    collapser.collapse("repeated", 50);
    for (int i = 0; i < 10000; ++i) {
        collapser.collapse("new " + std::to_string(i), 50);
        collapser.collapse("repeated", 50000);
    }
    EXPECT_EQ(collapser.collapse("repeated", 50000), 0U);  // kept, since it never was quiet
    EXPECT_EQ(collapser.collapse("old", 50), 1U);
}

TEST(LoggerHelper, writesNumbersInTheClassicLocale)
{
    RecordingLogger logger;
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupingDigits));
    LoggerHelper(&logger, "path", "vs 1").info("f", "port ", 32000);
    std::locale::global(before);
    EXPECT_EQ(logger.lines().at(0).message, "vs 1: port 32000");
}

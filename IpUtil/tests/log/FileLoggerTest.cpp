#include "RecordingLogger.h"
#include "settings/Path.h"
#include <IpUtil/Logger.h>
#include <Tavro8/GDRV/IModuleContext.h>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>

using namespace Tavro8;
using kelvo::test::RecordingLogger;
namespace fs = std::filesystem;

namespace
{
class LoggingContext final : public GDRV::ILoggingContext {
public:
    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<GDRV::ILoggingContext, IContract>(this, name);
    }
    ILogger* GetLogger() noexcept override { return logger; }
    const wchar_t* GetRepositoryDirectory() noexcept override { return L""; }
    const wchar_t* GetLogFile() noexcept override { return file.empty() ? nullptr : file.c_str(); }

    ILogger* logger = nullptr;
    std::wstring file;
};

/// A directory of its own for each test; the name is not plain ASCII on purpose.
class FileLogger : public testing::Test {
protected:
    void SetUp() override
    {
        directory =
            fs::temp_directory_path() / Utility::toPath(L"kelvo log \u00fc " + std::to_wstring(std::random_device{}()));
        fs::create_directories(directory);
        context.logger = &host;
        context.file = Utility::toWide((directory / "module.log").string());
    }
    void TearDown() override { fs::remove_all(directory); }

    std::vector<std::string> readLines(const fs::path& name) const
    {
        std::ifstream file(directory / name);
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

    LoggerOwner make() { return {LoggerDetail::initFileLogger(&context), LoggerOwner::Ownership::owned}; }

    fs::path directory;
    RecordingLogger host;
    LoggingContext context;
};
}  // namespace

TEST_F(FileLogger, writesTimeSeverityPlaceAndMessage)
{
    make().get()->Log(LogSeverity::warning, "Uniview::Device::tryConnect", "Drivers/Uniview/src/ModuleDriver", 12,
                      "RTSP port is reachable");
    const auto lines = readLines("module.log");
    ASSERT_EQ(lines.size(), 1U);
    std::string time = lines[0].substr(0, 24);
    std::replace_if(
        time.begin(), time.end(), [](char c) { return c >= '0' && c <= '9'; }, 'd');
    EXPECT_EQ(time, "dddd-dd-ddTdd:dd:dd.dddZ");
    EXPECT_EQ(lines[0].substr(24), " warning Uniview::Device::tryConnect Drivers/Uniview/src/ModuleDriver:12 "
                                   "RTSP port is reachable");
}

TEST_F(FileLogger, hasALineBeforeItIsDestroyed)
{
    const LoggerOwner logger = make();
    logger.get()->Log(LogSeverity::debug, "f", "s", 1, "m");
    EXPECT_EQ(readLines("module.log").size(), 1U);
}

TEST_F(FileLogger, keepsAMessageOnOneLine)
{
    make().get()->Log(LogSeverity::info, "f", "s", 1, "reason\r\nforged line");
    EXPECT_EQ(readLines("module.log").size(), 1U);
}

TEST_F(FileLogger, passesLinesToTheHostToo)
{
    const LoggerOwner logger = make();
    host.level = LogSeverity::warning;
    EXPECT_EQ(logger.get()->GetLevel(), LogSeverity::warning);
    logger.get()->Log(LogSeverity::error, "f", "s", 3, "m");
    ASSERT_EQ(host.lines().size(), 1U);
    EXPECT_EQ(host.lines()[0].message, "m");
    EXPECT_EQ(host.destroyed, 0);
}

TEST_F(FileLogger, keepsErrorsWhenTheHostHasNoLogger)
{
    context.logger = nullptr;
    const LoggerOwner logger = make();
    EXPECT_EQ(logger.get()->GetLevel(), LogSeverity::error);
    logger.get()->Log(LogSeverity::error, "f", "s", 3, "m");
    EXPECT_EQ(readLines("module.log").size(), 1U);
}

TEST_F(FileLogger, worksWithoutAFileAndWithoutAContext)
{
    context.file.clear();
    make().get()->Log(LogSeverity::error, "f", "s", 3, "m");
    EXPECT_EQ(host.lines().size(), 1U);

    const LoggerOwner nothing(LoggerDetail::initFileLogger(nullptr), LoggerOwner::Ownership::owned);
    ASSERT_NE(nothing.get(), nullptr);
    nothing.get()->Log(LogSeverity::error, "f", "s", 3, "m");
}

TEST_F(FileLogger, toleratesMissingTexts)
{
    context.logger = nullptr;
    make().get()->Log(LogSeverity::error, nullptr, nullptr, 0, nullptr);
    EXPECT_EQ(readLines("module.log").size(), 1U);
}

TEST_F(FileLogger, beginsANewFileWhenTheOldOneIsFullAndKeepsFive)
{
    const LoggerOwner logger = make();
    const std::string megabyte(1024U * 1024U, 'x');
    context.logger = nullptr;
    for (std::size_t written = 0; written < 7 * LoggerDetail::logFileBytes; written += megabyte.size())
        logger.get()->Log(LogSeverity::error, "f", "s", 3, megabyte.c_str());
    std::size_t files = 0;
    for (const auto& entry : fs::directory_iterator(directory)) {
        EXPECT_LE(fs::file_size(entry.path()), LoggerDetail::logFileBytes);
        ++files;
    }
    EXPECT_EQ(files, 1 + LoggerDetail::logFilesKept);
}

TEST_F(FileLogger, reportsAFileThatCannotBeOpenedAndGoesOn)
{
    std::ofstream(directory / "plain") << "a file, no directory";
    context.file = Utility::toWide((directory / "plain" / "module.log").string());
    const LoggerOwner logger = make();
    EXPECT_EQ(host.count("Cannot open log file: "), 1U);
    logger.get()->Log(LogSeverity::error, "f", "s", 3, "still heard");
    EXPECT_EQ(host.count("still heard"), 1U);
}

TEST_F(FileLogger, twoOnTheSameFileDoNotClash)
{
    const LoggerOwner first = make();
    const LoggerOwner second = make();
    first.get()->Log(LogSeverity::info, "f", "s", 1, "one");
    second.get()->Log(LogSeverity::info, "f", "s", 1, "two");
    EXPECT_EQ(readLines("module.log").size(), 2U);
}

#if defined(__linux__)
TEST_F(FileLogger, reportsAFullDiskOnceAndGoesOn)
{
    context.file = L"/dev/full";  // opens, but refuses each byte
    const LoggerOwner logger = make();
    for (int i = 0; i < 3; ++i)
        logger.get()->Log(LogSeverity::error, "f", "s", 3, "still heard");
    EXPECT_EQ(host.count("Cannot write log file: "), 1U);
    EXPECT_EQ(host.count("still heard"), 3U);
}
#endif

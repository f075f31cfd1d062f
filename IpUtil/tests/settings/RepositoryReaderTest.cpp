#include "RecordingLogger.h"
#include "settings/Path.h"
#include <IpUtil/RepositoryReader.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <locale>
#include <random>

using namespace Tavro8;
using kelvo::test::RecordingLogger;
using Utility::RepositoryReader;
using Utility::toNarrow;
using Utility::toWide;
namespace fs = std::filesystem;

namespace
{
struct GroupingDigits : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

class LoggingContext final : public GDRV::ILoggingContext {
public:
    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<GDRV::ILoggingContext, IContract>(this, name);
    }
    ILogger* GetLogger() noexcept override { return &logger; }
    const wchar_t* GetRepositoryDirectory() noexcept override { return directory.c_str(); }
    const wchar_t* GetLogFile() noexcept override { return nullptr; }

    RecordingLogger logger;
    std::wstring directory;
};

/// A repository directory of its own for each test; the name is not plain ASCII on purpose.
class Repository : public testing::Test {
protected:
    void SetUp() override
    {
        directory =
            fs::temp_directory_path() / Utility::toPath(L"kelvo r\u00e9p " + std::to_wstring(std::random_device{}()));
        fs::create_directories(directory / "module");
        context.directory = toWide(directory.string());
    }
    void TearDown() override { fs::remove_all(directory); }

    int load(const std::string& content)
    {
        std::ofstream(directory / "module" / "Kelvo.Uniview.rep", std::ios::binary) << content;
        return reader.load(reader.join(L"module", L"Kelvo.Uniview.rep"), target);
    }
    std::string text(const std::string& key) const { return boost::any_cast<std::string>(target.at(key)); }

    fs::path directory;
    LoggingContext context;
    RepositoryReader reader{&context};
    ParameterMap target;
};
}  // namespace

TEST(Wide, readsUtf8)
{
    EXPECT_EQ(toWide(""), L"");
    EXPECT_EQ(toWide("Kelvo.Uniview.rep"), L"Kelvo.Uniview.rep");
    EXPECT_EQ(toWide("caf\xC3\xA9 \xE2\x82\xAC"), L"caf\u00e9 \u20ac");
    EXPECT_EQ(toWide("\xF0\x9F\x93\xB7"), L"\U0001F4F7");
}

TEST(Wide, replacesWhatIsNoUtf8)
{
    const struct {
        const char* bytes;
        const wchar_t* wide;
    } cases[] = {
        {"a\x80"
         "b",
         L"a\ufffdb"},            // a following byte alone
        {"\xC3", L"\ufffd"},      // cut off
        {"\xE2\x82", L"\ufffd"},  // cut off later: one replacement
        {"\xE2\x82"
         "b",
         L"\ufffdb"},
        {"\xC0\xAF", L"\ufffd\ufffd"},  // overlong
        {"\xE0\x80\xAF", L"\ufffd\ufffd\ufffd"},
        {"\xED\xA0\x80", L"\ufffd\ufffd\ufffd"},  // a surrogate
        {"\xF5\x80", L"\ufffd\ufffd"},            // beyond Unicode
        {"\xFF\xFE", L"\ufffd\ufffd"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.bytes));
        EXPECT_EQ(toWide(c.bytes), c.wide);
    }
}

TEST(Wide, writesUtf8)
{
    EXPECT_EQ(toNarrow(L"caf\u00e9 \u20ac"), "caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(toNarrow(L"\U0001F4F7"), "\xF0\x9F\x93\xB7");
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xD800), L'b', static_cast<wchar_t>(0xDC00), 0};
    EXPECT_EQ(toNarrow(surrogate), "a\xEF\xBF\xBD"
                                   "b\xEF\xBF\xBD");
}

TEST_F(Repository, joinsDirectoryIdentifierAndName)
{
    context.directory = L"top";
    EXPECT_EQ(Utility::toPath(reader.join(L"module", L"Kelvo.Uniview.rep")),
              fs::path("top") / "module" / "Kelvo.Uniview.rep");
    EXPECT_EQ(Utility::toPath(reader.join(L"/etc", L"x")), fs::path("top//etc/x"));
}

TEST_F(Repository, loadsKeysAsTexts)
{
    EXPECT_EQ(load("; where the listener waits\n# another comment\n\n  localServerIP =  192.0.2.1 \r\n"
                   "localServerPort=32000\nempty=\nname = caf\xC3\xA9 = yes\n"),
              0);
    EXPECT_EQ(target.size(), 4U);
    EXPECT_EQ(text("localServerIP"), "192.0.2.1");
    EXPECT_EQ(text("localServerPort"), "32000");
    EXPECT_EQ(text("empty"), "");
    EXPECT_EQ(text("name"), "caf\xC3\xA9 = yes");
    EXPECT_TRUE(context.logger.lines().empty());
}

TEST_F(Repository, loadsAnEmptyFile)
{
    EXPECT_EQ(load(""), 0);
    EXPECT_TRUE(target.empty());
}

TEST_F(Repository, toleratesAByteOrderMark)
{
    EXPECT_EQ(load("\xEF\xBB\xBFlocalServerPort = 32000"), 0);
    EXPECT_EQ(text("localServerPort"), "32000");
}

TEST_F(Repository, keepsDotsInKeysAndNamesSections)
{
    EXPECT_EQ(load("a.b.c = 1\n[section.x]\nkey.y = 2\n[empty]\n"), 0);
    EXPECT_EQ(text("a.b.c"), "1");
    EXPECT_EQ(text("section.x.key.y"), "2");
}

TEST_F(Repository, keepsOtherKeysOfTheTarget)
{
    target["kept"] = 1;
    target["localServerPort"] = std::string("1");
    EXPECT_EQ(load("localServerPort = 2\n"), 0);
    EXPECT_EQ(text("localServerPort"), "2");
    EXPECT_EQ(boost::any_cast<int>(target.at("kept")), 1);
}

TEST_F(Repository, refusesBadFilesWithAReasonAndTouchesNothing)
{
    const struct {
        const char* what;
        std::string content;
        const char* reason;
    } cases[] = {
        {"no setting", "localServerPort = 1\njunk\n", "line 2: "},
        {"a key twice", "a = 1\na = 2\n", "line 2: "},
        {"no key", "= 2\n", "line 1: "},
        {"a section that does not end", "[section\na = 1\n", "line 1: "},
        {"another encoding",
         std::string("\xFF\xFE"
                     "a\0=\0"
                     "1\0",
                     8),
         "not UTF-8 text"},
        {"too large", std::string(2U << 20U, ';'), "too large"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto before = context.logger.lines().size();
        EXPECT_NE(load(c.content), 0);
        EXPECT_TRUE(target.empty());
        ASSERT_EQ(context.logger.lines().size(), before + 1);
        const auto line = context.logger.lines().back();
        EXPECT_EQ(line.severity, LogSeverity::error);
        EXPECT_NE(line.message.find("Kelvo.Uniview.rep"), std::string::npos) << line.message;
        EXPECT_NE(line.message.find(c.reason), std::string::npos) << line.message;
    }
}

TEST_F(Repository, refusesAMissingFileAndADirectory)
{
    EXPECT_NE(reader.load(reader.join(L"module", L"missing"), target), 0);
    EXPECT_NE(reader.load(toWide(directory.string()), target), 0);
    EXPECT_EQ(context.logger.count("Cannot load settings repository '"), 2U);
    EXPECT_EQ(context.logger.count("kelvo r\xC3\xA9p "), 2U);
}

TEST_F(Repository, survivesAMissingContext)
{
    const RepositoryReader blind(nullptr);
    EXPECT_EQ(Utility::toPath(blind.join(L"module", L"x")), fs::path("module") / "x");
    EXPECT_NE(blind.load(L"does not exist", target), 0);
}

TEST_F(Repository, isReadWithoutTheGlobalLocale)
{
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupingDigits));
    const int result = load("localServerPort = 32000\nbroken = 1\n");
    const int refused = load(std::string(5000, '\n') + "junk");
    std::locale::global(before);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(text("localServerPort"), "32000");
    EXPECT_NE(refused, 0);
    EXPECT_EQ(context.logger.count("line 5001: "), 1U);
}

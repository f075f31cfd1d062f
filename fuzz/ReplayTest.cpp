#include "FuzzTarget.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <set>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
namespace fs = std::filesystem;

const fs::path root = KELVO_FUZZ_DIR;

std::vector<fs::path> filesIn(const fs::path& folder)
{
    std::vector<fs::path> files;
    if (!fs::is_directory(folder))
        return files;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.is_regular_file())
            files.push_back(entry.path());
    }
    std::ranges::sort(files);
    return files;
}

Bytes read(const fs::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream.is_open()) << file;
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::set<std::string> foldersIn(const fs::path& folder)
{
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        if (entry.is_directory())
            names.insert(entry.path().filename().string());
    }
    return names;
}

/// For the names of the tests.
[[maybe_unused]] void PrintTo(const Target* target, std::ostream* to)
{
    *to << target->name;
}

class Replay : public ::testing::TestWithParam<const Target*> {};
}  // namespace

/// A promise that does not hold aborts the test; the last file printed is the one.
TEST_P(Replay, keepsItsPromises)
{
    const Target& target = *GetParam();
    const std::vector<fs::path> corpus = filesIn(root / "corpus" / target.name);
    ASSERT_FALSE(corpus.empty()) << "no corpus for " << target.name;
    std::vector<fs::path> files = filesIn(root / "regressions" / target.name);
    files.insert(files.end(), corpus.begin(), corpus.end());
    target.feed({});
    for (const fs::path& file : files) {
        std::cout << file.lexically_relative(root).string() << std::endl;
        target.feed(read(file));
    }
}

INSTANTIATE_TEST_SUITE_P(FuzzTargets, Replay, ::testing::ValuesIn(targets()),
                         [](const auto& parameter) { return std::string(parameter.param->name); });

TEST(FuzzCorpora, belongToATargetEach)
{
    std::set<std::string> names;
    for (const Target* target : targets())
        names.insert(target->name);
    EXPECT_EQ(foldersIn(root / "corpus"), names);
    for (const std::string& folder : foldersIn(root / "regressions"))
        EXPECT_TRUE(names.contains(folder)) << folder;
}
}  // namespace Tavro8::fuzz

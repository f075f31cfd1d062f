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

std::vector<std::string> targetNames()
{
    std::vector<std::string> names;
    for (const Target* target : targets())
        names.emplace_back(target->name);
    return names;
}

class Replay : public ::testing::TestWithParam<std::string> {};
}  // namespace

/// A promise that does not hold aborts the test; the last file printed is the one.
TEST_P(Replay, keepsItsPromises)
{
    const Target& target = **std::ranges::find(targets(), GetParam(), &Target::name);
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

INSTANTIATE_TEST_SUITE_P(FuzzTargets, Replay, ::testing::ValuesIn(targetNames()),
                         [](const auto& parameter) { return parameter.param; });

TEST(FuzzCorpora, belongToATargetEach)
{
    const std::vector<std::string> names = targetNames();
    EXPECT_EQ(foldersIn(root / "corpus"), std::set<std::string>(names.begin(), names.end()));
    for (const std::string& folder : foldersIn(root / "regressions"))
        EXPECT_EQ(std::ranges::count(names, folder), 1) << folder;
}
}  // namespace Tavro8::fuzz

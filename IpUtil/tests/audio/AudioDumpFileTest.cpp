#include <IpUtil/AudioDumpFile.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace
{
using Tavro8::Utility::AudioDumpFile;

class AudioDump : public ::testing::Test {
protected:
    AudioDump()
        : directory(std::filesystem::temp_directory_path() /
                    (std::string("kelvo-dump-") + ::testing::UnitTest::GetInstance()->current_test_info()->name()))
    {
        std::filesystem::remove_all(directory);
        std::filesystem::create_directories(directory);
    }
    ~AudioDump() override { std::filesystem::remove_all(directory); }

    std::vector<std::filesystem::path> files() const
    {
        return {std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator()};
    }

    std::filesystem::path directory;
};

TEST_F(AudioDump, keepsTheSamplesAsTheyCame)
{
    const std::vector<std::int16_t> samples{1, -2, 300, -32768};
    AudioDumpFile dump;
    dump.write(samples);  // no file yet
    ASSERT_TRUE(dump.open(directory, 3));
    dump.write(samples);
    dump.write(std::vector<std::int16_t>{7});
    dump.close();
    dump.write(samples);  // none any more

    ASSERT_EQ(files().size(), 1U);
    const std::string name = files().front().filename().string();
    EXPECT_EQ(name.find("file_3_"), 0U) << name;
    EXPECT_EQ(name.substr(name.size() - 4), ".bin");
    std::ifstream file(files().front(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    std::vector<std::int16_t> expected = samples;
    expected.push_back(7);
    EXPECT_EQ(bytes, std::string(reinterpret_cast<const char*>(expected.data()), expected.size() * 2));
}

TEST_F(AudioDump, givesEachFileANameOfItsOwn)
{
    std::vector<AudioDumpFile> dumps(20);
    for (AudioDumpFile& dump : dumps)
        EXPECT_TRUE(dump.open(directory, 0));
    EXPECT_EQ(files().size(), dumps.size());
}

TEST_F(AudioDump, saysThatAFileCannotBeOpened)
{
    AudioDumpFile dump;
    EXPECT_FALSE(dump.open(directory / "missing", 0));
    dump.write(std::vector<std::int16_t>{7});
}
}  // namespace

#include "SettingsRepository.h"

#include "ExitStatus.h"
#include "TemporaryDirectory.h"

#include <fstream>
#include <gtest/gtest.h>
#include <string>

namespace Host
{
namespace
{
TEST(SettingsRepository, isWrittenWithCommentsOnlyWhenThereIsNone)
{
    const TemporaryDirectory directory;
    provideSettingsRepository(directory / "deep/er");
    std::ifstream file(directory / "deep/er/Kelvo.Uniview/Kelvo.Uniview.rep");
    std::string line;
    std::size_t lines = 0;
    for (; std::getline(file, line); ++lines)
        EXPECT_EQ(line.front(), ';');
    EXPECT_GT(lines, 0U);
}

TEST(SettingsRepository, isLeftAsItIs)
{
    const TemporaryDirectory directory;
    std::filesystem::create_directories(directory / "Kelvo.Uniview");
    std::ofstream(directory / "Kelvo.Uniview/Kelvo.Uniview.rep") << "localServerPort = 32001";
    provideSettingsRepository(directory.get());
    EXPECT_EQ(std::filesystem::file_size(directory / "Kelvo.Uniview/Kelvo.Uniview.rep"), 23U);
}

TEST(SettingsRepository, thatCannotBeWrittenEndsTheCommand)
{
    const TemporaryDirectory directory;
    std::ofstream(directory / "file") << "";
    EXPECT_THROW(provideSettingsRepository(directory / "file"), Failure);
}
}  // namespace
}  // namespace Host

#include "PathText.h"

#include "ExitStatus.h"
#include "TemporaryDirectory.h"
#include "media/MediaFile.h"
#include "media/Picture.h"

#include <fstream>
#include <gtest/gtest.h>
#ifdef __unix__
#include <sys/stat.h>
#endif

namespace Host
{
namespace
{
TEST(PathText, namesTheFurtherPartsOfARecording)
{
    EXPECT_EQ(partPath("dir/yard.mp4", 1), "dir/yard.mp4");
    EXPECT_EQ(partPath("dir/yard.mp4", 2), "dir/yard-2.mp4");
    EXPECT_EQ(partPath("yard.1.mkv", 10), "yard.1-10.mkv");
}

TEST(PathText, knowsFilesByTheirEndingsInAnyCase)
{
    EXPECT_TRUE(isMediaFile("a.mp4"));
    EXPECT_TRUE(isMediaFile("A.MKV"));
    EXPECT_FALSE(isMediaFile("a.avi"));
    EXPECT_FALSE(isMediaFile("mp4"));
    EXPECT_TRUE(isPictureFile("a.Png"));
    EXPECT_TRUE(isPictureFile("a.jpg"));
    EXPECT_TRUE(isPictureFile("a.jpeg"));
    EXPECT_FALSE(isPictureFile("a.gif"));
}

TEST(RequireWritable, leavesNothingBehindAndKeepsWhatIsThere)
{
    const TemporaryDirectory directory;
    requireWritable(directory / "new.mp4");
    EXPECT_FALSE(std::filesystem::exists(directory / "new.mp4"));
    std::ofstream(directory / "old.mp4") << "content";
    requireWritable(directory / "old.mp4");
    EXPECT_EQ(std::filesystem::file_size(directory / "old.mp4"), 7U);
}

TEST(RequireWritable, refusesADirectoryAndAPathThatDoesNotExist)
{
    const TemporaryDirectory directory;
    EXPECT_THROW(requireWritable(directory.get()), Failure);
    EXPECT_THROW(requireWritable(directory / "absent/new.mp4"), Failure);
}

#ifdef __unix__
TEST(RequireWritable, refusesAPipeWithoutWaitingForItsReader)
{
    const TemporaryDirectory directory;
    ASSERT_EQ(::mkfifo((directory / "pipe.mp4").c_str(), 0600), 0);
    EXPECT_THROW(requireWritable(directory / "pipe.mp4"), Failure);
    EXPECT_TRUE(std::filesystem::is_fifo(directory / "pipe.mp4"));
    requireWritable("/dev/null");
}
#endif
}  // namespace
}  // namespace Host

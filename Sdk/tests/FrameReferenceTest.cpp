#include <Tavro8/GDRV/MediaFrame.h>
#include <gtest/gtest.h>
#include <utility>

namespace
{
using namespace Tavro8::GDRV;

class CountedBuffer final : public IFrameBuffer {
public:
    void AddRef() const noexcept override { ++references; }
    void Release() const noexcept override { --references; }
    mutable int references = 0;
};

TEST(FrameReference, keepsTheBufferWhileAnyCopyLives)
{
    CountedBuffer buffer;
    MediaFrame frame;
    frame.buffer = &buffer;
    {
        const FrameReference first(frame);
        FrameReference second = first;
        EXPECT_EQ(buffer.references, 2);
        const FrameReference third = std::move(second);
        EXPECT_EQ(buffer.references, 2);
        EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move): a moved-from reference holds nothing
        second = third;
        EXPECT_EQ(buffer.references, 3);
    }
    EXPECT_EQ(buffer.references, 0);
}

TEST(FrameReference, holdsNothingForAFrameWithoutBuffer)
{
    EXPECT_FALSE(FrameReference{MediaFrame{}});
    EXPECT_FALSE(FrameReference{});
}
}  // namespace

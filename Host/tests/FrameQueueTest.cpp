#include "FrameQueue.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace Host
{
namespace
{
using Tavro8::GDRV::FrameReference;
using Tavro8::GDRV::IFrameBuffer;
using Tavro8::GDRV::MediaCodec;
using Tavro8::GDRV::MediaFrame;

class CountingBuffer final : public IFrameBuffer {
public:
    void AddRef() const noexcept override { ++references; }
    void Release() const noexcept override { --references; }

    mutable std::atomic<int> references{0};
};

class FrameQueueTest : public testing::Test {
protected:
    MediaFrame frame(MediaCodec codec, bool keyFrame, std::size_t size = 10) const
    {
        MediaFrame made;
        made.codec = codec;
        made.keyFrame = keyFrame;
        made.data = {memory.data(), size};
        made.buffer = &buffer;
        return made;
    }
    MediaFrame keyPicture() const { return frame(MediaCodec::h264, true); }
    MediaFrame picture() const { return frame(MediaCodec::h264, false); }
    MediaFrame sound() const { return frame(MediaCodec::g711U, true); }

    const std::vector<std::uint8_t> memory = std::vector<std::uint8_t>(1000);
    CountingBuffer buffer;
};

TEST_F(FrameQueueTest, handsFramesOutInOrderAndEndsWhenClosed)
{
    FrameQueue queue({10, 1000});
    queue.push(keyPicture());
    queue.push(sound());
    queue.close();
    queue.push(picture());
    EXPECT_EQ((*queue.pop())->codec, MediaCodec::h264);
    EXPECT_EQ((*queue.pop())->codec, MediaCodec::g711U);
    EXPECT_FALSE(queue.pop());
    EXPECT_EQ(queue.getDropped(), 0U);
    EXPECT_EQ(buffer.references, 0);
}

TEST_F(FrameQueueTest, dropsPicturesUpToTheNextKeyFrameWhenItIsFull)
{
    FrameQueue queue({2, 1000});
    queue.push(keyPicture());
    queue.push(picture());
    queue.push(picture());  // does not fit
    queue.pop();
    queue.push(picture());  // would fit but needs the one before
    EXPECT_EQ(queue.getDropped(), 2U);
    queue.push(keyPicture());
    EXPECT_EQ(queue.getDropped(), 2U);
    EXPECT_FALSE((*queue.pop())->keyFrame);
    EXPECT_TRUE((*queue.pop())->keyFrame);
}

TEST_F(FrameQueueTest, goesOnWithSoundWhilePicturesAreDropped)
{
    FrameQueue queue({1, 1000});
    queue.push(keyPicture());
    queue.push(picture());
    queue.pop();
    queue.push(sound());
    EXPECT_EQ((*queue.pop())->codec, MediaCodec::g711U);
}

TEST_F(FrameQueueTest, isBoundedInBytes)
{
    FrameQueue queue({10, 1000});
    queue.push(frame(MediaCodec::h264, true, 600));
    queue.push(frame(MediaCodec::h264, true, 600));
    EXPECT_EQ(queue.getDropped(), 1U);
    queue.pop();
    queue.push(frame(MediaCodec::h264, true, 600));
    EXPECT_EQ(queue.getDropped(), 1U);
}

TEST_F(FrameQueueTest, givesBackWhatItStillHolds)
{
    {
        FrameQueue queue({10, 1000});
        queue.push(keyPicture());
        EXPECT_EQ(buffer.references, 1);
    }
    EXPECT_EQ(buffer.references, 0);
}

TEST_F(FrameQueueTest, cannotKeepAFrameWhoseMemoryHasNoOwner)
{
    FrameQueue queue({10, 1000});
    MediaFrame orphan = keyPicture();
    orphan.buffer = nullptr;
    queue.push(orphan);
    EXPECT_EQ(queue.getDropped(), 1U);
}

TEST_F(FrameQueueTest, wakesTheReaderWhenItIsClosed)
{
    FrameQueue queue({10, 1000});
    std::thread reader([&] { EXPECT_FALSE(queue.pop()); });
    queue.close();
    reader.join();
}

TEST_F(FrameQueueTest, letsAPatientSenderWaitForRoom)
{
    FrameQueue queue({2, 1000});
    constexpr int count = 50;
    std::thread sender([&] {
        for (int i = 0; i < count; ++i)
            queue.pushWaiting(i == 0 ? keyPicture() : picture());
        queue.close();
    });
    int received = 0;
    while (queue.pop())
        ++received;
    sender.join();
    EXPECT_EQ(received, count);
    EXPECT_EQ(queue.getDropped(), 0U);
}

TEST_F(FrameQueueTest, letsNobodyWaitOnceItIsClosed)
{
    FrameQueue queue({1, 1000});
    queue.push(keyPicture());
    const auto sender = std::async(std::launch::async, [&] { queue.pushWaiting(keyPicture()); });
    queue.close();
    sender.wait();
    EXPECT_TRUE(queue.pop());
    EXPECT_FALSE(queue.pop());
}

TEST_F(FrameQueueTest, dropsWhatNeverFits)
{
    FrameQueue queue({10, 500});
    queue.pushWaiting(frame(MediaCodec::h264, true, 600));
    EXPECT_EQ(queue.getDropped(), 1U);
}
}  // namespace
}  // namespace Host

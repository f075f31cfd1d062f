#include "FrameQueue.h"

#include <utility>

namespace Host
{
using Tavro8::GDRV::FrameReference;
using Tavro8::GDRV::MediaFrame;

void FrameQueue::push(const MediaFrame& frame) noexcept
try {
    {
        const std::lock_guard lock(mutex);
        if (closed)
            return;
        if (!accept(frame)) {
            ++dropped;
            return;
        }
        frames.emplace_back(frame);
        bytes += frame.data.size();
    }
    filled.notify_one();
} catch (...) {  // out of memory: like a full queue
    const std::lock_guard lock(mutex);
    ++dropped;
    awaitingKeyFrame = true;
}

void FrameQueue::pushWaiting(const MediaFrame& frame) noexcept
{
    {
        std::unique_lock lock(mutex);
        // A frame larger than the queue is dropped by `push`.
        emptied.wait(lock, [&] { return closed || frames.empty() || hasRoom(frame); });
    }
    push(frame);
}

bool FrameQueue::hasRoom(const MediaFrame& frame) const noexcept
{
    return frames.size() < limits.frames && bytes + frame.data.size() <= limits.bytes;
}

bool FrameQueue::accept(const MediaFrame& frame)
{
    const bool video = isVideo(frame.codec);
    if (frame.buffer == nullptr || (video && awaitingKeyFrame && !frame.keyFrame))
        return false;
    const bool fits = hasRoom(frame);
    if (video)
        awaitingKeyFrame = !fits;
    return fits;
}

std::optional<FrameReference> FrameQueue::pop()
{
    std::unique_lock lock(mutex);
    filled.wait(lock, [this] { return closed || !frames.empty(); });
    if (frames.empty())
        return std::nullopt;
    FrameReference frame = std::move(frames.front());
    frames.pop_front();
    bytes -= frame->data.size();
    emptied.notify_one();
    return frame;
}

void FrameQueue::close() noexcept
{
    {
        const std::lock_guard lock(mutex);
        closed = true;
    }
    filled.notify_all();
    emptied.notify_all();
}

std::uint64_t FrameQueue::getDropped() const
{
    const std::lock_guard lock(mutex);
    return dropped;
}
}  // namespace Host

#pragma once

#include <Tavro8/GDRV/MediaFrame.h>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

namespace Host
{
/// Frames on their way from the module's I/O thread to a thread that may take its time.
///
/// Bounded in frames and bytes. What does not fit is dropped, newest first; after a dropped picture everything
/// up to the next key frame is dropped with it, since it could not be decoded. Frames whose memory has no owner
/// cannot be kept and are dropped. Any thread.
class FrameQueue {
public:
    struct Limits {
        std::size_t frames = 2000;
        std::size_t bytes = 64U << 20U;
    };

    explicit FrameQueue(Limits queueLimits) : limits(queueLimits) {}

    /// Never blocks for long, never throws.
    void push(const Tavro8::GDRV::MediaFrame& frame) noexcept;

    /// The same, but waits for room instead of dropping what does not fit: for a sender that can be kept waiting.
    /// Returns when the queue is closed. One thread pushes.
    void pushWaiting(const Tavro8::GDRV::MediaFrame& frame) noexcept;

    /// Waits for the next frame; nothing once the queue is closed and empty.
    std::optional<Tavro8::GDRV::FrameReference> pop();

    /// Takes no more frames.
    void close() noexcept;

    std::uint64_t getDropped() const;

private:
    bool hasRoom(const Tavro8::GDRV::MediaFrame& frame) const noexcept;
    bool accept(const Tavro8::GDRV::MediaFrame& frame);

    const Limits limits;
    mutable std::mutex mutex;  // guards everything below
    std::condition_variable filled;
    std::condition_variable emptied;
    std::deque<Tavro8::GDRV::FrameReference> frames;
    std::size_t bytes = 0;
    std::uint64_t dropped = 0;
    bool awaitingKeyFrame = false;
    bool closed = false;
};
}  // namespace Host

#pragma once

#include "media/FramePool.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

namespace Tavro8::media
{
/// Foretells the size of the next frame from those before, so that its buffer need not grow on the way.
class FrameSizeGuess {
public:
    explicit constexpr FrameSizeGuess(std::size_t firstGuess) noexcept : expected(firstGuess) {}

    std::size_t get() const noexcept { return expected; }

    /// Follows growing frames at once and shrinking ones slowly, with a sixteenth to spare.
    void learn(std::size_t bytes) noexcept
    {
        const std::size_t wanted = bytes + bytes / 16;
        expected = wanted >= expected ? wanted : expected - (expected - wanted) / 8;
    }

private:
    std::size_t expected;
};

/// The frame in progress: bytes that are appended to a pooled buffer. Moves to a larger buffer when one is
/// full, which `reserve` with a good guess avoids. Holds no buffer while it is empty.
class FrameBuilder {
public:
    /// More than `limit` bytes are refused.
    FrameBuilder(FramePool& framePool, std::size_t limit) noexcept : pool(framePool), maxBytes(limit) {}
    ~FrameBuilder() { clear(); }
    FrameBuilder(const FrameBuilder&) = delete;
    FrameBuilder& operator=(const FrameBuilder&) = delete;

    std::size_t size() const noexcept { return used; }
    bool empty() const noexcept { return used == 0; }
    std::span<const std::uint8_t> bytes() const noexcept { return {begin, used}; }

    /// Room for that many bytes in all, as a guess: a limit or missing memory is no error here.
    void reserve(std::size_t bytesInAll) noexcept
    {
        if (bytesInAll > room)
            grow(bytesInAll < maxBytes ? bytesInAll : maxBytes);
    }

    /// False, with nothing appended, when the limit or the memory does not allow more.
    bool append(std::span<const std::uint8_t> more) noexcept
    {
        if (more.size() > room - used && !makeRoom(more.size()))
            return false;
        if (!more.empty())
            std::memcpy(begin + used, more.data(), more.size());
        used += more.size();
        return true;
    }

    /// Puts bytes in at `position`, which is at most `size()`. Meant for a position near the end.
    bool insert(std::size_t position, std::span<const std::uint8_t> more) noexcept;

    /// Drops what lies behind the first `bytesLeft` bytes.
    void truncate(std::size_t bytesLeft) noexcept { used = bytesLeft; }

    /// Hands the buffer and its reference to the caller; null when empty. The builder is empty then.
    FrameBuffer* take() noexcept;

    void clear() noexcept;

private:
    bool makeRoom(std::size_t more) noexcept;
    bool grow(std::size_t capacity) noexcept;

    FramePool& pool;
    std::size_t maxBytes;
    FrameBuffer* buffer = nullptr;
    std::uint8_t* begin = nullptr;
    std::size_t used = 0;
    std::size_t room = 0;
};
}  // namespace Tavro8::media

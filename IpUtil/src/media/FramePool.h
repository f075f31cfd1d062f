#pragma once

#include "Tavro8/GDRV/MediaFrame.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Tavro8::media
{
class FramePool;
class FramePoolState;

/// Memory of one frame: header and bytes in one block. Made by `FramePool` with one reference.
/// Any thread may add and release references; only the depacketiser that acquired it writes, and only
/// before it hands the frame on.
class FrameBuffer final : public GDRV::IFrameBuffer {
public:
    void AddRef() const noexcept override { references.fetch_add(1, std::memory_order_relaxed); }
    void Release() const noexcept override;

    std::uint8_t* data() noexcept;
    std::size_t getCapacity() const noexcept { return capacity; }

private:
    friend class FramePoolState;
    FrameBuffer(FramePoolState& owner, std::size_t bytes, std::uint32_t index) noexcept
        : state(owner), capacity(bytes), sizeClass(index)
    {}

    mutable std::atomic<std::uint32_t> references{1};
    FramePoolState& state;
    std::size_t capacity;
    std::uint32_t sizeClass;
    FrameBuffer* next = nullptr;  // in a free list of the pool
};

/// Recycles frame buffers, so that receiving allocates nothing in steady state.
///
/// Meant to be shared by all streams of one I/O context: between frames a stream then holds nothing, and
/// the buffer of one stream's key frame serves the next stream's. Capacities come in classes of four per
/// power of two (at most a quarter is unused), and a request takes a buffer of up to two classes more
/// rather than allocate.
///
/// Thread-safe. The memory stays valid until the last frame is released, even after the pool has gone.
class FramePool {
public:
    struct Settings {
        std::size_t maxCachedBytes = 4 * 1024 * 1024;  ///< memory kept for reuse; what is in use comes on top
        std::uint32_t trimInterval = 4096;             ///< acquisitions between two automatic trims; 0: never
    };

    struct Usage {
        std::size_t buffersOut = 0;     ///< referenced by anybody
        std::size_t bytesOut = 0;       ///< their capacity
        std::size_t buffersCached = 0;  ///< waiting for reuse
        std::size_t bytesCached = 0;
        std::uint64_t allocations = 0;  ///< buffers taken from the heap since the pool was made
    };

    FramePool() : FramePool(Settings{}) {}
    explicit FramePool(const Settings& settings);
    ~FramePool();
    FramePool(const FramePool&) = delete;
    FramePool& operator=(const FramePool&) = delete;

    /// A buffer of at least `bytes`, with one reference that the caller releases. Throws std::bad_alloc.
    FrameBuffer& acquire(std::size_t bytes);

    /// Frees the cached buffers that were not needed since the last trim.
    void trim() noexcept;

    Usage usage() const noexcept;

private:
    FramePoolState* state;  // owns itself: lives until the pool and the last buffer have gone
};
}  // namespace Tavro8::media

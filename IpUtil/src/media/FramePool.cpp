#include "media/FramePool.h"

#include <array>
#include <bit>
#include <limits>
#include <mutex>
#include <new>

namespace Tavro8::media
{
namespace
{
// Four classes per power of two, from 512 bytes to 16 MiB; larger buffers are never cached.
constexpr unsigned smallestShift = 9;
constexpr unsigned largestShift = 24;
constexpr std::uint32_t classCount = (largestShift - smallestShift) * 4 + 1;
constexpr std::uint32_t notCached = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t largestBufferBytes = std::size_t{1} << 30;  // nobody means more
constexpr std::uint32_t classesAbove = 2;  // how much larger a cached buffer may be than asked for

// The bytes begin on a cache line of their own, behind the header.
constexpr std::size_t alignment = 64;
constexpr std::size_t headerBytes = (sizeof(FrameBuffer) + alignment - 1) / alignment * alignment;

std::uint32_t classOf(std::size_t bytes) noexcept
{
    if (bytes <= (std::size_t{1} << smallestShift))
        return 0;
    if (bytes > (std::size_t{1} << largestShift))
        return notCached;
    // The two bits below the highest one of `bytes - 1` tell the quarter.
    const auto last = bytes - 1;
    const auto shift = static_cast<unsigned>(std::bit_width(last)) - 1;
    const auto quarter = static_cast<std::uint32_t>((last >> (shift - 2)) & 3U);
    return (shift - smallestShift) * 4 + quarter + 1;
}

std::size_t capacityOf(std::uint32_t sizeClass) noexcept
{
    const std::size_t power = std::size_t{1} << (smallestShift + sizeClass / 4);
    return power + power / 4 * (sizeClass % 4);
}
}  // namespace

/// What buffers and pool share. Deletes itself when both the pool and the last buffer have gone.
class FramePoolState {
public:
    explicit FramePoolState(const FramePool::Settings& poolSettings) noexcept : settings(poolSettings) {}

    FrameBuffer& acquire(std::size_t bytes)
    {
        const std::uint32_t wanted = classOf(bytes);
        FrameBuffer* idle = nullptr;
        FrameBuffer* cached = nullptr;
        {
            const std::lock_guard lock(mutex);
            cached = takeCached(wanted);
            ++usage.buffersOut;
            if (settings.trimInterval != 0 && ++acquisitions % settings.trimInterval == 0)
                idle = takeIdle();
            if (cached != nullptr)
                usage.bytesOut += cached->capacity;
        }
        free(idle);
        if (cached != nullptr) {
            cached->references.store(1, std::memory_order_relaxed);
            return *cached;
        }
        return allocate(wanted == notCached ? bytes : capacityOf(wanted), wanted);
    }

    void recycle(FrameBuffer& buffer) noexcept
    {
        FrameBuffer* surplus = nullptr;
        bool last = false;
        {
            const std::lock_guard lock(mutex);
            --usage.buffersOut;
            usage.bytesOut -= buffer.capacity;
            if (!poolGone && buffer.sizeClass != notCached && !fits(buffer))
                surplus = takeIdle();
            if (poolGone || buffer.sizeClass == notCached || !fits(buffer)) {
                buffer.next = surplus;
                surplus = &buffer;
            } else {
                cache(buffer);
            }
            last = poolGone && usage.buffersOut == 0;
        }
        free(surplus);
        if (last)
            delete this;
    }

    void trim() noexcept
    {
        FrameBuffer* idle = nullptr;
        {
            const std::lock_guard lock(mutex);
            idle = takeIdle();
        }
        free(idle);
    }

    /// The pool goes; buffers still out stay valid.
    void close() noexcept
    {
        FrameBuffer* all = nullptr;
        bool last = false;
        {
            const std::lock_guard lock(mutex);
            poolGone = true;
            for (FreeList& list : lists)
                list.leastCount = list.count;
            all = takeIdle();
            last = usage.buffersOut == 0;
        }
        free(all);
        if (last)
            delete this;
    }

    FramePool::Usage getUsage() const noexcept
    {
        const std::lock_guard lock(mutex);
        return usage;
    }

private:
    struct FreeList {
        FrameBuffer* first = nullptr;
        std::size_t count = 0;
        std::size_t leastCount = 0;  // since the last trim: so many buffers were never needed
    };

    ~FramePoolState() = default;

    bool fits(const FrameBuffer& buffer) const noexcept
    {
        return usage.bytesCached + buffer.capacity <= settings.maxCachedBytes;
    }

    FrameBuffer* takeCached(std::uint32_t wanted) noexcept
    {
        for (std::uint32_t i = wanted; i < classCount && i <= wanted + classesAbove; ++i) {
            if (lists[i].first != nullptr)
                return pop(lists[i]);
        }
        return nullptr;
    }

    FrameBuffer* pop(FreeList& list) noexcept
    {
        FrameBuffer* const buffer = list.first;
        list.first = buffer->next;
        if (--list.count < list.leastCount)
            list.leastCount = list.count;
        --usage.buffersCached;
        usage.bytesCached -= buffer->capacity;
        return buffer;
    }

    void cache(FrameBuffer& buffer) noexcept
    {
        FreeList& list = lists[buffer.sizeClass];
        buffer.next = list.first;
        list.first = &buffer;
        ++list.count;
        ++usage.buffersCached;
        usage.bytesCached += buffer.capacity;
    }

    /// Takes the buffers that were not needed since the last time out of the lists, chained for `free`.
    FrameBuffer* takeIdle() noexcept
    {
        FrameBuffer* chain = nullptr;
        for (FreeList& list : lists) {
            for (std::size_t idle = list.leastCount; idle > 0; --idle) {
                FrameBuffer* const buffer = pop(list);
                buffer->next = chain;
                chain = buffer;
            }
            list.leastCount = list.count;
        }
        return chain;
    }

    FrameBuffer& allocate(std::size_t capacity, std::uint32_t sizeClass)
    {
        void* memory = nullptr;
        if (capacity <= largestBufferBytes)
            memory = ::operator new (headerBytes + capacity, std::align_val_t{alignment}, std::nothrow);
        const std::lock_guard lock(mutex);
        if (memory == nullptr) {
            --usage.buffersOut;
            throw std::bad_alloc();
        }
        usage.bytesOut += capacity;
        ++usage.allocations;
        return *new (memory) FrameBuffer(*this, capacity, sizeClass);
    }

    static void free(FrameBuffer* chain) noexcept
    {
        while (chain != nullptr) {
            FrameBuffer* const buffer = chain;
            chain = buffer->next;
            buffer->~FrameBuffer();
            ::operator delete (static_cast<void*>(buffer), std::align_val_t{alignment});
        }
    }

    const FramePool::Settings settings;
    mutable std::mutex mutex;  // guards everything below; held for a few instructions only
    std::array<FreeList, classCount> lists;
    FramePool::Usage usage;
    std::uint32_t acquisitions = 0;
    bool poolGone = false;
};

void FrameBuffer::Release() const noexcept
{
    if (references.fetch_sub(1, std::memory_order_acq_rel) == 1)
        state.recycle(const_cast<FrameBuffer&>(*this));
}

std::uint8_t* FrameBuffer::data() noexcept
{
    return reinterpret_cast<std::uint8_t*>(this) + headerBytes;
}

FramePool::FramePool(const Settings& settings) : state(new FramePoolState(settings)) {}

FramePool::~FramePool()
{
    state->close();
}

FrameBuffer& FramePool::acquire(std::size_t bytes)
{
    return state->acquire(bytes);
}

void FramePool::trim() noexcept
{
    state->trim();
}

FramePool::Usage FramePool::usage() const noexcept
{
    return state->getUsage();
}
}  // namespace Tavro8::media

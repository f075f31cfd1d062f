#include "AllocationCounter.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <malloc.h>
#include <new>

// In a file of its own: inlined into their callers, the operators would look like mismatched pairs to the compiler.
// Memory comes from the C library, where the sanitisers still watch it.
namespace
{
std::atomic<std::size_t> allocations{0};
thread_local kelvo::test::HeapUse thisThread;

void* allocate(std::size_t bytes, std::size_t alignment) noexcept
{
    const std::size_t units = (std::max<std::size_t>(bytes, 1) + alignment - 1) / alignment;
    void* const memory = std::aligned_alloc(alignment, units * alignment);
    allocations.fetch_add(1, std::memory_order_relaxed);
    ++thisThread.allocations;
    thisThread.heldBytes += static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
    thisThread.peakBytes = std::max(thisThread.peakBytes, thisThread.heldBytes);
    return memory;
}

void* allocateOrThrow(std::size_t bytes, std::size_t alignment)
{
    if (void* const memory = allocate(bytes, alignment))
        return memory;
    throw std::bad_alloc();
}

void release(void* memory) noexcept
{
    thisThread.heldBytes -= static_cast<std::ptrdiff_t>(malloc_usable_size(memory));
    std::free(memory);
}
}  // namespace

namespace kelvo::test
{
std::size_t allocationCount() noexcept
{
    return allocations.load(std::memory_order_relaxed);
}

HeapUse heapUseOfThisThread() noexcept
{
    return thisThread;
}

void restartPeakOfThisThread() noexcept
{
    thisThread.peakBytes = thisThread.heldBytes;
}
}  // namespace kelvo::test

void* operator new(std::size_t bytes)
{
    return allocateOrThrow(bytes, alignof(std::max_align_t));
}
void* operator new[](std::size_t bytes)
{
    return allocateOrThrow(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment)
{
    return allocateOrThrow(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment)
{
    return allocateOrThrow(bytes, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept
{
    return allocate(bytes, alignof(std::max_align_t));
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept
{
    return allocate(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocate(bytes, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    return allocate(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept
{
    release(memory);
}
void operator delete[](void* memory) noexcept
{
    release(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    release(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept
{
    release(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept
{
    release(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    release(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept
{
    release(memory);
}

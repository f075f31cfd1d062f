#include "AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

// In a file of its own: inlined into their callers, these would look like mismatched pairs to the compiler.
namespace
{
std::atomic<std::size_t> count{0};
}  // namespace

namespace kelvo::bench
{
std::size_t allocationCount() noexcept
{
    return count.load(std::memory_order_relaxed);
}
}  // namespace kelvo::bench

void* operator new(std::size_t bytes)
{
    count.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(bytes))
        return memory;
    throw std::bad_alloc();
}

// Frame buffers begin on a cache line: the aligned forms count as well.
void* operator new(std::size_t bytes, std::align_val_t alignment, const std::nothrow_t&) noexcept
{
    count.fetch_add(1, std::memory_order_relaxed);
    const auto unit = static_cast<std::size_t>(alignment);
    return std::aligned_alloc(unit, (bytes + unit - 1) / unit * unit);
}

void* operator new(std::size_t bytes, std::align_val_t alignment)
{
    if (void* memory = operator new(bytes, alignment, std::nothrow))
        return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

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

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

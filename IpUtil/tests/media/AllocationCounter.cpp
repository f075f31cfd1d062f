#include "AllocationCounter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace
{
std::atomic<std::size_t> allocations{0};

void* allocate(std::size_t bytes, std::size_t alignment) noexcept
{
    ++allocations;
    const std::size_t rounded = (bytes + alignment) / alignment * alignment;
    return std::aligned_alloc(alignment, rounded);
}

void* allocateOrThrow(std::size_t bytes, std::size_t alignment)
{
    if (void* const memory = allocate(bytes, alignment))
        return memory;
    throw std::bad_alloc();
}
}  // namespace

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
    std::free(memory);
}
void operator delete[](void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

namespace Tavro8::media::testkit
{
std::size_t allocationCount() noexcept
{
    return allocations;
}
}  // namespace Tavro8::media::testkit

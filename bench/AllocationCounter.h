#pragma once

#include <cstddef>

namespace kelvo::bench
{
/// Calls of `operator new` since the program began, on all threads. Link AllocationCounter.cpp to have them counted.
std::size_t allocationCount() noexcept;
}  // namespace kelvo::bench

#pragma once

#include <cstddef>

// A program that links `kelvo_allocation_counter` has `operator new` and `operator delete` replaced, in all forms.
namespace kelvo::test
{
/// Calls of `operator new` since the program began, on all threads.
std::size_t allocationCount() noexcept;

/// What one thread did to the heap since it began.
struct HeapUse {
    std::size_t allocations = 0;
    std::ptrdiff_t heldBytes = 0;  ///< allocated less released; memory of another thread released here counts too
    std::ptrdiff_t peakBytes = 0;  ///< the most that was held at once
};

/// That of the calling thread, for tests whose other threads are of no interest.
HeapUse heapUseOfThisThread() noexcept;

/// From here on the calling thread's `peakBytes` is the most that it holds from now on.
void restartPeakOfThisThread() noexcept;
}  // namespace kelvo::test

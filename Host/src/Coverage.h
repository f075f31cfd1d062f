#pragma once

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <cstdint>
#include <span>
#include <vector>

namespace Host
{
/// What of `interval` is recorded: `recordings`, which may come in any order and overlap, sorted, joined where they
/// touch, and cut at the interval's bounds. One without length stays, unless it lies in time that is recorded anyway.
std::vector<Tavro8::GDRV::DateTimeRange> coverage(const Tavro8::GDRV::DateTimeRange& interval,
                                                  std::span<const Tavro8::GDRV::DateTimeRange> recordings);

/// The added length in milliseconds.
std::uint64_t totalMs(std::span<const Tavro8::GDRV::DateTimeRange> ranges) noexcept;
}  // namespace Host

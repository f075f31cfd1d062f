#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace kelvo::bench
{
/// Counts times in classes of an eighth of an octave and more, so that a percentile is exact to an eighth. One thread
/// adds, another may read.
class LatencyHistogram {
public:
    void add(std::uint64_t ns) noexcept
    {
        auto& count = counts[classOf(ns)];
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    void addTo(LatencyHistogram& sum) const noexcept
    {
        for (std::size_t i = 0; i < counts.size(); ++i)
            sum.counts[i] += counts[i].load(std::memory_order_relaxed);
    }

    /// The time in ns that `share` of all did not exceed (the upper end of its class); 0 when there are none.
    std::uint64_t percentile(double share) const noexcept
    {
        std::uint64_t all = 0;
        for (const auto& count : counts)
            all += count;
        const auto wanted = static_cast<std::uint64_t>(static_cast<double>(all) * share);
        std::uint64_t seen = 0;
        for (std::size_t i = 0; i < counts.size(); ++i) {
            seen += counts[i];
            if (seen > wanted)
                return upperEnd(i);
        }
        return upperEnd(highest());
    }

private:
    static constexpr unsigned smallestShift = 9;  // the first class is up to 512 ns
    static constexpr unsigned octaves = 24;       // the last one begins at 8 s

    static std::size_t classOf(std::uint64_t ns) noexcept
    {
        if (ns < (std::uint64_t{1} << smallestShift))
            return 0;
        const auto shift = static_cast<unsigned>(std::bit_width(ns)) - 1;
        const std::size_t eighth = (ns >> (shift - 3)) & 7U;
        const std::size_t index = std::size_t{shift - smallestShift} * 8 + eighth + 1;
        return index < octaves * 8 ? index : octaves * 8;
    }
    static std::uint64_t upperEnd(std::size_t index) noexcept
    {
        const std::uint64_t octave = std::uint64_t{1} << (smallestShift + index / 8);
        return octave + octave / 8 * (index % 8);
    }
    std::size_t highest() const noexcept
    {
        for (std::size_t i = counts.size(); i-- > 0;)
            if (counts[i] != 0)
                return i;
        return 0;
    }

    std::array<std::atomic<std::uint32_t>, octaves * 8 + 1> counts{};
};
}  // namespace kelvo::bench

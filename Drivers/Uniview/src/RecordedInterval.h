#pragma once

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <cstdint>
#include <limits>

namespace Uniview
{
inline constexpr std::uint64_t millisecondsPerSecond = 1000;

/// A stretch of recorded time as devices are asked for it. They know whole seconds since 1970 in 32 bits, so all those
/// are asked for that the host's interval touches, and one that goes on beyond them ends with them.
class RecordedInterval {
public:
    /// 3 when `range` does not end behind its begin, 6 when it begins beyond what devices know, else 0.
    static std::int32_t check(const Tavro8::GDRV::DateTimeRange& range) noexcept
    {
        if (range.begin >= range.end)
            return toResult(Tavro8::ResultCode::invalidArgument);
        return toResult(range.begin < lastMs ? Tavro8::ResultCode::success : Tavro8::ResultCode::outOfRange);
    }

    RecordedInterval() = default;
    /// `range` has passed `check`.
    explicit RecordedInterval(const Tavro8::GDRV::DateTimeRange& range) noexcept
        : range{range.begin, std::min(range.end, lastMs)}
    {}

    /// In milliseconds, as the host has given it but for an end beyond what devices know.
    const Tavro8::GDRV::DateTimeRange& get() const noexcept { return range; }
    bool contains(std::uint64_t timeMs) const noexcept { return timeMs >= range.begin && timeMs < range.end; }
    std::uint64_t beginSecond() const noexcept { return range.begin / millisecondsPerSecond; }
    /// A begun second counts as one.
    std::uint64_t endSecond() const noexcept
    {
        return range.end / millisecondsPerSecond + (range.end % millisecondsPerSecond == 0 ? 0 : 1);
    }

private:
    static constexpr std::uint64_t lastMs = std::numeric_limits<std::uint32_t>::max() * millisecondsPerSecond;

    Tavro8::GDRV::DateTimeRange range;
};
}  // namespace Uniview

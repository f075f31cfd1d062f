#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace simulator
{

/// From `begin` on until before `end`, in Unix seconds.
struct RecordedSpan {
    std::uint32_t begin = 0;
    std::uint32_t end = 0;
    bool operator==(const RecordedSpan&) const = default;
};

enum class RecordOrder { oldestFirst, newestFirst };

/// What a channel has recorded, as records that may leave gaps, touch, overlap, contain each other or be empty. Never
/// changes; any thread.
class RecordList {
public:
    /// In any order; none ends before it begins.
    explicit RecordList(std::vector<RecordedSpan> records);

    struct Page {
        std::size_t total = 0;  ///< records in the interval
        std::vector<RecordedSpan> records;
    };
    /// At most `limit` of the records that have a second in the interval, or are empty and begin in it, from the
    /// `offset`th on. Takes as long as the page is.
    Page page(const RecordedSpan& interval, std::size_t offset, std::size_t limit, RecordOrder order) const;

    /// What is recorded within the interval, oldest first, as spans that neither touch nor overlap nor are empty.
    std::vector<RecordedSpan> coverage(const RecordedSpan& interval) const;

    const std::vector<RecordedSpan>& all() const { return records; }

    /// From the first second that is recorded to the last; nothing when none is.
    const std::optional<RecordedSpan>& extent() const { return whole; }

private:
    /// The records of an interval: some that began before it, and all that begin within.
    struct Matches {
        std::vector<std::size_t> earlier;
        std::size_t first = 0;
        std::size_t last = 0;  ///< behind the last one
        std::size_t count() const { return earlier.size() + (last - first); }
        std::size_t operator[](std::size_t i) const
        {
            return i < earlier.size() ? earlier[i] : first + (i - earlier.size());
        }
    };
    std::size_t firstFrom(std::uint32_t begin) const;
    Matches matches(const RecordedSpan& interval) const;

    std::vector<RecordedSpan> records;  ///< by begin, then by end
    std::uint32_t longest = 0;          ///< seconds of the longest record
    std::optional<RecordedSpan> whole;
};

/// The records of the thirty days until `until`, which cuts the last one off. They depend on nothing but the channel
/// (from 0) and the time: the hours go through six patterns, and every seventh day is empty.
std::vector<RecordedSpan> monthOfRecords(unsigned channel, std::uint32_t until);

/// So many records, one beginning each minute, the last minute ending at `until`; most touch the next one. None goes on
/// beyond the last second of 32 bits.
std::vector<RecordedSpan> countedRecords(std::uint32_t count, std::uint32_t until);

/// The most for `countedRecords`.
inline constexpr std::uint32_t mostRecords = 1'000'000;

}  // namespace simulator

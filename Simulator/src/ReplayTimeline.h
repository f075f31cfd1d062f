#pragma once

#include "RecordList.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace simulator
{

/// Since 1970 (UTC).
using RecordedTime = std::chrono::nanoseconds;

/// What a replay plays from some place on: recorded time with the gaps taken out. A position counts from that place and
/// knows no gaps. Never changes; any thread.
class ReplayTimeline {
public:
    /// Oldest first, disjoint and not empty, as RecordList::coverage has them; at least one.
    explicit ReplayTimeline(std::vector<RecordedSpan> spans);

    std::chrono::nanoseconds length() const { return starts.back(); }
    /// The span that a position is in, from 0; behind the end it is the last.
    std::size_t spanAt(std::chrono::nanoseconds position) const;
    RecordedTime timeAt(std::chrono::nanoseconds position) const;
    RecordedTime begin() const;
    RecordedTime end() const;

private:
    std::vector<RecordedSpan> spans;
    std::vector<std::chrono::nanoseconds> starts;  ///< positions at which the spans begin, and where the last ends
};

/// "2017-04-26 02:10:45"; fractions of a second are cut off.
std::string readableTime(RecordedTime time);

}  // namespace simulator

#include "ReplayTimeline.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace simulator
{

using std::chrono::nanoseconds;
using std::chrono::seconds;

ReplayTimeline::ReplayTimeline(std::vector<RecordedSpan> given) : spans(std::move(given)), starts{nanoseconds(0)}
{
    for (const RecordedSpan& span : spans)
        starts.push_back(starts.back() + seconds(span.end - span.begin));
}

std::size_t ReplayTimeline::spanAt(nanoseconds position) const
{
    const auto next = std::upper_bound(starts.begin() + 1, starts.end(), position);
    return std::min(static_cast<std::size_t>(next - starts.begin()), spans.size()) - 1;
}

RecordedTime ReplayTimeline::timeAt(nanoseconds position) const
{
    const std::size_t span = spanAt(position);
    return seconds(spans[span].begin) + (position - starts[span]);
}

RecordedTime ReplayTimeline::begin() const
{
    return seconds(spans.front().begin);
}

RecordedTime ReplayTimeline::end() const
{
    return seconds(spans.back().end);
}

std::string readableTime(RecordedTime time)
{
    const std::chrono::sys_time<nanoseconds> moment(time);
    const auto day = std::chrono::floor<std::chrono::days>(moment);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(std::chrono::floor<seconds>(moment - day));
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return text.data();
}

}  // namespace simulator

#include "TimeBar.h"

#include "TimeText.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace Host
{
using Tavro8::GDRV::DateTimeRange;
namespace
{
using namespace std::chrono_literals;
using std::chrono::milliseconds;
using std::chrono::sys_days;

/// The columns of a bar, and the times at which they begin.
class Columns {
public:
    Columns(const DateTimeRange& wholeInterval, std::size_t wanted)
        : interval(wholeInterval),
          lengthMs(std::max<std::uint64_t>(interval.end - std::min(interval.begin, interval.end), 1)),
          count(static_cast<std::size_t>(std::clamp<std::uint64_t>(wanted, 1, lengthMs)))
    {}

    std::size_t getCount() const noexcept { return count; }
    std::uint64_t begin(std::size_t column) const noexcept
    {
        // Taken apart, so that not even the longest interval overflows.
        return interval.begin + lengthMs / count * column + lengthMs % count * column / count;
    }
    std::uint64_t width(std::size_t column) const noexcept { return begin(column + 1) - begin(column); }

    /// The column of a moment of the interval.
    std::size_t at(std::uint64_t moment) const noexcept
    {
        auto column = static_cast<std::size_t>(static_cast<double>(moment - interval.begin) /
                                               static_cast<double>(lengthMs) * static_cast<double>(count));
        column = std::min(column, count - 1);
        while (column > 0 && begin(column) > moment)
            --column;
        while (column + 1 < count && begin(column + 1) <= moment)
            ++column;
        return column;
    }

    /// Room of a step of the scale, in columns.
    std::uint64_t room(milliseconds step) const noexcept
    {
        return static_cast<std::uint64_t>(static_cast<double>(step.count()) * static_cast<double>(count) /
                                          static_cast<double>(lengthMs));
    }

    const DateTimeRange interval;

private:
    const std::uint64_t lengthMs;
    const std::size_t count;
};

struct Cell {
    std::uint64_t coveredMs = 0;
    bool touched = false;
};

std::vector<Cell> fillCells(const Columns& columns, std::span<const DateTimeRange> covered)
{
    std::vector<Cell> cells(columns.getCount());
    for (const DateTimeRange& range : covered) {
        if (range.begin < columns.interval.begin || range.begin >= columns.interval.end)
            continue;
        for (std::size_t column = columns.at(range.begin); column < cells.size(); ++column) {
            const std::uint64_t from = std::max(range.begin, columns.begin(column));
            const std::uint64_t to = std::min(range.end, columns.begin(column + 1));
            if (from > to || (from == to && range.begin != range.end))
                break;
            cells[column].coveredMs += to - from;
            cells[column].touched = true;
        }
    }
    return cells;
}

const char* cellText(const Cell& cell, std::uint64_t widthMs, BarCharacters characters)
{
    constexpr std::array bars{"\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587"};
    const bool ascii = characters == BarCharacters::ascii;
    if (!cell.touched)
        return ascii ? "." : "\u00b7";
    if (cell.coveredMs >= widthMs)
        return ascii ? "#" : "\u2588";
    const double share = static_cast<double>(cell.coveredMs) / static_cast<double>(widthMs);
    if (ascii)
        return share < 0.5 ? "-" : "+";
    return bars[std::min(static_cast<std::size_t>(share * bars.size()), bars.size() - 1)];
}

struct Mark {
    Moment time;
    std::string label;
};

std::string dateText(std::chrono::year_month_day date)
{
    return isoText(sys_days(date)).substr(5, 5);  // 11-20
}

std::string labelOf(Moment time, milliseconds step)
{
    const auto day = std::chrono::floor<std::chrono::days>(time);
    if (step >= 24h || (step >= 1min && time == day))
        return dateText(day);
    return clockText(time).substr(0, step < 1min ? 8 : 5);
}

/// A mark after each `step`. Those of whole days are counted from a Monday, so that those of weeks fall on Mondays.
std::vector<Mark> equalMarks(const Columns& columns, milliseconds step)
{
    constexpr Moment monday = sys_days(std::chrono::year(1970) / 1 / 5);
    const Moment begin(milliseconds(columns.interval.begin));
    const Moment end(milliseconds(columns.interval.end));
    Moment time = monday + (begin - monday) / step * step;
    if (time < begin)
        time += step;
    std::vector<Mark> marks;
    for (; time < end; time += step)
        marks.push_back({time, labelOf(time, step)});
    return marks;
}

/// A mark at the first of each month whose number, counted from the year 0, is a multiple of `step`.
std::vector<Mark> monthMarks(const Columns& columns, int step)
{
    const Moment begin(milliseconds(columns.interval.begin));
    const Moment end(milliseconds(columns.interval.end));
    const std::chrono::year_month_day first(std::chrono::floor<std::chrono::days>(begin));
    const int number = static_cast<int>(first.year()) * 12 + static_cast<int>(unsigned(first.month())) - 1;
    std::vector<Mark> marks;
    for (int month = number / step * step;; month += step) {
        const Moment time = sys_days(std::chrono::year(month / 12) / (month % 12 + 1) / 1);
        if (time >= end)
            return marks;
        if (time >= begin)
            marks.push_back({time, isoText(time).substr(0, 7)});
    }
}

/// The finest scale whose labels have room, with a blank behind each.
std::vector<Mark> chooseMarks(const Columns& columns)
{
    constexpr std::array<std::chrono::seconds, 17> steps{1s, 5s, 10s, 30s, 1min, 5min, 10min, 30min, 1h,
                                                         3h, 6h, 12h, 24h, 48h,  72h,  168h,  336h};
    constexpr std::array monthSteps{1, 3, 6, 12, 24, 60, 120, 600, 1200, 12000};
    constexpr auto shortestMonth = 28 * 24h;
    for (const std::chrono::seconds step : steps)
        if (columns.room(step) >= (step < 1min ? 10 : 7))
            return equalMarks(columns, step);
    for (const int step : monthSteps)
        if (columns.room(step * shortestMonth) >= 9)
            return monthMarks(columns, step);
    return {};
}

std::string drawScale(const Columns& columns)
{
    std::string line;
    bool labelled = false;
    for (const Mark& mark : chooseMarks(columns)) {
        line.resize(columns.at(static_cast<std::uint64_t>(mark.time.time_since_epoch().count())), ' ');
        line += '|';
        if (line.size() + mark.label.size() > columns.getCount())
            continue;
        line += mark.label;
        labelled = true;
    }
    return labelled ? line + '\n' : std::string();
}
}  // namespace

std::string drawTimeBar(const DateTimeRange& interval, std::span<const DateTimeRange> covered, std::size_t columnCount,
                        BarCharacters characters)
{
    const Columns columns(interval, columnCount);
    const std::vector<Cell> cells = fillCells(columns, covered);
    std::string bar;
    for (std::size_t column = 0; column < cells.size(); ++column)
        bar += cellText(cells[column], columns.width(column), characters);
    return bar + '\n' + drawScale(columns);
}
}  // namespace Host

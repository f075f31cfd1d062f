#include "TimeText.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace Host
{
namespace
{
std::string padded(std::int64_t value, std::size_t digits)
{
    const std::string text = std::to_string(value);
    return text.size() < digits ? std::string(digits - text.size(), '0') + text : text;
}

/// `value` in the largest of the units that leaves at least 1 before the point; the first unit has no decimals.
template <std::size_t count>
std::string scaledText(double value, double step, const char* const (&units)[count])
{
    std::size_t unit = 0;
    for (; value >= step && unit + 1 < count; ++unit)
        value /= step;
    return decimalText(value, unit == 0 ? 0 : 1) + ' ' + units[unit];
}
}  // namespace

Moment presentMoment()
{
    return std::chrono::floor<Moment::duration>(std::chrono::system_clock::now());
}

std::string clockText(Moment time)
{
    using namespace std::chrono;
    const hh_mm_ss<milliseconds> clock(time - floor<days>(time));
    return padded(clock.hours().count(), 2) + ':' + padded(clock.minutes().count(), 2) + ':' +
           padded(clock.seconds().count(), 2) + '.' + padded(clock.subseconds().count(), 3);
}

std::string isoText(Moment time)
{
    const std::chrono::year_month_day date(std::chrono::floor<std::chrono::days>(time));
    return padded(static_cast<int>(date.year()), 4) + '-' + padded(static_cast<unsigned>(date.month()), 2) + '-' +
           padded(static_cast<unsigned>(date.day()), 2) + 'T' + clockText(time) + 'Z';
}

std::string momentText(std::uint64_t timestampMs)
{
    std::string text = isoText(Moment(std::chrono::milliseconds(timestampMs)));
    if (timestampMs % 1000 == 0)
        text.erase(text.rfind('.'), 4);
    return text;
}

std::string durationText(std::chrono::duration<double> duration)
{
    const auto seconds = static_cast<std::int64_t>(std::max(duration.count(), 0.0));
    const std::string rest = padded(seconds / 60 % 60, 2) + ':' + padded(seconds % 60, 2);
    return seconds < 3600 ? rest : std::to_string(seconds / 3600) + ':' + rest;
}

std::string decimalText(double value, int decimals)
{
    char buffer[400];  // the largest double has 309 digits before the point
    const auto [end, error] =
        std::to_chars(std::begin(buffer), std::end(buffer), value, std::chars_format::fixed, decimals);
    return error == std::errc{} ? std::string(buffer, end) : std::string("?");
}

std::string countText(std::uint64_t count, const char* what)
{
    return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

std::string bitRateText(double bitsPerSecond)
{
    return scaledText(bitsPerSecond, 1000, {"bit/s", "kbit/s", "Mbit/s", "Gbit/s"});
}

std::string sizeText(double bytes)
{
    return scaledText(bytes, 1024, {"bytes", "KiB", "MiB", "GiB", "TiB"});
}
}  // namespace Host

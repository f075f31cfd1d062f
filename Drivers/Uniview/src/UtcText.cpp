#include "UtcText.h"

#include <algorithm>
#include <chrono>

namespace Uniview
{
namespace
{
constexpr std::uint64_t lastSecond = 253'402'300'799;  // of the year 9999

void append(std::string& text, unsigned number, std::size_t digits)
{
    const std::string plain = std::to_string(number);
    text.append(digits > plain.size() ? digits - plain.size() : 0, '0').append(plain);
}

/// `dash` stands between the parts of the date, `colon` between those of the time; each may be empty.
std::string format(std::uint64_t timeMs, const char* dash, const char* colon)
{
    using namespace std::chrono;
    const sys_seconds time{seconds(std::min(timeMs / 1000, lastSecond))};
    const auto day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};

    std::string text;
    append(text, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    append(text += dash, static_cast<unsigned>(date.month()), 2);
    append(text += dash, static_cast<unsigned>(date.day()), 2);
    append(text += 'T', static_cast<unsigned>(clock.hours().count()), 2);
    append(text += colon, static_cast<unsigned>(clock.minutes().count()), 2);
    append(text += colon, static_cast<unsigned>(clock.seconds().count()), 2);
    return text += 'Z';
}
}  // namespace

std::string utcText(std::uint64_t timeMs)
{
    return format(timeMs, "-", ":");
}

std::string clockText(std::uint64_t timeMs)
{
    return format(timeMs, "", "");
}
}  // namespace Uniview

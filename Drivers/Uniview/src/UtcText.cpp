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
}  // namespace

std::string utcText(std::uint64_t timeMs)
{
    using namespace std::chrono;
    const sys_seconds time{seconds(std::min(timeMs / 1000, lastSecond))};
    const auto day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};

    std::string text;
    append(text, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    append(text += '-', static_cast<unsigned>(date.month()), 2);
    append(text += '-', static_cast<unsigned>(date.day()), 2);
    append(text += 'T', static_cast<unsigned>(clock.hours().count()), 2);
    append(text += ':', static_cast<unsigned>(clock.minutes().count()), 2);
    append(text += ':', static_cast<unsigned>(clock.seconds().count()), 2);
    return text += 'Z';
}
}  // namespace Uniview

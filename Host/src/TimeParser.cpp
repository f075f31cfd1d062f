#include "TimeParser.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>

namespace Host
{
namespace
{
using std::chrono::milliseconds;

constexpr Moment latest =
    std::chrono::sys_days(std::chrono::year(9999) / 12 / 31) + std::chrono::days(1) - milliseconds(1);

bool isDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}

/// Takes a text apart from its front; what does not fit is left where it is.
class Reader {
public:
    explicit Reader(std::string_view text) : rest(text) {}

    bool atEnd() const noexcept { return rest.empty(); }

    bool skipOneOf(std::string_view characters)
    {
        const bool fits = !rest.empty() && characters.find(rest.front()) != std::string_view::npos;
        rest.remove_prefix(fits ? 1 : 0);
        return fits;
    }

    std::string_view digits()
    {
        const auto end = std::find_if_not(rest.begin(), rest.end(), isDigit);
        const std::string_view found = rest.substr(0, static_cast<std::size_t>(end - rest.begin()));
        rest.remove_prefix(found.size());
        return found;
    }

    /// A number of exactly so many digits that is at most `most`.
    std::optional<int> number(std::size_t digitCount, int most)
    {
        int value = 0;
        if (rest.size() < digitCount || !std::all_of(rest.begin(), rest.begin() + std::ptrdiff_t(digitCount), isDigit))
            return std::nullopt;
        std::from_chars(rest.data(), rest.data() + digitCount, value);
        rest.remove_prefix(digitCount);
        return value <= most ? std::optional(value) : std::nullopt;
    }

private:
    std::string_view rest;
};

/// The upper limit keeps what is made of it from an overflow.
std::optional<std::int64_t> wholeNumber(std::string_view digits, std::size_t fewest, std::size_t most)
{
    std::int64_t value = 0;
    if (digits.size() < fewest || digits.size() > most)
        return std::nullopt;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
}

std::optional<std::chrono::sys_days> readDate(Reader& reader)
{
    const auto year = reader.number(4, 9999);
    if (!year || !reader.skipOneOf("-"))
        return std::nullopt;
    const auto month = reader.number(2, 12);
    if (!month || !reader.skipOneOf("-"))
        return std::nullopt;
    const auto day = reader.number(2, 31);
    if (!day)
        return std::nullopt;
    const std::chrono::year_month_day date = std::chrono::year(*year) / *month / *day;
    return date.ok() ? std::optional(std::chrono::sys_days(date)) : std::nullopt;
}

/// "14:00", "14:00:00", "14:00:00.250".
std::optional<milliseconds> readTimeOfDay(Reader& reader)
{
    const auto hour = reader.number(2, 23);
    if (!hour || !reader.skipOneOf(":"))
        return std::nullopt;
    const auto minute = reader.number(2, 59);
    if (!minute)
        return std::nullopt;
    milliseconds time = std::chrono::hours(*hour) + std::chrono::minutes(*minute);
    if (!reader.skipOneOf(":"))
        return time;
    const auto second = reader.number(2, 59);
    if (!second)
        return std::nullopt;
    time += std::chrono::seconds(*second);
    if (!reader.skipOneOf(".,"))
        return time;
    const std::string_view fraction = reader.digits();
    if (fraction.empty())
        return std::nullopt;
    int weight = 100;
    for (const char digit : fraction.substr(0, 3)) {
        time += milliseconds((digit - '0') * weight);
        weight /= 10;
    }
    return time;
}

/// "Z", "+01:00", "-0330" or nothing: how far the clock is ahead of UTC.
std::optional<milliseconds> readZone(Reader& reader)
{
    if (reader.atEnd() || reader.skipOneOf("Zz"))
        return milliseconds(0);
    const bool ahead = reader.skipOneOf("+");
    if (!ahead && !reader.skipOneOf("-"))
        return std::nullopt;
    const auto hours = reader.number(2, 23);
    reader.skipOneOf(":");
    const auto minutes = hours ? reader.number(2, 59) : std::nullopt;
    if (!minutes)
        return std::nullopt;
    const milliseconds offset = std::chrono::hours(*hours) + std::chrono::minutes(*minutes);
    return ahead ? offset : -offset;
}

std::optional<Moment> isoTime(std::string_view text)
{
    Reader reader(text);
    const auto date = readDate(reader);
    if (!date)
        return std::nullopt;
    if (reader.atEnd())
        return Moment(*date);
    if (!reader.skipOneOf("Tt "))
        return std::nullopt;
    const auto time = readTimeOfDay(reader);
    const auto zone = time ? readZone(reader) : std::nullopt;
    if (!zone || !reader.atEnd())
        return std::nullopt;
    return Moment(*date) + *time - *zone;
}

std::optional<Moment> unixTime(std::string_view text)
{
    Reader reader(text);
    const auto seconds = wholeNumber(reader.digits(), 9, 12);
    if (!seconds || !reader.atEnd())
        return std::nullopt;
    return Moment(std::chrono::seconds(*seconds));
}

std::optional<Moment> relativeTime(std::string_view text, Moment now)
{
    struct Unit {
        char letter;
        std::chrono::seconds length;
    };
    constexpr std::array units{Unit{'s', std::chrono::seconds(1)}, Unit{'m', std::chrono::minutes(1)},
                               Unit{'h', std::chrono::hours(1)}, Unit{'d', std::chrono::days(1)}};
    const Moment present = std::chrono::floor<std::chrono::seconds>(now);
    if (text == "now")
        return present;
    Reader reader(text);
    if (!reader.skipOneOf("-"))
        return std::nullopt;
    const auto count = wholeNumber(reader.digits(), 1, 9);
    for (const Unit& unit : units)
        if (count && reader.skipOneOf({&unit.letter, 1}) && reader.atEnd())
            return present - *count * unit.length;
    return std::nullopt;
}
}  // namespace

std::optional<std::uint64_t> parseTime(std::string_view text, Moment now)
{
    std::optional<Moment> moment = isoTime(text);
    if (!moment)
        moment = unixTime(text);
    if (!moment)
        moment = relativeTime(text, now);
    if (!moment || *moment < Moment() || *moment > latest)
        return std::nullopt;
    return static_cast<std::uint64_t>(moment->time_since_epoch().count());
}
}  // namespace Host

#include "ReplayRequest.h"

#include "Numbers.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace simulator
{
namespace
{

constexpr std::size_t longestHead = 16 * 1024;
constexpr std::size_t longestBody = 64 * 1024;

std::string lowered(std::string_view text)
{
    std::string out(text);
    for (char& c : out)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return out;
}

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
        text.remove_suffix(1);
    return text;
}

/// Removes what stands in front of `mark`, and the mark, and returns it.
std::string_view takeUntil(std::string_view& text, std::string_view mark)
{
    const auto found = std::min(text.find(mark), text.size());
    const std::string_view front = text.substr(0, found);
    text.remove_prefix(std::min(found + mark.size(), text.size()));
    return front;
}

std::string_view pathOf(std::string_view url)
{
    const auto scheme = url.find("://");
    if (scheme == url.npos)
        return url;
    url.remove_prefix(scheme + 3);
    return url.substr(std::min(url.find('/'), url.size()));
}

/// The number of an element such as "/b1494208846", which it removes.
std::optional<unsigned> takeNumber(std::string_view& path, std::string_view name)
{
    if (!path.starts_with(name))
        return std::nullopt;
    path.remove_prefix(name.size());
    const std::string_view digits = path.substr(0, std::min(path.find('/'), path.size()));
    path.remove_prefix(digits.size());
    return parseNumber(digits);
}

struct Instant {
    std::uint32_t second = 0;
    bool hasFraction = false;
};

/// "20170426T021045Z", also with a fraction (RFC 2326, 3.7).
std::optional<Instant> parseClock(std::string_view text)
{
    constexpr std::string_view form = "ddddddddTdddddd";
    if (text.size() <= form.size() || text.back() != 'Z' || text[8] != 'T')
        return std::nullopt;
    const auto number = [&](std::size_t from, std::size_t count) {
        return parseNumber(text.substr(from, count)).value_or(10'000);  // never valid
    };
    const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(number(0, 4))),
                                           std::chrono::month(number(4, 2)), std::chrono::day(number(6, 2)));
    const unsigned hour = number(9, 2), minute = number(11, 2), second = number(13, 2);
    const std::string_view fraction = text.substr(form.size(), text.size() - form.size() - 1);
    const bool fractionFits = fraction.empty() || (fraction.size() > 1 && fraction.front() == '.' &&
                                                   fraction.substr(1).find_first_not_of("0123456789") == fraction.npos);
    if (!date.ok() || hour > 23 || minute > 59 || second > 60 || !fractionFits)
        return std::nullopt;
    const std::int64_t days = std::chrono::sys_days(date).time_since_epoch().count();
    const std::int64_t seconds = days * 86'400 + hour * 3600 + minute * 60 + second;
    if (seconds < 0 || seconds > UINT32_MAX)
        return std::nullopt;
    return Instant{static_cast<std::uint32_t>(seconds), fraction.find_first_not_of(".0") != fraction.npos};
}

std::optional<double> parseReal(std::string_view text)
{
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<Instant> parseNpt(std::string_view text, std::uint32_t origin)
{
    const auto seconds = parseReal(text);
    if (!seconds || !(*seconds >= 0 && *seconds <= UINT32_MAX - origin))
        return std::nullopt;
    const auto whole = static_cast<std::uint32_t>(*seconds);
    return Instant{origin + whole, *seconds > whole};
}

std::string clockText(RecordedTime time)
{
    std::string text = readableTime(time);
    std::erase_if(text, [](char c) { return c == '-' || c == ':'; });
    std::ranges::replace(text, ' ', 'T');
    const auto milliseconds = time / std::chrono::milliseconds(1) % 1000;
    if (milliseconds != 0) {
        std::array<char, 32> fraction{};
        std::snprintf(fraction.data(), fraction.size(), ".%03d", static_cast<int>(milliseconds));
        text += fraction.data();
    }
    return text + 'Z';
}

}  // namespace

std::optional<ReplayPath> parseReplayPath(std::string_view url)
{
    std::string_view path = pathOf(url);
    const auto channel = takeNumber(path, "/c");
    const auto begin = takeNumber(path, "/b");
    const auto end = takeNumber(path, "/e");
    constexpr std::string_view last = "/replay";
    if (!channel || !begin || !end || !path.starts_with(last))
        return std::nullopt;
    path.remove_prefix(last.size());
    ReplayPath parsed{*channel, {*begin, *end}, std::nullopt};
    const auto element = path.find_first_not_of('/');
    if (element == path.npos)
        return parsed;
    constexpr std::string_view stream = "stream=";
    path.remove_prefix(element);
    if (element == 0 || !path.starts_with(stream))
        return std::nullopt;
    parsed.track = parseNumber(path.substr(stream.size()));
    return parsed.track ? std::optional(parsed) : std::nullopt;
}

bool asksForReplay(std::string_view requestLine)
{
    takeUntil(requestLine, " ");
    const std::string_view path = pathOf(takeUntil(requestLine, " "));
    return path.starts_with("/c") && path.find("/replay") != path.npos;
}

std::optional<ReplayRange> parseReplayRange(std::string_view header, std::uint32_t origin)
{
    header = trimmed(takeUntil(header, ";"));
    const std::string unit = lowered(trimmed(takeUntil(header, "=")));
    const std::string_view from = trimmed(takeUntil(header, "-"));
    const std::string_view to = trimmed(header);
    const auto parse = [&](std::string_view text) { return unit == "npt" ? parseNpt(text, origin) : parseClock(text); };
    if (unit != "npt" && unit != "clock")
        return std::nullopt;
    ReplayRange range;
    if (!from.empty() && from != "now") {
        const auto begin = parse(from);
        if (!begin)
            return std::nullopt;
        range.begin = begin->second;
    }
    if (!to.empty()) {
        const auto end = parse(to);
        if (!end)
            return std::nullopt;
        range.end = end->second + (end->hasFraction && end->second < UINT32_MAX ? 1 : 0);
    }
    return range;
}

std::string writeReplayRange(RecordedTime begin, RecordedTime end)
{
    return "clock=" + clockText(begin) + '-' + clockText(end);
}

unsigned usableScale(std::string_view header)
{
    const double wanted = parseReal(trimmed(header)).value_or(1);
    for (const unsigned scale : {8u, 4u, 2u})
        if (wanted >= scale)
            return scale;
    return 1;
}

std::string_view RtspQuestion::header(std::string_view name) const
{
    const auto found = headers.find(name);
    return found == headers.end() ? std::string_view{} : std::string_view(found->second);
}

RtspInput::Result RtspInput::next()
{
    for (;;) {
        const std::size_t skipped = std::min(toSkip, received.size());
        received.erase(0, skipped);
        toSkip -= skipped;
        if (toSkip != 0 || received.empty())
            return NeedMore{};
        if (received.front() == '\r' || received.front() == '\n') {
            toSkip = 1;
            continue;
        }
        if (received.front() != '$')
            break;
        constexpr std::size_t frameHead = 4;
        if (received.size() < frameHead)
            return NeedMore{};
        const auto byte = [this](std::size_t i) { return static_cast<std::uint8_t>(received[i]); };
        toSkip = frameHead + (static_cast<std::size_t>(byte(2)) << 8 | byte(3));
    }
    const auto end = received.find("\r\n\r\n");
    if (end == received.npos)
        return received.size() > longestHead ? Result(Malformed{}) : Result(NeedMore{});

    std::string_view head = std::string_view(received).substr(0, end);
    RtspQuestion question;
    std::string_view line = takeUntil(head, "\r\n");
    question.method = takeUntil(line, " ");
    question.url = takeUntil(line, " ");
    if (line != "RTSP/1.0" || question.method.empty() || question.url.empty())
        return Malformed{};
    while (!head.empty()) {
        std::string_view field = takeUntil(head, "\r\n");
        std::string name = lowered(trimmed(takeUntil(field, ":")));
        question.headers.emplace(std::move(name), trimmed(field));
    }
    const std::string_view length = question.header("content-length");
    const auto body = length.empty() ? 0u : parseNumber(length);
    if (!body || *body > longestBody)
        return Malformed{};
    toSkip = end + 4 + *body;
    return question;
}

}  // namespace simulator

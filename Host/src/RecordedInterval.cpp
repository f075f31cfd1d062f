#include "RecordedInterval.h"

#include "ExitStatus.h"
#include "TimeParser.h"
#include "TimeText.h"

#include <CLI/CLI.hpp>
#include <Tavro8/ResultCode.h>
#include <json/value.h>

namespace Host
{
using Tavro8::GDRV::DateTimeRange;
namespace
{
std::string noTime(const std::string& text)
{
    return '"' + text + "\" is no time such as " + timeForms;
}

std::uint64_t timeOf(const std::string& text, Moment now)
{
    const auto time = parseTime(text, now);
    if (!time)
        throw Failure(ExitStatus::usage, noTime(text));
    return *time;
}
}  // namespace

const char* const timesHelp =
    "A time T is ISO 8601 (2026-11-20T14:00:00Z, or with an offset such as +01:00; UTC without either; a date alone "
    "is\n"
    "its midnight), a number of Unix seconds, \"now\", or so long ago: -90s, -30m, -3h, -2d.\n";

void describeInterval(CLI::App& app, IntervalOptions& options)
{
    const auto checkTime = [](const std::string& text) {
        return parseTime(text, presentMoment()) ? std::string() : noTime(text);
    };
    const auto addTime = [&](const char* name, std::string& value, const char* what) {
        app.add_option(name, value, what)->required()->check(CLI::Validator(checkTime, "", "time"))->type_name("T");
    };
    addTime("--begin", options.begin, "Begin of the interval, such as 2026-11-20T14:00:00Z");
    addTime("--end", options.end, "Its end, which no longer belongs to it");
}

DateTimeRange intervalOf(const IntervalOptions& options)
{
    const Moment now = presentMoment();
    const DateTimeRange interval{timeOf(options.begin, now), timeOf(options.end, now)};
    if (interval.begin >= interval.end)
        throw Failure(ExitStatus::usage,
                      "the interval is empty: --end must be later than --begin (" + intervalText(interval) + ')');
    return interval;
}

const char* intervalHint(std::int32_t result) noexcept
{
    const bool outOfRange = result == Tavro8::toResult(Tavro8::ResultCode::outOfRange);
    return outOfRange ? "; the clocks of devices end on 2106-02-07" : "";
}

std::string intervalText(const DateTimeRange& interval)
{
    return momentText(interval.begin) + " to " + momentText(interval.end);
}

void addInterval(Json::Value& fields, const DateTimeRange& interval)
{
    fields["begin"] = momentText(interval.begin);
    fields["beginMs"] = static_cast<Json::UInt64>(interval.begin);
    fields["end"] = momentText(interval.end);
    fields["endMs"] = static_cast<Json::UInt64>(interval.end);
}
}  // namespace Host

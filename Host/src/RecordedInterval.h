#pragma once

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <cstdint>
#include <json/forwards.h>
#include <string>

namespace CLI
{
class App;
}

namespace Host
{
/// The options `--begin` and `--end` of the commands for the archive.
struct IntervalOptions {
    std::string begin;
    std::string end;
};

/// Makes the option parser fill `options`, which outlives it.
void describeInterval(CLI::App& app, IntervalOptions& options);

/// What the help tells of times.
extern const char* const timesHelp;

/// The interval that the options name, never empty. Throws `Failure` (usage).
Tavro8::GDRV::DateTimeRange intervalOf(const IntervalOptions& options);

/// What to say behind a result of a search or playback that the interval may have caused; empty for others.
const char* intervalHint(std::int32_t result) noexcept;

/// "2026-11-20T14:00:00Z to 2026-11-20T15:00:00Z".
std::string intervalText(const Tavro8::GDRV::DateTimeRange& interval);

/// Adds `begin` and `end` (ISO 8601) and `beginMs` and `endMs`.
void addInterval(Json::Value& fields, const Tavro8::GDRV::DateTimeRange& interval);
}  // namespace Host

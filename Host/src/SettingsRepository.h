#pragma once

#include <filesystem>

namespace Host
{
/// The name under which this host runs the module; it names the directory of the module's settings.
inline constexpr const char* moduleIdentifier = "Kelvo.Uniview";

/// Writes an empty `<directory>/<module identifier>/Kelvo.Uniview.rep` unless there is one: the module does
/// not start without. Throws `Failure` when it cannot be written.
void provideSettingsRepository(const std::filesystem::path& directory);
}  // namespace Host

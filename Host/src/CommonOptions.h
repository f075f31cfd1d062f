#pragma once

#include <Tavro8/ILogger.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

namespace Host
{
class DeviceAddress;
class DeviceDescription;

/// Longest waits unless `--timeout` says otherwise.
inline constexpr std::chrono::seconds usualTimeout{15};
/// Modules read a resource before they write it, and each of the two may take as long as other answers; of the eight of
/// a video source they ask for three at once, so that the last are written in the sixth round.
inline constexpr std::chrono::seconds usualSettingsTimeout{100};

inline constexpr const char* passwordVariable = "KELVO_DEVICE_PASSWORD";

/// The options that every command takes.
struct CommonOptions {
    std::string device;
    std::filesystem::path passwordFile;
    std::uint32_t channels = 1;
    std::filesystem::path model;
    std::vector<std::string> properties;  ///< "KEY=VALUE"
    std::filesystem::path module;
    std::filesystem::path repository;
    std::filesystem::path logFile;
    Tavro8::LogSeverity logLevel = Tavro8::LogSeverity::warning;
    std::optional<double> timeout;  ///< seconds; without it every wait has a usual length of its own
    bool wait = false;
    bool json = false;
};

/// Makes the option parser fill `options`, which outlives it.
void describeCommonOptions(CLI::App& app, CommonOptions& options);

/// For the option parser: why `text` is no number of seconds within the limits; empty when it is one.
std::string checkSeconds(const std::string& text, double least, double most);

/// The same for any decimal number.
std::string checkNumber(const std::string& text, double least, double most);

/// The same for a whole number.
std::string checkWhole(const std::string& text, std::int64_t least, std::int64_t most);

/// The device's address with the password from the address itself, from `--password-file` or from the
/// environment variable `passwordVariable`. Throws `Failure` (usage).
DeviceAddress deviceAddress(const CommonOptions& options);

/// What the options and the model file say of the device. Throws `Failure` (usage).
DeviceDescription deviceDescription(const CommonOptions& options);
}  // namespace Host

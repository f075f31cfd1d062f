#pragma once

#include <Tavro8/ParameterMap.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Host
{
/// One thing that a camera can be told to do differently, under the name that modules know it by.
struct SettingKey {
    const char* name;
    const char* resource;  ///< what the device reads and writes as a whole, and what the module reports on
    const char* type;      ///< "integer" or "text": what modules expect
    const char* values;    ///< unit, range or choice
    const char* meaning;
    bool alsoText = false;  ///< some cameras want a text instead

    /// Settings of the microphone go to the channel's sound, all others to its pictures.
    bool isSound() const noexcept { return std::string_view(resource) == "audioInput"; }
};

/// All of them, those of a resource next to each other.
std::span<const SettingKey> settingKeys() noexcept;

/// Null when there is none of that name; upper and lower case matter.
const SettingKey* findSettingKey(std::string_view name) noexcept;

/// The keys that somebody may have meant who wrote `name`, the likeliest first; three at most.
std::vector<std::string> similarSettingKeys(std::string_view name);

/// What a command line wants to have changed.
struct WantedSettings {
    Tavro8::ParameterMap video;
    Tavro8::ParameterMap audio;

    /// Those of one resource.
    std::vector<std::string> keysOf(std::string_view resource) const;
    /// The resources that any of them concerns.
    std::vector<std::string> resources() const;
    /// All that belong to the pictures, if any of those is concerned, and the same for the sound.
    std::vector<std::string> resourcesOfSources() const;
};

/// Reads assignments "KEY=VALUE" that choose which sound a source receives: encoding, algorithm and samplerate, which
/// no device stores. Throws `Failure` (usage).
Tavro8::ParameterMap readSoundChoice(const std::vector<std::string>& assignments);

/// Reads assignments "KEY=VALUE", whose value has the type that the key has, and "KEY:TYPE=VALUE" for cameras that want
/// another one: text, integer, flag (true or false) or fraction. Throws `Failure` (usage).
WantedSettings readSettings(const std::vector<std::string>& assignments);
}  // namespace Host

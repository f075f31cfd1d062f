#pragma once

#include "SettingsDocument.h"

#include <optional>
#include <string>

namespace simulator
{

/// What a microphone makes of the sound.
struct Microphone {
    bool muted = false;  ///< the device goes on sending, but silence
    double gain = 1;     ///< of the amplitude
    bool operator==(const Microphone&) const = default;
};

/// One microphone: "Data" of .../Media/Audio/Input.
class AudioInput {
public:
    explicit AudioInput(bool muted);

    const Json::Value& data() const { return document.data(); }
    /// Returns what is wrong, or nothing; a body that is refused changes nothing. A switch alone ({"IsMute": 0}) is a
    /// body of its own kind, any other is to be whole.
    std::optional<std::string> write(const Json::Value& body);

    Microphone microphone() const;
    Json::Value state() const { return document.state(); }

private:
    SettingsDocument document;
};

}  // namespace simulator

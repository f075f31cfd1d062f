#pragma once

#include "SettingsEdit.h"

#include <IpUtil/RTSPClient.h>
#include <Tavro8/ParameterMap.h>
#include <json/value.h>
#include <optional>
#include <string_view>

/// What the host's values mean for a microphone and for the sound that is received. Nothing in here knows a socket.
namespace Uniview::settings
{
/// Values for the device's audio input; what the host has not given is nothing.
struct AudioInputValues {
    std::optional<int> volume = {};       ///< "InputGain"
    std::optional<int> noiseReduce = {};  ///< 0 or 1
    std::optional<int> micNumber = {};    ///< "ID" of the microphone that is to be used
    std::optional<int> micMode = {};      ///< its "Mode"

    bool any() const noexcept { return volume || noiseReduce || micNumber || micMode; }
};

/// Whether the parameter of that name is one of these values.
bool isAudioInput(std::string_view name) noexcept;

/// Integers, or their texts. Raises a `Refusal` for anything else.
AudioInputValues readAudioInput(const Tavro8::ParameterMap& given);

/// Puts the values into the data of the audio-input resource, which is to be written back then, and leaves
/// everything else as it is. A `micMode` alone is for the microphone that `written`, what was written before, names,
/// and is refused when there is none. A microphone that the device does not have is not found, data of another shape
/// are a malformed reply.
Edit editAudioInput(Json::Value& data, const AudioInputValues& values, const Tavro8::ParameterMap& written = {});

/// Which sound is to be received: `encoding` ("G.711", or "u-law" for that law), `algorithm` (the law of "G.711":
/// "u-law", or another for A-law; without it either law will do) and `samplerate`. What says nothing, or has another
/// type, leaves the choice to the device.
Tavro8::Utility::AudioSinkParams readAudioSink(const Tavro8::ParameterMap& parameters);
/// Raises a `Refusal` when one of these values is of another type.
void checkAudioSink(const Tavro8::ParameterMap& given);
}  // namespace Uniview::settings

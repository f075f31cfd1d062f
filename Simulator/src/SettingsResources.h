#pragma once

#include "DeviceSettings.h"
#include "DeviceState.h"
#include "Router.h"

#include <functional>
#include <optional>
#include <string>

namespace simulator
{

/// How settings reach the media. Any may be empty.
struct SettingsEffects {
    /// Why a stream cannot be encoded so; nothing when it can.
    std::function<std::optional<std::string>(unsigned stream, const StreamEncoding& encoding)> refuseEncoding;
    /// Called when the answer has been sent: it may end the connections of those who watch.
    std::function<void(unsigned channel, unsigned stream, const StreamEncoding& encoding)> encode;
    std::function<void(unsigned channel, const PictureLook& look)> show;
    std::function<void(unsigned channel, const Microphone& microphone)> hear;
};

/// Adds the resources of video, image and audio settings. Nothing but `effects` is owned; everything outlives the
/// router. A recorder has those of its cameras' encoders and sensors that it can reach: Image/Enhance and the
/// microphones.
void addSettingsResources(Router& router, const DeviceState& state, DeviceSettings& settings, SettingsEffects effects);

}  // namespace simulator

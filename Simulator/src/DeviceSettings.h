#pragma once

#include "AudioInput.h"
#include "ImageSettings.h"
#include "VideoSettings.h"

#include <vector>

namespace simulator
{

/// The settings of all channels. The I/O context is the only one to use it.
class DeviceSettings {
public:
    explicit DeviceSettings(const Options& options);

    unsigned channelCount() const { return static_cast<unsigned>(videos.size()); }
    VideoSettings& video(unsigned channel) { return videos.at(channel); }
    ImageSettings& image(unsigned channel) { return images.at(channel); }
    /// A recorder has a microphone for each of its channels, a camera one for all.
    AudioInput& audio(unsigned channel) { return audios.size() == 1 ? audios.front() : audios.at(channel); }

    /// For the administration: {"video": [...], "image": [...], "audio": [...]}, by channel from 0.
    Json::Value state() const;

private:
    std::vector<VideoSettings> videos;
    std::vector<ImageSettings> images;
    std::vector<AudioInput> audios;
};

}  // namespace simulator

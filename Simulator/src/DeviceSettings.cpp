#include "DeviceSettings.h"

namespace simulator
{
namespace
{

template <typename Settings>
Json::Value statesOf(const std::vector<Settings>& channels)
{
    Json::Value array(Json::arrayValue);
    for (const Settings& channel : channels)
        array.append(channel.state());
    return array;
}

}  // namespace

DeviceSettings::DeviceSettings(const Options& options)
    : videos(options.channels, VideoSettings(options)),
      images(options.channels),
      audios(options.kind == Kind::recorder ? options.channels : 1, AudioInput(options.microphoneMuted))
{}

Json::Value DeviceSettings::state() const
{
    Json::Value state(Json::objectValue);
    state["video"] = statesOf(videos);
    state["image"] = statesOf(images);
    state["audio"] = statesOf(audios);
    return state;
}

}  // namespace simulator

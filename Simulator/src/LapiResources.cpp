#include "LapiResources.h"

#include "ChannelRoute.h"
#include "LapiEnvelope.h"
#include "Replies.h"

namespace simulator
{
namespace
{

void addIdentification(Router& router, const DeviceState& state, bool pluralPorts)
{
    router.add("GET", pluralPorts ? "/LAPI/V1.0/Network/Ports" : "/LAPI/V1.0/Network/Port",
               [&state](const Call&) { return withData(state.portInformation()); });
    router.add("GET", "/LAPI/V1.0/System/DeviceInfo",
               [&state](const Call&) { return withData(state.deviceInformation()); });
}

void addVideo(Router& router, const DeviceState& state)
{
    router.add(
        "GET", "/LAPI/V1.0/Channel/{}/Media/Video/Streams/DetailInfos",
        forChannel(state, [&state](const Call&, unsigned channel) { return withData(state.videoStreams(channel)); }));
}

void addAudio(Router& router, DeviceState& state)
{
    const auto get = [&state](const Call&, unsigned channel) { return withData(state.audioInput(channel)); };
    const auto put = [&state](const Call& call, unsigned channel) {
        const auto change = parseJson(call.body);
        if (!change)
            return invalidArguments("the body is no JSON");
        const auto problem = state.changeAudioInput(channel, *change);
        return problem ? invalidArguments(*problem) : Reply{};
    };
    // A recorder has a microphone for each of its channels, a camera has one, whatever its channels.
    if (state.kind() == Kind::recorder) {
        constexpr auto path = "/LAPI/V1.0/Channels/{}/Media/Audio/Input";
        router.add("GET", path, forChannel(state, get));
        router.add("PUT", path, forChannel(state, put));
    } else {
        constexpr auto path = "/LAPI/V1.0/Media/Audio/Input";
        router.add("GET", path, [get](const Call& call) { return get(call, 0); });
        router.add("PUT", path, [put](const Call& call) { return put(call, 0); });
    }
}

}  // namespace

void addLapiResources(Router& router, DeviceState& state, bool pluralPorts)
{
    addIdentification(router, state, pluralPorts);
    addVideo(router, state);
    addAudio(router, state);
}

}  // namespace simulator

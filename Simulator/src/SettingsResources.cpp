#include "SettingsResources.h"

#include "ChannelRoute.h"
#include "LapiEnvelope.h"
#include "Replies.h"

#include <array>
#include <memory>
#include <utility>

namespace simulator
{
namespace
{

struct Shared {
    const DeviceState& state;
    DeviceSettings& settings;
    const SettingsEffects effects;
};
using SharedPointer = std::shared_ptr<const Shared>;

/// Runs `write` with the document in the body, and answers with what it finds wrong.
template <typename Write>
Reply writeBody(const Call& call, Write&& write)
{
    const auto body = parseJson(call.body);
    if (!body)
        return invalidArguments("the body is no JSON");
    const std::optional<std::string> problem = write(*body);
    return problem ? invalidArguments(*problem) : Reply{};
}

std::array<StreamEncoding, servedStreams> encodingsOf(const VideoSettings& video)
{
    std::array<StreamEncoding, servedStreams> encodings;
    for (unsigned stream = 0; stream < servedStreams; ++stream)
        encodings[stream] = video.encoding(stream);
    return encodings;
}

Reply writeVideo(const SharedPointer& shared, const Call& call, unsigned channel)
{
    VideoSettings& video = shared->settings.video(channel);
    const auto before = encodingsOf(video);
    Reply reply =
        writeBody(call, [&](const Json::Value& body) { return video.write(body, shared->effects.refuseEncoding); });
    const auto after = encodingsOf(video);
    if (after != before && shared->effects.encode)
        reply.afterwards = [shared, channel, before, after] {
            for (unsigned stream = 0; stream < servedStreams; ++stream)
                if (after[stream] != before[stream])
                    shared->effects.encode(channel, stream, after[stream]);
        };
    return reply;
}

Reply writeImage(const SharedPointer& shared, std::string_view resource, const Call& call, unsigned channel)
{
    ImageSettings& image = shared->settings.image(channel);
    const PictureLook before = image.look();
    Reply reply = writeBody(call, [&](const Json::Value& body) { return image.write(resource, body); });
    if (image.look() != before && shared->effects.show)
        shared->effects.show(channel, image.look());
    return reply;
}

Reply writeAudio(const SharedPointer& shared, const Call& call, unsigned channel)
{
    AudioInput& audio = shared->settings.audio(channel);
    const Microphone before = audio.microphone();
    Reply reply = writeBody(call, [&](const Json::Value& body) { return audio.write(body); });
    if (audio.microphone() != before && shared->effects.hear)
        shared->effects.hear(channel, audio.microphone());
    return reply;
}

void addVideo(Router& router, const SharedPointer& shared)
{
    constexpr auto path = "/LAPI/V1.0/Channel/{}/Media/Video/Streams/DetailInfos";
    router.add("GET", path, forChannel(shared->state, [shared](const Call&, unsigned channel) {
                   return withData(shared->settings.video(channel).data());
               }));
    router.add("PUT", path, forChannel(shared->state, [shared](const Call& call, unsigned channel) {
                   return writeVideo(shared, call, channel);
               }));
}

void addImage(Router& router, const SharedPointer& shared, std::string_view resource)
{
    const std::string path = "/LAPI/V1.0/Channels/{}/" + std::string(resource);
    router.add("GET", path, forChannel(shared->state, [shared, resource](const Call&, unsigned channel) {
                   return withData(shared->settings.image(channel).data(resource));
               }));
    router.add("PUT", path, forChannel(shared->state, [shared, resource](const Call& call, unsigned channel) {
                   return writeImage(shared, resource, call, channel);
               }));
}

void addAudio(Router& router, const SharedPointer& shared)
{
    const auto get = [shared](const Call&, unsigned channel) {
        return withData(shared->settings.audio(channel).data());
    };
    const auto put = [shared](const Call& call, unsigned channel) { return writeAudio(shared, call, channel); };
    if (shared->state.kind() == Kind::recorder) {
        constexpr auto path = "/LAPI/V1.0/Channels/{}/Media/Audio/Input";
        router.add("GET", path, forChannel(shared->state, get));
        router.add("PUT", path, forChannel(shared->state, put));
    } else {
        constexpr auto path = "/LAPI/V1.0/Media/Audio/Input";
        router.add("GET", path, [get](const Call& call) { return get(call, 0); });
        router.add("PUT", path, [put](const Call& call) { return put(call, 0); });
    }
}

}  // namespace

void addSettingsResources(Router& router, const DeviceState& state, DeviceSettings& settings, SettingsEffects effects)
{
    const SharedPointer shared = std::make_shared<const Shared>(Shared{state, settings, std::move(effects)});
    addAudio(router, shared);
    if (state.kind() == Kind::recorder)
        return addImage(router, shared, ImageSettings::enhance);
    addVideo(router, shared);
    for (const std::string_view resource : ImageSettings::resources())
        addImage(router, shared, resource);
}

}  // namespace simulator

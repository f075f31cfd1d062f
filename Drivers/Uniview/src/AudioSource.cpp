#include "AudioSource.h"

#include "ObjectName.h"

#include <Tavro8/ResultCode.h>
#include <stdexcept>
#include <utility>

template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IAudioSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IAudioSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IAudioSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverAudioSource<Uniview::Device>;

namespace Uniview
{
namespace
{
/// The stream whose connection the sound shares: the parameter `stream`, else the main stream.
std::uint32_t sharedStream(const Tavro8::ParameterMap& parameters)
{
    const auto found = parameters.find("stream");
    if (found == parameters.end())
        return 0;
    const int stream = boost::any_cast<int>(found->second);
    if (stream < 0)
        throw std::out_of_range("the parameter \"stream\" is negative");
    return static_cast<std::uint32_t>(stream);
}
}  // namespace

Tavro8::GDRV::IAudioSource* AudioSource::create(Device* device, std::uint32_t channel,
                                                Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                                Tavro8::GDRV::IMediaFrameHandler* frames,
                                                const Tavro8::ParameterMap& parameters, Tavro8::IContract* parent)
{
    Tavro8::Utility::LiveSourceContext context;
    context.frames = frames;
    context.parameters = parameters;
    context.objectName = audioObjectName(channel);
    context.channel = channel;
    context.stream = sharedStream(parameters);
    const auto source = std::make_shared<AudioSource>(device, handler, parent, std::move(context));
    source->adopt();
    return source.get();
}

std::int32_t AudioSource::ApplySettings(const Tavro8::ParameterMap&) noexcept
{
    return toResult(Tavro8::ResultCode::notSupported);
}
}  // namespace Uniview

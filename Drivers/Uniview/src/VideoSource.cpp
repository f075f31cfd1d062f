#include "VideoSource.h"

#include "ObjectName.h"

#include <Tavro8/ResultCode.h>
#include <utility>

template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IVideoSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IVideoSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IVideoSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverVideoSource<Uniview::Device>;

namespace Uniview
{
Tavro8::GDRV::IVideoSource* VideoSource::create(Device* device, std::uint32_t channel, std::uint32_t stream,
                                                Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                                Tavro8::GDRV::IMediaFrameHandler* frames,
                                                const Tavro8::ParameterMap& parameters, Tavro8::IContract* parent)
{
    Tavro8::Utility::LiveSourceContext context;
    context.frames = frames;
    context.parameters = parameters;
    context.objectName = videoObjectName(channel, stream);
    context.channel = channel;
    context.stream = stream;
    const auto source = std::make_shared<VideoSource>(device, handler, parent, std::move(context));
    source->adopt();
    return source.get();
}

std::int32_t VideoSource::ApplySettings(const Tavro8::ParameterMap&) noexcept
{
    return toResult(Tavro8::ResultCode::notSupported);
}
}  // namespace Uniview

#include "LiveStream.h"

#include "Console.h"
#include "DeviceSession.h"
#include "ExitStatus.h"

#include <Tavro8/ResultCode.h>
#include <utility>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
/// Stopping says good-bye to the device, which may not answer any more.
constexpr std::chrono::seconds stopTimeout{10};

Tavro8::ParameterMap parametersOf(const LiveStream::Request& request)
{
    return {{"transport", request.transport}, {"stream", static_cast<int>(request.stream)}};
}

bool succeeded(std::int32_t result) noexcept
{
    return result == Tavro8::toResult(Tavro8::ResultCode::success);
}
}  // namespace

LiveStream::LiveStream(GDRV::IDevice& device, const Request& request, Monitor& sharedMonitor, Console& userConsole,
                       FrameQueue* queue)
    : monitor(sharedMonitor),
      console(userConsole),
      videoReceiver(sharedMonitor, queue),
      audioReceiver(sharedMonitor, queue)
{
    createVideo(device, request);
    if (request.sound)
        createAudio(device, request);
}

void LiveStream::createVideo(GDRV::IDevice& device, const Request& request)
{
    const std::int32_t result =
        device.CreateVideoSource(request.channel, request.stream, videoReceiver.getChannelHandler(),
                                 videoReceiver.getFrameHandler(), parametersOf(request), nullptr, &video);
    if (!succeeded(result) || video == nullptr)
        throw Failure(ExitStatus::failed,
                      failureSentence("channel " + std::to_string(request.channel) + " stream " +
                                          std::to_string(request.stream) + " cannot be received",
                                      result),
                      result);
}

void LiveStream::createAudio(GDRV::IDevice& device, const Request& request)
{
    Tavro8::ParameterMap parameters = parametersOf(request);
    parameters.insert(request.soundChoice.begin(), request.soundChoice.end());
    const std::int32_t result = device.CreateAudioSource(request.channel, audioReceiver.getChannelHandler(),
                                                         audioReceiver.getFrameHandler(), parameters, nullptr, &audio);
    if (!succeeded(result))
        console.line(failureSentence("going on without sound", result));
}

LiveStream::~LiveStream()
{
    requestStop();
    awaitStop();
    if (audio != nullptr)
        audio->Destroy();
    video->Destroy();
}

void LiveStream::start()
{
    running = true;
    // Sound first, so that it is there when the first picture comes.
    if (audio != nullptr)
        audio->Start();
    video->Start();
}

void LiveStream::requestStop()
{
    if (!std::exchange(running, false))
        return;
    video->Stop();
    if (audio != nullptr)
        audio->Stop();
}

void LiveStream::awaitStop()
{
    const auto bothStopped = [this] { return videoReceiver.isStopped() && audioReceiver.isStopped(); };
    if (!monitor.wait({}, Monitor::Clock::now() + stopTimeout, bothStopped))
        console.line("the module did not report the end of a stream in time");
}
}  // namespace Host
